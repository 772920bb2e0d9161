#include "VantleLiteLive/LoadBalance.h"

#include "Platform/AtomicFile.h"
#include "VantleLiteLive/StandInRecord.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "VantleSpec/HealthScoreKeeper.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <thread>
#include <unistd.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

// Seconds are worth saying below a minute; from there on the shared wording, which also keeps an age
// read from a nonsense stand-in within what it can mean.
std::string ago(double seconds) {
    if (seconds >= 60) return durationWords(seconds);
    auto whole = seconds > 0 ? std::int64_t(seconds) : 0;
    return std::to_string(whole) + (whole == 1 ? " second" : " seconds");
}

// A systemd service's process lives in a ".service" cgroup; an app the user opened lives in an
// "app-….scope" or the session's scope.
std::optional<bool> startedByServiceManager(int pid, const fs::path& proc) {
    auto text = readWholeFile(proc / std::to_string(pid) / "cgroup");
    if (!text || text->empty()) return std::nullopt;
    auto last = text->find_last_not_of('\n');
    auto line = text->substr(0, last + 1);
    line = line.substr(line.rfind('/') == std::string::npos ? 0 : line.rfind('/') + 1);
    if (line.ends_with(".service") && !line.starts_with("app-")) return true;
    if (line.ends_with(".scope")) return false;
    return std::nullopt;
}

// When a task last started running on a processor, in the scheduler's clock (milliseconds), from
// the "se.exec_start" line of a /proc/<pid>/sched file.
std::optional<double> lastRanMs(const fs::path& schedFile) {
    auto text = readWholeFile(schedFile);
    if (!text) return std::nullopt;
    auto at = text->find("se.exec_start");
    if (at == std::string::npos) return std::nullopt;
    auto colon = text->find(':', at);
    if (colon == std::string::npos) return std::nullopt;
    char* end = nullptr;
    double ms = std::strtod(text->c_str() + colon + 1, &end);
    if (end == text->c_str() + colon + 1 || !std::isfinite(ms) || ms < 0) return std::nullopt;
    return ms;
}

// How long an app has not been used, as far as Linux can tell without the display server: the
// minutes since its main thread last ran. The main thread is the one the desktop's input reaches, so
// a person typing or clicking in the app wakes it at once; while it has not run at all, nobody has
// used the app. Apps whose main thread wakes for timers of their own look used: the signal only
// ever errs toward keeping an app open. "Now" in the same clock is when this process last started
// running, which is this very moment. Unknown where the kernel does not keep the file.
std::optional<double> minutesSinceMainThreadRan(int pid, const fs::path& proc) {
    auto then = lastRanMs(proc / std::to_string(pid) / "sched");
    auto now = lastRanMs(proc / "self/sched");
    if (!then || !now || *now < *then) return std::nullopt;
    return (*now - *then) / 60'000.0;
}

ProcessControls::Failure failureOf(int err) {
    if (err == ESRCH || err == ENOENT) return ProcessControls::Failure::gone;
    if (err == EPERM || err == EACCES) return ProcessControls::Failure::notAllowed;
    return ProcessControls::Failure::failed;
}

} // namespace

std::string_view sentenceOf(ProcessControls::Failure failure) {
    switch (failure) {
    case ProcessControls::Failure::gone:
        return "Nothing to put back: those processes have ended.";
    case ProcessControls::Failure::notAllowed:
        return "This machine did not allow the change.";
    case ProcessControls::Failure::failed:
        break;
    }
    return "macOS did not move it: it could not be moved";
}

