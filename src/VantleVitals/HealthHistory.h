// Reads the health record back for a chosen span: the last day from the minutes, the last month
// from the quarter hours, the last year from the hours; and groups a reading into the rows people
// read (hours of a day, days of a month, months of a year, on the local calendar). Holds no state of
// its own beyond the shared record, so it may be called from several threads; results are the
// caller's.
#pragma once
#include "VantleSpec/HealthPoint.h"
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleVitals/HealthRecord.h"

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace vantle {

class HealthHistory {
  public:
    enum class Span { day, month, year };

    struct Reading {
        Span span = Span::day;
        TimePoint from{};                // inclusive
        TimePoint to{};                  // exclusive
        std::vector<HealthPoint> points; // oldest first
        bool operator==(const Reading&) const = default;
    };

    HealthHistory(std::shared_ptr<HealthRecord> record, Clock clock = systemClock());

    static HealthRecord::Table tableOf(Span span);
    static std::chrono::seconds lengthOf(Span span); // a day, 30 days, 365 days

    Reading read(Span span) const;

    // The reading's points folded into one point per row, oldest first; rows without points are
    // left out. Rows are local hours for a day, local days for a month and local months for a year.
    static std::vector<HealthPoint> rows(const Reading& reading);

    // The whole reading folded into one point, or none when it holds no points.
    static std::optional<HealthPoint> overall(const Reading& reading);

    // A made-up week ending at `now`, for a sandbox's record: busy working days and quiet nights,
    // a warm spell and a stretch of memory pressure, a battery that runs down and charges. Minutes
    // cover the last day (what the record keeps of them); quarters and hours are rolled up from the
    // same made-up minutes, as the record would have rolled them. The same `now` gives the same week.
    struct MadeUpWeek {
        std::vector<HealthPoint> hours, quarters, minutes;
    };
    static MadeUpWeek madeUpWeek(TimePoint now);

  private:
    std::shared_ptr<HealthRecord> record_;
    Clock clock_;
};

VANTLE_ENUM_NAMES(HealthHistory::Span, "day", "month", "year")
VANTLE_RECORD_JSON(HealthHistory::Reading, span, from, to, points)

} // namespace vantle
