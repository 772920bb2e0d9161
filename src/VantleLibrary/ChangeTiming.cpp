#include "VantleLibrary/ChangeTiming.h"

#include <algorithm>

namespace vantle {

namespace {
using Duration = TimePoint::duration;

ChangeTiming::Seconds since(TimePoint now, TimePoint then) {
    return std::chrono::duration_cast<ChangeTiming::Seconds>(now - then);
}
} // namespace

ChangeTiming::Step ChangeTiming::changed(TimePoint now) {
    lastChange = now;
    if (!burstBegan) burstBegan = now;
    auto delay = std::max(Seconds(0), std::min(quiet, longestWait - since(now, *burstBegan)));
    return {false, std::max(delay, soonest)};
}

ChangeTiming::Step ChangeTiming::check(TimePoint now) {
    if (!burstBegan || !lastChange) return {};
    auto c = since(now, *lastChange);
    auto b = since(now, *burstBegan);
    if (c < quiet && b < longestWait)
        return {false, std::max(Seconds(0), std::min(quiet - c, longestWait - b))};

    if (lastBurstEnded && since(now, *lastBurstEnded) < cooldown) {
        if (lastSignal && backoff > Seconds(0)) {
            auto allowed = *lastSignal + std::chrono::duration_cast<Duration>(backoff);
            if (now < allowed) return {false, since(allowed, now)};
        }
        backoff = backoff == Seconds(0) ? cooldown / 6 : std::min(backoff * 2, cooldown);
    } else {
        backoff = Seconds(0);
    }
    lastSignal = now;
    lastBurstEnded = lastChange;
    burstBegan.reset();
    return {true, std::nullopt};
}

} // namespace vantle
