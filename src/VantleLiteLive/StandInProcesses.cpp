#include "VantleLiteLive/StandInProcesses.h"

#include "VantleLiteLive/StandInRecord.h"

#include <algorithm>

namespace vantle {

namespace {
constexpr std::uint64_t MiB = 1024ull * 1024;

StandInProcess made(int pid, std::string name, std::optional<std::string> app, ProcessKind kind, double cpu,
                    std::uint64_t memory, int threads, bool asksToSave = false) {
    std::string user = kind == ProcessKind::system ? "root" : "sandbox";
    return {pid, std::move(name), std::move(app), kind, user, cpu, memory, threads, asksToSave};
}
} // namespace

std::vector<StandInProcess> StandInProcesses::sceneProcesses(Scene scene) {
    using K = ProcessKind;
    if (scene == Scene::calm)
        return {
            made(101, "Files", "Files", K::app, 0.4, 180 * MiB, 6),
            made(102, "Mail", "Mail", K::app, 0.2, 240 * MiB, 9),
            made(201, "indexer", std::nullopt, K::background, 0.8, 60 * MiB, 4),
            made(301, "kernel_task", std::nullopt, K::system, 1.5, 900 * MiB, 180),
            made(302, "windowserver", std::nullopt, K::system, 2.0, 300 * MiB, 12),
        };
    return {
        made(101, "Files", "Files", K::app, 1.2, 210 * MiB, 7),
        made(102, "Mail", "Mail", K::app, 0.6, 380 * MiB, 11),
        made(103, "Web Browser", "Web Browser", K::app, 35.0, 3800 * MiB, 64),
        made(104, "Text Editor", "Text Editor", K::app, 0.1, 1900 * MiB, 5, /*asksToSave=*/true),
        made(105, "Music", "Music", K::app, 0.0, 2600 * MiB, 14),
        made(201, "indexer", std::nullopt, K::background, 92.0, 420 * MiB, 8),
        made(202, "backupd", std::nullopt, K::background, 64.0, 250 * MiB, 6),
        made(203, "photo-analysis", std::nullopt, K::background, 48.0, 700 * MiB, 10),
        made(301, "kernel_task", std::nullopt, K::system, 6.0, 1400 * MiB, 220),
        made(302, "windowserver", std::nullopt, K::system, 18.0, 650 * MiB, 14),
    };
}

namespace {
std::vector<StandInAppRunning> appsOf(const std::vector<StandInProcess>& processes) {
    std::vector<StandInAppRunning> apps;
    for (const auto& p : processes)
        if (p.kind == ProcessKind::app) apps.push_back({p.app.value_or(p.name), p.pid});
    return apps;
}
} // namespace

StandInProcesses::StandInProcesses(std::filesystem::path dataFolder, Scene scene, Clock clock)
    : file_(dataFolder / fileName), clock_(std::move(clock)) {
    auto loaded = loadStandInRecord<Record>(file_);
    note_ = std::move(loaded.note);
    // A record read back is not written again until this run adds to it.
    if (loaded.record) {
        record_ = std::move(*loaded.record);
        return;
    }
    record_.scene = scene;
    record_.processes = sceneProcesses(scene);
    record_.apps = appsOf(record_.processes);
    save();
}

void StandInProcesses::save() const {
    saveStandInRecord(file_, record_);
}

StandInProcesses::Record StandInProcesses::record() const {
    std::lock_guard lock(mutex_);
    return record_;
}

std::vector<StandInProcess> StandInProcesses::processes() const {
    std::lock_guard lock(mutex_);
    auto out = record_.processes;
    out.insert(out.end(), live_.live.begin(), live_.live.end());
    return out;
}

void StandInProcesses::setScene(Scene scene) {
    std::lock_guard lock(mutex_);
    record_.scene = scene;
    record_.processes = sceneProcesses(scene);
    record_.apps = appsOf(record_.processes);
    save();
}

void StandInProcesses::mixIn(Live live) {
    std::lock_guard lock(mutex_);
    live_ = std::move(live);
}

QuitOutcome StandInProcesses::quit(int pid) {
    std::lock_guard lock(mutex_);
    StandInEvent event{toMilliseconds(clock_()), "quit", pid, "", std::string(nameOf(QuitOutcome::refused))};
    auto outcome = QuitOutcome::refused;
    auto it = std::find_if(record_.processes.begin(), record_.processes.end(),
                           [&](auto& p) { return p.pid == pid; });
    if (it != record_.processes.end()) {
        event.name = it->name;
        if (it->asksToSave) {
            outcome = QuitOutcome::stillRunning;
        } else {
            outcome = QuitOutcome::quit;
            record_.processes.erase(it);
            std::erase_if(record_.apps, [&](auto& a) { return a.pid == pid; });
        }
    } else {
        // A live process is never signalled from a sandbox; an allowed one is only recorded.
        auto live = std::find_if(live_.live.begin(), live_.live.end(), [&](auto& p) { return p.pid == pid; });
        if (live != live_.live.end()) {
            event.name = live->name;
            if (live_.allowed.contains(pid)) {
                outcome = QuitOutcome::quit;
                live_.live.erase(live);
            }
        }
    }
    event.outcome = std::string(nameOf(outcome));
    record_.events.push_back(std::move(event));
    save();
    return outcome;
}

} // namespace vantle