LoadReading LoadReading::of(const ActivitySample& sample, const VitalsSnapshot& vitals, int ownPid,
                            const fs::path& proc) {
    LoadReading r;
    r.at = sample.totals.date;
    r.performance = vitals.cpu.performanceCores;
    r.efficiency = vitals.cpu.efficiencyCores;
    r.processor = vitals.cpu.total;
    for (auto kind : vitals.cpu.kinds) {
        if (kind == VitalsSnapshot::CoreKind::efficiency)
            ++r.efficiencyCores;
        else
            ++r.performanceCores;
    }
    if (vitals.cpu.kinds.empty()) r.performanceCores = int(vitals.cpu.perCore.size());
    r.memoryUsed = vitals.memory.usedBytes;
    r.memoryTotal = vitals.memory.totalBytes;
    r.pressure = vitals.memory.pressure;
    r.swapUsed = vitals.memory.swapUsedBytes;
    r.thermal = vitals.thermal;
    r.ownPid = ownPid;
    auto now = sample.totals.date;
    for (const auto& row : sample.rows) {
        LoadProcess p;
        p.pid = row.pid;
        p.name = row.name;
        p.command = row.name;
        p.path = row.path.value_or("");
        p.app = row.app;
        p.isMine = row.isOwn;
        p.cpuPercent = row.cpuPercent;
        p.memoryBytes = row.memory ? row.memory : row.realMemory;
        p.energyWatts = row.watts;
        p.isBackground = row.kind != ProcessKind::app;
        p.parent = row.parent;
        p.cpuSeconds = row.cpuSeconds;
        if (row.started) p.age = std::chrono::duration<double>(now - *row.started).count();
        // Only busy processes can become candidates; the rest are not worth the extra reads.
        if (p.cpuPercent >= BalanceRules::moveThreshold) {
            if (auto id = processIdentity(p.pid, proc)) p.started = id->startTicks;
            p.isLaunchdJob = startedByServiceManager(p.pid, proc);
        }
        if (row.kind == ProcessKind::app) {
            LoadApp a;
            a.name = row.app.value_or(row.name);
            a.pid = row.pid;
            a.started = p.started;
            a.bundle = p.path;
            a.bundleIdentifier = row.bundleID;
            a.memoryBytes = p.memoryBytes;
            a.cpuPercent = row.cpuPercent;
            a.keepsAwake = row.preventsSleep;
            // Only an app holding much memory can be offered for quitting; the rest need no look.
            if (a.memoryBytes >= BalanceRules::quitMemoryThreshold)
                a.unusedMinutes = minutesSinceMainThreadRan(a.pid, proc);
            if (!p.started)
                if (auto id = processIdentity(a.pid, proc)) a.started = id->startTicks;
            r.apps.push_back(std::move(a));
        }
        r.processes.push_back(std::move(p));
    }
    return r;
}

