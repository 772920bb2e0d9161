// What the vitals sampler reads of the whole machine: one snapshot of processor, memory, disk,
// power, heat and network, and the small samples the live charts keep. Plain values owned by
// whoever holds them; safe to copy between threads.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct VitalsSnapshot {
    // The kernel's memory-pressure level; cases compare in rising order.
    enum class Pressure { normal, warning, critical };
    // The system's thermal state; cases compare in rising order.
    enum class Thermal { nominal, fair, serious, critical };
    enum class CoreKind { performance, efficiency, unknown };

    struct CPU {
        double total = 0;            // busy fraction of the whole processor since the previous reading
        std::vector<double> perCore; // one busy fraction per logical core, in the kernel's order
        std::vector<CoreKind> kinds; // parallel to perCore; empty when the machine does not tell
        std::optional<double> performanceCores;
        std::optional<double> efficiencyCores;
        bool operator==(const CPU&) const = default;
    };

    struct Memory {
        std::uint64_t totalBytes = 0;
        std::uint64_t usedBytes = 0; // apps, wired and compressed together
        std::uint64_t appBytes = 0;
        std::uint64_t wiredBytes = 0;
        std::uint64_t compressedBytes = 0;
        std::uint64_t swapUsedBytes = 0;
        Pressure pressure = Pressure::normal;
        bool operator==(const Memory&) const = default;
    };

    struct Disk {
        std::uint64_t totalBytes = 0;
        std::uint64_t availableBytes = 0;
        bool operator==(const Disk&) const = default;
    };

    // Battery details; capacities are in the battery's own unit (micro-watt-hours on Linux), so only
    // their ratio means anything across machines.
    struct Battery {
        std::optional<std::uint64_t> fullChargeCapacity;
        std::optional<std::uint64_t> designCapacity;
        std::optional<std::int64_t> cycleCount;
        bool serviceRecommended = false;
        std::optional<std::string> condition; // the battery's own word for its health, when it gives one
        bool operator==(const Battery&) const = default;

        // Full-charge capacity as a fraction of the design capacity, when both are known.
        std::optional<double> health() const {
            if (!fullChargeCapacity || !designCapacity || *designCapacity == 0) return std::nullopt;
            return double(*fullChargeCapacity) / double(*designCapacity);
        }
    };

    struct Power {
        bool hasBattery = false;
        std::optional<double> charge;
        bool isCharging = false;
        bool onAC = false;
        std::optional<Battery> battery;
        bool operator==(const Power&) const = default;
    };

    struct Network {
        double bytesInPerSecond = 0;
        double bytesOutPerSecond = 0;
        bool operator==(const Network&) const = default;
    };

    struct Process {
        std::int32_t pid = 0;
        std::string name;
        double cpuPercent = 0; // 100 is one whole core
        std::uint64_t memoryBytes = 0;
        bool memoryIsResident = false; // resident size rather than footprint
        bool operator==(const Process&) const = default;
    };

    struct DiskActivity {
        double readPerSecond = 0;
        double writtenPerSecond = 0;
        bool operator==(const DiskActivity&) const = default;
    };

    TimePoint at{};
    CPU cpu;
    Memory memory;
    Disk disk;
    Power power;
    Thermal thermal = Thermal::nominal;
    std::optional<double> gpu;
    Network network;
    double uptimeSeconds = 0;
    std::vector<Process> topProcesses;
    std::vector<Process> heaviestProcesses;
    bool awake = false;
    std::vector<std::string> apps; // names of the apps running at the reading
    std::optional<DiskActivity> diskActivity;
    bool operator==(const VitalsSnapshot&) const = default;
};

VANTLE_ENUM_NAMES(VitalsSnapshot::Pressure, "normal", "warning", "critical")
VANTLE_ENUM_NAMES(VitalsSnapshot::Thermal, "nominal", "fair", "serious", "critical")
VANTLE_ENUM_NAMES(VitalsSnapshot::CoreKind, "performance", "efficiency", "unknown")

// How a thermal state reads to the user, wherever the heat is shown.
constexpr std::string_view heatWord(VitalsSnapshot::Thermal thermal) {
    switch (thermal) {
    case VitalsSnapshot::Thermal::nominal:
        return "Cool";
    case VitalsSnapshot::Thermal::fair:
        return "Warm";
    case VitalsSnapshot::Thermal::serious:
        return "Hot";
    case VitalsSnapshot::Thermal::critical:
        return "Very hot";
    }
    return {};
}
VANTLE_RECORD_JSON(VitalsSnapshot::CPU, total, perCore, kinds, performanceCores, efficiencyCores)
VANTLE_RECORD_JSON(VitalsSnapshot::Memory, totalBytes, usedBytes, appBytes, wiredBytes, compressedBytes,
                   swapUsedBytes, pressure)
VANTLE_RECORD_JSON(VitalsSnapshot::Disk, totalBytes, availableBytes)
VANTLE_RECORD_JSON(VitalsSnapshot::Battery, fullChargeCapacity, designCapacity, cycleCount,
                   serviceRecommended, condition)
VANTLE_RECORD_JSON(VitalsSnapshot::Power, hasBattery, charge, isCharging, onAC, battery)
VANTLE_RECORD_JSON(VitalsSnapshot::Network, bytesInPerSecond, bytesOutPerSecond)
VANTLE_RECORD_JSON(VitalsSnapshot::Process, pid, name, cpuPercent, memoryBytes, memoryIsResident)
VANTLE_RECORD_JSON(VitalsSnapshot::DiskActivity, readPerSecond, writtenPerSecond)
VANTLE_RECORD_JSON(VitalsSnapshot, at, cpu, memory, disk, power, thermal, gpu, network, uptimeSeconds,
                   topProcesses, heaviestProcesses, awake, apps, diskActivity)

// One point of the live charts.
struct VitalsSample {
    TimePoint at{};
    double cpu = 0;    // busy fraction of the whole processor
    double memory = 0; // fraction of physical memory in use
    std::optional<double> performance;
    VitalsSnapshot::Pressure pressure = VitalsSnapshot::Pressure::normal;
    VitalsSnapshot::Thermal thermal = VitalsSnapshot::Thermal::nominal;
    bool operator==(const VitalsSample&) const = default;

    static VitalsSample of(const VitalsSnapshot& s) {
        double used = s.memory.totalBytes ? double(s.memory.usedBytes) / double(s.memory.totalBytes) : 0;
        return {s.at, s.cpu.total, used, s.cpu.performanceCores, s.memory.pressure, s.thermal};
    }
};
VANTLE_RECORD_JSON(VitalsSample, at, cpu, memory, performance, pressure, thermal)

struct MacReading {
    VitalsSnapshot now;
    std::vector<VitalsSample> history;
    bool operator==(const MacReading&) const = default;
};
VANTLE_RECORD_JSON(MacReading, now, history)

} // namespace vantle
