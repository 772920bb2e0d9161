// Dates as this program writes them: ISO 8601 in UTC with milliseconds ("2026-11-21T19:13:05.123Z"),
// and the injectable clock every service takes so tests can set "now". Free functions; thread-safe.
#pragma once
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace vantle {

using TimePoint = std::chrono::system_clock::time_point;
using Clock = std::function<TimePoint()>;

inline TimePoint systemNow() {
    return std::chrono::system_clock::now();
}
inline Clock systemClock() {
    return &systemNow;
}

// Always UTC with exactly three fractional digits and a "Z".
std::string isoDate(TimePoint at);
// The same text written into `out`, which has room for isoDateLength characters (no NUL): a long
// listing writes four dates an item, and a string each was an allocation each.
inline constexpr std::size_t isoDateLength = 24;
void isoDate(TimePoint at, char* out);

// Reads what isoDate writes, and also any fraction length (or none) and a "+hh:mm"/"-hh:mm" offset.
// A date outside what a TimePoint holds (about 1678 to 2262) is not read.
std::optional<TimePoint> parseIsoDate(std::string_view text);

// Whole milliseconds: the precision every stored date keeps, so a value round-trips exactly.
inline TimePoint toMilliseconds(TimePoint at) {
    return std::chrono::time_point_cast<std::chrono::milliseconds>(at);
}

} // namespace vantle
