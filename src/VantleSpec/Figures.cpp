#include "VantleSpec/Figures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vantle {

namespace {

constexpr double century = 100.0 * 365 * 86'400;

double within(double value, double lowest, double highest) {
    if (std::isnan(value)) return lowest;
    return std::clamp(value, lowest, highest);
}

std::string unit(std::int64_t n, std::string_view word) {
    return std::to_string(n) + " " + std::string(word) + (n == 1 ? "" : "s");
}

} // namespace

std::string wholePercent(double percentPoints) {
    return wholeNumber(percentPoints, 0, 100) + "%";
}

std::string wholeNumber(double n, double lowest, double highest) {
    return std::to_string(static_cast<long long>(std::llround(within(n, lowest, highest))));
}

std::string countWords(std::int64_t n, std::string_view one, std::string_view many) {
    n = std::max<std::int64_t>(n, 0);
    return std::to_string(n) + " " + std::string(n == 1 ? one : many);
}

std::string decimalFigure(double value, int decimals, double lowest, double highest) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", std::clamp(decimals, 0, 6), within(value, lowest, highest));
    return buffer;
}

std::string durationWords(double seconds) {
    auto minutes = static_cast<std::int64_t>(within(seconds, 0, century) / 60);
    if (minutes >= 1440) return unit(minutes / 1440, "day");
    if (minutes >= 60) return unit(minutes / 60, "hour");
    return unit(minutes, "minute");
}

std::string durationInTwoUnits(double seconds) {
    auto total = static_cast<std::int64_t>(within(seconds, 0, century) / 60);
    std::int64_t days = total / 1440, hours = total / 60 % 24, minutes = total % 60;
    if (days > 0) return unit(days, "day") + " " + unit(hours, "hour");
    if (hours > 0) return unit(hours, "hour") + " " + unit(minutes, "minute");
    return unit(minutes, "minute");
}

} // namespace vantle
