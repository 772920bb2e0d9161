#include "VantleVitals/ActivityReader.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;

namespace {

// Ids no test machine gives a real account, so the names are the numbers.
constexpr std::uint32_t me = 4000001, someoneElse = 4000002;

struct Proc {
    TempDir dir;
    TimePoint now = sys_days{2026y / April / 5} + 8h;

    Proc() { dir.write("proc/stat", "cpu  100 0 100 800 0 0 0 0 0 0\nbtime 1767225600\n"); }

    // One process: ticks of processor time, its start (ticks after boot), threads, the uid and memory.
    void process(int pid, const std::string& name, int parent, std::uint32_t uid, std::uint64_t ticks,
                 std::uint64_t start = 500, int threads = 3, bool kernel = false) const {
        auto base = "proc/" + std::to_string(pid) + "/";
        std::uint64_t flags = kernel ? 0x00200000 : 0x400000;
        dir.write(base + "stat", std::to_string(pid) + " (" + name + ") S " + std::to_string(parent) +
                                     " 1 1 0 -1 " + std::to_string(flags) + " 0 0 0 0 " +
                                     std::to_string(ticks) + " 0 0 0 20 0 " + std::to_string(threads) +
                                     " 0 " + std::to_string(start) + " 1000 256\n");
        dir.write(base + "status",
                  "Name:\t" + name + "\nUid:\t" + std::to_string(uid) + "\t0\t0\t0\n" +
                      (kernel ? "" : "VmRSS:\t 2048 kB\nRssAnon:\t 1024 kB\nVmSwap:\t 256 kB\n") +
                      "voluntary_ctxt_switches:\t" + std::to_string(ticks) + "\n");
    }

    void io(int pid, std::uint64_t read, std::uint64_t written) const {
        dir.write("proc/" + std::to_string(pid) + "/io",
                  "rchar: 1\nwchar: 1\nread_bytes: " + std::to_string(read) +
                      "\nwrite_bytes: " + std::to_string(written) + "\n");
    }

    ActivityReader reader(std::map<std::string, ActivityReader::App, std::less<>> apps = {}) {
        return ActivityReader(
            {dir / "proc", dir / "sys", me, std::move(apps), [this] { return now; }, 100, 4096});
    }
};

const ProcessRow* row(const ActivitySample& s, int pid) {
    for (auto& r : s.rows)
        if (r.pid == pid) return &r;
    return nullptr;
}

} // namespace

TEST(ActivityReader, ProcessorShareAndRatesBetweenTwoReads) {
    Proc p;
    p.process(100, "builder", 1, me, 1000);
    p.io(100, 4096, 0);
    p.process(200, "worker", 1, me, 50);
    auto reader = p.reader();
    auto first = reader.read();
    ASSERT_NE(row(first, 100), nullptr);
    EXPECT_DOUBLE_EQ(row(first, 100)->cpuPercent, 0); // nothing to measure against yet
    EXPECT_DOUBLE_EQ(row(first, 100)->cpuSeconds, 10);

    // Two seconds later the builder used 300 ticks (1.5 cores), read 8 KiB more and switched 300 times.
    p.process(100, "builder", 1, me, 1300);
    p.io(100, 4096 + 8192, 2048);
    // Pid 200 ended and a new process took its number: its time is no share of the old one's.
    p.process(200, "worker", 1, me, 80, /*start=*/900);
    p.now += 2s;
    auto s = reader.read();
    auto* builder = row(s, 100);
    ASSERT_NE(builder, nullptr);
    EXPECT_DOUBLE_EQ(builder->cpuPercent, 150);
    EXPECT_DOUBLE_EQ(builder->energyImpact, 150);
    EXPECT_DOUBLE_EQ(builder->idleWakeups, 150);
    EXPECT_DOUBLE_EQ(builder->diskReadPerSecond, 4096);
    EXPECT_DOUBLE_EQ(builder->diskWrittenPerSecond, 1024);
    EXPECT_EQ(builder->diskReadTotal, 4096u + 8192u);
    EXPECT_DOUBLE_EQ(row(s, 200)->cpuPercent, 0);
    EXPECT_DOUBLE_EQ(s.totals.diskReadPerSecond, 4096);
}

TEST(ActivityReader, MemoryThreadsOwnerKindAndStart) {
    Proc p;
    p.process(10, "mine", 1, me, 0, 250, 12);
    p.process(11, "theirs", 1, someoneElse, 0);
    p.process(12, "sshd", 1, 0, 0);
    p.process(13, "nobody-task", 1, 65534, 0);
    p.process(2, "kthreadd", 0, 0, 0, 1, 1, true);
    auto s = p.reader().read();
    ASSERT_EQ(s.rows.size(), 5u);
    auto* mine = row(s, 10);
    EXPECT_EQ(mine->memory, (1024u + 256u) * 1024); // made for itself, in memory or swapped
    EXPECT_EQ(mine->realMemory, 2048u * 1024);
    EXPECT_EQ(mine->threads, 12);
    EXPECT_EQ(mine->parent, 1);
    EXPECT_TRUE(mine->isOwn);
    EXPECT_EQ(mine->user, std::to_string(me));
    EXPECT_EQ(mine->kind, ProcessKind::background);
    EXPECT_EQ(mine->started, TimePoint(seconds(1767225600)) + 2500ms);

    EXPECT_FALSE(row(s, 11)->isOwn);
    EXPECT_EQ(row(s, 11)->kind, ProcessKind::background);
    EXPECT_EQ(row(s, 12)->kind, ProcessKind::system);
    EXPECT_EQ(row(s, 12)->user, "root");
    EXPECT_EQ(row(s, 13)->kind, ProcessKind::system);
    auto* kernel = row(s, 2);
    EXPECT_EQ(kernel->kind, ProcessKind::system);
    EXPECT_EQ(kernel->memory, 0u);
    EXPECT_EQ(kernel->realMemory, 256u * 4096); // from the page count when status gives no size

    EXPECT_EQ(s.totals.processes, 5);
    EXPECT_EQ(s.totals.threads, 12 + 3 + 3 + 3 + 1);
}

