// The user's calendar as the library needs it: where local days begin, for date words ("today",
// "last month") and day boundaries. A plain value; the default reads the system's time zone
// (thread-safe), and tests give a fixed offset.
#pragma once
#include "VantleSpec/Time.h"

#include <chrono>
#include <functional>

namespace vantle {

struct Calendar {
    // Local time minus UTC at a moment (daylight saving makes it depend on the moment).
    std::function<std::chrono::seconds(TimePoint)> utcOffset = localUtcOffset;

    // Midnight, local time, of the day that holds `at`.
    TimePoint startOfDay(TimePoint at) const;

    static std::chrono::seconds localUtcOffset(TimePoint at);
    static Calendar fixed(std::chrono::seconds offset) {
        return Calendar{[offset](TimePoint) { return offset; }};
    }
};

} // namespace vantle
