#include "VantleLibrary/Calendar.h"

#include <ctime>

namespace vantle {

std::chrono::seconds Calendar::localUtcOffset(TimePoint at) {
    std::time_t t = std::chrono::system_clock::to_time_t(at);
    std::tm local{};
    if (!::localtime_r(&t, &local)) return std::chrono::seconds(0);
    return std::chrono::seconds(local.tm_gmtoff);
}

TimePoint Calendar::startOfDay(TimePoint at) const {
    using namespace std::chrono;
    auto offset = utcOffset(at);
    auto local = at + offset;
    auto midnight = floor<days>(local);
    // Read the offset again at midnight: the day may have begun before a daylight-saving switch.
    return midnight - utcOffset(midnight - offset);
}

} // namespace vantle
