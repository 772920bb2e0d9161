// The health score: one whole number from 0 to 100 saying how the machine is doing now, with the
// penalties that took points off it and the explanation rows written from the same constants. Plain
// values and pure functions; safe from any thread.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/VitalsRecords.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct HealthScore {
    enum class Grade { excellent, good, fair, poor };
    enum class Fix { balance, storage };

    struct Penalty {
        // Also the tie order among penalties of equal points.
        enum class Kind { memory, swap, processor, heat, disk, battery };
        Kind kind = Kind::memory;
        int points = 1;
        std::string line;                // what is wrong now
        std::optional<std::string> help; // what would help
        std::optional<Fix> fix;
        bool operator==(const Penalty&) const = default;
    };

    // The readings of one moment.
    struct Reading {
        double performance = 0; // busy fraction of the performance cores (of all cores without core kinds)
        std::optional<double> whole;
        bool hasCoreKinds = false;
        VitalsSnapshot::Pressure pressure = VitalsSnapshot::Pressure::normal;
        std::uint64_t memoryUsed = 0;
        std::uint64_t memoryTotal = 0;
        std::uint64_t swapUsed = 0;
        VitalsSnapshot::Thermal thermal = VitalsSnapshot::Thermal::nominal;
        std::optional<std::int64_t> diskAvailable;
        std::optional<std::int64_t> diskTotal;
        std::optional<double> batteryHealth; // full-charge against design capacity; absent without a battery
        bool operator==(const Reading&) const = default;

        static Reading of(const VitalsSnapshot& snapshot);
    };

    // What the keeper adds to the reading of now: the one-minute processor averages, the seconds of
    // samples they cover, and the worst states of the last half minute.
    struct Recent {
        double performance = 0;
        std::optional<double> whole;
        std::optional<double> coveredSeconds;
        VitalsSnapshot::Pressure worstPressure = VitalsSnapshot::Pressure::normal;
        VitalsSnapshot::Thermal worstThermal = VitalsSnapshot::Thermal::nominal;
        bool operator==(const Recent&) const = default;

        // The figures of a lone reading, as if it had held for no time at all.
        static Recent of(const Reading& reading) {
            return {reading.performance, reading.whole, std::nullopt, reading.pressure, reading.thermal};
        }
    };

    // One row of "How the score is worked out".
    struct ExplanationRow {
        Penalty::Kind kind;
        std::string title;
        int most;
        std::string sentence;
        bool operator==(const ExplanationRow&) const = default;
    };

    int value = 100;
    std::vector<Penalty> penalties; // most points first
    // True when the processor figures rest on a minute's samples (at least averagedAfterSeconds of
    // them) rather than on the first readings after start.
    bool exact = false;
    bool operator==(const HealthScore&) const = default;

    Grade grade() const { return gradeOf(value); }

    static Grade gradeOf(int value);
    static HealthScore compute(const Reading& now, const Recent& recent);
    static std::vector<ExplanationRow> explanation();

    // Seconds of samples from which the processor line speaks of a minute's average.
    static constexpr double averagedAfterSeconds = 45;
    static constexpr std::string_view explanationTitle = "How the score is worked out";
    static constexpr std::string_view explanationHeader =
        "Worked out on this Mac from Health's readings: 100, less the points each part below takes now.";
};

VANTLE_ENUM_NAMES(HealthScore::Grade, "excellent", "good", "fair", "poor")
VANTLE_ENUM_NAMES(HealthScore::Fix, "balance", "storage")
VANTLE_ENUM_NAMES(HealthScore::Penalty::Kind, "memory", "swap", "processor", "heat", "disk", "battery")
VANTLE_RECORD_JSON(HealthScore::Penalty, kind, points, line, help, fix)
VANTLE_RECORD_JSON(HealthScore::Reading, performance, whole, hasCoreKinds, pressure, memoryUsed, memoryTotal,
                   swapUsed, thermal, diskAvailable, diskTotal, batteryHealth)
VANTLE_RECORD_JSON(HealthScore, value, penalties, exact)

} // namespace vantle
