#include "VantleSpec/HealthPoint.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace vantle;
using namespace std::chrono;
using Pressure = VitalsSnapshot::Pressure;
using Thermal = VitalsSnapshot::Thermal;

namespace {

const TimePoint noon = sys_days{2026y / March / 3} + 12h;

HealthPoint part(TimePoint start, double seconds, double cpu) {
    HealthPoint p;
    p.start = start;
    p.seconds = seconds;
    p.cpu = cpu;
    p.cpuPeak = cpu;
    return p;
}

} // namespace

TEST(HealthPointRollUp, AveragesAreWeightedBySecondsAndPeaksTakeTheHighest) {
    auto a = part(noon, 60, 0.30);
    a.memory = 0.50;
    a.memoryPeak = 0.70;
    a.pressureShare = 0.0;
    a.swapBytes = 1000;
    a.networkIn = 100;
    a.diskWritten = 10;
    auto b = part(noon + 1min, 30, 0.60);
    b.cpuPeak = 0.95;
    b.memory = 0.80;
    b.memoryPeak = 0.65;
    b.pressureShare = 1.0;
    b.swapBytes = 4000;
    b.networkIn = 400;
    b.diskWritten = 40;
    std::vector parts{a, b};

    auto combined = combineHealthPoints(noon, parts);
    ASSERT_TRUE(combined);
    EXPECT_EQ(combined->start, noon);
    EXPECT_DOUBLE_EQ(combined->seconds, 90);
    EXPECT_NEAR(combined->cpu, 0.40, 1e-12); // (0.3×60 + 0.6×30) / 90, not the plain mean 0.45
    EXPECT_NEAR(combined->memory, 0.60, 1e-12);
    EXPECT_NEAR(combined->pressureShare, 1.0 / 3, 1e-12);
    EXPECT_EQ(combined->swapBytes, 2000u);
    EXPECT_NEAR(combined->networkIn, 200, 1e-9);
    EXPECT_NEAR(combined->diskWritten, 20, 1e-9);
    EXPECT_DOUBLE_EQ(combined->cpuPeak, 0.95);
    EXPECT_DOUBLE_EQ(combined->memoryPeak, 0.70);
}

TEST(HealthPointRollUp, StatesTakeTheWorstAndChargeTheLatestKnown) {
    auto a = part(noon, 60, 0.1);
    a.pressure = Pressure::critical;
    a.thermal = Thermal::fair;
    a.charge = 0.80;
    auto b = part(noon + 1min, 60, 0.1);
    b.pressure = Pressure::warning;
    b.thermal = Thermal::serious;
    b.charge = 0.75;
    auto c = part(noon + 2min, 60, 0.1); // no battery reading in the last minute
    std::vector parts{a, b, c};

    auto combined = combineHealthPoints(noon, parts);
    ASSERT_TRUE(combined);
    EXPECT_EQ(combined->pressure, Pressure::critical);
    EXPECT_EQ(combined->thermal, Thermal::serious);
    EXPECT_EQ(combined->charge, 0.75);

    std::vector noCharge{part(noon, 60, 0.1)};
    EXPECT_EQ(combineHealthPoints(noon, noCharge)->charge, std::nullopt);
}

TEST(HealthPointRollUp, AppsMergeByNameAndKeepTheBusiestFew) {
    auto a = part(noon, 60, 0.5);
    a.apps = {{"Browser", 80, 900, 4.0}, {"Editor", 20, 300, std::nullopt}};
    auto b = part(noon + 1min, 60, 0.5);
    b.apps = {{"Browser", 40, 1200, std::nullopt}, {"Music", 10, 100, 1.0}};
    for (int i = 0; i < 6; ++i)
        b.apps.push_back({"Helper " + std::to_string(i), 1.0 + i, 50, std::nullopt});
    std::vector parts{a, b};

    auto combined = combineHealthPoints(noon, parts);
    ASSERT_TRUE(combined);
    ASSERT_EQ(combined->apps.size(), HealthPoint::appsKept);
    const auto& browser = combined->apps[0];
    EXPECT_EQ(browser.name, "Browser");
    EXPECT_NEAR(browser.cpu, 60, 1e-9);     // averaged over both minutes
    EXPECT_EQ(browser.memoryBytes, 1200u);  // the larger footprint
    EXPECT_NEAR(*browser.watts, 4.0, 1e-9); // only the minute that knew its power counts
    EXPECT_EQ(combined->apps[1].name, "Editor");
    EXPECT_NEAR(combined->apps[1].cpu, 10, 1e-9); // absent from the second minute
    EXPECT_EQ(combined->apps[1].watts, std::nullopt);
    for (size_t i = 1; i < combined->apps.size(); ++i)
        EXPECT_GE(combined->apps[i - 1].cpu, combined->apps[i].cpu) << "busiest first";
    for (const auto& app : combined->apps)
        EXPECT_NE(app.name, "Helper 0") << "the idlest are dropped";
}

TEST(HealthPointRollUp, NoPartsNoPointAndPartsWithoutSecondsWeighAlike) {
    EXPECT_EQ(combineHealthPoints(noon, std::span<const HealthPoint>{}), std::nullopt);

    std::vector parts{part(noon, 0, 0.2), part(noon + 1min, 0, 0.4)};
    auto combined = combineHealthPoints(noon, parts);
    ASSERT_TRUE(combined);
    EXPECT_DOUBLE_EQ(combined->seconds, 0);
    EXPECT_NEAR(combined->cpu, 0.3, 1e-12);
    EXPECT_FALSE(std::isnan(combined->memory));
}
