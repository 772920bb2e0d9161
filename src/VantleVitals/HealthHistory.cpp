#include "VantleVitals/HealthHistory.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <random>

namespace vantle {

namespace {

// The start of the local row that holds `at`: its hour, its day or its month.
TimePoint rowStart(HealthHistory::Span span, TimePoint at) {
    using namespace std::chrono;
    std::time_t t = system_clock::to_time_t(at);
    std::tm local{};
    localtime_r(&t, &local);
    local.tm_sec = local.tm_min = 0;
    if (span != HealthHistory::Span::day) local.tm_hour = 0;
    if (span == HealthHistory::Span::year) local.tm_mday = 1;
    local.tm_isdst = -1; // let mktime find whether that time was in summer time
    return system_clock::from_time_t(std::mktime(&local));
}

} // namespace

HealthHistory::HealthHistory(std::shared_ptr<HealthRecord> record, Clock clock)
    : record_(std::move(record)), clock_(std::move(clock)) {}

HealthRecord::Table HealthHistory::tableOf(Span span) {
    switch (span) {
    case Span::day:
        return HealthRecord::Table::minutes;
    case Span::month:
        return HealthRecord::Table::quarters;
    case Span::year:
        break;
    }
    return HealthRecord::Table::hours;
}

std::chrono::seconds HealthHistory::lengthOf(Span span) {
    using namespace std::chrono;
    switch (span) {
    case Span::day:
        return days(1);
    case Span::month:
        return days(30);
    case Span::year:
        break;
    }
    return days(365);
}

HealthHistory::Reading HealthHistory::read(Span span) const {
    Reading reading;
    reading.span = span;
    const TimePoint now = clock_();
    reading.from = now - lengthOf(span);
    reading.to = now + std::chrono::seconds(1); // a point that starts exactly now is in
    if (record_) reading.points = record_->points(tableOf(span), reading.from, reading.to);
    return reading;
}

std::vector<HealthPoint> HealthHistory::rows(const Reading& reading) {
    std::vector<HealthPoint> out;
    auto first = reading.points.begin();
    while (first != reading.points.end()) {
        const TimePoint start = rowStart(reading.span, first->start);
        auto last = first;
        while (last != reading.points.end() && rowStart(reading.span, last->start) == start)
            ++last;
        if (auto row = combineHealthPoints(start, std::span(first, last))) out.push_back(std::move(*row));
        first = last;
    }
    return out;
}

std::optional<HealthPoint> HealthHistory::overall(const Reading& reading) {
    return combineHealthPoints(reading.from, reading.points);
}

HealthHistory::MadeUpWeek HealthHistory::madeUpWeek(TimePoint now) {
    using namespace std::chrono;
    constexpr std::int64_t minuteSeconds = 60;
    constexpr std::int64_t quarterSeconds = HealthRecord::stepSeconds(HealthRecord::Table::quarters);
    constexpr std::int64_t hourSeconds = HealthRecord::stepSeconds(HealthRecord::Table::hours);
    constexpr std::int64_t daySeconds = 86'400;
    constexpr double pi = 3.14159265358979323846;
    static const char* const appNames[] = {"Browser",  "Mail",   "Editor", "Music",
                                           "Terminal", "Photos", "Chat"};

    // Whole hours only, so every quarter and hour of the week is complete.
    const std::int64_t end = recordSeconds(now) / hourSeconds * hourSeconds;
    const std::int64_t begin = end - 7 * daySeconds;
    std::mt19937 random(static_cast<std::uint32_t>(end));
    // The working day follows the local clock; the offset of `now` is close enough for a made-up week.
    std::time_t nowT = static_cast<std::time_t>(end);
    std::tm local{};
    localtime_r(&nowT, &local);
    const std::int64_t offset = local.tm_gmtoff;
    std::uniform_real_distribution<double> jitter(-1.0, 1.0);

    MadeUpWeek week;
    std::vector<HealthPoint> quarterMinutes, hourQuarters;
    for (std::int64_t t = begin; t < end; t += minuteSeconds) {
        const double hourOfDay = double(((t + offset) % daySeconds + daySeconds) % daySeconds) / 3600.0;
        const int day = int((t - begin) / daySeconds);
        const bool weekend = day == 2 || day == 3;
        // Busy from nine to six on working days, a gentle hum at night.
        const double work = weekend ? 0.3 : std::clamp(std::sin((hourOfDay - 7.5) / 12.0 * pi), 0.0, 1.0);
        HealthPoint p;
        p.start = fromRecordSeconds(t);
        p.seconds = minuteSeconds;
        p.cpu = std::clamp(0.06 + 0.45 * work + 0.08 * jitter(random), 0.01, 1.0);
        p.cpuPeak = std::clamp(p.cpu + 0.25 * std::abs(jitter(random)), p.cpu, 1.0);
        p.memory = std::clamp(0.42 + 0.30 * work + 0.03 * jitter(random), 0.2, 0.97);
        p.memoryPeak = std::clamp(p.memory + 0.04, p.memory, 0.99);
        const bool strained = day == 4 && hourOfDay >= 14 && hourOfDay < 16; // a heavy afternoon
        if (strained) {
            p.cpu = std::max(p.cpu, 0.85);
            p.cpuPeak = std::max(p.cpuPeak, 0.98);
            p.memory = std::max(p.memory, 0.93);
            p.memoryPeak = std::max(p.memoryPeak, 0.97);
            p.pressure =
                hourOfDay < 15 ? VitalsSnapshot::Pressure::warning : VitalsSnapshot::Pressure::critical;
            p.pressureShare = 0.6;
            p.thermal = hourOfDay < 15 ? VitalsSnapshot::Thermal::fair : VitalsSnapshot::Thermal::serious;
        }
        p.swapBytes = strained ? 1'800'000'000ULL : static_cast<std::uint64_t>(120'000'000 * (1 + work));
        p.networkIn = 20'000 + 600'000 * work * (0.5 + 0.5 * std::abs(jitter(random)));
        p.networkOut = p.networkIn / 8;
        p.diskRead = 50'000 + 900'000 * work * std::abs(jitter(random));
        p.diskWritten = p.diskRead / 3;
        // Runs down through the working day and charges in the evening.
        const double charge = hourOfDay < 9    ? 1.0
                              : hourOfDay < 18 ? 1.0 - (hourOfDay - 9) * 0.08
                                               : 0.28 + (hourOfDay - 18) * 0.12;
        p.charge = std::clamp(charge, 0.05, 1.0);
        for (int a = 0; a < 5; ++a) {
            const auto* name = appNames[(a + day) % std::size(appNames)];
            p.apps.push_back({name, std::max(0.0, 100 * p.cpu / (a + 1.5) + 3 * jitter(random)),
                              static_cast<std::uint64_t>((900 - 150 * a) * 1'000'000ULL), std::nullopt});
        }
        keepBusiestApps(p.apps);

        if (end - t <= daySeconds) week.minutes.push_back(p);
        quarterMinutes.push_back(std::move(p));
        if ((t + minuteSeconds) % quarterSeconds == 0) {
            if (auto q = combineHealthPoints(fromRecordSeconds(t + minuteSeconds - quarterSeconds),
                                             quarterMinutes)) {
                week.quarters.push_back(*q);
                hourQuarters.push_back(std::move(*q));
            }
            quarterMinutes.clear();
        }
        if ((t + minuteSeconds) % hourSeconds == 0) {
            if (auto h =
                    combineHealthPoints(fromRecordSeconds(t + minuteSeconds - hourSeconds), hourQuarters))
                week.hours.push_back(std::move(*h));
            hourQuarters.clear();
        }
    }
    return week;
}

} // namespace vantle
