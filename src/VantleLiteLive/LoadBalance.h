// Load balancing: one reading of the machine (`LoadReading`), the candidates it suggests (heavy
// background work to move to the background band and the efficiency cores, idle apps holding much
// memory to quit), and the controls that carry a choice out and put a move back. Nothing is quit
// without the user's yes, and quitting only asks (SIGTERM). Records are plain values; the controls
// are actors (each takes its mutex).
#pragma once
#include "Platform/ProcessScheduling.h"
#include "VantleSpec/ActivityRecords.h"
#include "VantleSpec/Json.h"
#include "VantleVitals/VitalsReader.h"

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct LoadProcess {
    int pid = 0;
    std::uint64_t started = 0; // start time in clock ticks since boot: with the pid, who it is
    std::string name;
    std::string command;
    std::string path;
    std::optional<std::string> app;
    bool isMine = false;
    double cpuPercent = 0; // 100 is one core
    std::uint64_t memoryBytes = 0;
    std::optional<double> energyWatts;
    bool isBackground = false;
    int parent = 0;
    std::optional<bool> isLaunchdJob; // started by the service manager (a systemd .service on Linux)
    double cpuSeconds = 0;
    double age = 0; // seconds since it started
    bool operator==(const LoadProcess&) const = default;
};
VANTLE_RECORD_JSON(LoadProcess, pid, started, name, command, path, app, isMine, cpuPercent, memoryBytes,
                   energyWatts, isBackground, parent, isLaunchdJob, cpuSeconds, age)

struct LoadApp {
    std::string name;
    int pid = 0;
    std::uint64_t started = 0;
    std::string bundle;
    std::optional<std::string> bundleIdentifier;
    bool isFront = false;
    std::optional<double> unusedMinutes; // unknown where the desktop does not say
    std::uint64_t memoryBytes = 0;
    double cpuPercent = 0;
    bool keepsAwake = false;
    bool operator==(const LoadApp&) const = default;
};
VANTLE_RECORD_JSON(LoadApp, name, pid, started, bundle, bundleIdentifier, isFront, unusedMinutes, memoryBytes,
                   cpuPercent, keepsAwake)

struct LoadReading {
    TimePoint at{};
    double seconds = 0;
    std::optional<double> performance; // busy fraction of the performance cores
    std::optional<double> efficiency;
    double processor = 0; // busy fraction of the whole
    int performanceCores = 0;
    int efficiencyCores = 0;
    std::uint64_t memoryUsed = 0;
    std::uint64_t memoryTotal = 0;
    VitalsSnapshot::Pressure pressure = VitalsSnapshot::Pressure::normal;
    std::vector<LoadProcess> processes;
    std::vector<LoadApp> apps;
    int ownPid = 0;
    std::uint64_t swapUsed = 0;
    VitalsSnapshot::Thermal thermal = VitalsSnapshot::Thermal::nominal;

    // From one activity sample (and the vitals of the same moment); `proc` is read for each busy
    // process's start time and whether the service manager started it.
    static LoadReading of(const ActivitySample& sample, const VitalsSnapshot& vitals, int ownPid,
                          const std::filesystem::path& proc = "/proc");
};

struct BalanceCandidate {
    enum class Action { quit, slow };
    Action action = Action::slow;
    std::string why;
    bool preferred = true;
    int pid = 0;
    std::uint64_t started = 0;
    std::string name;
    bool operator==(const BalanceCandidate&) const = default;
};
VANTLE_ENUM_NAMES(BalanceCandidate::Action, "quit", "slow")
VANTLE_RECORD_JSON(BalanceCandidate, action, why, preferred, pid, started, name)

struct BalanceFound {
    std::vector<BalanceCandidate> candidates;
    std::optional<std::string> nothing; // the sentence when there is nothing to do
};

struct BalanceRules {
    static constexpr double moveThreshold = 20.0;                   // percent of one core
    static constexpr std::uint64_t quitMemoryThreshold = 524288000; // 500 MiB
    static constexpr double quitProcessorLimit = 10.0;              // percent of one core
    static constexpr double unusedMinutes = 30;
    static constexpr double usedWithinMinutes = 60;
    // Executables under these are the system's own: never moved unless known not to be a service.
    static constexpr std::string_view systemPrefixes[] = {
        "/usr/local/", "/usr/", "/bin/", "/sbin/", "/lib/", "/lib64/", "/System/", "/Library/Apple/"};
    // The desktop itself and the sound and display servers: moving them makes the machine feel slower.
    static constexpr std::string_view neverMoved[] = {
        "systemd",     "Xorg",        "Xwayland", "gnome-shell",    "kwin_x11",    "kwin_wayland",
        "plasmashell", "mutter",      "pipewire", "pipewire-pulse", "pulseaudio",  "wireplumber",
        "dbus-daemon", "dbus-broker", "vantle",   "vantle-lite",    "kernel_task", "WindowServer"};
    // File managers, terminals and settings: quitting them frees little and loses the user's place.
    static constexpr std::string_view neverQuit[] = {
        "org.gnome.nautilus", "org.kde.dolphin",        "org.gnome.terminal", "org.kde.konsole",
        "org.gnome.settings", "org.kde.systemsettings", "com.apple.finder",   "com.apple.terminal"};
};

BalanceFound findCandidates(const LoadReading& reading);

