#include "VantleSpec/HealthPoint.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace vantle {

void keepBusiestApps(std::vector<HealthPoint::App>& apps) {
    std::ranges::sort(apps, [](const HealthPoint::App& a, const HealthPoint::App& b) {
        if (a.cpu != b.cpu) return a.cpu > b.cpu;
        if (a.memoryBytes != b.memoryBytes) return a.memoryBytes > b.memoryBytes;
        return a.name < b.name;
    });
    if (apps.size() > HealthPoint::appsKept) apps.resize(HealthPoint::appsKept);
}

namespace {

struct AppSum {
    double cpuSeconds = 0;
    std::uint64_t memoryBytes = 0;
    double wattSeconds = 0;
    double wattWeight = 0;
};

} // namespace

std::optional<HealthPoint> combineHealthPoints(TimePoint start, std::span<const HealthPoint> parts) {
    if (parts.empty()) return std::nullopt;

    double totalSeconds = 0;
    for (const auto& part : parts)
        totalSeconds += std::max(0.0, part.seconds);
    // Parts that cover no time still say something; weigh them alike rather than divide by zero.
    const bool equalWeights = totalSeconds <= 0;
    auto weightOf = [&](const HealthPoint& p) { return equalWeights ? 1.0 : std::max(0.0, p.seconds); };
    const double totalWeight = equalWeights ? double(parts.size()) : totalSeconds;

    HealthPoint out;
    out.start = start;
    out.seconds = totalSeconds;
    double swapSum = 0;
    std::map<std::string, AppSum> apps;
    for (const auto& part : parts) {
        const double w = weightOf(part);
        out.cpu += part.cpu * w;
        out.memory += part.memory * w;
        out.pressureShare += part.pressureShare * w;
        swapSum += double(part.swapBytes) * w;
        out.networkIn += part.networkIn * w;
        out.networkOut += part.networkOut * w;
        out.diskRead += part.diskRead * w;
        out.diskWritten += part.diskWritten * w;
        out.cpuPeak = std::max(out.cpuPeak, part.cpuPeak);
        out.memoryPeak = std::max(out.memoryPeak, part.memoryPeak);
        out.pressure = std::max(out.pressure, part.pressure);
        out.thermal = std::max(out.thermal, part.thermal);
        if (part.charge) out.charge = part.charge; // parts come oldest first
        for (const auto& app : part.apps) {
            auto& sum = apps[app.name];
            sum.cpuSeconds += app.cpu * w;
            sum.memoryBytes = std::max(sum.memoryBytes, app.memoryBytes);
            if (app.watts) {
                sum.wattSeconds += *app.watts * w;
                sum.wattWeight += w;
            }
        }
    }
    for (double* average : {&out.cpu, &out.memory, &out.pressureShare, &out.networkIn, &out.networkOut,
                            &out.diskRead, &out.diskWritten})
        *average /= totalWeight;
    out.swapBytes = static_cast<std::uint64_t>(std::llround(swapSum / totalWeight));

    out.apps.reserve(apps.size());
    for (auto& [name, sum] : apps) {
        HealthPoint::App app{name, sum.cpuSeconds / totalWeight, sum.memoryBytes, std::nullopt};
        if (sum.wattWeight > 0) app.watts = sum.wattSeconds / sum.wattWeight;
        out.apps.push_back(std::move(app));
    }
    keepBusiestApps(out.apps);
    return out;
}

} // namespace vantle
