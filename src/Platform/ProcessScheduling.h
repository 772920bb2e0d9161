// Reading and changing how the kernel schedules another process's threads: policy, nice value,
// disk priority and the processors each thread may run on. Moving a process to the background gives
// every thread SCHED_IDLE and the idle I/O class (and, where given, pins it to the efficiency cores);
// putting it back restores exactly what was read. Also the process's identity (start time, owner)
// and asking it to quit. Free functions and plain values; thread-safe.
#pragma once
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace vantle {

struct ThreadSchedule {
    int tid = 0;
    int policy = 0;   // SCHED_OTHER, SCHED_BATCH, SCHED_IDLE, ...
    int priority = 0; // the real-time priority (0 for the normal policies)
    int nice = 0;
    int ioPriority = 0;    // class and level packed, as ioprio_get gives it
    std::vector<int> cpus; // the processors it may run on
    bool operator==(const ThreadSchedule&) const = default;
};

struct ProcessSchedule {
    int pid = 0;
    std::vector<ThreadSchedule> threads;
    bool operator==(const ProcessSchedule&) const = default;
};

struct ProcessIdentity {
    std::uint64_t startTicks = 0; // field 22 of /proc/<pid>/stat: with the pid, who the process is
    unsigned owner = 0;           // its real user id
    bool operator==(const ProcessIdentity&) const = default;
};

// The error of each call is the errno (ESRCH when the process ended, EPERM/EACCES when not allowed).
std::expected<ProcessIdentity, int> processIdentity(int pid, const std::filesystem::path& proc = "/proc");
std::expected<ProcessSchedule, int> readSchedule(int pid, const std::filesystem::path& proc = "/proc");
// Every thread to SCHED_IDLE and the idle I/O class; pinned to `cpus` when not empty.
std::expected<void, int> moveToBackground(int pid, const std::vector<int>& cpus,
                                          const std::filesystem::path& proc = "/proc");
// Back to what `before` read, thread by thread; threads that ended meanwhile are passed over.
std::expected<void, int> restoreSchedule(const ProcessSchedule& before);

// The efficiency cores of a hybrid processor (`cpu_atom/cpus`), empty where there are none.
std::vector<int> efficiencyCores(const std::filesystem::path& sys = "/sys");
// Parses a kernel CPU list such as "0-3,8,10-11".
std::vector<int> parseCpuList(std::string_view text);

// Asks a process to end as its own Quit would (SIGTERM, never SIGKILL).
std::expected<void, int> askToQuit(int pid);
// Whether the process still runs (a zombie counts as ended).
bool processRuns(int pid, const std::filesystem::path& proc = "/proc");

// One thread's values as the kernel reports them (for checks).
int schedulingPolicyOf(int tid);
int ioPriorityOf(int tid);
std::vector<int> affinityOf(int tid);

} // namespace vantle
