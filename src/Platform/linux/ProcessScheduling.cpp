#include "Platform/ProcessScheduling.h"

#include "Platform/AtomicFile.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <linux/ioprio.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

std::vector<int> threadsOf(int pid, const fs::path& proc, int& error) {
    std::vector<int> tids;
    std::error_code ec;
    for (fs::directory_iterator it(proc / std::to_string(pid) / "task", ec), end; !ec && it != end;
         it.increment(ec)) {
        int tid = 0;
        auto name = it->path().filename().string();
        if (std::from_chars(name.data(), name.data() + name.size(), tid).ec == std::errc())
            tids.push_back(tid);
    }
    error = ec ? (ec.value() == ENOENT ? ESRCH : ec.value()) : (tids.empty() ? ESRCH : 0);
    return tids;
}

std::expected<ThreadSchedule, int> readThread(int tid) {
    ThreadSchedule t{.tid = tid};
    t.policy = ::sched_getscheduler(tid);
    if (t.policy < 0) return std::unexpected(errno);
    t.policy &= ~SCHED_RESET_ON_FORK;
    sched_param param{};
    if (::sched_getparam(tid, &param) != 0) return std::unexpected(errno);
    t.priority = param.sched_priority;
    errno = 0;
    t.nice = ::getpriority(PRIO_PROCESS, id_t(tid));
    if (errno != 0) return std::unexpected(errno);
    t.ioPriority = int(::syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, tid));
    if (t.ioPriority < 0) return std::unexpected(errno);
    t.cpus = affinityOf(tid);
    return t;
}

std::expected<void, int> setAffinity(int tid, const std::vector<int>& cpus) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu : cpus)
        if (cpu >= 0 && cpu < CPU_SETSIZE) CPU_SET(cpu, &set);
    if (::sched_setaffinity(tid, sizeof set, &set) != 0) return std::unexpected(errno);
    return {};
}

} // namespace

std::vector<int> parseCpuList(std::string_view text) {
    std::vector<int> out;
    while (!text.empty()) {
        auto comma = text.find(',');
        auto part = text.substr(0, comma);
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
        while (!part.empty() && (part.back() == '\n' || part.back() == ' '))
            part.remove_suffix(1);
        if (part.empty()) continue;
        int first = 0, last = 0;
        auto dash = part.find('-');
        auto a = part.substr(0, dash);
        if (std::from_chars(a.data(), a.data() + a.size(), first).ec != std::errc()) return {};
        last = first;
        if (dash != std::string_view::npos) {
            auto b = part.substr(dash + 1);
            if (std::from_chars(b.data(), b.data() + b.size(), last).ec != std::errc() || last < first)
                return {};
        }
        if (last - first > 4096) return {};
        for (int cpu = first; cpu <= last; ++cpu)
            out.push_back(cpu);
    }
    return out;
}

std::vector<int> efficiencyCores(const fs::path& sys) {
    auto text = readWholeFile(sys / "devices/cpu_atom/cpus");
    return text ? parseCpuList(*text) : std::vector<int>{};
}

std::expected<ProcessIdentity, int> processIdentity(int pid, const fs::path& proc) {
    auto folder = proc / std::to_string(pid);
    auto stat = readWholeFile(folder / "stat");
    if (!stat) return std::unexpected(stat.error() == ENOENT ? ESRCH : stat.error());
    // The command name may hold spaces and parentheses: the fields start after the last ')'.
    auto close = stat->rfind(')');
    if (close == std::string::npos) return std::unexpected(EIO);
    std::string_view rest(*stat);
    rest.remove_prefix(close + 2);
    // After ')' come state (field 3) ... starttime (field 22): 19 fields on.
    for (int field = 3; field < 22; ++field) {
        auto space = rest.find(' ');
        if (space == std::string_view::npos) return std::unexpected(EIO);
        rest.remove_prefix(space + 1);
    }
    ProcessIdentity id;
    if (std::from_chars(rest.data(), rest.data() + rest.size(), id.startTicks).ec != std::errc())
        return std::unexpected(EIO);
    // The real user id from status: the folder's owner turns to root once a process changed user.
    auto status = readWholeFile(folder / "status");
    if (!status) return std::unexpected(status.error() == ENOENT ? ESRCH : status.error());
    auto uid = status->find("\nUid:");
    if (uid == std::string::npos) return std::unexpected(EIO);
    std::string_view line(*status);
    line.remove_prefix(uid + 5);
    while (!line.empty() && (line.front() == '\t' || line.front() == ' '))
        line.remove_prefix(1);
    if (std::from_chars(line.data(), line.data() + line.size(), id.owner).ec != std::errc())
        return std::unexpected(EIO);
    return id;
}

