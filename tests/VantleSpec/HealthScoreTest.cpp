#include "VantleSpec/HealthScore.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/HealthScoreKeeper.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

using namespace vantle;
using namespace std::chrono;
using Kind = HealthScore::Penalty::Kind;
using Pressure = VitalsSnapshot::Pressure;
using Thermal = VitalsSnapshot::Thermal;

namespace {

HealthScore::Reading calm() {
    HealthScore::Reading r;
    r.memoryUsed = 4 * GiB;
    r.memoryTotal = 16 * GiB;
    return r;
}

HealthScore score(const HealthScore::Reading& r) {
    return HealthScore::compute(r, HealthScore::Recent::of(r));
}

HealthScore score(const HealthScore::Reading& r, HealthScore::Recent recent) {
    return HealthScore::compute(r, recent);
}

const HealthScore::Penalty* find(const HealthScore& s, Kind kind) {
    for (auto& p : s.penalties)
        if (p.kind == kind) return &p;
    return nullptr;
}

HealthScore::Reading withDisk(std::int64_t available, std::int64_t total) {
    auto r = calm();
    r.diskAvailable = available;
    r.diskTotal = total;
    return r;
}

} // namespace

TEST(HealthScore, AllQuietIsAHundredWithNothingTakenAndAnExcellentGrade) {
    auto s = score(calm());
    EXPECT_EQ(s.value, 100);
    EXPECT_TRUE(s.penalties.empty());
    EXPECT_EQ(s.grade(), HealthScore::Grade::excellent);
    auto withFigures = withDisk(600'000'000'000, 1'000'000'000'000);
    withFigures.batteryHealth = 0.95;
    EXPECT_EQ(score(withFigures).value, 100);
}

TEST(HealthScore, GradeBoundaries) {
    using G = HealthScore::Grade;
    std::pair<int, G> cases[] = {{100, G::excellent}, {90, G::excellent}, {89, G::good}, {75, G::good},
                                 {74, G::fair},       {50, G::fair},      {49, G::poor}, {0, G::poor}};
    for (auto [value, grade] : cases)
        EXPECT_EQ(HealthScore::gradeOf(value), grade) << value;
}

TEST(HealthScore, MemoryPointsComeFromTheWorstOfTheHalfMinuteAndTheLineFromNow) {
    auto r = calm();
    r.pressure = Pressure::warning;
    auto s = score(r);
    ASSERT_NE(find(s, Kind::memory), nullptr);
    EXPECT_EQ(find(s, Kind::memory)->points, 15);
    EXPECT_EQ(find(s, Kind::memory)->line, "Memory is under pressure: 4 GB of 16 GB in use");
    EXPECT_EQ(find(s, Kind::memory)->help, "Balance the load asks before quitting apps you aren't using.");
    EXPECT_EQ(find(s, Kind::memory)->fix, HealthScore::Fix::balance);
    EXPECT_EQ(s.value, 85);

    r.pressure = Pressure::critical;
    EXPECT_EQ(find(score(r), Kind::memory)->line, "Memory is nearly full: 4 GB of 16 GB in use");
    EXPECT_EQ(find(score(r), Kind::memory)->points, 30);

    // Normal now, but critical 20 seconds ago.
    HealthScoreKeeper keeper;
    auto t0 = sys_days{2026y / June / 1} + 12h;
    auto critical = calm();
    critical.pressure = Pressure::critical;
    keeper.add(t0 - 20s, critical);
    s = keeper.look(t0, calm());
    ASSERT_NE(find(s, Kind::memory), nullptr);
    EXPECT_EQ(find(s, Kind::memory)->points, 30);
    EXPECT_EQ(find(s, Kind::memory)->line, "Memory was nearly full in the last half minute");

    auto warned = calm();
    warned.pressure = Pressure::warning;
    HealthScoreKeeper other;
    other.add(t0 - 29s, warned);
    EXPECT_EQ(find(other.look(t0, calm()), Kind::memory)->line,
              "Memory was under pressure in the last half minute");

    // Past the half minute it no longer counts.
    HealthScoreKeeper old;
    old.add(t0 - 31s, critical);
    EXPECT_EQ(find(old.look(t0, calm()), Kind::memory), nullptr);
}

TEST(HealthScore, SwapGrowsToTenAtAQuarterOfMemory) {
    auto r = calm();
    r.swapUsed = 4 * GiB; // a quarter of 16
    auto s = score(r);
    ASSERT_NE(find(s, Kind::swap), nullptr);
    EXPECT_EQ(find(s, Kind::swap)->points, 10);
    EXPECT_EQ(find(s, Kind::swap)->line, "4 GB of memory is swapped to the disk");
    EXPECT_FALSE(find(s, Kind::swap)->fix);
    r.swapUsed = 8 * GiB;
    EXPECT_EQ(find(score(r), Kind::swap)->points, 10);
    r.swapUsed = 2 * GiB;
    EXPECT_EQ(find(score(r), Kind::swap)->points, 5);

    // Unrounded points below one make no penalty but still come off the value.
    r.swapUsed = GiB / 8; // 0.3125 points
    EXPECT_EQ(find(score(r), Kind::swap), nullptr);
    r.diskTotal = 100;
    r.diskAvailable = 15;          // 5 points
    r.batteryHealth = 0.7;         // 5 points
    EXPECT_EQ(score(r).value, 90); // 100 - 10.3125, rounded
    r.swapUsed = GiB / 4;          // 0.625 points: a penalty of 1
    EXPECT_EQ(find(score(r), Kind::swap)->points, 1);

    // No memory total, no swap part.
    r.memoryTotal = 0;
    EXPECT_EQ(find(score(r), Kind::swap), nullptr);
}

TEST(HealthScore, ProcessorWithCoreKindsTakesTheLargerFormula) {
    auto r = calm();
    r.hasCoreKinds = true;
    r.performance = 0.8;
    r.whole = 0.7;
    auto s = score(r);
    ASSERT_NE(find(s, Kind::processor), nullptr);
    EXPECT_EQ(find(s, Kind::processor)->points, 10); // 10 against 8
    EXPECT_EQ(find(s, Kind::processor)->line, "The performance cores are 80% busy");
    EXPECT_EQ(find(s, Kind::processor)->help,
              "Balance the load moves background work to the efficiency cores.");
    EXPECT_EQ(s.value, 90);

    r.performance = 0.65; // 2.5
    r.whole = 0.9;        // 16
    s = score(r);
    EXPECT_EQ(find(s, Kind::processor)->points, 16);
    EXPECT_EQ(find(s, Kind::processor)->line, "The processor is 90% busy");

    // Equal points speak of the performance cores.
    r.performance = 0.7; // 5
    r.whole = 0.625;     // 5
    EXPECT_EQ(find(score(r), Kind::processor)->line, "The performance cores are 70% busy");

    // A minute's samples make the line an average.
    r.performance = 1.3; // clamped to 1
    r.whole = -0.2;      // ignored
    HealthScore::Recent minute{r.performance, r.whole, 45.0, Pressure::normal, Thermal::nominal};
    s = score(r, minute);
    EXPECT_EQ(find(s, Kind::processor)->points, 20);
    EXPECT_EQ(find(s, Kind::processor)->line,
              "The performance cores averaged 100% busy over the last minute");
    EXPECT_TRUE(s.exact);
    minute.coveredSeconds = 44.9;
    EXPECT_EQ(find(score(r, minute), Kind::processor)->line, "The performance cores are 100% busy");
    EXPECT_FALSE(score(r, minute).exact);
}

TEST(HealthScore, ProcessorWithoutCoreKindsJudgesThePerformanceFigureAlone) {
    auto r = calm();
    r.performance = 0.6;
    r.whole = 0.99; // not counted without core kinds
    EXPECT_EQ(find(score(r), Kind::processor), nullptr);
    r.performance = 0.9;
    auto s = score(r);
    EXPECT_EQ(find(s, Kind::processor)->points, 15);
    EXPECT_EQ(find(s, Kind::processor)->line, "The processor is 90% busy");
    EXPECT_EQ(find(s, Kind::processor)->help, "Balance the load gives background work a lower priority.");
    HealthScore::Recent minute{0.9, std::nullopt, 60.0, Pressure::normal, Thermal::nominal};
    EXPECT_EQ(find(score(r, minute), Kind::processor)->line,
              "The processor averaged 90% busy over the last minute");
}

TEST(HealthScore, HeatPointsFromTheWorstAndTheLineFromNow) {
    std::tuple<Thermal, int, const char*> now[] = {
        {Thermal::fair, 5, "Your Mac is warm"},
        {Thermal::serious, 15, "Your Mac is hot, so macOS is slowing the chip to cool it"},
        {Thermal::critical, 30, "Your Mac is very hot, so macOS is slowing everything to cool it"}};
    for (auto [state, points, line] : now) {
        auto r = calm();
        r.thermal = state;
        auto s = score(r);
        ASSERT_NE(find(s, Kind::heat), nullptr);
        EXPECT_EQ(find(s, Kind::heat)->points, points);
        EXPECT_EQ(find(s, Kind::heat)->line, line);
        EXPECT_FALSE(find(s, Kind::heat)->help);
    }
    auto r = calm();
    HealthScore::Recent recent = HealthScore::Recent::of(r);
    recent.worstThermal = Thermal::fair;
    EXPECT_EQ(find(score(r, recent), Kind::heat)->line, "Your Mac was warm in the last half minute");
    recent.worstThermal = Thermal::critical;
    EXPECT_EQ(find(score(r, recent), Kind::heat)->line, "Your Mac was hot in the last half minute");
    EXPECT_EQ(find(score(r, recent), Kind::heat)->points, 30);
    // Fair now after critical: the line speaks of now, the points of the worst.
    r.thermal = Thermal::fair;
    EXPECT_EQ(find(score(r, recent), Kind::heat)->line, "Your Mac is warm");
    EXPECT_EQ(find(score(r, recent), Kind::heat)->points, 30);
}

TEST(HealthScore, FreeSpaceStepsAndTheirLines) {
    auto s = score(withDisk(19'990'000'000, 100'000'000'000)); // 19.99 %
    ASSERT_NE(find(s, Kind::disk), nullptr);
    EXPECT_EQ(find(s, Kind::disk)->points, 5);
    EXPECT_EQ(find(s, Kind::disk)->line, "19% of the disk is free: 19.99 GB of 100 GB");
    EXPECT_EQ(find(s, Kind::disk)->help, "Storage shows what fills it.");
    EXPECT_EQ(find(s, Kind::disk)->fix, HealthScore::Fix::storage);

    s = score(withDisk(9'500'000'000, 100'000'000'000)); // 9.5 %
    EXPECT_EQ(find(s, Kind::disk)->points, 15);
    EXPECT_EQ(find(s, Kind::disk)->line, "Only 9% of the disk is free: 9.5 GB of 100 GB");

    EXPECT_EQ(find(score(withDisk(20, 100)), Kind::disk), nullptr);
    EXPECT_EQ(find(score(withDisk(10, 100)), Kind::disk)->points, 5);
    EXPECT_EQ(find(score(withDisk(5, 100)), Kind::disk)->points, 15);
    EXPECT_EQ(find(score(withDisk(4, 100)), Kind::disk)->points, 25);
    EXPECT_EQ(find(score(withDisk(0, 1000)), Kind::disk)->line,
              "Only 0% of the disk is free: 0 bytes of 1 KB");
    // More available than the total counts as all free; a zero total or a missing figure, nothing.
    EXPECT_EQ(find(score(withDisk(200, 100)), Kind::disk), nullptr);
    EXPECT_EQ(find(score(withDisk(0, 0)), Kind::disk), nullptr);
    auto r = withDisk(0, 100);
    r.diskTotal.reset();
    EXPECT_EQ(find(score(r), Kind::disk), nullptr);
}

TEST(HealthScore, BatteryUnderEightyPercent) {
    auto r = calm();
    r.batteryHealth = 0.8;
    EXPECT_EQ(find(score(r), Kind::battery), nullptr);
    r.batteryHealth = 0.794;
    auto s = score(r);
    ASSERT_NE(find(s, Kind::battery), nullptr);
    EXPECT_EQ(find(s, Kind::battery)->points, 5);
    EXPECT_EQ(find(s, Kind::battery)->line, "The battery holds 79% of what it held new");
    EXPECT_EQ(find(s, Kind::battery)->help, "Balancing can't change that: only a new battery can.");
    EXPECT_FALSE(find(s, Kind::battery)->fix);
}

TEST(HealthScore, PenaltiesSortByPointsThenKindAndTheValueStopsAtZero) {
    auto r = withDisk(1, 100);       // disk 25
    r.pressure = Pressure::critical; // memory 30
    r.thermal = Thermal::critical;   // heat 30
    r.swapUsed = 16 * GiB;           // swap 10
    r.performance = 1;               // processor 20
    r.batteryHealth = 0.5;           // battery 5
    auto s = score(r);
    EXPECT_EQ(s.value, 0);
    EXPECT_EQ(s.grade(), HealthScore::Grade::poor);
    std::vector<Kind> order;
    for (auto& p : s.penalties)
        order.push_back(p.kind);
    EXPECT_EQ(order, (std::vector<Kind>{Kind::memory, Kind::heat, Kind::disk, Kind::processor, Kind::swap,
                                        Kind::battery}));

    // Equal points keep the kinds' order whatever order they were built in.
    auto tie = withDisk(15, 100); // disk 5
    tie.thermal = Thermal::fair;  // heat 5
    tie.batteryHealth = 0.1;      // battery 5
    s = score(tie);
    order.clear();
    for (auto& p : s.penalties)
        order.push_back(p.kind);
    EXPECT_EQ(order, (std::vector<Kind>{Kind::heat, Kind::disk, Kind::battery}));
    EXPECT_EQ(s.value, 85);
}

TEST(HealthScore, ExplanationRowsAreWrittenFromTheComputationsConstants) {
    auto rows = HealthScore::explanation();
    ASSERT_EQ(rows.size(), 6u);
    std::vector<Kind> kinds;
    for (auto& row : rows)
        kinds.push_back(row.kind);
    EXPECT_EQ(kinds, (std::vector<Kind>{Kind::processor, Kind::memory, Kind::swap, Kind::heat, Kind::disk,
                                        Kind::battery}));
    EXPECT_EQ(rows[0].sentence,
              "Points when the processor averages over 50% busy for a minute, or its performance "
              "cores over 60%; the most at 100%.");
    EXPECT_EQ(rows[1].sentence, "15 when macOS warns of memory pressure, 30 when it is critical.");
    EXPECT_EQ(rows[2].sentence, "Points as swap grows, the most once it is a quarter of this Mac's memory.");
    EXPECT_EQ(rows[3].sentence, "5 warm, 15 hot, 30 very hot.");
    EXPECT_EQ(rows[4].sentence, "5 under 20% free, 15 under 10%, 25 under 5%.");
    EXPECT_EQ(rows[5].sentence, "On a MacBook, when its battery holds under 80% of what it held new.");
    EXPECT_EQ(rows[1].title, "Memory pressure");
    EXPECT_EQ(rows[4].title, "Free space");

    // Each row's "most" is what the computation really takes at the worst of that reading.
    auto worst = withDisk(0, 100);
    worst.hasCoreKinds = true;
    worst.performance = 1;
    worst.whole = 1;
    worst.pressure = Pressure::critical;
    worst.thermal = Thermal::critical;
    worst.swapUsed = worst.memoryTotal;
    worst.batteryHealth = 0;
    auto s = score(worst);
    for (auto& row : rows) {
        ASSERT_NE(find(s, row.kind), nullptr) << nameOf(row.kind);
        EXPECT_EQ(find(s, row.kind)->points, row.most) << nameOf(row.kind);
    }
}

TEST(HealthScore, ScoreKeysAndUnknownPenaltyKinds) {
    auto r = withDisk(9'500'000'000, 100'000'000'000);
    r.hasCoreKinds = true;
    r.whole = 0.7;
    r.performance = 0.8;
    r.batteryHealth = 0.75;
    auto s = score(r);
    Json j = s;
    EXPECT_EQ(j.begin().key(), "value");
    EXPECT_EQ(j["penalties"][0]["kind"], "disk");
    EXPECT_FALSE(decodeJson<HealthScore>(R"({"value":90,"penalties":[{"kind":"mood","points":1,"line":""}],)"
                                         R"("exact":true})"));
}

TEST(HealthScore, ReadingFromASnapshot) {
    VitalsSnapshot s;
    s.cpu.total = 0.4;
    s.memory = {16 * GiB, 10 * GiB, 8 * GiB, GiB, GiB, 2 * GiB, Pressure::warning};
    s.disk = {1000, 100};
    s.thermal = Thermal::fair;
    auto r = HealthScore::Reading::of(s);
    EXPECT_FALSE(r.hasCoreKinds);
    EXPECT_DOUBLE_EQ(r.performance, 0.4);
    EXPECT_FALSE(r.whole);
    EXPECT_EQ(r.diskAvailable, 100);
    EXPECT_FALSE(r.batteryHealth);
    EXPECT_EQ(r.swapUsed, 2 * GiB);

    s.cpu.performanceCores = 0.9;
    s.power = {true, 0.5, false, false, VitalsSnapshot::Battery{70, 100}};
    s.disk = {};
    r = HealthScore::Reading::of(s);
    EXPECT_TRUE(r.hasCoreKinds);
    EXPECT_DOUBLE_EQ(r.performance, 0.9);
    EXPECT_EQ(r.whole, 0.4);
    EXPECT_DOUBLE_EQ(*r.batteryHealth, 0.7);
    EXPECT_FALSE(r.diskTotal); // a volume that could not be read
}

TEST(HealthScoreKeeper, AveragesTheLastMinuteAndSaysHowMuchItCovers) {
    HealthScoreKeeper keeper;
    auto t0 = sys_days{2026y / June / 1} + 12h;
    auto r = calm();
    r.hasCoreKinds = true;
    for (int s = 0; s <= 90; s += 10) {
        r.performance = s <= 20 ? 1.0 : 0.7; // the busy start falls out of the minute
        r.whole = std::nullopt;
        if (s >= 60) r.whole = 0.9;
        keeper.add(t0 + seconds(s), r);
    }
    auto recent = keeper.recent(t0 + 90s);
    ASSERT_TRUE(recent);
    EXPECT_DOUBLE_EQ(recent->performance, 0.7); // samples 30..90
    EXPECT_DOUBLE_EQ(*recent->whole, 0.9);      // only the samples that had one
    EXPECT_DOUBLE_EQ(*recent->coveredSeconds, 60);
    EXPECT_LE(keeper.samples.size(), 7u); // nothing older than the minute is kept

    const auto& s = keeper.look(t0 + 100s, r);
    EXPECT_EQ(keeper.looked, t0 + 100s);
    EXPECT_EQ(keeper.shown, s);
    EXPECT_TRUE(s.exact);
    EXPECT_EQ(find(s, Kind::processor)->line, "The processor averaged 90% busy over the last minute");

    EXPECT_FALSE(HealthScoreKeeper{}.recent(t0));
}

TEST(HealthScoreKeeper, AFirstLookSpeaksOfNowAndAClockThatWentBackDropsTheFuture) {
    HealthScoreKeeper keeper;
    auto t0 = sys_days{2026y / June / 1} + 12h;
    auto busy = calm();
    busy.performance = 0.9;
    auto s = keeper.look(t0, busy);
    EXPECT_FALSE(s.exact);
    EXPECT_EQ(find(s, Kind::processor)->line, "The processor is 90% busy");

    auto hot = calm();
    hot.thermal = Thermal::critical;
    keeper.add(t0 + 10s, hot);
    keeper.add(t0 - 5min, calm()); // clock set back
    ASSERT_EQ(keeper.samples.size(), 1u);
    EXPECT_EQ(keeper.recent(t0 - 5min)->worstThermal, Thermal::nominal);
}

// The score must never rise while one reading gets worse and the others stay put. Walks each reading
// from calm to its worst, on top of many made-up starting points.
TEST(HealthScoreProperty, NeverRisesAsAReadingGetsWorse) {
    using Step = std::function<void(HealthScore::Reading&, HealthScore::Recent&, double)>;
    std::vector<std::pair<const char*, Step>> walks = {
        {"pressure",
         [](auto& r, auto& recent, double t) {
             r.pressure = t < 0.33 ? Pressure::normal : t < 0.66 ? Pressure::warning : Pressure::critical;
             recent.worstPressure = std::max(recent.worstPressure, r.pressure);
         }},
        {"swap", [](auto& r, auto&, double t) { r.swapUsed = std::uint64_t(t * 2 * double(r.memoryTotal)); }},
        {"performance",
         [](auto& r, auto& recent, double t) { r.performance = recent.performance = t * 1.2 - 0.1; }},
        {"whole", [](auto& r, auto& recent, double t) { r.whole = recent.whole = t * 1.2 - 0.1; }},
        {"thermal",
         [](auto& r, auto& recent, double t) {
             r.thermal = Thermal(std::min(3, int(t * 4)));
             recent.worstThermal = std::max(recent.worstThermal, r.thermal);
         }},
        {"disk",
         [](auto& r, auto&, double t) { r.diskAvailable = std::int64_t((1 - t) * double(*r.diskTotal)); }},
        {"battery", [](auto& r, auto&, double t) { r.batteryHealth = 1 - t; }},
    };

    std::mt19937 random(20260601);
    std::uniform_real_distribution<double> unit(0, 1);
    for (int base = 0; base < 30; ++base) {
        HealthScore::Reading start = calm();
        start.hasCoreKinds = base % 2 == 0;
        start.performance = unit(random);
        if (start.hasCoreKinds) start.whole = unit(random);
        start.pressure = Pressure(random() % 3);
        start.thermal = Thermal(random() % 4);
        start.swapUsed = std::uint64_t(unit(random) * 4 * GiB);
        start.diskTotal = 500'000'000'000;
        start.diskAvailable = std::int64_t(unit(random) * 500'000'000'000);
        if (base % 3) start.batteryHealth = unit(random);
        HealthScore::Recent startRecent = HealthScore::Recent::of(start);
        startRecent.coveredSeconds = unit(random) * 60;

        for (auto& [name, step] : walks) {
            auto r = start;
            auto recent = startRecent;
            int previous = 101;
            for (int i = 0; i <= 50; ++i) {
                step(r, recent, i / 50.0);
                int value = HealthScore::compute(r, recent).value;
                ASSERT_LE(value, previous) << name << " at step " << i << " from base " << base;
                previous = value;
            }
        }
    }
}
