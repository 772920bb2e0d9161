#include "VantleSpec/VitalsRecords.h"
#include "VantleSpec/ActivityRecords.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;

namespace {

TimePoint at(int minute) {
    return sys_days{2026y / March / 4} + 9h + minutes(minute) + 250ms;
}

VitalsSnapshot fullSnapshot() {
    VitalsSnapshot s;
    s.at = at(0);
    s.cpu = {0.42,
             {0.9, 0.1, 0.5, 0.2},
             {VitalsSnapshot::CoreKind::performance, VitalsSnapshot::CoreKind::performance,
              VitalsSnapshot::CoreKind::efficiency, VitalsSnapshot::CoreKind::efficiency},
             0.5,
             0.35};
    s.memory = {16ull << 30,
                9ull << 30,
                6ull << 30,
                2ull << 30,
                1ull << 30,
                512ull << 20,
                VitalsSnapshot::Pressure::warning};
    s.disk = {500'000'000'000ull, 120'000'000'000ull};
    s.power = {true, 0.81, true, true, VitalsSnapshot::Battery{4'500'000, 5'000'000, 312, false, "Normal"}};
    s.thermal = VitalsSnapshot::Thermal::serious;
    s.gpu = 0.12;
    s.network = {1500.5, 20.25};
    s.uptimeSeconds = 86'400.5;
    s.topProcesses = {{101, "builder", 187.5, 300ull << 20, false}};
    s.heaviestProcesses = {{7, "daemon", 1.5, 2ull << 30, true}};
    s.awake = true;
    s.apps = {"Editor", "Browser"};
    s.diskActivity = VitalsSnapshot::DiskActivity{4096, 8192};
    return s;
}

ProcessRow fullRow() {
    ProcessRow r;
    r.pid = 4242;
    r.parent = 1;
    r.name = "node";
    r.app = "Editor";
    r.path = "/usr/bin/node";
    r.bundleID = "org.example.editor";
    r.user = "ada";
    r.isOwn = true;
    r.kind = ProcessKind::app;
    r.agent = "code_agent";
    r.cpuPercent = 150.5;
    r.cpuSeconds = 12.25;
    r.threads = 17;
    r.idleWakeups = 3;
    r.memory = 400ull << 20;
    r.realMemory = 500ull << 20;
    r.watts = 2.5;
    r.energyImpact = 40;
    r.preventsSleep = true;
    r.diskReadPerSecond = 100;
    r.diskWrittenPerSecond = 200;
    r.diskReadTotal = 1ull << 33; // past 32 bits, so a narrow field would show
    r.diskWrittenTotal = 5;
    r.networkInPerSecond = 6;
    r.networkOutPerSecond = 7;
    r.networkInTotal = 8;
    r.networkOutTotal = 9;
    r.started = at(-60);
    return r;
}

} // namespace

TEST(VitalsRecords, BareSnapshotLeavesItsOptionalsOut) {
    VitalsSnapshot bare;
    bare.at = at(1);
    auto text = encodeJson(bare);
    for (auto key : {"gpu", "diskActivity", "performanceCores", "battery", "charge"})
        EXPECT_EQ(text.find(key), std::string::npos) << key;
}

TEST(VitalsRecords, KeysAreTheFieldNamesInOrder) {
    Json j = fullSnapshot();
    std::vector<std::string> keys;
    for (auto& [k, v] : j.items())
        keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"at", "cpu", "memory", "disk", "power", "thermal", "gpu",
                                              "network", "uptimeSeconds", "topProcesses", "heaviestProcesses",
                                              "awake", "apps", "diskActivity"}));
    EXPECT_EQ(j["memory"]["pressure"], "warning");
    EXPECT_EQ(j["thermal"], "serious");
    EXPECT_EQ(j["cpu"]["kinds"][2], "efficiency");
    EXPECT_EQ(j["at"], "2026-03-04T09:00:00.250Z");
}

TEST(VitalsRecords, SampleOfASnapshot) {
    auto s = fullSnapshot();
    auto sample = VitalsSample::of(s);
    EXPECT_DOUBLE_EQ(sample.memory, 9.0 / 16.0);
    EXPECT_EQ(sample.performance, 0.5);
    EXPECT_EQ(sample.thermal, VitalsSnapshot::Thermal::serious);
}

namespace {
std::vector<std::string> keysOf(const Json& j) {
    std::vector<std::string> keys;
    for (auto& [k, v] : j.items())
        keys.push_back(k);
    return keys;
}
} // namespace

TEST(ActivityRecords, ProcessRowKeysAreItsFieldNamesInOrder) {
    Json row = fullRow();
    EXPECT_EQ(keysOf(row), (std::vector<std::string>{"pid",
                                                     "parent",
                                                     "name",
                                                     "app",
                                                     "path",
                                                     "bundleID",
                                                     "user",
                                                     "isOwn",
                                                     "kind",
                                                     "agent",
                                                     "cpuPercent",
                                                     "cpuSeconds",
                                                     "threads",
                                                     "idleWakeups",
                                                     "memory",
                                                     "realMemory",
                                                     "watts",
                                                     "energyImpact",
                                                     "preventsSleep",
                                                     "diskReadPerSecond",
                                                     "diskWrittenPerSecond",
                                                     "diskReadTotal",
                                                     "diskWrittenTotal",
                                                     "networkInPerSecond",
                                                     "networkOutPerSecond",
                                                     "networkInTotal",
                                                     "networkOutTotal",
                                                     "started"}));
    EXPECT_EQ(row["kind"], "app");
    EXPECT_EQ(row["diskReadTotal"].get<std::uint64_t>(), 1ull << 33) << "past 32 bits";
    EXPECT_EQ(row["started"], "2026-03-04T08:00:00.250Z");
    Json bare = ProcessRow{};
    EXPECT_FALSE(bare.contains("started"));
    EXPECT_FALSE(bare.contains("watts"));
    EXPECT_FALSE(bare.contains("app"));
}

TEST(ActivityRecords, ActivityTotalsKeysAreItsFieldNamesInOrder) {
    ActivityTotals totals{
        at(3), 0.5, 0.3, 0.2, 8ull << 30, 16ull << 30, 1ull << 30, 0, VitalsSnapshot::Pressure::critical,
        14.5,  1,   2,   3,   4,          312,         2048};
    Json j = totals;
    EXPECT_EQ(keysOf(j), (std::vector<std::string>{
                             "date", "cpu", "cpuUser", "cpuSystem", "memoryUsed", "memoryTotal", "compressed",
                             "swapUsed", "pressure", "watts", "diskReadPerSecond", "diskWrittenPerSecond",
                             "networkInPerSecond", "networkOutPerSecond", "processes", "threads"}));
    EXPECT_EQ(j["pressure"], "critical");
    EXPECT_EQ(j["processes"], 312);
    totals.watts.reset();
    EXPECT_FALSE(Json(totals).contains("watts"));
}
