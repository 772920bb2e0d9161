#include "VantleVitals/StandInVitals.h"

#include "Platform/AtomicFile.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;

namespace {

struct Sandbox {
    TempDir dir;
    TimePoint now = sys_days{2026y / July / 9} + 15h;
    std::vector<ProcessRow> processes;

    Sandbox() {
        for (auto [pid, name, cpu, memory] : {std::tuple{501, "Editor", 35.0, 800ull << 20},
                                              {502, "indexer", 90.0, 200ull << 20},
                                              {503, "Browser", 12.0, 2ull << 30}}) {
            ProcessRow r;
            r.pid = pid;
            r.name = name;
            r.cpuPercent = cpu;
            r.memory = r.realMemory = memory;
            r.threads = 4;
            r.isOwn = true;
            if (name[0] >= 'A' && name[0] <= 'Z') r.app = name;
            processes.push_back(r);
        }
    }

    StandInVitals make() {
        return StandInVitals(
            dir.path(), [this] { return processes; }, [this] { return now; });
    }
};

} // namespace

TEST(StandInVitals, ShowsTheTableInTurnWithTheStandInProcessesAndKeepsARecord) {
    Sandbox box;
    auto vitals = box.make();
    auto table = StandInVitals::madeUpTable();
    ASSERT_GE(table.size(), 2u);

    auto first = vitals.sample();
    EXPECT_EQ(first.at, box.now);
    EXPECT_EQ(first.cpu, table[0].cpu);
    EXPECT_EQ(first.memory, table[0].memory);
    ASSERT_FALSE(first.topProcesses.empty());
    EXPECT_EQ(first.topProcesses[0].name, "indexer");
    EXPECT_EQ(first.heaviestProcesses[0].name, "Browser");
    EXPECT_EQ(first.apps, (std::vector<std::string>{"Browser", "Editor"}));

    box.now += 1s;
    auto second = vitals.sample();
    EXPECT_EQ(second.cpu, table[1].cpu);
    EXPECT_DOUBLE_EQ(second.uptimeSeconds, table[1].uptimeSeconds + 1);

    // The activity list agrees with the reading last shown.
    auto activity = vitals.read();
    EXPECT_EQ(activity.rows.size(), 3u);
    EXPECT_DOUBLE_EQ(activity.totals.cpu, table[1].cpu.total);
    EXPECT_EQ(activity.totals.memoryUsed, table[1].memory.usedBytes);
    EXPECT_EQ(activity.totals.threads, 12);

    auto onDisk =
        decodeJson<StandInVitals::Record>(vantle::testing::readFile(box.dir / "stand-in-vitals.json"));
    ASSERT_TRUE(onDisk) << onDisk.error();
    EXPECT_EQ(*onDisk, vitals.record());
    EXPECT_EQ(onDisk->record, (std::vector<StandInVitals::Reading>{{box.now - 1s, 0}, {box.now, 1}}));
    EXPECT_FALSE(vitals.problem());
}

TEST(StandInVitals, AnEditedTableIsShownAndTheTurnCarriesOnAfterARestart) {
    Sandbox box;
    {
        auto vitals = box.make();
        vitals.sample();
    }
    auto record =
        decodeJson<StandInVitals::Record>(vantle::testing::readFile(box.dir / "stand-in-vitals.json"))
            .value();
    record.table.resize(2);
    record.table[1].thermal = VitalsSnapshot::Thermal::critical;
    record.table[1].memory.pressure = VitalsSnapshot::Pressure::critical;
    ASSERT_TRUE(writeFileAtomically(box.dir / "stand-in-vitals.json", encodeJson(record)));

    auto vitals = box.make();
    auto s = vitals.sample();
    EXPECT_EQ(s.thermal, VitalsSnapshot::Thermal::critical);
    EXPECT_EQ(s.memory.pressure, VitalsSnapshot::Pressure::critical);
    EXPECT_EQ(vitals.sample().thermal, record.table[0].thermal); // round again
}

TEST(StandInVitals, KeepingAwakeIsRecordedAndShown) {
    Sandbox box;
    auto vitals = box.make();
    vitals.keepAwake(true);
    EXPECT_TRUE(vitals.sample().awake);
    box.now += 5min;
    vitals.keepAwake(false);
    EXPECT_FALSE(vitals.sample().awake);
    auto r = vitals.record();
    EXPECT_EQ(r.keptAwake, (std::vector<StandInVitals::KeepAwake>{{box.now - 5min, true}, {box.now, false}}));
}

TEST(StandInVitals, TheRecordKeepsOnlyTheLatestReadings) {
    Sandbox box;
    auto vitals = box.make();
    for (size_t i = 0; i < StandInVitals::readingsKept + 7; ++i) {
        vitals.sample();
        box.now += 1s;
    }
    auto r = vitals.record();
    ASSERT_EQ(r.record.size(), StandInVitals::readingsKept);
    EXPECT_EQ(r.record.back().at, box.now - 1s);
    EXPECT_EQ(r.record.front().at, box.now - seconds(StandInVitals::readingsKept));
}

TEST(StandInVitals, AnUnreadableFileIsLeftAloneAndSaysSo) {
    Sandbox box;
    const std::string broken = R"({"table": [ {"at": "half-edited)";
    box.dir.write("stand-in-vitals.json", broken);
    auto vitals = box.make();
    auto s = vitals.sample();
    EXPECT_EQ(s.cpu, StandInVitals::madeUpTable()[0].cpu);
    ASSERT_TRUE(vitals.problem());
    EXPECT_TRUE(vitals.problem()->starts_with("The sandbox's stand-in vitals in ")) << *vitals.problem();
    EXPECT_EQ(vantle::testing::readFile(box.dir / "stand-in-vitals.json"), broken);

    box.dir.write("stand-in-vitals.json", R"({"table":[],"record":[],"kept":false,"keptAwake":[]})");
    auto empty = box.make();
    EXPECT_EQ(empty.sample().memory, StandInVitals::madeUpTable()[0].memory);
    EXPECT_NE(empty.problem()->find("its table is empty"), std::string::npos);

    // Without stand-in processes the table's own lists are shown.
    TempDir bare;
    StandInVitals noProcesses(bare.path(), nullptr, [] { return TimePoint{}; });
    EXPECT_TRUE(noProcesses.sample().topProcesses.empty());
    EXPECT_TRUE(noProcesses.read().rows.empty());
}
