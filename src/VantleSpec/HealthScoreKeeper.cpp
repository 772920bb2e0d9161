#include "VantleSpec/HealthScoreKeeper.h"

#include <algorithm>

namespace vantle {

void HealthScoreKeeper::add(TimePoint at, const HealthScore::Reading& reading) {
    while (!samples.empty() && samples.back().at > at)
        samples.pop_back();
    samples.push_back({at, reading});
    while (!samples.empty() && (samples.front().at < at - averagedOver || samples.size() > mostSamples))
        samples.pop_front();
}

std::optional<HealthScore::Recent> HealthScoreKeeper::recent(TimePoint now) const {
    HealthScore::Recent out;
    double performanceSum = 0, wholeSum = 0;
    int count = 0, wholeCount = 0;
    std::optional<TimePoint> first, last;
    for (const auto& s : samples) {
        if (s.at > now || s.at < now - averagedOver) continue;
        if (!first) first = s.at;
        last = s.at;
        performanceSum += s.reading.performance;
        ++count;
        if (s.reading.whole) {
            wholeSum += *s.reading.whole;
            ++wholeCount;
        }
        if (s.at >= now - worstOver) {
            out.worstPressure = std::max(out.worstPressure, s.reading.pressure);
            out.worstThermal = std::max(out.worstThermal, s.reading.thermal);
        }
    }
    if (count == 0) return std::nullopt;
    out.performance = performanceSum / count;
    if (wholeCount > 0) out.whole = wholeSum / wholeCount;
    out.coveredSeconds = std::chrono::duration<double>(*last - *first).count();
    return out;
}

const HealthScore& HealthScoreKeeper::look(TimePoint at, const HealthScore::Reading& reading) {
    add(at, reading);
    shown = HealthScore::compute(reading, recent(at).value_or(HealthScore::Recent::of(reading)));
    looked = at;
    return *shown;
}

} // namespace vantle
