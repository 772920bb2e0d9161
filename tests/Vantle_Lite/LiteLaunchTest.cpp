#include "Vantle_Lite/LiteLaunch.h"
#include "Vantle_Lite/LiteState.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;

TEST(LiteLaunch, FirstSandboxWinsAndATrailingOneIsIgnored) {
    EXPECT_EQ(LiteLaunch::parse({"vantle-lite", "-sandbox", "/a", "-sandbox", "/b"}).sandbox, "/a");
    EXPECT_EQ(LiteLaunch::parse({"vantle-lite", "--sandbox", "/c"}).sandbox, "/c");
    EXPECT_FALSE(LiteLaunch::parse({"vantle-lite", "status", "-sandbox"}).sandbox);
    EXPECT_FALSE(LiteLaunch::parse({"vantle-lite", "-sandboxes", "/x"}).sandbox);
    auto defaults = LiteLaunch::parse({"vantle-lite", "-page", "health"});
    EXPECT_EQ(defaults, LiteLaunch{}) << "every other argument is ignored";
    EXPECT_EQ(defaults.size.width, 1320);
    EXPECT_EQ(defaults.size.height, 880);
    EXPECT_EQ(LiteLaunch::withoutLaunchOptions({"vantle", "-sandbox", "/a", "files", "--sandbox", "/b", "search"}),
              (std::vector<std::string>{"vantle", "files", "search"}));
}

TEST(LiteState, MovesOutOfStartingExactlyOnce) {
    LiteState state;
    std::vector<std::string> seen;
    state.observe([&](const LiteState::Phase& p) { seen.push_back(std::holds_alternative<LiteState::Failed>(p) ? "failed" : "ready"); });
    EXPECT_TRUE(state.isStarting());
    EXPECT_TRUE(state.fail("no"));
    EXPECT_FALSE(state.fail("again"));
    EXPECT_FALSE(state.becomeReady(nullptr));
    ASSERT_TRUE(std::holds_alternative<LiteState::Failed>(state.phase()));
    EXPECT_EQ(std::get<LiteState::Failed>(state.phase()).sentence, "no");
    EXPECT_EQ(seen, std::vector<std::string>{"failed"});
}

TEST(LiteState, StartUpReachesReadyOrFailedWithTheSentence) {
    TempDir dir;
    dir.mkdir("home");
    VantleLite::Options base;
    base.sandboxRule = SandboxRule{{dir / "home"}};

    LiteState refused;
    beginStartUp(LiteLaunch::parse({"app", "-sandbox", (dir / "home").string()}), refused, base).get();
    ASSERT_TRUE(std::holds_alternative<LiteState::Failed>(refused.phase()));
    EXPECT_EQ(std::get<LiteState::Failed>(refused.phase()).sentence,
              (dir / "home").string() + " is not a sandbox: it is a home folder on this Mac. A sandbox is a folder of "
                                        "its own that stands in for the home folder.");

    LiteState ready;
    beginStartUp(LiteLaunch::parse({"app", "-sandbox", (dir / "box").string()}), ready, base).get();
    ASSERT_TRUE(std::holds_alternative<LiteState::Ready>(ready.phase()));
    auto product = std::get<LiteState::Ready>(ready.phase()).product;
    EXPECT_EQ(product->live().home, dir / "box");
    EXPECT_FALSE(product->settings().boolean(SettingsKey::welcomed)) << "a new sandbox shows the welcome";
    EXPECT_FALSE(product->setWindowVisible(true)) << "no change, nothing published";
    EXPECT_TRUE(product->setWindowVisible(false));
}
