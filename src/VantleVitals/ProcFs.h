// Readers of the kernel's text files under /proc and /sys, for the vitals sampler and the activity
// reader. Each parser takes the file's text and gives what it could make of it: a field that is
// missing or odd is left out, never an error. Pure functions; safe from any thread.
#pragma once
#include "VantleSpec/VitalsRecords.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle::procfs {

// The whole file, or nothing when it cannot be read (missing, no permission, a folder).
std::optional<std::string> readText(const std::filesystem::path& file);
// The file relative to an open folder, read without following a link at its name.
std::optional<std::string> readTextAt(int dirFd, const char* name);
// The first line, trimmed; nothing when the file is unreadable or empty.
std::optional<std::string> readLine(const std::filesystem::path& file);
// The file's first whitespace-separated word as a number.
std::optional<std::int64_t> readNumber(const std::filesystem::path& file);

// Processor time in clock ticks, split the way the score and the activity totals need it.
struct CpuTimes {
    std::uint64_t user = 0;   // user and nice
    std::uint64_t system = 0; // system, irq and softirq
    std::uint64_t idle = 0;   // idle and iowait
    std::uint64_t other = 0;  // steal: time the host gave to someone else
    std::uint64_t total() const { return user + system + idle + other; }
    std::uint64_t busy() const { return user + system + other; }
};

// Busy fraction between two readings of the same counters; 0 when no time passed or the counters
// went back (a restarted guest, a core that came back online).
double busyBetween(const CpuTimes& before, const CpuTimes& after);

struct Stat {
    std::optional<CpuTimes> all;
    std::vector<std::pair<int, CpuTimes>> cores; // core number and its times, in the file's order
    std::optional<std::int64_t> bootTime;        // seconds since 1970
};
Stat parseStat(std::string_view text);

// "Key: value kB" lines, values turned into bytes where the file gives kB.
std::map<std::string, std::uint64_t, std::less<>> parseMeminfo(std::string_view text);

// Pressure stall information: the share of the last ten seconds some (or all) tasks waited, in percent.
struct Pressure {
    double someAvg10 = 0;
    double fullAvg10 = 0;
};
std::optional<Pressure> parsePressure(std::string_view text);

// "0-3,8,10-11" into the core numbers it lists; a malformed part is skipped.
std::vector<int> parseCpuList(std::string_view text);

struct InterfaceCounters {
    std::string name;
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
};
std::vector<InterfaceCounters> parseNetDev(std::string_view text);

struct DiskCounters {
    std::string name;
    std::uint64_t sectorsRead = 0; // 512-byte sectors whatever the device's own sector size
    std::uint64_t sectorsWritten = 0;
};
std::vector<DiskCounters> parseDiskstats(std::string_view text);

std::optional<double> parseUptime(std::string_view text);

// /proc/<pid>/stat. The name sits in parentheses and may itself hold spaces and parentheses.
struct ProcessStat {
    std::int32_t pid = 0;
    std::string name;
    char state = '?';
    std::int32_t parent = 0;
    std::uint64_t userTicks = 0;
    std::uint64_t systemTicks = 0;
    std::int32_t threads = 0;
    std::uint64_t startTicks = 0; // after boot
    std::uint64_t residentPages = 0;
    bool kernelThread = false;
};
std::optional<ProcessStat> parseProcessStat(std::string_view text);

// /proc/<pid>/status: the fields the activity list uses.
struct ProcessStatus {
    std::optional<std::uint32_t> uid; // the real user
    std::optional<std::uint64_t> residentBytes;
    std::optional<std::uint64_t> anonymousBytes;
    std::optional<std::uint64_t> swappedBytes;
    std::optional<std::uint64_t> voluntarySwitches;
};
ProcessStatus parseProcessStatus(std::string_view text);

// /proc/<pid>/io: bytes the process really read from and wrote to storage.
struct ProcessIo {
    std::uint64_t readBytes = 0;
    std::uint64_t writtenBytes = 0;
};
std::optional<ProcessIo> parseProcessIo(std::string_view text);

// Memory as the vitals show it, from meminfo, zswap's pool and any zram devices under `sysRoot`,
// with the pressure level from the kernel's stall information.
//   used       = MemTotal - MemAvailable (what cannot be given back without swapping)
//   app        = AnonPages (memory processes made for themselves)
//   wired      = KernelStack + PageTables + SUnreclaim + Unevictable (cannot be paged out)
//   compressed = Zswap + every zram device's mem_used_total
//   pressure   = critical when all tasks stalled >= 10 % or some >= 40 % of the last ten seconds,
//                warning when some stalled >= 10 %; without stall figures (older kernels, some
//                containers) critical under 5 % available and warning under 10 %.
VitalsSnapshot::Memory readMemory(const std::filesystem::path& procRoot,
                                  const std::filesystem::path& sysRoot);
VitalsSnapshot::Pressure pressureLevel(const std::optional<Pressure>& stall, std::uint64_t availableBytes,
                                       std::uint64_t totalBytes);

} // namespace vantle::procfs
