#include "VantleVitals/HealthRecorder.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace vantle;
using namespace std::chrono;
using Table = HealthRecord::Table;

namespace {

const TimePoint recorderTen = sys_days{2026y / March / 3} + 10h;

VitalsSnapshot reading(double cpu, double memoryFraction = 0.5) {
    VitalsSnapshot s;
    s.cpu.total = cpu;
    s.memory.totalBytes = 1000;
    s.memory.usedBytes = static_cast<std::uint64_t>(memoryFraction * 1000);
    return s;
}

// A recorder over a real record in a temporary folder, with a clock, a switch and a reading the
// test sets by hand.
class HealthRecorderTest : public ::testing::Test {
  protected:
    vantle::testing::TempDir temp;
    std::shared_ptr<HealthRecord> record = std::make_shared<HealthRecord>(temp / "Health");
    TimePoint now = recorderTen;
    bool on = true;
    std::optional<VitalsSnapshot> next = reading(0.1);
    int samplesTaken = 0;
    HealthRecorder recorder{record,
                            [this]() -> std::optional<VitalsSnapshot> {
                                ++samplesTaken;
                                return next;
                            },
                            [this] { return on; }, [this] { return now; }, HealthRecorderOptions{seconds(5)}};

    void tickAt(TimePoint at, const VitalsSnapshot& snapshot) {
        now = at;
        next = snapshot;
        recorder.tick();
    }
    std::vector<HealthPoint> minutes() {
        return record->points(Table::minutes, TimePoint{}, recorderTen + days(2));
    }
};

} // namespace

TEST_F(HealthRecorderTest, WritesOnePointForAMinuteWhenTheNextMinuteBegins) {
    for (int s = 0; s < 60; s += 5)
        tickAt(recorderTen + seconds(s), reading(s < 30 ? 0.2 : 0.6, s < 30 ? 0.4 : 0.8));
    EXPECT_TRUE(minutes().empty()) << "the minute is still open";

    tickAt(recorderTen + 60s, reading(0.9));
    auto points = minutes();
    ASSERT_EQ(points.size(), 1u);
    const auto& p = points[0];
    EXPECT_EQ(p.start, recorderTen);
    EXPECT_DOUBLE_EQ(p.seconds, 60);
    EXPECT_NEAR(p.cpu, 0.4, 1e-12);
    EXPECT_DOUBLE_EQ(p.cpuPeak, 0.6);
    EXPECT_NEAR(p.memory, 0.6, 1e-12);
    EXPECT_DOUBLE_EQ(p.memoryPeak, 0.8);
}

