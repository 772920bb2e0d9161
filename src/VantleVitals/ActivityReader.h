// Reads the machine's processes from /proc into activity rows: processor share between two reads,
// footprint and resident memory, threads, disk counters where the kernel lets us read them, owner,
// kind and owning app. An actor: it keeps the previous read to measure shares and rates, and every
// call holds its mutex. The sample it returns belongs to the caller. Linux keeps no network counters
// per process and the known-agent grouping is not built yet, so both needs are answered with zeros.
#pragma once
#include "VantleSpec/Time.h"
#include "VantleVitals/ProcFs.h"
#include "VantleVitals/VitalsReader.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vantle {

class ActivityReader : public ActivitySource {
  public:
    // An installed app as its desktop entry names it.
    struct App {
        std::string name;
        std::string id; // the desktop entry's file name without ".desktop"
        bool operator==(const App&) const = default;
    };

    struct Options {
        std::filesystem::path procRoot = "/proc";
        std::filesystem::path sysRoot = "/sys";
        std::uint32_t user = 0; // the current user's id; processes of this user are our own
        // Executable names (what Exec= runs, without its folder) to the app they belong to.
        std::map<std::string, App, std::less<>> apps;
        Clock clock = systemClock();
        long ticksPerSecond = 0; // 0: the kernel's clock tick
        long pageBytes = 0;      // 0: the kernel's page size
    };

    explicit ActivityReader(Options options);
    ActivitySample read(const ActivityNeeds& needs = {}) override;

    // The apps named by the desktop entries in `folders` (later folders win, as the user's own
    // entries override the system's). Entries that are hidden or run nothing are skipped.
    static std::map<std::string, App, std::less<>>
    installedApps(const std::vector<std::filesystem::path>& folders);

    // Users with ids below this are the system's own (daemons, root); 65534 is "nobody".
    static constexpr std::uint32_t firstPersonUid = 1000;
    static constexpr std::uint32_t nobodyUid = 65534;

  private:
    struct Seen {
        std::uint64_t startTicks = 0;
        std::uint64_t cpuTicks = 0;
        std::optional<std::uint64_t> switches;
        std::optional<procfs::ProcessIo> io;
    };

    std::string userName(std::uint32_t uid);

    Options options_;
    std::mutex mutex_;
    std::optional<TimePoint> previousAt_;
    std::optional<procfs::CpuTimes> previousCpu_;
    std::map<std::int32_t, Seen> previous_;
    std::map<std::uint32_t, std::string> userNames_;
};

} // namespace vantle
