#include "VantleVitals/HealthHistory.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using namespace vantle;
using namespace std::chrono;
using Span = HealthHistory::Span;
using Table = HealthRecord::Table;

namespace {

const TimePoint noon = sys_days{2026y / March / 3} + 12h;

HealthPoint point(TimePoint start, double seconds, double cpu) {
    HealthPoint p;
    p.start = start;
    p.seconds = seconds;
    p.cpu = cpu;
    p.cpuPeak = cpu;
    return p;
}

// Rows follow the local calendar; pin it to UTC so the expected rows do not depend on the machine.
class UtcCalendar {
  public:
    UtcCalendar() {
        if (const char* tz = std::getenv("TZ")) saved_ = tz;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    ~UtcCalendar() {
        if (saved_)
            setenv("TZ", saved_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

  private:
    std::optional<std::string> saved_;
};

class HealthHistoryTest : public ::testing::Test {
  protected:
    UtcCalendar utc;
    vantle::testing::TempDir temp;
    std::shared_ptr<HealthRecord> record = std::make_shared<HealthRecord>(temp / "Health");
    TimePoint now = noon;
    HealthHistory history{record, [this] { return now; }};
};

} // namespace

TEST_F(HealthHistoryTest, EachSpanReadsItsOwnGrainOverItsOwnLength) {
    // One point just inside and one just outside each span, in each table, plus a decoy in the
    // neighbouring grain that must not be read.
    ASSERT_TRUE(record->seed({point(noon - days(365), 3600, 0.9), point(noon - days(365) - 1h, 3600, 0.9),
                              point(noon - 2h, 3600, 0.3)},
                             {point(noon - days(30), 900, 0.5), point(noon - days(30) - 15min, 900, 0.5),
                              point(noon - 30min, 900, 0.4)},
                             {point(noon - days(1), 60, 0.2), point(noon - days(1) - 1min, 60, 0.2),
                              point(noon - 1min, 60, 0.1), point(noon, 60, 0.1)}));

    auto day = history.read(Span::day);
    EXPECT_EQ(day.span, Span::day);
    EXPECT_EQ(day.from, noon - hours(24));
    ASSERT_EQ(day.points.size(), 3u);
    EXPECT_EQ(day.points.front().start, noon - days(1));
    EXPECT_EQ(day.points.back().start, noon) << "a point starting exactly now is in";

    auto month = history.read(Span::month);
    ASSERT_EQ(month.points.size(), 2u);
    EXPECT_EQ(month.points.front().start, noon - days(30));

    auto year = history.read(Span::year);
    ASSERT_EQ(year.points.size(), 2u);
    EXPECT_EQ(year.points.front().start, noon - days(365));
    EXPECT_DOUBLE_EQ(year.points.back().cpu, 0.3);

    EXPECT_EQ(HealthHistory::tableOf(Span::day), Table::minutes);
    EXPECT_EQ(HealthHistory::tableOf(Span::month), Table::quarters);
    EXPECT_EQ(HealthHistory::tableOf(Span::year), Table::hours);
}

TEST_F(HealthHistoryTest, RowsFoldPointsIntoHoursDaysAndMonthsLeavingEmptyRowsOut) {
    HealthHistory::Reading day{Span::day, noon - days(1), noon, {}};
    for (auto at : {noon - 3h + 10min, noon - 3h + 50min, noon - 1h + 5min})
        day.points.push_back(point(at, 60, at == noon - 1h + 5min ? 0.9 : 0.3));
    auto hourRows = HealthHistory::rows(day);
    ASSERT_EQ(hourRows.size(), 2u);
    EXPECT_EQ(hourRows[0].start, noon - 3h);
    EXPECT_DOUBLE_EQ(hourRows[0].seconds, 120);
    EXPECT_EQ(hourRows[1].start, noon - 1h);
    EXPECT_DOUBLE_EQ(hourRows[1].cpu, 0.9);

    HealthHistory::Reading month{Span::month, noon - days(30), noon, {}};
    for (auto at : {noon - days(2) - 11h, noon - days(2) + 11h, noon - 13h})
        month.points.push_back(point(at, 900, 0.2));
    auto dayRows = HealthHistory::rows(month);
    ASSERT_EQ(dayRows.size(), 2u);
    EXPECT_EQ(dayRows[0].start, sys_days{2026y / March / 1});
    EXPECT_DOUBLE_EQ(dayRows[0].seconds, 1800);
    EXPECT_EQ(dayRows[1].start, sys_days{2026y / March / 2});

    HealthHistory::Reading year{Span::year, noon - days(365), noon, {}};
    for (auto at :
         {TimePoint(sys_days{2026y / January / 31} + 23h), TimePoint(sys_days{2026y / February / 1}),
          TimePoint(sys_days{2026y / February / 28} + 23h)})
        year.points.push_back(point(at, 3600, 0.2));
    auto monthRows = HealthHistory::rows(year);
    ASSERT_EQ(monthRows.size(), 2u);
    EXPECT_EQ(monthRows[0].start, sys_days{2026y / January / 1});
    EXPECT_EQ(monthRows[1].start, sys_days{2026y / February / 1});
    EXPECT_DOUBLE_EQ(monthRows[1].seconds, 7200);
}

TEST_F(HealthHistoryTest, AnEmptyRecordReadsAsNoPointsAndNoOverall) {
    auto reading = history.read(Span::month);
    EXPECT_TRUE(reading.points.empty());
    EXPECT_TRUE(HealthHistory::rows(reading).empty());
    EXPECT_EQ(HealthHistory::overall(reading), std::nullopt);
}

TEST(MadeUpWeek, IsAWholeConsistentWeekThatTheRecordAcceptsAndTheHistoryReadsBack) {
    UtcCalendar utc;
    const TimePoint now = noon + 25min;
    auto week = HealthHistory::madeUpWeek(now);
    EXPECT_EQ(week.hours.size(), 7u * 24);
    EXPECT_EQ(week.quarters.size(), 7u * 96);
    EXPECT_EQ(week.minutes.size(), 24u * 60);
    EXPECT_EQ(week.hours.back().start, noon - 1h) << "whole hours up to now";
    EXPECT_EQ(HealthHistory::madeUpWeek(now).hours, week.hours) << "the same week every time";

    bool strained = false, warm = false;
    for (const auto& h : week.hours) {
        EXPECT_DOUBLE_EQ(h.seconds, 3600);
        EXPECT_GE(h.cpu, 0.0);
        EXPECT_LE(h.cpuPeak, 1.0);
        EXPECT_GE(h.cpuPeak, h.cpu);
        EXPECT_LE(h.memory, 1.0);
        ASSERT_TRUE(h.charge);
        EXPECT_LE(h.apps.size(), HealthPoint::appsKept);
        strained |= h.pressure != VitalsSnapshot::Pressure::normal;
        warm |= h.thermal != VitalsSnapshot::Thermal::nominal;
    }
    EXPECT_TRUE(strained && warm) << "a week worth looking at has a hard afternoon";

    // The hours agree with the quarters they stand for.
    std::vector<HealthPoint> firstHour(week.quarters.begin(), week.quarters.begin() + 4);
    EXPECT_EQ(combineHealthPoints(week.hours[0].start, firstHour), week.hours[0]);

    vantle::testing::TempDir temp;
    auto record = std::make_shared<HealthRecord>(temp / "Health");
    ASSERT_TRUE(record->seed(week.hours, week.quarters, week.minutes));
    HealthHistory history(record, [&] { return now; });
    EXPECT_EQ(history.read(Span::day).points.size(), 24u * 60 - 25) << "the day from 12:25 yesterday";
    EXPECT_EQ(history.read(Span::month).points, week.quarters);
    EXPECT_EQ(HealthHistory::rows(history.read(Span::year)).size(), 2u) << "February and March";
}
