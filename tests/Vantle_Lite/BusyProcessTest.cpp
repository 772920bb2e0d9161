#include "Vantle_Lite/BusyProcess.h"
#include "VantleSpec/ByteCount.h"
#include "Vantle_Lite/LiteProduct.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;

namespace {

ProcessRow busyRow(std::string name, ProcessKind kind, double cpu) {
    return ProcessRow{.pid = 4242, .name = std::move(name), .user = "ada", .kind = kind, .cpuPercent = cpu};
}

} // namespace

TEST(BusyProcess, EachKindGetsTheFirstSentenceThatAppliesAndHalfACoreIsBusy) {
    EXPECT_EQ(busySentence(busyRow("firefox", ProcessKind::app, 180.0)), "An app you have open.")
        << "an open app is that, however busy";
    auto agentRow = busyRow("node", ProcessKind::background, 90.0);
    agentRow.agent = "coder";
    AgentsReading agents{.agents = {RunningAgent{.id = "coder", .name = "Coder"}}};
    EXPECT_EQ(busySentence(agentRow, agents), "Coder at work: an AI agent running on this Mac.");
    EXPECT_EQ(busySentence(busyRow("packagekitd", ProcessKind::system, 70.0)),
              "Looks for and installs updates to the system's software.")
        << "a known description comes before being part of the system";
    EXPECT_EQ(busySentence(busyRow("kworker/0:1", ProcessKind::system, 70.0)),
              "Part of macOS, busy right now.");
    EXPECT_EQ(busySentence(busyRow("make", ProcessKind::background, 50.0)),
              "A program you started, busy right now.");
    EXPECT_EQ(busySentence(busyRow("make", ProcessKind::background, 49.99)),
              "A program you started, running in the background.");
}

TEST(BusyProcess, OnlyProcessesUsingTheMachineAreListedBusiestFirstWithoutThisProgram) {
    ActivitySample sample;
    for (auto [pid, cpu] : {std::pair{10, 3.0}, {11, 40.0}, {12, 95.0}, {13, 5.0}, {14, 60.0}})
        sample.rows.push_back(ProcessRow{.pid = pid, .name = "p" + std::to_string(pid), .cpuPercent = cpu});
    std::vector<int> pids;
    for (const auto& r : busyProcesses(sample, 3, 14))
        pids.push_back(r.pid);
    EXPECT_EQ(pids, (std::vector<int>{12, 11, 13}));
}

TEST(BusyProcess, TheReadingLineSaysWhenMemoryIsTight) {
    ActivityTotals totals{.cpu = 0.234, .memoryUsed = 6 * GiB, .memoryTotal = 16 * GiB};
    EXPECT_EQ(readingLine(totals), "Processor 23% · Memory 6 GB of 16 GB");
    totals.pressure = VitalsSnapshot::Pressure::warning;
    EXPECT_EQ(readingLine(totals), "Processor 23% · Memory 6 GB of 16 GB · memory is tight");
}

TEST(BusyProcess, QuittingAsksWithShareAndMemoryAndOnlyTheYesQuits) {
    TempDir dir;
    dir.mkdir("home");
    VantleLite::Options options;
    options.sandbox = dir / "box";
    options.sandboxRule = SandboxRule{{dir / "home"}};
    auto product = LiteProduct::make(*VantleLite::make(options), LiteProduct::Lifetime::oneCommand);
    auto processes = product->live().processes->processes();
    auto quits = std::ranges::find_if(processes, [](const StandInProcess& p) { return !p.asksToSave; });
    ASSERT_NE(quits, processes.end());
    const auto target = *quits;
    ProcessRow shown{.pid = target.pid,
                     .name = target.name,
                     .app = target.app,
                     .kind = target.kind,
                     .cpuPercent = 62.5,
                     .memory = 3 * GiB / 2};
    auto name = target.app.value_or(target.name);
    auto running = [&] {
        auto now = product->live().processes->processes();
        return std::ranges::any_of(now, [&](const StandInProcess& p) { return p.pid == target.pid; });
    };

    product->askToQuit(shown);
    ASSERT_TRUE(product->confirmation());
    EXPECT_EQ(product->confirmation()->title, "Quit " + name + "?");
    EXPECT_EQ(product->confirmation()->message,
              name + " is using 63% of a core and 1.5 GB of memory. It quits as its own Quit command does: "
                     "with unsaved work it asks you first.");
    EXPECT_EQ(product->confirmation()->confirm, "Quit");
    EXPECT_EQ(product->answer(false)->text, name + " stays open");
    EXPECT_TRUE(running());

    product->askToQuit(shown);
    product->answer(true);
    EXPECT_FALSE(running());
}