// Carries out a balance's moves and quits, and puts moves back.
class ProcessControls {
  public:
    enum class Failure { failed, gone, notAllowed };
    virtual ~ProcessControls() = default;
    virtual std::expected<void, Failure> slow(const LoadProcess& process) = 0;
    virtual std::expected<void, Failure> putBack(int pid) = 0;
    // Asks as the app's own Quit does; true when it ended within `window`.
    virtual std::expected<bool, Failure> quit(const LoadApp& app, std::chrono::milliseconds window) = 0;
};

// The real controls: a process is read again (same pid and start time, owned by this user, still
// in the background) before it is moved; every thread goes to SCHED_IDLE and idle I/O, pinned to the
// efficiency cores where there are some; what was there is kept and restored exactly.
class LinuxProcessControls : public ProcessControls {
  public:
    struct Options {
        unsigned user = 0;
        std::vector<int> efficiencyCores;
        std::filesystem::path proc = "/proc";
        // Whether a pid is still background work when read again (not an app's window).
        std::function<bool(int pid)> stillInBackground = [](int) { return true; };
    };
    explicit LinuxProcessControls(Options options);
    std::expected<void, Failure> slow(const LoadProcess& process) override;
    std::expected<void, Failure> putBack(int pid) override;
    std::expected<bool, Failure> quit(const LoadApp& app, std::chrono::milliseconds window) override;

  private:
    std::expected<void, Failure> sameProcess(int pid, std::uint64_t started) const;

    Options options_;
    std::map<int, ProcessSchedule> saved_;
    std::mutex mutex_;
};

// A sandbox's stand-in: every move, put-back and quit is recorded in `stand-in-balance.json`.
struct StandInBalanceEvent {
    TimePoint at;
    std::string act; // "slow", "putBack", "quit"
    int pid = 0;
    std::string name;
    bool operator==(const StandInBalanceEvent&) const = default;
};
VANTLE_RECORD_JSON(StandInBalanceEvent, at, act, pid, name)

class StandInBalance : public ProcessControls {
  public:
    struct Record {
        std::vector<StandInBalanceEvent> events;
        bool operator==(const Record&) const = default;
    };
    explicit StandInBalance(std::filesystem::path dataFolder, Clock clock = systemClock());
    std::expected<void, Failure> slow(const LoadProcess& process) override;
    std::expected<void, Failure> putBack(int pid) override;
    std::expected<bool, Failure> quit(const LoadApp& app, std::chrono::milliseconds window) override;
    Record record() const;
    static constexpr std::string_view fileName = "stand-in-balance.json";

    // The note for the start-up record when a torn record file was kept aside; none otherwise.
    const std::optional<std::string>& note() const { return note_; }

  private:
    std::optional<std::string> note_;
    void add(std::string act, int pid, std::string name);
    std::filesystem::path file_;
    Clock clock_;
    Record record_;
    std::map<int, std::string> moved_;
    mutable std::mutex mutex_;
};
VANTLE_RECORD_JSON(StandInBalance::Record, events)

std::string_view sentenceOf(ProcessControls::Failure failure);

} // namespace vantle

namespace vantle {

struct LoadTiming {
    std::chrono::milliseconds before{1000}; // the span of each reading
    std::chrono::milliseconds settle{3000}; // the pause for the machine to settle
    std::chrono::milliseconds after{1000};
    std::chrono::milliseconds quitWindow{10000}; // how long apps get to close
};

struct LoadBalanced {
    struct Figures {
        double performance = 0;
        double processor = 0;
        std::uint64_t memoryUsed = 0;
        std::uint64_t memoryTotal = 0;
        VitalsSnapshot::Pressure pressure = VitalsSnapshot::Pressure::normal;
        bool operator==(const Figures&) const = default;
    };
    struct Moved {
        std::string name;
        int processes = 1;
        double cpuPercent = 0;
        std::optional<std::string> app;
        std::string path;
        int pid = 0;
        bool operator==(const Moved&) const = default;
    };
    struct Closed {
        std::string name;
        std::string bundle;
        std::uint64_t memoryBytes = 0;
        std::optional<double> unusedMinutes;
        bool operator==(const Closed&) const = default;
    };
    struct Scores {
        int before = 0;
        int after = 0;
        bool operator==(const Scores&) const = default;
    };
    Figures before, after;
    std::vector<Moved> moved;
    std::vector<Closed> quit;
    std::vector<std::string> stillOpen;
    std::vector<std::string> putBack;
    std::optional<Scores> score;
    std::vector<std::string> failures; // one sentence per process or app not handled
};

// A reading with the health score of the same moment.
struct ScoredReading {
    LoadReading reading;
    int score = 0;
};

// Reads the machine for a balance: the processes twice, `span` apart (a process's share is measured
// between two reads; a sandbox's made-up figures need no span), the vitals of the same moment, and
// the health score from them. `proc` is where the busy processes' identities are read.
ScoredReading readForBalance(ActivitySource& activity, VitalsReader& vitals, int ownPid,
                             const std::filesystem::path& proc, std::chrono::milliseconds span,
                             const std::function<void(std::chrono::milliseconds)>& pause);

// Moves and quits what was chosen (each by itself; one failure never stops the rest), waits for the
// machine to settle, reads it again and gives the figures before and after.
LoadBalanced carryOut(const ScoredReading& before, const std::vector<BalanceCandidate>& chosen,
                      ProcessControls& controls, const LoadTiming& timing,
                      const std::function<ScoredReading()>& readAgain,
                      const std::function<void(std::chrono::milliseconds)>& pause);

// The report's sentences, in order.
std::vector<std::string> reportOf(const LoadBalanced& balanced);

} // namespace vantle
