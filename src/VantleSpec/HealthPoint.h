// One point of the health record: how the machine did over a minute, a quarter hour or an hour, and
// the roll-up that folds finer points into a coarser one. Plain values owned by whoever holds them;
// safe to copy between threads, and combineHealthPoints is a pure function.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleSpec/VitalsRecords.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vantle {

struct HealthPoint {
    // One of the busiest or heaviest apps of the point.
    struct App {
        std::string name;
        double cpu = 0; // percent, where 100 is one whole core
        std::uint64_t memoryBytes = 0;
        std::optional<double> watts;
        bool operator==(const App&) const = default;
    };

    // How many apps a point keeps: a roll-up merges its parts' apps and keeps the busiest this many.
    static constexpr std::size_t appsKept = 5;

    TimePoint start{};
    double seconds = 0;    // seconds of samples the point covers
    double cpu = 0;        // busy fraction of the whole processor, average
    double cpuPeak = 0;    // highest busy fraction of one sample
    double memory = 0;     // fraction of physical memory in use, average
    double memoryPeak = 0; // highest fraction of one sample
    VitalsSnapshot::Pressure pressure = VitalsSnapshot::Pressure::normal; // worst
    double pressureShare = 0;                                             // share of the time above normal
    std::uint64_t swapBytes = 0;                                          // average
    double networkIn = 0;                                                 // bytes per second, average
    double networkOut = 0;                                                // bytes per second, average
    double diskRead = 0;                                                  // bytes per second, average
    double diskWritten = 0;                                               // bytes per second, average
    VitalsSnapshot::Thermal thermal = VitalsSnapshot::Thermal::nominal;   // worst
    std::optional<double> charge;                                         // latest battery charge, 0..1
    std::vector<App> apps;                                                // busiest first
    bool operator==(const HealthPoint&) const = default;
};

VANTLE_RECORD_JSON(HealthPoint::App, name, cpu, memoryBytes, watts)
VANTLE_RECORD_JSON(HealthPoint, start, seconds, cpu, cpuPeak, memory, memoryPeak, pressure, pressureShare,
                   swapBytes, networkIn, networkOut, diskRead, diskWritten, thermal, charge, apps)

// Folds `parts` into one point starting at `start`. Averages are weighted by each part's seconds
// (equally when no part covers any), peaks take the highest, pressure and thermal the worst, charge
// the latest part's that has one, and the apps are merged by name (processor averaged over the whole
// span, memory the largest) keeping the busiest few. No parts, no point.
std::optional<HealthPoint> combineHealthPoints(TimePoint start, std::span<const HealthPoint> parts);

// Orders apps busiest first (processor, then memory, then name) and keeps the first appsKept.
void keepBusiestApps(std::vector<HealthPoint::App>& apps);

} // namespace vantle
