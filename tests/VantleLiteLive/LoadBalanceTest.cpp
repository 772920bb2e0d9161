#include "VantleLiteLive/LoadBalance.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <linux/ioprio.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace vantle;
using vantle::testing::TempDir;
using namespace std::chrono_literals;

namespace {

// A child of this test with two threads, sleeping until it is killed.
struct Child {
    pid_t pid = -1;
    explicit Child(uid_t user = ::geteuid()) {
        pid = ::fork();
        if (pid == 0) {
            if (user != ::geteuid() && ::setuid(user) != 0) ::_exit(1);
            std::thread second([] { ::pause(); });
            ::pause();
            ::_exit(0);
        }
        // Wait for both threads, so a move meets the whole process.
        for (int i = 0; i < 400; ++i) {
            auto schedule = readSchedule(pid);
            if (schedule && schedule->threads.size() == 2) break;
            std::this_thread::sleep_for(5ms);
        }
    }
    ~Child() {
        if (pid <= 0) return; // never kill(-1): that would reach every process we may signal
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
};

LoadProcess processOf(const Child& child) {
    LoadProcess p;
    p.pid = child.pid;
    p.started = processIdentity(child.pid)->startTicks;
    p.name = "child";
    p.isMine = true;
    p.isBackground = true;
    return p;
}

LoadReading readingWith(std::vector<LoadProcess> processes, std::vector<LoadApp> apps) {
    LoadReading r;
    r.performanceCores = 4;
    r.ownPid = 4000;
    r.processes = std::move(processes);
    r.apps = std::move(apps);
    return r;
}

LoadProcess busy(int pid, double cpu) {
    return {.pid = pid,
            .name = "indexer",
            .path = "/home/me/bin/indexer",
            .isMine = true,
            .cpuPercent = cpu,
            .isBackground = true,
            .cpuSeconds = 600,
            .age = 1200};
}

LoadApp idleApp(int pid, std::uint64_t bytes, double cpu, double unused) {
    return {.name = "Editor",
            .pid = pid,
            .bundle = "/opt/editor/editor",
            .unusedMinutes = unused,
            .memoryBytes = bytes,
            .cpuPercent = cpu};
}

} // namespace

TEST(LoadBalance, ARealChildIsMovedOnEveryThreadAndPutBackExactly) {
    Child child;
    // Not the defaults, so putting back is shown to restore what was there, not a default.
    auto tids = readSchedule(child.pid);
    ASSERT_TRUE(tids);
    ASSERT_EQ(tids->threads.size(), 2u);
    for (auto& t : tids->threads) {
        ASSERT_EQ(::setpriority(PRIO_PROCESS, id_t(t.tid), 5), 0);
        ASSERT_EQ(::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, t.tid, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 3)),
                  0);
    }
    auto before = readSchedule(child.pid);
    ASSERT_TRUE(before);

    LinuxProcessControls controls({.user = ::geteuid(), .efficiencyCores = {0}});
    ASSERT_TRUE(controls.slow(processOf(child)));
    for (auto& t : before->threads) {
        EXPECT_EQ(schedulingPolicyOf(t.tid), SCHED_IDLE) << "thread " << t.tid;
        EXPECT_EQ(ioPriorityOf(t.tid), IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0));
        EXPECT_EQ(affinityOf(t.tid), std::vector<int>{0});
    }
    ASSERT_TRUE(controls.putBack(child.pid));
    EXPECT_EQ(readSchedule(child.pid), before);
    for (auto& t : before->threads) {
        EXPECT_EQ(schedulingPolicyOf(t.tid), SCHED_OTHER);
        EXPECT_EQ(ioPriorityOf(t.tid), IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, 3));
    }
    EXPECT_EQ(controls.putBack(child.pid).error(), ProcessControls::Failure::gone) << "a move goes back once";
}

TEST(LoadBalance, AProcessThatIsNoLongerTheSameIsGoneAndNothingChanges) {
    Child child;
    auto process = processOf(child);
    process.started += 1; // the pid now names a different start
    LinuxProcessControls controls({.user = ::geteuid(), .efficiencyCores = {0}});
    EXPECT_EQ(controls.slow(process).error(), ProcessControls::Failure::gone);
    EXPECT_EQ(schedulingPolicyOf(child.pid), SCHED_OTHER);

    auto pid = child.pid;
    auto real = processOf(child);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    child.pid = -1;
    EXPECT_EQ(controls.slow(real).error(), ProcessControls::Failure::gone);
}