TEST_F(HealthRecorderTest, FoldsStatesRatesChargeAndAppsOfTheMinute) {
    auto calm = reading(0.1);
    calm.power.charge = 0.9;
    calm.network = {100, 10};
    calm.diskActivity = VitalsSnapshot::DiskActivity{1000, 0};
    calm.memory.swapUsedBytes = 100;
    calm.topProcesses = {
        {1, "Browser", 80, 500, false}, {2, "Browser", 20, 300, false}, {3, "Editor", 10, 50, false}};
    auto strained = calm;
    strained.memory.pressure = VitalsSnapshot::Pressure::warning;
    strained.thermal = VitalsSnapshot::Thermal::fair;
    strained.power.charge = 0.85;
    strained.network = {300, 30};
    strained.diskActivity.reset();
    strained.memory.swapUsedBytes = 300;
    strained.topProcesses = {{3, "Editor", 30, 50, false}};
    strained.heaviestProcesses = {{4, "Database", 0, 4000, true}};

    tickAt(recorderTen, calm);
    tickAt(recorderTen + 15s, calm); // 15 s is past twice the interval: it stands for 5 s
    tickAt(recorderTen + 20s, strained);
    tickAt(recorderTen + 25s, strained);
    tickAt(recorderTen + 30s, calm);
    recorder.flush();

    auto points = minutes();
    ASSERT_EQ(points.size(), 1u);
    const auto& p = points[0];
    EXPECT_DOUBLE_EQ(p.seconds, 25);
    EXPECT_EQ(p.pressure, VitalsSnapshot::Pressure::warning);
    EXPECT_NEAR(p.pressureShare, 10.0 / 25, 1e-12);
    EXPECT_EQ(p.thermal, VitalsSnapshot::Thermal::fair);
    EXPECT_EQ(p.charge, 0.9) << "the latest reading's charge";
    EXPECT_NEAR(p.networkIn, (15 * 100 + 10 * 300) / 25.0, 1e-9);
    EXPECT_NEAR(p.diskRead, 15 * 1000 / 25.0, 1e-9) << "a reading without disk activity counts as none";
    EXPECT_EQ(p.swapBytes, 180u);

    ASSERT_EQ(p.apps.size(), 3u);
    EXPECT_EQ(p.apps[0].name, "Browser");
    EXPECT_NEAR(p.apps[0].cpu, 100 * 15 / 25.0, 1e-9) << "two processes of one name are one app";
    EXPECT_EQ(p.apps[0].memoryBytes, 800u);
    EXPECT_EQ(p.apps[1].name, "Editor");
    EXPECT_NEAR(p.apps[1].cpu, (10 * 15 + 30 * 10) / 25.0, 1e-9);
    EXPECT_EQ(p.apps[2].name, "Database");
    EXPECT_EQ(p.apps[2].memoryBytes, 4000u);
}

TEST_F(HealthRecorderTest, NothingIsWrittenWhileRecordingIsOff) {
    on = false;
    for (int s = 0; s <= 120; s += 5)
        tickAt(recorderTen + seconds(s), reading(0.5));
    recorder.flush();
    EXPECT_TRUE(minutes().empty());
    EXPECT_EQ(samplesTaken, 0) << "the machine is not even read";

    on = true;
    tickAt(recorderTen + 3min, reading(0.5));
    tickAt(recorderTen + 3min + 30s, reading(0.5));
    on = false; // turned off mid-minute: the open minute goes too
    tickAt(recorderTen + 3min + 35s, reading(0.5));
    on = true;
    tickAt(recorderTen + 4min, reading(0.3));
    recorder.flush();
    EXPECT_EQ(minutes().size(), 1u);
    EXPECT_EQ(minutes()[0].start, recorderTen + 4min);
}

TEST_F(HealthRecorderTest, AFailedReadingIsSkippedAndAPauseStandsForOneInterval) {
    tickAt(recorderTen, reading(0.2));
    now = recorderTen + 5s;
    next.reset();
    recorder.tick();
    tickAt(recorderTen + 3h + 10s, reading(0.8)); // the machine slept
    tickAt(recorderTen + 3h + 15s, reading(0.8));
    recorder.flush();
    auto points = minutes();
    ASSERT_EQ(points.size(), 2u);
    EXPECT_DOUBLE_EQ(points[0].seconds, 5);
    EXPECT_DOUBLE_EQ(points[0].cpu, 0.2);
    EXPECT_EQ(points[1].start, recorderTen + 3h);
    EXPECT_DOUBLE_EQ(points[1].seconds, 10);
}

TEST(HealthRecorderThread, StartTakesASampleAtOnceAndStopJoins) {
    vantle::testing::TempDir temp;
    auto record = std::make_shared<HealthRecord>(temp / "Health");
    std::atomic<int> samples = 0;
    {
        HealthRecorder recorder(
            record,
            [&]() -> std::optional<VitalsSnapshot> {
                ++samples;
                return reading(0.3);
            },
            [] { return true; }, [] { return recorderTen; }, HealthRecorderOptions{hours(1)});
        recorder.start();
        recorder.stop();
        EXPECT_EQ(samples.load(), 1);
        recorder.start(); // a recorder can start again after a stop
    }                     // destruction stops the thread and writes the open minute
    EXPECT_GE(samples.load(), 2);
    EXPECT_EQ(record->latest(Table::minutes), recorderTen);
}
