#include "VantleSpec/ByteCount.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vantle {

std::string formatBytes(std::int64_t bytes, ByteStyle style) {
    // A count of bytes is never below none; a negative one is a wrapped or nonsense reading.
    if (bytes <= 0) return "Zero KB";
    const double unit = style == ByteStyle::memory ? 1024.0 : 1000.0;
    const bool negative = bytes < 0;
    const double magnitude = std::fabs(static_cast<double>(bytes));
    std::string sign = negative ? "-" : "";
    if (magnitude < unit) {
        auto whole = static_cast<long long>(magnitude);
        return sign + std::to_string(whole) + (whole == 1 ? " byte" : " bytes");
    }
    static const char* units[] = {"KB", "MB", "GB", "TB", "PB"};
    static const int decimals[] = {0, 1, 2, 2, 2};
    double value = magnitude / unit;
    int u = 0;
    // Move up a unit when rounding at this unit's precision would show 1000 (or 1024) of it.
    while (u < 4) {
        double scale = std::pow(10.0, decimals[u]);
        double rounded = std::round(value * scale) / scale;
        if (rounded < unit) break;
        value /= unit;
        ++u;
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals[u], value);
    std::string text = buf;
    if (text.find('.') != std::string::npos) {
        while (text.back() == '0')
            text.pop_back();
        if (text.back() == '.') text.pop_back();
    }
    return sign + text + " " + units[u];
}

std::string percent(double fraction) {
    // A reading read from a file may be anything: nothing is less than none, and nothing the machine
    // reports is above a million percent, so neither shows as a wrapped number.
    if (!std::isfinite(fraction) || fraction < 0) fraction = 0;
    fraction = std::min(fraction, 10'000.0);
    return std::to_string(static_cast<long long>(std::llround(fraction * 100.0))) + "%";
}

} // namespace vantle