TEST(LoadBalance, AnotherUsersProcessIsNeverMoved) {
    if (::geteuid() != 0) GTEST_SKIP() << "starting a process as another user needs root";
    Child child(65534);
    auto process = processOf(child);
    ASSERT_EQ(processIdentity(child.pid)->owner, 65534u);
    LinuxProcessControls controls({.user = ::geteuid(), .efficiencyCores = {0}});
    EXPECT_EQ(controls.slow(process).error(), ProcessControls::Failure::notAllowed);
    EXPECT_EQ(schedulingPolicyOf(child.pid), SCHED_OTHER);
    process.isMine = false;
    process.cpuPercent = 90;
    EXPECT_TRUE(findCandidates(readingWith({process}, {})).candidates.empty());
}

TEST(LoadBalance, MoveCandidatesStartAtTwentyPercentOfOneCore) {
    auto found = findCandidates(readingWith({busy(10, 20.0), busy(11, 19.9)}, {}));
    ASSERT_EQ(found.candidates.size(), 1u);
    EXPECT_EQ(found.candidates[0].pid, 10);
    EXPECT_TRUE(found.candidates[0].preferred);
    EXPECT_EQ(found.candidates[0].why,
              "indexer uses 5% of the Mac in the background, and busy like this since it started 20 minutes "
              "ago. On "
              "the efficiency cores it keeps working and leaves the fast ones to you.");

    // An age read from a nonsense stand-in is worded within what it can mean, never as a wrapped number.
    auto ancient = busy(14, 20);
    ancient.age = 1e308;
    ancient.cpuSeconds = 1e308;
    auto why = findCandidates(readingWith({ancient}, {})).candidates.at(0).why;
    EXPECT_EQ(why.find('-'), std::string::npos) << why;
    EXPECT_NE(why.find("since it started 36500 days ago"), std::string::npos) << why;

    auto brief = busy(12, 80);
    brief.cpuSeconds = 5; // busy only now
    auto system = busy(13, 80);
    system.path = "/usr/lib/tracker-miner";
    auto ownApp = busy(4000, 80);
    auto desktop = busy(14, 80);
    desktop.name = "gnome-shell";
    found = findCandidates(readingWith({brief, system, ownApp, desktop}, {}));
    ASSERT_EQ(found.candidates.size(), 1u) << "system services, the program itself and the desktop stay";
    EXPECT_FALSE(found.candidates[0].preferred);
    system.isLaunchdJob = false;
    EXPECT_EQ(findCandidates(readingWith({system}, {})).candidates.size(), 1u)
        << "a system program the user started is no service";
    EXPECT_EQ(findCandidates(readingWith({}, {})).nothing,
              "Your Mac is balanced: nothing in the background is using much.");
}

TEST(LoadBalance, AnAppAtExactlyFiveHundredMebibytesAndUnderTenPercentIsAQuitCandidate) {
    auto found =
        findCandidates(readingWith({}, {idleApp(20, 524288000, 9.9, 90), idleApp(21, 524288000, 10.0, 90),
                                        idleApp(22, 524287999, 1, 90), idleApp(23, 600000000, 1, 29)}));
    ASSERT_EQ(found.candidates.size(), 1u);
    EXPECT_EQ(found.candidates[0].pid, 20);
    EXPECT_EQ(found.candidates[0].action, BalanceCandidate::Action::quit);
    EXPECT_TRUE(found.candidates[0].preferred);

    auto recent = idleApp(24, 800000000, 1, 45);
    auto front = idleApp(25, 800000000, 1, 500);
    front.isFront = true;
    auto files = idleApp(26, 800000000, 1, 500);
    files.bundleIdentifier = "org.gnome.Nautilus";
    auto unknown = idleApp(27, 800000000, 1, 500);
    unknown.unusedMinutes.reset();
    found = findCandidates(readingWith({}, {recent, front, files, unknown}));
    ASSERT_EQ(found.candidates.size(), 1u);
    EXPECT_FALSE(found.candidates[0].preferred);
    EXPECT_TRUE(found.candidates[0].why.ends_with(" Used within the hour, so it is not ticked."));
}

