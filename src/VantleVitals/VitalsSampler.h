// Reads this machine's vitals from /proc and /sys: processor (total, per core, core kinds), memory
// and its pressure, the home volume's space, power and battery, heat, network, uptime and the
// busiest and heaviest processes. Every file may be missing or odd (containers, virtual machines):
// that figure is then absent or zero. An actor: it keeps the previous counters to measure rates, and
// every call holds its mutex.
#pragma once
#include "VantleSpec/Time.h"
#include "VantleVitals/ProcFs.h"
#include "VantleVitals/VitalsReader.h"

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace vantle {

class VitalsSampler : public VitalsReader {
  public:
    struct Options {
        std::filesystem::path procRoot = "/proc";
        std::filesystem::path sysRoot = "/sys";
        std::filesystem::path volume = "/"; // a folder on the disk whose space is shown (the home)
        Clock clock = systemClock();
        std::shared_ptr<ActivitySource> activity; // the processes; none leaves the process lists empty
        size_t processesShown = 5;
    };

    explicit VitalsSampler(Options options);
    VitalsSnapshot sample() override;

    // Core kinds in the kernel's core numbering: hybrid x86 names its performance and efficiency
    // cores, ARM gives each core a capacity (the largest are the performance cores). Empty when the
    // machine tells neither, or all its cores are alike.
    static std::map<int, VitalsSnapshot::CoreKind> coreKinds(const std::filesystem::path& sysRoot);

    // The worst thermal zone against its own trip points: at or past a critical or hot trip
    // `critical`; at or past a passive trip (where the kernel starts slowing the chip) `serious`;
    // within 10 degrees below the first of those `fair`; else `nominal`.
    static VitalsSnapshot::Thermal thermalState(const std::filesystem::path& sysRoot);

    // The first battery the machine reports (peripherals' batteries aside) and whether it runs on
    // mains power; a machine with no battery is taken to be on mains.
    static VitalsSnapshot::Power power(const std::filesystem::path& sysRoot);

    // Fills the busiest and heaviest process lists and the running apps from an activity sample.
    static void fillProcesses(VitalsSnapshot& snapshot, const ActivitySample& activity, size_t shown);

  private:
    struct Counters {
        TimePoint at{};
        procfs::Stat stat;
        std::optional<std::pair<std::uint64_t, std::uint64_t>> network; // received, sent
        std::optional<std::pair<std::uint64_t, std::uint64_t>> disk;    // sectors read, written
    };

    static std::vector<int> parseCpuListFile(const std::filesystem::path& file);
    VitalsSnapshot::CPU cpu(const procfs::Stat& now, const procfs::Stat* before) const;
    std::optional<std::pair<std::uint64_t, std::uint64_t>> networkCounters() const;
    std::optional<std::pair<std::uint64_t, std::uint64_t>> diskCounters() const;

    Options options_;
    std::map<int, VitalsSnapshot::CoreKind> kinds_; // read once: core kinds do not change while running
    std::mutex mutex_;
    std::optional<Counters> previous_;
};

} // namespace vantle