BalanceFound findCandidates(const LoadReading& reading) {
    BalanceFound found;
    int cores = std::max(1, reading.performanceCores + reading.efficiencyCores);
    for (const auto& p : reading.processes) {
        if (!p.isBackground || p.cpuPercent < BalanceRules::moveThreshold) continue;
        if (p.pid == 0 || p.pid == 1 || p.pid == reading.ownPid) continue;
        if (!p.isMine) continue; // another user's work is theirs to move
        if (p.path.find("/Vantle Lite.app/") != std::string::npos) continue;
        bool system = std::ranges::any_of(BalanceRules::systemPrefixes,
                                          [&](auto prefix) { return p.path.starts_with(prefix); });
        if (system && p.isLaunchdJob != false) continue;
        if (std::ranges::find(BalanceRules::neverMoved, p.name) != std::end(BalanceRules::neverMoved))
            continue;
        auto share = percent(p.cpuPercent / 100.0 / cores);
        // Busy like this since it started, or only now: the average since start tells them apart.
        // Where the start is not known (a sandbox's made-up processes) the busy share alone decides.
        bool known = p.age > 0;
        bool sustained =
            !known || (p.age >= 60 && p.cpuSeconds / p.age * 100.0 >= BalanceRules::moveThreshold);
        BalanceCandidate c{BalanceCandidate::Action::slow, {}, sustained, p.pid, p.started, p.name};
        static constexpr std::string_view keepsWorking =
            " On the efficiency cores it keeps working and leaves the fast ones to you.";
        if (!sustained)
            c.why =
                p.name + " uses " + share +
                " of the Mac right now, but not for long: it may be a moment's work, so it is not ticked.";
        else if (known)
            c.why = p.name + " uses " + share +
                    " of the Mac in the background, and busy like this since it started " + ago(p.age) +
                    " ago." + std::string(keepsWorking);
        else
            c.why = p.name + " uses " + share + " of the Mac in the background." + std::string(keepsWorking);
        found.candidates.push_back(std::move(c));
    }
    for (const auto& a : reading.apps) {
        if (a.isFront || a.pid == 0 || a.pid == 1 || a.pid == reading.ownPid) continue;
        if (a.bundleIdentifier) {
            std::string id = *a.bundleIdentifier;
            std::ranges::transform(id, id.begin(), [](unsigned char c) { return char(std::tolower(c)); });
            if (std::ranges::find(BalanceRules::neverQuit, id) != std::end(BalanceRules::neverQuit)) continue;
        }
        if (a.bundle.starts_with("/System/Library/") || a.keepsAwake) continue;
        if (!a.unusedMinutes || a.cpuPercent >= BalanceRules::quitProcessorLimit ||
            a.memoryBytes < BalanceRules::quitMemoryThreshold ||
            *a.unusedMinutes < BalanceRules::unusedMinutes)
            continue;
        bool recent = *a.unusedMinutes < BalanceRules::usedWithinMinutes;
        BalanceCandidate c{BalanceCandidate::Action::quit, {}, !recent, a.pid, a.started, a.name};
        c.why = a.name + " holds " + memoryBytes(std::int64_t(a.memoryBytes)) +
                " and has not been used for " + std::to_string(std::int64_t(*a.unusedMinutes)) + " minutes." +
                (recent ? " Used within the hour, so it is not ticked." : "");
        found.candidates.push_back(std::move(c));
    }
    if (found.candidates.empty())
        found.nothing = "Your Mac is balanced: nothing in the background is using much.";
    return found;
}

LinuxProcessControls::LinuxProcessControls(Options options) : options_(std::move(options)) {}

std::expected<void, ProcessControls::Failure> LinuxProcessControls::sameProcess(int pid,
                                                                                std::uint64_t started) const {
    auto id = processIdentity(pid, options_.proc);
    if (!id) return std::unexpected(failureOf(id.error()));
    if (id->startTicks != started) return std::unexpected(Failure::gone); // the pid names someone else now
    if (id->owner != options_.user) return std::unexpected(Failure::notAllowed);
    return {};
}

std::expected<void, ProcessControls::Failure> LinuxProcessControls::slow(const LoadProcess& process) {
    std::lock_guard lock(mutex_);
    if (auto same = sameProcess(process.pid, process.started); !same) return same;
    if (!options_.stillInBackground(process.pid)) return std::unexpected(Failure::notAllowed);
    auto before = readSchedule(process.pid, options_.proc);
    if (!before) return std::unexpected(failureOf(before.error()));
    // Kept before the change: a move that fails half-way is put back from this.
    saved_.try_emplace(process.pid, *before);
    if (auto moved = moveToBackground(process.pid, options_.efficiencyCores, options_.proc); !moved) {
        (void)restoreSchedule(saved_.at(process.pid));
        saved_.erase(process.pid);
        return std::unexpected(failureOf(moved.error()));
    }
    return {};
}

std::expected<void, ProcessControls::Failure> LinuxProcessControls::putBack(int pid) {
    std::lock_guard lock(mutex_);
    auto it = saved_.find(pid);
    if (it == saved_.end()) return std::unexpected(Failure::gone);
    auto restored = restoreSchedule(it->second);
    saved_.erase(it);
    if (!restored) return std::unexpected(failureOf(restored.error()));
    return {};
}

