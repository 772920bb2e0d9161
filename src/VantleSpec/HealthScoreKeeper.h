// Keeps the recent readings behind the health score: the one-minute processor averages and the worst
// memory pressure and heat of the last half minute come from here. A plain value; the caller owns it
// and must not share one keeper between threads without its own lock.
#pragma once
#include "VantleSpec/HealthScore.h"
#include "VantleSpec/Time.h"

#include <chrono>
#include <deque>
#include <optional>

namespace vantle {

struct HealthScoreKeeper {
    struct Sample {
        TimePoint at{};
        HealthScore::Reading reading;
        bool operator==(const Sample&) const = default;
    };

    static constexpr std::chrono::seconds averagedOver{60};
    static constexpr std::chrono::seconds worstOver{30};
    // A caller that reads far more often than once a second still keeps a bounded list.
    static constexpr std::size_t mostSamples = 600;

    std::optional<HealthScore> shown; // the score last worked out
    std::deque<Sample> samples;       // oldest first, none older than a minute before the latest
    std::optional<TimePoint> looked;  // when the score was last worked out

    // Adds a reading taken at `at`. A reading dated before the latest one means the clock went back:
    // the samples after it no longer describe the past minute and are dropped.
    void add(TimePoint at, const HealthScore::Reading& reading);

    // The figures at `now` from the samples kept; a keeper with no samples in the minute gives none.
    std::optional<HealthScore::Recent> recent(TimePoint now) const;

    // Adds the reading, works out the score from it and the samples, and remembers it as shown.
    const HealthScore& look(TimePoint at, const HealthScore::Reading& reading);
};

} // namespace vantle
