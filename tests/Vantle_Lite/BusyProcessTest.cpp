#include "Vantle_Lite/BusyProcess.h"
#include "VantleSpec/ByteCount.h"

#include <gtest/gtest.h>

using namespace vantle;

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
