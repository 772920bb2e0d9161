// The pace at which heard changes become a "the library changed" signal: a burst signals after a
// quiet time, never later than a longest wait after it began, and bursts that keep coming within a
// cooldown are slowed down (10, 20, 40, then at most 60 s apart with the usual settings). A plain
// value with no clock of its own: the caller passes "now". Not thread-safe; a watcher drives it from
// its one thread.
#pragma once
#include "VantleSpec/Time.h"

#include <chrono>
#include <optional>

namespace vantle {

struct ChangeTiming {
    using Seconds = std::chrono::duration<double>;

    // What the owner does after a change or a check.
    struct Step {
        bool signal = false;              // tell the listeners now
        std::optional<Seconds> nextCheck; // schedule a check after this long (replacing a pending one)
        bool operator==(const Step&) const = default;
    };

    Seconds quiet{3};
    Seconds longestWait{15};
    Seconds cooldown{60};
    std::optional<TimePoint> burstBegan;
    std::optional<TimePoint> lastChange;
    std::optional<TimePoint> lastSignal;
    std::optional<TimePoint> lastBurstEnded;
    Seconds backoff{0};

    // The soonest a check is ever scheduled, so a burst at its longest wait still yields the thread.
    static constexpr Seconds soonest{0.01};

    // A change was heard at `now`: the next check is always rescheduled.
    Step changed(TimePoint now);
    // The scheduled check runs at `now`.
    Step check(TimePoint now);
};

} // namespace vantle