std::expected<bool, ProcessControls::Failure> LinuxProcessControls::quit(const LoadApp& app,
                                                                         std::chrono::milliseconds window) {
    {
        std::lock_guard lock(mutex_);
        if (auto same = sameProcess(app.pid, app.started); !same) return std::unexpected(same.error());
        if (auto asked = askToQuit(app.pid); !asked) return std::unexpected(failureOf(asked.error()));
    }
    // Never SIGKILL: an app still open after the window may be asking about unsaved work.
    auto deadline = std::chrono::steady_clock::now() + window;
    while (processRuns(app.pid, options_.proc)) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

StandInBalance::StandInBalance(fs::path dataFolder, Clock clock)
    : file_(std::move(dataFolder) / std::string(fileName)), clock_(std::move(clock)) {
    auto loaded = loadStandInRecord<Record>(file_);
    if (loaded.record) record_ = std::move(*loaded.record);
    note_ = std::move(loaded.note);
}

void StandInBalance::add(std::string act, int pid, std::string name) {
    record_.events.push_back({toMilliseconds(clock_()), std::move(act), pid, std::move(name)});
    saveStandInRecord(file_, record_);
}

std::expected<void, ProcessControls::Failure> StandInBalance::slow(const LoadProcess& process) {
    std::lock_guard lock(mutex_);
    moved_[process.pid] = process.name;
    add("slow", process.pid, process.name);
    return {};
}

std::expected<void, ProcessControls::Failure> StandInBalance::putBack(int pid) {
    std::lock_guard lock(mutex_);
    auto it = moved_.find(pid);
    if (it == moved_.end()) return std::unexpected(Failure::gone);
    add("putBack", pid, it->second);
    moved_.erase(it);
    return {};
}

std::expected<bool, ProcessControls::Failure> StandInBalance::quit(const LoadApp& app,
                                                                   std::chrono::milliseconds) {
    std::lock_guard lock(mutex_);
    add("quit", app.pid, app.name);
    return true;
}

StandInBalance::Record StandInBalance::record() const {
    std::lock_guard lock(mutex_);
    return record_;
}

} // namespace vantle

