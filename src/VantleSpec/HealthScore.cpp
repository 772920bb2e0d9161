#include "VantleSpec/HealthScore.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <cmath>

namespace vantle {

namespace {

using Kind = HealthScore::Penalty::Kind;
using Pressure = VitalsSnapshot::Pressure;
using Thermal = VitalsSnapshot::Thermal;

// The points and limits of each part. The explanation rows are written from these too, so a change
// here changes what the user reads.
constexpr int memoryWarningPoints = 15;
constexpr int memoryCriticalPoints = 30;

constexpr double swapMostPoints = 10;
constexpr double swapFullShare = 0.25; // of physical memory

constexpr double performanceFrom = 0.60;
constexpr double performancePointsPerWhole = 50;
constexpr double wholeFrom = 0.50;
constexpr double wholePointsPerWhole = 40;
constexpr int processorMostPoints = int((1 - performanceFrom) * performancePointsPerWhole);
static_assert(processorMostPoints == int((1 - wholeFrom) * wholePointsPerWhole),
              "both formulas top out together");

constexpr int heatFairPoints = 5;
constexpr int heatSeriousPoints = 15;
constexpr int heatCriticalPoints = 30;

struct DiskStep {
    double freeBelow;
    int points;
};
constexpr DiskStep diskSteps[] = {{0.20, 5}, {0.10, 15}, {0.05, 25}};
constexpr double diskOnlyBelow = 0.10; // "Only " before the line

constexpr double batteryWornBelow = 0.80;
constexpr int batteryWornPoints = 5;

namespace say {
constexpr std::string_view memoryUnderPressure = "Memory is under pressure: ";
constexpr std::string_view memoryNearlyFull = "Memory is nearly full: ";
constexpr std::string_view memoryInUse = "{used} of {total} in use";
constexpr std::string_view memoryWasNearlyFull = "Memory was nearly full in the last half minute";
constexpr std::string_view memoryWasUnderPressure = "Memory was under pressure in the last half minute";
constexpr std::string_view memoryHelp = "Balance the load asks before quitting apps you aren't using.";

constexpr std::string_view swapLine = "{swap} of memory is swapped to the disk";
constexpr std::string_view swapHelp = "Quitting apps you aren't using lets macOS free it over time.";

constexpr std::string_view theProcessor = "The processor";
constexpr std::string_view thePerformanceCores = "The performance cores";
constexpr std::string_view averagedOverMinute = "{subject} averaged {N}% busy over the last minute";
constexpr std::string_view areBusy = "{subject} are {N}% busy";
constexpr std::string_view isBusy = "{subject} is {N}% busy";
constexpr std::string_view processorHelpWithKinds =
    "Balance the load moves background work to the efficiency cores.";
constexpr std::string_view processorHelpWithoutKinds =
    "Balance the load gives background work a lower priority.";

constexpr std::string_view warm = "Your Mac is warm";
constexpr std::string_view hot = "Your Mac is hot, so macOS is slowing the chip to cool it";
constexpr std::string_view veryHot = "Your Mac is very hot, so macOS is slowing everything to cool it";
constexpr std::string_view wasHot = "Your Mac was {how} in the last half minute";

constexpr std::string_view diskLine = "{N}% of the disk is free: {available} of {total}";
constexpr std::string_view diskOnly = "Only ";
constexpr std::string_view diskHelp = "Storage shows what fills it.";

constexpr std::string_view batteryLine = "The battery holds {N}% of what it held new";
constexpr std::string_view batteryHelp = "Balancing can't change that: only a new battery can.";

constexpr std::string_view processorRow =
    "Points when the processor averages over {whole}% busy for a minute, or its "
    "performance cores over {performance}%; the most at 100%.";
constexpr std::string_view memoryRow =
    "{warning} when macOS warns of memory pressure, {critical} when it is critical.";
constexpr std::string_view swapRow =
    "Points as swap grows, the most once it is a quarter of this Mac's memory.";
constexpr std::string_view heatRow = "{fair} warm, {serious} hot, {critical} very hot.";
constexpr std::string_view diskRow = "{a} under {x}% free, {b} under {y}%, {c} under {z}%.";
constexpr std::string_view batteryRow =
    "On a MacBook, when its battery holds under {N}% of what it held new.";
} // namespace say

// A busy fraction as the score reads it: at most 1, and a negative one means nothing.
double busy(double fraction) {
    return fraction < 0 ? 0 : std::min(1.0, fraction);
}

// Disk figures in file style with no word forms: an empty disk reads "0 bytes", not "Zero KB".
std::string diskBytes(std::int64_t bytes) {
    return bytes == 0 ? "0 bytes" : fileBytes(bytes);
}

// A part's unrounded points and, when they round to at least one, its penalty.
struct Part {
    double points = 0;
    std::optional<HealthScore::Penalty> penalty;
};

Part penaltyOf(double points, Kind kind, std::string line, std::optional<std::string_view> help,
               std::optional<HealthScore::Fix> fix) {
    Part part{points, std::nullopt};
    int rounded = int(std::lround(points));
    if (rounded >= 1)
        part.penalty = HealthScore::Penalty{kind, rounded, std::move(line),
                                            help ? std::optional<std::string>(*help) : std::nullopt, fix};
    return part;
}

Part memoryPart(const HealthScore::Reading& now, Pressure worst) {
    int points = worst == Pressure::critical  ? memoryCriticalPoints
                 : worst == Pressure::warning ? memoryWarningPoints
                                              : 0;
    if (points == 0) return {};
    auto inUse = fillIn(say::memoryInUse, {{"used", memoryBytes(std::int64_t(now.memoryUsed))},
                                           {"total", memoryBytes(std::int64_t(now.memoryTotal))}});
    std::string line;
    switch (now.pressure) {
    case Pressure::warning:
        line = std::string(say::memoryUnderPressure) + inUse;
        break;
    case Pressure::critical:
        line = std::string(say::memoryNearlyFull) + inUse;
        break;
    case Pressure::normal:
        line = worst == Pressure::critical ? say::memoryWasNearlyFull : say::memoryWasUnderPressure;
        break;
    }
    return penaltyOf(points, Kind::memory, std::move(line), say::memoryHelp, HealthScore::Fix::balance);
}

Part swapPart(const HealthScore::Reading& now) {
    if (now.swapUsed == 0 || now.memoryTotal == 0) return {};
    double points =
        swapMostPoints * std::min(1.0, double(now.swapUsed) / (swapFullShare * double(now.memoryTotal)));
    return penaltyOf(points, Kind::swap,
                     fillIn(say::swapLine, {{"swap", memoryBytes(std::int64_t(now.swapUsed))}}),
                     say::swapHelp, std::nullopt);
}

Part processorPart(const HealthScore::Reading& now, const HealthScore::Recent& recent) {
    double p = busy(recent.performance);
    double performancePoints = p > performanceFrom ? (p - performanceFrom) * performancePointsPerWhole : 0;
    double wholePoints = 0;
    std::optional<double> w;
    if (now.hasCoreKinds && recent.whole) {
        w = busy(*recent.whole);
        if (*w > wholeFrom) wholePoints = (*w - wholeFrom) * wholePointsPerWhole;
    }
    // Points a rounding error apart are equal: 70 % of the cores and 62.5 % of the whole are both 5.
    bool wholeIsLarger = wholePoints > performancePoints + 1e-9;
    bool speaksOfWhole = !now.hasCoreKinds || wholeIsLarger;
    double shown = wholeIsLarger ? *w : p;
    auto subject = speaksOfWhole ? say::theProcessor : say::thePerformanceCores;
    bool averaged = recent.coveredSeconds && *recent.coveredSeconds >= HealthScore::averagedAfterSeconds;
    auto sentence = averaged ? say::averagedOverMinute : speaksOfWhole ? say::isBusy : say::areBusy;
    auto line = fillIn(sentence, {{"subject", subject}, {"N", wholeNumber(100 * shown)}});
    return penaltyOf(std::max(performancePoints, wholePoints), Kind::processor, std::move(line),
                     now.hasCoreKinds ? say::processorHelpWithKinds : say::processorHelpWithoutKinds,
                     HealthScore::Fix::balance);
}

Part heatPart(const HealthScore::Reading& now, Thermal worst) {
    int points = 0;
    switch (worst) {
    case Thermal::nominal:
        return {};
    case Thermal::fair:
        points = heatFairPoints;
        break;
    case Thermal::serious:
        points = heatSeriousPoints;
        break;
    case Thermal::critical:
        points = heatCriticalPoints;
        break;
    }
    std::string line;
    switch (now.thermal) {
    case Thermal::fair:
        line = say::warm;
        break;
    case Thermal::serious:
        line = say::hot;
        break;
    case Thermal::critical:
        line = say::veryHot;
        break;
    case Thermal::nominal:
        line = fillIn(say::wasHot, {{"how", worst == Thermal::fair ? "warm" : "hot"}});
        break;
    }
    return penaltyOf(points, Kind::heat, std::move(line), std::nullopt, std::nullopt);
}

Part diskPart(const HealthScore::Reading& now) {
    if (!now.diskAvailable || !now.diskTotal || *now.diskTotal <= 0) return {};
    std::int64_t available = std::clamp<std::int64_t>(*now.diskAvailable, 0, *now.diskTotal);
    double free = double(available) / double(*now.diskTotal);
    int points = 0;
    for (auto step : diskSteps)
        if (free < step.freeBelow) points = step.points;
    if (points == 0) return {};
    auto line = fillIn(say::diskLine, {{"N", wholeNumber(std::floor(100 * free))},
                                       {"available", diskBytes(available)},
                                       {"total", diskBytes(*now.diskTotal)}});
    if (free < diskOnlyBelow) line.insert(0, say::diskOnly);
    return penaltyOf(points, Kind::disk, std::move(line), say::diskHelp, HealthScore::Fix::storage);
}

Part batteryPart(const HealthScore::Reading& now) {
    if (!now.batteryHealth || *now.batteryHealth >= batteryWornBelow) return {};
    return penaltyOf(batteryWornPoints, Kind::battery,
                     fillIn(say::batteryLine, {{"N", wholeNumber(100 * *now.batteryHealth)}}),
                     say::batteryHelp, std::nullopt);
}

} // namespace

HealthScore::Reading HealthScore::Reading::of(const VitalsSnapshot& s) {
    Reading r;
    r.hasCoreKinds = s.cpu.performanceCores.has_value();
    r.performance = s.cpu.performanceCores.value_or(s.cpu.total);
    if (r.hasCoreKinds) r.whole = s.cpu.total;
    r.pressure = s.memory.pressure;
    r.memoryUsed = s.memory.usedBytes;
    r.memoryTotal = s.memory.totalBytes;
    r.swapUsed = s.memory.swapUsedBytes;
    r.thermal = s.thermal;
    if (s.disk.totalBytes > 0) {
        r.diskAvailable = std::int64_t(s.disk.availableBytes);
        r.diskTotal = std::int64_t(s.disk.totalBytes);
    }
    if (s.power.hasBattery && s.power.battery) r.batteryHealth = s.power.battery->health();
    return r;
}

HealthScore::Grade HealthScore::gradeOf(int value) {
    if (value >= 90) return Grade::excellent;
    if (value >= 75) return Grade::good;
    if (value >= 50) return Grade::fair;
    return Grade::poor;
}

HealthScore HealthScore::compute(const Reading& now, const Recent& recent) {
    // The reading of now belongs to the half minute even when the keeper has not seen it yet.
    auto worstPressure = std::max(recent.worstPressure, now.pressure);
    auto worstThermal = std::max(recent.worstThermal, now.thermal);
    Part parts[] = {memoryPart(now, worstPressure), swapPart(now), processorPart(now, recent),
                    heatPart(now, worstThermal),    diskPart(now), batteryPart(now)};

    HealthScore score;
    double taken = 0;
    for (auto& part : parts) {
        taken += part.points;
        if (part.penalty) score.penalties.push_back(std::move(*part.penalty));
    }
    score.value = int(std::lround(std::max(0.0, 100 - taken)));
    std::ranges::stable_sort(score.penalties, [](const Penalty& a, const Penalty& b) {
        return a.points != b.points ? a.points > b.points : a.kind < b.kind;
    });
    score.exact = recent.coveredSeconds && *recent.coveredSeconds >= averagedAfterSeconds;
    return score;
}

std::vector<HealthScore::ExplanationRow> HealthScore::explanation() {
    auto percentOf = [](double fraction) { return wholeNumber(100 * fraction); };
    return {
        {Kind::processor, "Processor", processorMostPoints,
         fillIn(say::processorRow,
                {{"whole", percentOf(wholeFrom)}, {"performance", percentOf(performanceFrom)}})},
        {Kind::memory, "Memory pressure", memoryCriticalPoints,
         fillIn(say::memoryRow, {{"warning", wholeNumber(memoryWarningPoints)},
                                 {"critical", wholeNumber(memoryCriticalPoints)}})},
        {Kind::swap, "Swap", int(swapMostPoints), std::string(say::swapRow)},
        {Kind::heat, "Heat", heatCriticalPoints,
         fillIn(say::heatRow, {{"fair", wholeNumber(heatFairPoints)},
                               {"serious", wholeNumber(heatSeriousPoints)},
                               {"critical", wholeNumber(heatCriticalPoints)}})},
        {Kind::disk, "Free space", diskSteps[2].points,
         fillIn(say::diskRow, {{"a", wholeNumber(diskSteps[0].points)},
                               {"x", percentOf(diskSteps[0].freeBelow)},
                               {"b", wholeNumber(diskSteps[1].points)},
                               {"y", percentOf(diskSteps[1].freeBelow)},
                               {"c", wholeNumber(diskSteps[2].points)},
                               {"z", percentOf(diskSteps[2].freeBelow)}})},
        {Kind::battery, "Battery", batteryWornPoints,
         fillIn(say::batteryRow, {{"N", percentOf(batteryWornBelow)}})},
    };
}

} // namespace vantle
