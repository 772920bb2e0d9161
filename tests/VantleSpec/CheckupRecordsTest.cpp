#include "VantleSpec/CheckupRecords.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;

namespace {

CheckupFinding finding(CheckupStatus status) {
    return {"f",         CheckupArea::storage, status, "Disk is full", "Only 3% free", "Apps need room",
            std::nullopt};
}

std::vector<CheckupFinding> findings(int attention, int others) {
    std::vector<CheckupFinding> out;
    for (int i = 0; i < attention; ++i)
        out.push_back(finding(CheckupStatus::attention));
    for (int i = 0; i < others; ++i)
        out.push_back(finding(i % 2 ? CheckupStatus::note : CheckupStatus::unknown));
    return out;
}

} // namespace

TEST(CheckupSummary, AttentionSpeaksFirstThenAllFindingsAreCounted) {
    EXPECT_EQ(checkupSummary({}), "Your Mac is in good shape.");
    EXPECT_EQ(checkupSummary(findings(0, 1)), "Your Mac is fine. One thing is worth a look.");
    EXPECT_EQ(checkupSummary(findings(0, 3)), "Your Mac is fine. 3 things are worth a look.");
    EXPECT_EQ(checkupSummary(findings(1, 0)), "One thing needs your attention.");
    EXPECT_EQ(checkupSummary(findings(1, 4)), "One thing needs your attention.");
    EXPECT_EQ(checkupSummary(findings(2, 5)), "2 things need your attention.");
    EXPECT_EQ(checkupSummary(findings(12, 0)), "12 things need your attention.");
}

TEST(CheckupRecords, AWholeCheckupRoundTripsWithActionsCarryingTheirTarget) {
    MacCheckup c;
    c.read = sys_days{2026y / May / 1} + 8h;
    CheckupReading swap{"swap",          "Swap",
                        "1.2 GB",        "Memory written to the disk",
                        "Swap is slow",  CheckupStatus::note,
                        "/proc/meminfo", CheckupAction{CheckupAction::Kind::showActivity, {}}};
    CheckupItem agent{
        "autostart",
        "Sync helper",
        "Starts at log in",
        3,
        CheckupStatus::attention,
        "/home/ada/.config/autostart/sync.desktop",
        CheckupAction{CheckupAction::Kind::turnOffLaunchAgent, "/home/ada/.config/autostart/sync.desktop"}};
    c.sections = {{CheckupArea::memory, "Memory is fine", CheckupStatus::good, {swap}, std::nullopt, {}},
                  {CheckupArea::startup,
                   "One item starts with you",
                   CheckupStatus::attention,
                   {},
                   "Launch items",
                   {agent}}};
    c.findings = findings(1, 1);
    c.findings[0].action = CheckupAction{CheckupAction::Kind::openSettings, "privacy"};
    c.score = {
        88, {{CheckupArea::startup, 7, 10, "An item starts with you"}, {CheckupArea::memory, 5, 20, "Swap"}}};

    auto back = decodeJson<MacCheckup>(encodeJson(c));
    ASSERT_TRUE(back) << back.error();
    EXPECT_EQ(*back, c);

    Json j = c;
    EXPECT_EQ(j["findings"][0]["action"], (Json{{"kind", "openSettings"}, {"target", "privacy"}}));
    EXPECT_EQ(j["sections"][0]["readings"][0]["action"], (Json{{"kind", "showActivity"}}));
    EXPECT_FALSE(j["sections"][0].contains("listTitle"));
    EXPECT_EQ(j["sections"][1]["area"], "startup");

    CheckupPoint p{c.read, c.score.value, c.score.parts};
    EXPECT_EQ(decodeJson<CheckupPoint>(encodeJson(p)), p);
}