std::expected<ProcessSchedule, int> readSchedule(int pid, const fs::path& proc) {
    int error = 0;
    auto tids = threadsOf(pid, proc, error);
    if (error) return std::unexpected(error);
    ProcessSchedule schedule{.pid = pid};
    for (int tid : tids) {
        auto thread = readThread(tid);
        if (!thread) {
            if (thread.error() == ESRCH) continue; // that thread ended while being read
            return std::unexpected(thread.error());
        }
        schedule.threads.push_back(std::move(*thread));
    }
    if (schedule.threads.empty()) return std::unexpected(ESRCH);
    return schedule;
}

std::expected<void, int> moveToBackground(int pid, const std::vector<int>& cpus, const fs::path& proc) {
    int error = 0;
    auto tids = threadsOf(pid, proc, error);
    if (error) return std::unexpected(error);
    int moved = 0;
    for (int tid : tids) {
        sched_param param{};
        if (::sched_setscheduler(tid, SCHED_IDLE, &param) != 0) {
            if (errno == ESRCH) continue;
            return std::unexpected(errno);
        }
        if (::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, tid, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0)) !=
                0 &&
            errno != ESRCH)
            return std::unexpected(errno);
        if (!cpus.empty())
            if (auto pinned = setAffinity(tid, cpus); !pinned && pinned.error() != ESRCH)
                return std::unexpected(pinned.error());
        ++moved;
    }
    if (moved == 0) return std::unexpected(ESRCH);
    return {};
}

std::expected<void, int> restoreSchedule(const ProcessSchedule& before) {
    int restored = 0;
    for (const auto& t : before.threads) {
        sched_param param{};
        param.sched_priority = t.priority;
        if (::sched_setscheduler(t.tid, t.policy, &param) != 0) {
            if (errno == ESRCH) continue;
            return std::unexpected(errno);
        }
        if (::setpriority(PRIO_PROCESS, id_t(t.tid), t.nice) != 0 && errno != ESRCH)
            return std::unexpected(errno);
        if (::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, t.tid, t.ioPriority) != 0 && errno != ESRCH)
            return std::unexpected(errno);
        if (auto pinned = setAffinity(t.tid, t.cpus); !pinned && pinned.error() != ESRCH)
            return std::unexpected(pinned.error());
        ++restored;
    }
    if (restored == 0) return std::unexpected(ESRCH);
    return {};
}

std::expected<void, int> askToQuit(int pid) {
    if (pid <= 1) return std::unexpected(EPERM);
    if (::kill(pid, SIGTERM) != 0) return std::unexpected(errno);
    return {};
}

bool processRuns(int pid, const fs::path& proc) {
    auto stat = readWholeFile(proc / std::to_string(pid) / "stat");
    if (!stat) return false;
    auto close = stat->rfind(')');
    return close != std::string::npos && close + 2 < stat->size() && (*stat)[close + 2] != 'Z' &&
           (*stat)[close + 2] != 'X';
}

int schedulingPolicyOf(int tid) {
    int policy = ::sched_getscheduler(tid);
    return policy < 0 ? policy : (policy & ~SCHED_RESET_ON_FORK);
}

int ioPriorityOf(int tid) {
    return int(::syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, tid));
}

std::vector<int> affinityOf(int tid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> cpus;
    if (::sched_getaffinity(tid, sizeof set, &set) != 0) return cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
    return cpus;
}

} // namespace vantle