TEST(LoadBalance, TheStandInRecordsEachRequestAndTheReportSaysWhatChanged) {
    TempDir dir;
    StandInBalance standIn(dir.path());
    ScoredReading before{readingWith({busy(10, 60)}, {idleApp(20, 900000000, 1, 120)}), 70};
    before.reading.processor = 0.6;
    before.reading.memoryUsed = 8'000'000'000;
    before.reading.memoryTotal = 16'000'000'000;
    before.reading.pressure = VitalsSnapshot::Pressure::warning;
    auto found = findCandidates(before.reading);
    std::vector<std::chrono::milliseconds> paused;
    auto balanced = carryOut(
        before, found.candidates, standIn, LoadTiming{},
        [&] {
            auto after = before;
            after.reading.processor = 0.3;
            after.reading.pressure = VitalsSnapshot::Pressure::normal;
            after.score = 78;
            return after;
        },
        [&](auto d) { paused.push_back(d); });
    EXPECT_EQ(paused, std::vector<std::chrono::milliseconds>{LoadTiming{}.settle});
    ASSERT_EQ(balanced.moved.size(), 1u);
    ASSERT_EQ(balanced.quit.size(), 1u);
    auto report = reportOf(balanced);
    EXPECT_NE(std::ranges::find(report, "The processor went from 60% to 30%."), report.end());
    EXPECT_NE(
        std::ranges::find(
            report, "Your Mac's health score went from 70 to 78, and its pressure from warning to normal."),
        report.end());
    // A pressure that did not move is not named.
    balanced.after.pressure = balanced.before.pressure;
    auto same = reportOf(balanced);
    EXPECT_NE(std::ranges::find(same, "Your Mac's health score went from 70 to 78."), same.end());

    StandInBalance again(dir.path());
    auto events = again.record().events;
    ASSERT_EQ(events.size(), 2u) << "kept in stand-in-balance.json across runs";
    EXPECT_EQ(events[0].act, "slow");
    EXPECT_EQ(events[1].act, "quit");
    EXPECT_EQ(again.putBack(10).error(), ProcessControls::Failure::gone) << "a new run holds no moves";
}

TEST(LoadBalance, NoAppWasEverAQuitCandidateOnLinuxForWantOfALastUsedTime) {
    // The scheduler's "last ran" stamps: this process runs now; the editor's main thread last ran
    // 45 minutes ago, the player's a minute ago, and the third app's file is not there.
    TempDir proc;
    auto sched = [&](const std::string& who, double ms) {
        proc.write(who + "/sched", "app (" + who +
                                       ", #threads: 3)\n-------\nse.exec_start                "
                                       "                :      " +
                                       std::to_string(ms) + "\nse.vruntime : 1.0\n");
    };
    const double now = 90'000'000.5;
    sched("self", now);
    sched("4242", now - 45 * 60'000);
    sched("4343", now - 60'000);
    ActivitySample sample;
    for (int pid : {4242, 4343, 4444}) {
        ProcessRow row;
        row.pid = pid;
        row.name = "app" + std::to_string(pid);
        row.kind = ProcessKind::app;
        row.isOwn = true;
        row.memory = 700'000'000;
        row.cpuPercent = 0.5;
        sample.rows.push_back(row);
    }
    auto reading = LoadReading::of(sample, VitalsSnapshot{}, 1000, proc.path());
    ASSERT_EQ(reading.apps.size(), 3u);
    ASSERT_TRUE(reading.apps[0].unusedMinutes);
    EXPECT_NEAR(*reading.apps[0].unusedMinutes, 45, 0.01);
    EXPECT_NEAR(reading.apps[1].unusedMinutes.value_or(-1), 1, 0.01);
    EXPECT_FALSE(reading.apps[2].unusedMinutes) << "unknown where the kernel keeps no stamp";

    auto found = findCandidates(reading);
    ASSERT_EQ(found.candidates.size(), 1u);
    EXPECT_EQ(found.candidates[0].pid, 4242);
    EXPECT_EQ(found.candidates[0].action, BalanceCandidate::Action::quit);
}
