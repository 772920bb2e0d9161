#include "VantleLiteLive/StandInApps.h"
#include "VantleLiteLive/StandInMac.h"
#include "VantleLiteLive/StandInProcesses.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;
using namespace std::chrono;

namespace {
const TimePoint at = sys_days{2026y / May / 1} + 9h;
Clock fixedClock() {
    return [] { return at; };
}
} // namespace

TEST(StandInProcesses, QuitIsRecordedAndKeptAcrossRuns) {
    TempDir dir;
    {
        StandInProcesses processes(dir.path(), StandInProcesses::Scene::busy, fixedClock());
        auto before = processes.processes().size();
        EXPECT_EQ(processes.quit(103), QuitOutcome::quit);
        EXPECT_EQ(processes.quit(104), QuitOutcome::stillRunning) << "it asks to save first";
        EXPECT_EQ(processes.quit(999), QuitOutcome::refused);
        EXPECT_EQ(processes.processes().size(), before - 1);
    }
    StandInProcesses again(dir.path(), StandInProcesses::Scene::calm);
    auto record = again.record();
    EXPECT_EQ(record.scene, StandInProcesses::Scene::busy) << "the kept record wins over the default scene";
    ASSERT_EQ(record.events.size(), 3u);
    EXPECT_EQ(record.events[0].name, "Web Browser");
    EXPECT_EQ(record.events[0].outcome, "quit");
    EXPECT_EQ(record.events[0].at, at);
    EXPECT_EQ(record.events[1].outcome, "stillRunning");
    EXPECT_EQ(record.events[2].outcome, "refused");
    for (auto& app : record.apps) EXPECT_NE(app.pid, 103) << "a quit app is no longer running";
}

TEST(StandInProcesses, ScenesDifferAndLiveProcessesNeedPermission) {
    TempDir dir;
    StandInProcesses processes(dir.path(), StandInProcesses::Scene::calm, fixedClock());
    auto calmBusiest = 0.0;
    for (auto& p : processes.processes()) calmBusiest = std::max(calmBusiest, p.cpuPercent);
    processes.setScene(StandInProcesses::Scene::busy);
    auto busyBusiest = 0.0;
    for (auto& p : processes.processes()) busyBusiest = std::max(busyBusiest, p.cpuPercent);
    EXPECT_LT(calmBusiest, 10.0);
    EXPECT_GT(busyBusiest, 80.0);

    StandInProcess live{4242, "live-one", std::nullopt, ProcessKind::background, "me", 1, 1, 1, false};
    StandInProcess other{4343, "live-two", std::nullopt, ProcessKind::background, "me", 1, 1, 1, false};
    processes.mixIn({{4242}, {live, other}});
    EXPECT_EQ(processes.quit(4343), QuitOutcome::refused);
    EXPECT_EQ(processes.quit(4242), QuitOutcome::quit);
}

TEST(StandInApps, EveryRequestIsAppendedToTheRecordFile) {
    TempDir dir;
    {
        StandInApps apps(dir.path(), fixedClock());
        apps.open("Photos");
        EXPECT_TRUE(apps.quit("Photos"));
        EXPECT_FALSE(apps.quit("Calculator"));
        apps.openFile("/box/Documents/a.pdf", "Text Editor");
        apps.reveal("/box/Downloads/b.zip");
        apps.openLink("https://example.org");
        apps.share("/box/Desktop/c.png");
    }
    auto record = StandInApps(dir.path()).record();
    ASSERT_EQ(record.opened.size(), 1u);
    EXPECT_EQ(record.quit.size(), 2u);
    EXPECT_EQ(record.openedFiles.at(0).app, "Text Editor");
    EXPECT_EQ(record.revealed.at(0).file, "/box/Downloads/b.zip");
    EXPECT_EQ(record.links.at(0).address, "https://example.org");
    EXPECT_EQ(record.shared.at(0).file, "/box/Desktop/c.png");
}

TEST(StandInMac, ChangesActsAndTrashAreRecordedWithWhatTheyReplaced) {
    TempDir dir;
    {
        StandInMac mac(dir.path(), fixedClock());
        mac.change("appearance", "dark");
        mac.change("volume", 10);
        mac.act("restart");
        mac.keepAwake("copying files");
        mac.moveToTrash("/box/Desktop/old.txt");
    }
    StandInMac mac(dir.path());
    auto record = mac.record();
    EXPECT_EQ(record.initial["appearance"], "light");
    EXPECT_EQ(record.settings["appearance"], "dark");
    ASSERT_EQ(record.changes.size(), 2u);
    EXPECT_EQ(record.changes[0].from, "light");
    EXPECT_EQ(record.changes[1].to, 10);
    EXPECT_EQ(record.acts.at(0).act, "restart");
    EXPECT_TRUE(record.awake);
    mac.letSleep();
    EXPECT_FALSE(mac.record().awake);
    EXPECT_EQ(mac.record().keptAwake.size(), 2u);
    EXPECT_EQ(record.trash.at(0).path, "/box/Desktop/old.txt");
}

TEST(StandInRecords, ATornRecordFileStartsAfresh) {
    TempDir dir;
    dir.write("stand-in-mac.json", "{\"initial\": {\"appearance\": ");
    StandInMac mac(dir.path());
    EXPECT_EQ(mac.record().settings, StandInMac::initialSettings());
    EXPECT_TRUE(mac.locksAtOnce());
}
