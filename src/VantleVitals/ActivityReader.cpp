#include "VantleVitals/ActivityReader.h"

#include "Platform/DirectoryReader.h"
#include "Platform/UniqueFd.h"

#include <algorithm>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

namespace vantle {

namespace {

bool allDigits(std::string_view s) {
    return !s.empty() && std::ranges::all_of(s, [](char c) { return c >= '0' && c <= '9'; });
}

std::string baseName(std::string_view path) {
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::optional<std::string> linkTarget(int dirFd, const char* name) {
    char buffer[4096];
    auto n = ::readlinkat(dirFd, name, buffer, sizeof buffer);
    if (n <= 0 || size_t(n) >= sizeof buffer) return std::nullopt;
    std::string target(buffer, size_t(n));
    // An executable replaced on disk (an upgrade) still runs; the kernel marks its old path.
    if (target.ends_with(" (deleted)")) target.resize(target.size() - 10);
    return target;
}

// The program an Exec= line runs: its first word, past an "env VAR=value" prefix, without quotes.
std::optional<std::string> programOf(std::string_view exec) {
    std::vector<std::string> words;
    std::string word;
    bool quoted = false;
    for (char c : exec) {
        if (c == '"')
            quoted = !quoted;
        else if (c == ' ' && !quoted) {
            if (!word.empty()) words.push_back(std::exchange(word, {}));
        } else
            word += c;
    }
    if (!word.empty()) words.push_back(word);
    size_t i = 0;
    if (i < words.size() && baseName(words[i]) == "env") {
        ++i;
        while (i < words.size() && (words[i].find('=') != std::string::npos || words[i].starts_with("-")))
            ++i;
    }
    if (i >= words.size()) return std::nullopt;
    return baseName(words[i]);
}

struct Found {
    ProcessRow row;
    std::uint64_t cpuTicks = 0;
    std::uint64_t startTicks = 0;
    std::optional<std::uint64_t> switches;
    std::optional<procfs::ProcessIo> io;
    std::optional<std::string> exeName;
};

} // namespace

ActivityReader::ActivityReader(Options options) : options_(std::move(options)) {
    if (options_.ticksPerSecond <= 0) options_.ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    if (options_.pageBytes <= 0) options_.pageBytes = ::sysconf(_SC_PAGESIZE);
}

std::string ActivityReader::userName(std::uint32_t uid) {
    if (auto it = userNames_.find(uid); it != userNames_.end()) return it->second;
    passwd entry{}, *result = nullptr;
    char buffer[4096];
    std::string name = std::to_string(uid); // a user with no account entry is shown by number
    if (::getpwuid_r(uid, &entry, buffer, sizeof buffer, &result) == 0 && result && result->pw_name)
        name = result->pw_name;
    return userNames_[uid] = name;
}

ActivitySample ActivityReader::read(const ActivityNeeds&) {
    std::lock_guard lock(mutex_);
    auto now = options_.clock();
    double elapsed = previousAt_ ? std::chrono::duration<double>(now - *previousAt_).count() : 0;
    const double hz = double(options_.ticksPerSecond);

    auto stat = procfs::parseStat(procfs::readText(options_.procRoot / "stat").value_or(""));
    std::vector<Found> found;
    UniqueFd proc(::open(options_.procRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (proc) {
        DirectoryReader entries(proc.get());
        DirectoryReader::Entry entry;
        while (entries.next(entry)) {
            if (!allDigits(entry.name)) continue;
            std::string name(entry.name);
            UniqueFd dir(::openat(proc.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
            if (!dir) continue; // gone between the listing and now
            auto ps = procfs::parseProcessStat(procfs::readTextAt(dir.get(), "stat").value_or(""));
            if (!ps) continue;
            auto status = procfs::parseProcessStatus(procfs::readTextAt(dir.get(), "status").value_or(""));
            Found f;
            auto& r = f.row;
            r.pid = ps->pid;
            r.parent = ps->parent;
            r.name = ps->name;
            r.cpuSeconds = double(ps->userTicks + ps->systemTicks) / hz;
            r.threads = ps->threads;
            r.realMemory =
                status.residentBytes.value_or(ps->residentPages * std::uint64_t(options_.pageBytes));
            // Footprint: what the process made for itself, in memory or swapped out. Unknown (0)
            // where the kernel gives no split, and the resident size stands in for it.
            if (status.anonymousBytes) r.memory = *status.anonymousBytes + status.swappedBytes.value_or(0);
            auto uid = status.uid.value_or(0);
            r.user = userName(uid);
            r.isOwn = status.uid && uid == options_.user;
            r.kind = ps->kernelThread || uid < firstPersonUid || uid == nobodyUid ? ProcessKind::system
                                                                                  : ProcessKind::background;
            if (stat.bootTime)
                r.started = TimePoint(std::chrono::seconds(*stat.bootTime)) +
                            std::chrono::duration_cast<TimePoint::duration>(
                                std::chrono::duration<double>(double(ps->startTicks) / hz));
            if (!ps->kernelThread) {
                r.path = linkTarget(dir.get(), "exe"); // readable for our own processes only
                if (r.path) f.exeName = baseName(*r.path);
            }
            f.cpuTicks = ps->userTicks + ps->systemTicks;
            f.startTicks = ps->startTicks;
            f.switches = status.voluntarySwitches;
            f.io = procfs::parseProcessIo(procfs::readTextAt(dir.get(), "io").value_or(""));
            if (f.io) {
                r.diskReadTotal = f.io->readBytes;
                r.diskWrittenTotal = f.io->writtenBytes;
            }
            found.push_back(std::move(f));
        }
    }

    // Shares and rates against the previous read of the same process (same pid and start time).
    std::map<std::int32_t, Seen> seen;
    for (auto& f : found) {
        auto& r = f.row;
        auto before = previous_.find(r.pid);
        if (elapsed > 0 && before != previous_.end() && before->second.startTicks == f.startTicks) {
            const auto& b = before->second;
            if (f.cpuTicks >= b.cpuTicks)
                r.cpuPercent = 100.0 * double(f.cpuTicks - b.cpuTicks) / hz / elapsed;
            if (f.switches && b.switches && *f.switches >= *b.switches)
                r.idleWakeups = double(*f.switches - *b.switches) / elapsed;
            if (f.io && b.io) {
                if (f.io->readBytes >= b.io->readBytes)
                    r.diskReadPerSecond = double(f.io->readBytes - b.io->readBytes) / elapsed;
                if (f.io->writtenBytes >= b.io->writtenBytes)
                    r.diskWrittenPerSecond = double(f.io->writtenBytes - b.io->writtenBytes) / elapsed;
            }
        }
        // Without a power meter per process the processor share is the best guide to energy use.
        r.energyImpact = r.cpuPercent;
        seen[r.pid] = {f.startTicks, f.cpuTicks, f.switches, f.io};
    }

    // Apps: our own processes whose program a desktop entry runs, and their own descendants.
    std::map<std::int32_t, size_t> byPid;
    for (size_t i = 0; i < found.size(); ++i)
        byPid[found[i].row.pid] = i;
    auto appOf = [&](const Found& f) -> const App* {
        for (auto key : {f.exeName, std::optional<std::string>(f.row.name)}) {
            if (!key) continue;
            if (auto it = options_.apps.find(*key); it != options_.apps.end()) return &it->second;
        }
        return nullptr;
    };
    for (auto& f : found) {
        if (!f.row.isOwn) continue;
        const Found* at = &f;
        for (int depth = 0; at && depth < 64; ++depth) { // a pid loop cannot keep us here
            if (const App* app = appOf(*at)) {
                f.row.app = app->name;
                f.row.bundleID = app->id;
                f.row.kind = ProcessKind::app;
                break;
            }
            auto parent = byPid.find(at->row.parent);
            at = parent != byPid.end() && found[parent->second].row.isOwn ? &found[parent->second] : nullptr;
        }
    }

    ActivitySample sample;
    auto& t = sample.totals;
    t.date = now;
    if (stat.all && previousCpu_ && stat.all->total() > previousCpu_->total()) {
        double span = double(stat.all->total() - previousCpu_->total());
        t.cpu = procfs::busyBetween(*previousCpu_, *stat.all);
        if (stat.all->user >= previousCpu_->user)
            t.cpuUser = double(stat.all->user - previousCpu_->user) / span;
        if (stat.all->system >= previousCpu_->system)
            t.cpuSystem = double(stat.all->system - previousCpu_->system) / span;
    } else if (stat.all && stat.all->total() > 0) {
        t.cpu = procfs::busyBetween({}, *stat.all);
        t.cpuUser = double(stat.all->user) / double(stat.all->total());
        t.cpuSystem = double(stat.all->system) / double(stat.all->total());
    }
    auto memory = procfs::readMemory(options_.procRoot, options_.sysRoot);
    t.memoryUsed = memory.usedBytes;
    t.memoryTotal = memory.totalBytes;
    t.compressed = memory.compressedBytes;
    t.swapUsed = memory.swapUsedBytes;
    t.pressure = memory.pressure;
    sample.rows.reserve(found.size());
    for (auto& f : found) {
        t.diskReadPerSecond += f.row.diskReadPerSecond;
        t.diskWrittenPerSecond += f.row.diskWrittenPerSecond;
        t.threads += f.row.threads;
        sample.rows.push_back(std::move(f.row));
    }
    t.processes = std::int32_t(sample.rows.size());

    previous_ = std::move(seen);
    previousAt_ = now;
    if (stat.all) previousCpu_ = stat.all;
    return sample;
}

std::map<std::string, ActivityReader::App, std::less<>>
ActivityReader::installedApps(const std::vector<std::filesystem::path>& folders) {
    std::map<std::string, App, std::less<>> apps;
    for (const auto& folder : folders) {
        std::error_code ec;
        for (auto& file : std::filesystem::directory_iterator(folder, ec)) {
            if (file.path().extension() != ".desktop") continue;
            auto text = procfs::readText(file.path());
            if (!text) continue;
            std::optional<std::string> name, program;
            bool inEntry = false, hidden = false, application = true;
            std::string_view rest = *text;
            while (!rest.empty()) {
                auto end = rest.find('\n');
                auto line = rest.substr(0, end);
                rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
                if (line.starts_with('[')) {
                    inEntry = line.starts_with("[Desktop Entry]");
                    continue;
                }
                if (!inEntry) continue;
                if (line.starts_with("Name=") && !name)
                    name = std::string(line.substr(5));
                else if (line.starts_with("Exec="))
                    program = programOf(line.substr(5));
                else if (line == "Hidden=true" || line == "NoDisplay=true")
                    hidden = true;
                else if (line.starts_with("Type="))
                    application = line == "Type=Application";
            }
            if (!name || !program || hidden || !application) continue;
            apps[*program] = {*name, file.path().stem().string()};
        }
    }
    return apps;
}

} // namespace vantle
