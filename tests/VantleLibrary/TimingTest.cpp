#include "VantleLibrary/ChangeTiming.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

using namespace vantle;
using namespace std::chrono;

namespace {

const TimePoint start = sys_days{2026y / May / 1} + 12h;

TimePoint at(double seconds) {
    return start + duration_cast<TimePoint::duration>(duration<double>(seconds));
}

double secondsOf(TimePoint t) {
    return duration<double>(t - start).count();
}

// Plays changes at given moments against one ChangeTiming the way the watcher's thread does: a
// pending check replaced at every change, and a check that runs before a change due at the same
// moment (it was scheduled first). Returns the moments of the signals.
struct Timeline {
    ChangeTiming timing;
    std::optional<TimePoint> checkAt;
    std::vector<double> signals;

    void apply(const ChangeTiming::Step& step, TimePoint now) {
        if (step.signal) signals.push_back(secondsOf(now));
        if (step.nextCheck)
            checkAt = now + duration_cast<TimePoint::duration>(*step.nextCheck);
        else if (step.signal)
            checkAt.reset();
    }
    void runChecksUntil(TimePoint limit) {
        while (checkAt && *checkAt <= limit) {
            auto now = *checkAt;
            checkAt.reset();
            apply(timing.check(now), now);
        }
    }
    void change(double seconds) {
        runChecksUntil(at(seconds));
        apply(timing.changed(at(seconds)), at(seconds));
    }
    void settle() { runChecksUntil(at(100000)); }
};

} // namespace

TEST(ChangeTiming, ALoneChangeSignalsAfterExactlyTheQuietTime) {
    Timeline t;
    t.change(0);
    t.settle();
    EXPECT_EQ(t.signals, (std::vector<double>{3}));
    EXPECT_EQ(t.timing.backoff, ChangeTiming::Seconds(0));
    EXPECT_FALSE(t.timing.burstBegan);
    EXPECT_EQ(t.timing.lastBurstEnded, at(0));

    // A check with no burst open does nothing.
    EXPECT_EQ(t.timing.check(at(50)), ChangeTiming::Step{});
}

TEST(ChangeTiming, AQuickBurstSignalsQuietAfterItsLastChange) {
    Timeline t;
    for (double s : {0.0, 0.5, 1.0, 2.5})
        t.change(s);
    t.settle();
    EXPECT_EQ(t.signals, (std::vector<double>{5.5}));
}

TEST(ChangeTiming, ABurstThatNeverEndsSignalsAtTheLongestWaitThenBacksOff) {
    Timeline t;
    for (int s = 0; s <= 200; ++s)
        t.change(s);
    // First at 15 s after the first change. Every later burst also lasts the longest wait (it begins
    // with the change right after a signal), and the backoff (10, 20, 40, 60) stretches the gap once
    // it is longer than that. The cooldown is measured from the end of the burst before, which a
    // 60 s wait leaves a minute behind: the pace then starts over (at 164.01, the first check after
    // the change at 164).
    std::vector<double> expected{15, 30, 45, 65, 105, 164.01, 180, 195};
    ASSERT_EQ(t.signals.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_NEAR(t.signals[i], expected[i], 1e-6) << i;
    for (size_t i = 1; i < t.signals.size(); ++i)
        EXPECT_LE(t.signals[i] - t.signals[i - 1], 60 + 1e-6);
    t.settle();
    EXPECT_DOUBLE_EQ(t.signals.back(), 215); // the tail of the burst still waits out the backoff of 20
    EXPECT_EQ(t.timing.backoff, ChangeTiming::Seconds(40));
}

TEST(ChangeTiming, BurstsInQuickSuccessionDoubleTheBackoffAndAQuietMinuteResetsIt) {
    Timeline t;
    t.change(0); // signals at 3
    t.settle();
    t.change(30); // ends 30 s after the first: backoff 10, nothing to wait for
    t.settle();
    EXPECT_EQ(t.timing.backoff, ChangeTiming::Seconds(10));
    t.change(35); // quiet at 38, but 10 s after the signal at 33 is 43
    t.settle();
    EXPECT_EQ(t.timing.backoff, ChangeTiming::Seconds(20));
    EXPECT_EQ(t.signals, (std::vector<double>{3, 33, 43}));

    t.change(200); // more than a minute after the last burst ended: back to the plain pace
    t.settle();
    EXPECT_EQ(t.timing.backoff, ChangeTiming::Seconds(0));
    EXPECT_DOUBLE_EQ(t.signals.back(), 203);
}

TEST(ChangeTiming, AChangeAtTheLongestWaitIsCheckedAlmostAtOnce) {
    ChangeTiming timing;
    timing.changed(at(0));
    auto step = timing.changed(at(15));
    ASSERT_TRUE(step.nextCheck);
    EXPECT_EQ(*step.nextCheck, ChangeTiming::soonest);
    EXPECT_FALSE(step.signal);
    auto check = timing.check(at(15.01));
    EXPECT_TRUE(check.signal);

    // A clock that stepped back never yields a negative delay.
    ChangeTiming back;
    back.changed(at(10));
    auto late = back.changed(at(40));
    EXPECT_EQ(*late.nextCheck, ChangeTiming::soonest);
}

TEST(ChangeTiming, OtherSettingsScaleThePace) {
    Timeline t;
    t.timing.quiet = ChangeTiming::Seconds(1);
    t.timing.longestWait = ChangeTiming::Seconds(4);
    t.timing.cooldown = ChangeTiming::Seconds(12);
    for (double s = 0; s <= 10; s += 0.5)
        t.change(s);
    t.settle();
    EXPECT_EQ(t.signals, (std::vector<double>{4, 8, 11}));
    EXPECT_EQ(t.timing.backoff, ChangeTiming::Seconds(4)); // 12/6, doubled once
}
