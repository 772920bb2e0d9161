// The made-up running processes of a sandbox run (`stand-in-processes.json`). Two scenes: `busy`
// (a few processes hard at work, apps holding much memory) and `calm`. Quitting a stand-in process
// records the request and removes it, unless it asks to save first; live processes may be mixed in
// and acted on only when their pid is allowed. An actor: every operation takes its mutex.
#pragma once
#include "VantleSpec/ActivityRecords.h"
#include "VantleSpec/Json.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vantle {

struct StandInProcess {
    int pid = 0;
    std::string name;
    std::optional<std::string> app;
    ProcessKind kind = ProcessKind::background;
    std::string user;
    double cpuPercent = 0;
    std::uint64_t memoryBytes = 0;
    int threads = 1;
    bool asksToSave = false;
    bool operator==(const StandInProcess&) const = default;
};
VANTLE_RECORD_JSON(StandInProcess, pid, name, app, kind, user, cpuPercent, memoryBytes, threads, asksToSave)

struct StandInAppRunning {
    std::string name;
    int pid = 0;
    bool operator==(const StandInAppRunning&) const = default;
};
VANTLE_RECORD_JSON(StandInAppRunning, name, pid)

struct StandInEvent {
    TimePoint at;
    std::string act; // "quit"
    int pid = 0;
    std::string name;
    std::string outcome; // a QuitOutcome name
    bool operator==(const StandInEvent&) const = default;
};
VANTLE_RECORD_JSON(StandInEvent, at, act, pid, name, outcome)

class StandInProcesses {
  public:
    enum class Scene { busy, calm };

    struct Record {
        Scene scene = Scene::busy;
        std::vector<StandInProcess> processes;
        std::vector<StandInAppRunning> apps;
        std::vector<StandInEvent> events;
        bool operator==(const Record&) const = default;
    };

    // Live processes mixed into the list: only pids in `allowed` may be acted on.
    struct Live {
        std::set<int> allowed;
        std::vector<StandInProcess> live;
    };

    // Reads the record in `dataFolder`, or starts one in `scene` and writes it.
    StandInProcesses(std::filesystem::path dataFolder, Scene scene = Scene::busy,
                     Clock clock = systemClock());

    Record record() const;
    std::vector<StandInProcess> processes() const;
    // Switching scene replaces the made-up processes and keeps the events.
    void setScene(Scene scene);
    void mixIn(Live live);

    // What quitting as the app's own Quit would do: `quit` removes it, `stillRunning` when it asks to
    // save first, `refused` for an unknown pid or a live one not allowed.
    QuitOutcome quit(int pid);

    static std::vector<StandInProcess> sceneProcesses(Scene scene);
    static constexpr std::string_view fileName = "stand-in-processes.json";

    // The note for the start-up record when a torn record file was kept aside; none otherwise.
    const std::optional<std::string>& note() const { return note_; }

  private:
    void save() const;
    std::optional<std::string> note_;

    std::filesystem::path file_;
    Clock clock_;
    Record record_;
    Live live_;
    mutable std::mutex mutex_;
};

VANTLE_ENUM_NAMES(StandInProcesses::Scene, "busy", "calm")
VANTLE_RECORD_JSON(StandInProcesses::Record, scene, processes, apps, events)

} // namespace vantle