namespace vantle {

namespace {
LoadBalanced::Figures figuresOf(const LoadReading& r) {
    return {r.performance.value_or(r.processor), r.processor, r.memoryUsed, r.memoryTotal, r.pressure};
}
} // namespace

ScoredReading readForBalance(ActivitySource& activity, VitalsReader& vitals, int ownPid, const fs::path& proc,
                             std::chrono::milliseconds span,
                             const std::function<void(std::chrono::milliseconds)>& pause) {
    activity.read();
    vitals.sample();
    if (span.count() > 0) pause(span);
    auto sample = activity.read();
    auto now = vitals.sample();
    ScoredReading out{LoadReading::of(sample, now, ownPid, proc), 0};
    HealthScoreKeeper keeper;
    out.score = keeper.look(now.at, HealthScore::Reading::of(now)).value;
    return out;
}

LoadBalanced carryOut(const ScoredReading& before, const std::vector<BalanceCandidate>& chosen,
                      ProcessControls& controls, const LoadTiming& timing,
                      const std::function<ScoredReading()>& readAgain,
                      const std::function<void(std::chrono::milliseconds)>& pause) {
    LoadBalanced out;
    out.before = figuresOf(before.reading);
    for (const auto& c : chosen) {
        if (c.action == BalanceCandidate::Action::slow) {
            auto p = std::ranges::find_if(before.reading.processes, [&](auto& x) { return x.pid == c.pid; });
            if (p == before.reading.processes.end()) continue;
            if (auto moved = controls.slow(*p); !moved) {
                out.failures.push_back(
                    moved.error() == ProcessControls::Failure::gone
                        ? p->name + " has ended, so there was nothing to move."
                    : moved.error() == ProcessControls::Failure::notAllowed
                        ? p->name + " is not in the background when read again, or is not yours to move."
                        : "macOS did not move " + p->name + ": " + p->name + " could not be moved");
                continue;
            }
            out.moved.push_back({p->name, 1, p->cpuPercent, p->app, p->path, p->pid});
        } else {
            auto a = std::ranges::find_if(before.reading.apps, [&](auto& x) { return x.pid == c.pid; });
            if (a == before.reading.apps.end()) continue;
            auto quit = controls.quit(*a, timing.quitWindow);
            if (!quit) {
                out.failures.push_back(a->name + " could not be asked to quit.");
                continue;
            }
            if (*quit)
                out.quit.push_back({a->name, a->bundle, a->memoryBytes, a->unusedMinutes});
            else
                out.stillOpen.push_back(a->name);
        }
    }
    pause(timing.settle);
    auto after = readAgain();
    out.after = figuresOf(after.reading);
    out.score = LoadBalanced::Scores{before.score, after.score};
    return out;
}

std::vector<std::string> reportOf(const LoadBalanced& b) {
    std::vector<std::string> lines;
    if (b.moved.empty() && b.quit.empty() && b.stillOpen.empty()) lines.push_back("Nothing was changed.");
    if (!b.moved.empty()) {
        std::string names;
        for (size_t i = 0; i < b.moved.size(); ++i)
            names += (i ? ", " : "") + b.moved[i].name;
        lines.push_back("Moved to the efficiency cores at low priority: " + names + ".");
    }
    if (!b.quit.empty()) {
        std::string names;
        for (size_t i = 0; i < b.quit.size(); ++i)
            names += (i ? ", " : "") + b.quit[i].name;
        lines.push_back("Quit: " + names +
                        ". Each saves your work or asks about it, as when you quit it yourself.");
    }
    if (b.stillOpen.size() == 1)
        lines.push_back(b.stillOpen[0] + " is still open: it may be asking about unsaved work.");
    if (b.stillOpen.size() > 1) {
        std::string names;
        for (size_t i = 0; i < b.stillOpen.size(); ++i)
            names += (i ? (i + 1 == b.stillOpen.size() ? " and " : ", ") : "") + b.stillOpen[i];
        lines.push_back(names + " are still open: they may be asking about unsaved work.");
    }
    auto same = [](double a, double c) { return std::abs(a - c) < 0.05; };
    if (same(b.before.processor, b.after.processor))
        lines.push_back(
            "The processor stayed about the same, at " + percent(b.after.processor) +
            (b.moved.empty() ? "." : ", because what was moved still runs, only on the efficiency cores."));
    else
        lines.push_back("The processor went from " + percent(b.before.processor) + " to " +
                        percent(b.after.processor) + ".");
    auto total = b.after.memoryTotal ? double(b.after.memoryTotal) : 1.0;
    if (same(double(b.before.memoryUsed) / total, double(b.after.memoryUsed) / total))
        lines.push_back(
            "Memory in use stayed about the same, at " + memoryBytes(std::int64_t(b.after.memoryUsed)) +
            (b.quit.empty() ? "." : " in use, as macOS has not handed back what the apps held yet."));
    else
        lines.push_back("Memory in use went from " + memoryBytes(std::int64_t(b.before.memoryUsed)) + " to " +
                        memoryBytes(std::int64_t(b.after.memoryUsed)) + ".");
    if (b.score) {
        if (b.score->before == b.score->after)
            lines.push_back("Your Mac's health score is " + std::to_string(b.score->after) + ".");
        else
            // The pressure is named only when it moved: "from normal to normal" says nothing.
            lines.push_back("Your Mac's health score went from " + std::to_string(b.score->before) + " to " +
                            std::to_string(b.score->after) +
                            (b.before.pressure == b.after.pressure
                                 ? std::string(".")
                                 : ", and its pressure from " + std::string(nameOf(b.before.pressure)) +
                                       " to " + std::string(nameOf(b.after.pressure)) + "."));
    }
    lines.insert(lines.end(), b.failures.begin(), b.failures.end());
    return lines;
}

} // namespace vantle
