#include "VantleSpec/BusySentence.h"

#include <gtest/gtest.h>

using namespace vantle;

namespace {
ProcessRow busyRow(ProcessKind kind, double cpuPercent) {
    ProcessRow r;
    r.name = "worker";
    r.kind = kind;
    r.cpuPercent = cpuPercent;
    return r;
}
} // namespace

TEST(BusySentence, AProgramAtExactlyHalfACoreIsBusyRightNowAndJustBelowItIsInTheBackground) {
    EXPECT_EQ(busySentence(busyRow(ProcessKind::background, 50.0), {}),
              "A program you started, busy right now.");
    EXPECT_EQ(busySentence(busyRow(ProcessKind::background, 49.9), {}),
              "A program you started, running in the background.");
    EXPECT_EQ(busySentence(busyRow(ProcessKind::system, 5), {}), "Part of macOS, busy right now.");
}

TEST(BusySentence, AnOpenAppThatIsBusyIsAnAppYouHaveOpenBeforeAnythingElse) {
    auto app = busyRow(ProcessKind::app, 180);
    app.agent = "coder";
    AgentsReading agents;
    agents.agents.push_back({"coder", "Coder", "", std::nullopt, {}});
    EXPECT_EQ(busySentence(app, agents, std::string("A known program.")), "An app you have open.");

    // Not an app: the agent speaks before a known description, and the description before the rest.
    auto tool = busyRow(ProcessKind::background, 90);
    tool.agent = "coder";
    EXPECT_EQ(busySentence(tool, agents, std::string("A known program.")),
              "Coder at work: an AI agent running on this Mac.");
    tool.agent.reset();
    EXPECT_EQ(busySentence(tool, agents, std::string("A known program.")), "A known program.");
}