TEST(ActivityReader, AppsByTheirProgramAndTheirOwnChildren) {
    Proc p;
    p.process(300, "editor", 1, me, 0);
    symlink("/opt/editor/editor", (p.dir / "proc/300/exe").c_str());
    p.process(301, "renderer", 300, me, 0);
    p.process(302, "helper", 301, me, 0);        // a grandchild
    p.process(303, "editor", 1, someoneElse, 0); // someone else's copy is not our app
    p.process(304, "sh", 1, me, 0);
    auto s = p.reader({{"editor", {"Editor", "org.example.Editor"}}}).read();
    for (int pid : {300, 301, 302}) {
        ASSERT_NE(row(s, pid), nullptr);
        EXPECT_EQ(row(s, pid)->app, "Editor") << pid;
        EXPECT_EQ(row(s, pid)->bundleID, "org.example.Editor") << pid;
        EXPECT_EQ(row(s, pid)->kind, ProcessKind::app) << pid;
    }
    EXPECT_EQ(row(s, 300)->path, "/opt/editor/editor");
    EXPECT_FALSE(row(s, 303)->app);
    EXPECT_FALSE(row(s, 304)->app);
    EXPECT_EQ(row(s, 304)->kind, ProcessKind::background);
}

TEST(ActivityReader, OddEntriesAreSkippedAndNoProcFolderIsAnEmptySample) {
    Proc p;
    p.process(400, "fine", 1, me, 0);
    p.dir.write("proc/401/stat", "401 (cut");
    p.dir.mkdir("proc/402");
    p.dir.write("proc/self-ish/stat", "1 (x) S 0");
    p.dir.write("proc/403", "a file, not a folder");
    auto s = p.reader().read();
    ASSERT_EQ(s.rows.size(), 1u);
    EXPECT_EQ(s.rows[0].pid, 400);

    TempDir empty;
    ActivityReader none({empty / "proc", empty / "sys", me, {}, [] { return TimePoint{}; }, 100, 4096});
    auto nothing = none.read();
    EXPECT_TRUE(nothing.rows.empty());
    EXPECT_EQ(nothing.totals.processes, 0);
    EXPECT_DOUBLE_EQ(nothing.totals.cpu, 0);
}

TEST(ActivityReader, TotalsSplitTheProcessorIntoUserAndSystem) {
    Proc p;
    auto reader = p.reader();
    reader.read();
    p.dir.write("proc/stat", "cpu  160 0 120 920 0 0 0 0 0 0\n"); // +60 user, +20 system, +120 idle
    p.dir.write("proc/meminfo",
                "MemTotal: 1000 kB\nMemAvailable: 250 kB\nSwapTotal: 10 kB\nSwapFree: 4 kB\n");
    p.now += 1s;
    auto t = reader.read().totals;
    EXPECT_DOUBLE_EQ(t.cpu, 0.4);
    EXPECT_DOUBLE_EQ(t.cpuUser, 0.3);
    EXPECT_DOUBLE_EQ(t.cpuSystem, 0.1);
    EXPECT_EQ(t.memoryUsed, 750u * 1024);
    EXPECT_EQ(t.swapUsed, 6u * 1024);
    EXPECT_EQ(t.date, p.now);
}

TEST(ActivityReader, InstalledAppsFromDesktopEntries) {
    TempDir d;
    d.write("system/editor.desktop", "[Desktop Entry]\nType=Application\nName=Editor\nName[de]=Bearbeiter\n"
                                     "Exec=/usr/bin/editor %F\n[Desktop Action new]\nName=New Window\n"
                                     "Exec=other --new\n");
    d.write("system/quoted.desktop",
            "[Desktop Entry]\nName=Quoted\nExec=env GDK_BACKEND=x11 \"/opt/My App/quoted\" %u\n");
    d.write("system/hidden.desktop", "[Desktop Entry]\nName=Hidden\nExec=hidden\nNoDisplay=true\n");
    d.write("system/link.desktop", "[Desktop Entry]\nType=Link\nName=Site\nExec=site\n");
    d.write("system/noexec.desktop", "[Desktop Entry]\nName=Nothing\n");
    d.write("system/readme.txt", "[Desktop Entry]\nName=Text\nExec=text\n");
    d.write("user/editor.desktop", "[Desktop Entry]\nName=My Editor\nExec=editor\n");
    auto apps = ActivityReader::installedApps({d / "system", d / "user", d / "missing"});
    EXPECT_EQ(apps, (std::map<std::string, ActivityReader::App, std::less<>>{
                        {"editor", {"My Editor", "editor"}}, {"quoted", {"Quoted", "quoted"}}}));
}
