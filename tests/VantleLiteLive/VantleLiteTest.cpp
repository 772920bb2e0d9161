#include "VantleLiteLive/VantleLite.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

VantleLite::Options sandboxOptions(const TempDir& dir, const fs::path& box) {
    VantleLite::Options options;
    options.sandbox = box;
    options.sandboxRule = SandboxRule{{dir / "realhome"}};
    return options;
}

unsigned modeOf(const fs::path& p) {
    struct stat st{};
    return ::stat(p.c_str(), &st) == 0 ? (st.st_mode & 0777) : 0;
}

} // namespace

TEST(VantleLiteMake, SandboxGetsItsPlacesAPrivateDataFolderAndALedger) {
    TempDir dir;
    dir.mkdir("realhome");
    auto live = VantleLite::make(sandboxOptions(dir, dir.path().string() + "/box/"));
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_EQ(live->home, dir / "box");
    EXPECT_TRUE(live->isSandbox);
    EXPECT_EQ(live->support, dir / "box/.vantle-lite");
    for (auto name : {"Desktop", "Documents", "Downloads"}) EXPECT_TRUE(fs::is_directory(dir / "box" / name)) << name;
    EXPECT_EQ(modeOf(live->support), 0700u);
    EXPECT_EQ(modeOf(live->support / "egress-ledger.jsonl"), 0600u);
    EXPECT_FALSE(live->offline);
    EXPECT_TRUE(live->notes.empty());
    ASSERT_TRUE(live->mac && live->processes && live->standInApps);
    EXPECT_TRUE(fs::exists(live->support / "stand-in-processes.json"));
    EXPECT_EQ(live->profile.trashFolder, dir / "box/.Trash");
}

TEST(VantleLiteMake, RefusedSandboxEndsStartUpAndCreatesNothing) {
    TempDir dir;
    dir.mkdir("realhome/Library");
    auto options = sandboxOptions(dir, dir / "realhome/Library/Box");
    auto live = VantleLite::make(options);
    ASSERT_FALSE(live);
    EXPECT_EQ(live.error().what, VantleLite::Failure::Case::notASandbox);
    EXPECT_NE(live.error().sentence.find("is not a sandbox: it is inside"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "realhome/Library/Box"));

    fs::create_directory_symlink(dir / "realhome", dir / "box-link");
    ASSERT_FALSE(VantleLite::make(sandboxOptions(dir, dir / "box-link")));
    EXPECT_FALSE(fs::exists(dir / "realhome/Desktop"));
    EXPECT_FALSE(fs::exists(dir / "realhome/.vantle-lite"));
}

TEST(VantleLiteMake, DataFolderThatCannotBeMadeStopsStartUpWithItsName) {
    TempDir dir;
    dir.mkdir("realhome");
    dir.write("box/blocker", "a file where a folder must go");
    auto options = sandboxOptions(dir, dir / "box");
    options.support = dir / "box/blocker/data";
    auto live = VantleLite::make(options);
    ASSERT_FALSE(live);
    EXPECT_EQ(live.error().what, VantleLite::Failure::Case::couldNotMake);
    EXPECT_EQ(live.error().sentence,
              "Vantle Lite could not make " + (dir / "box/blocker/data").string() + ": Not a directory");
}

TEST(VantleLiteMake, LedgerThatCannotBeOpenedMakesTheRunOfflineNotFailed) {
    TempDir dir;
    dir.mkdir("realhome");
    dir.mkdir("box/.vantle-lite/egress-ledger.jsonl");
    auto live = VantleLite::make(sandboxOptions(dir, dir / "box"));
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_TRUE(live->offline);
    EXPECT_FALSE(live->ledgerWriter);
    ASSERT_TRUE(live->ledger);
    EXPECT_TRUE(live->ledger->entries().empty());
    ASSERT_EQ(live->notes.size(), 1u);
    EXPECT_EQ(live->notes[0], "The network ledger could not be opened (Is a directory), so Vantle Lite is offline.");
    EXPECT_FALSE(live->broker) << "no network road is built";
    EXPECT_EQ(live->updater->checkNow().sentence(), "Vantle Lite is offline.");
    EXPECT_EQ(live->opener->openPage("https://example.org/").error().reason,
              "Vantle is offline, so it does not open web pages.");
}

TEST(VantleLiteMake, BuildsTheNetworkRoadWithItsLimitsAndAnUpdaterThatNeedsAKey) {
    TempDir dir;
    dir.mkdir("realhome");
    auto options = sandboxOptions(dir, dir / "box");
    options.updates = UpdateSource{};
    auto live = VantleLite::make(options);
    ASSERT_TRUE(live) << live.error().sentence;
    ASSERT_TRUE(live->broker);
    EXPECT_EQ(live->broker->limits().maximumResponseBytes, 64000);
    EXPECT_EQ(live->broker->limits().timeout, std::chrono::seconds(20));
    EXPECT_EQ(live->broker->limits().maximumRedirects, 5);
    EXPECT_EQ(live->broker->limits().maximumURLLength, 2000u);
    EXPECT_EQ(live->broker->limits().maximumRequestBytes, 4096u);
    EXPECT_EQ(live->updater->checkNow().sentence(), "Updates are not set up in this copy.");
    EXPECT_TRUE(live->ledger->entries().empty());
}

TEST(VantleLiteMake, RealRunUsesTheFreedesktopDataFolderAndNoStandIns) {
    TempDir dir;
    VantleLite::Options options;
    options.realHome = dir.mkdir("me");
    options.support = dir / "me/.local/share/Vantle Lite"; // the environment's XDG_DATA_HOME is not ours to set
    auto live = VantleLite::make(options);
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_FALSE(live->isSandbox);
    EXPECT_EQ(live->home, dir / "me");
    EXPECT_EQ(modeOf(live->support), 0700u);
    EXPECT_FALSE(live->mac);
    EXPECT_FALSE(fs::exists(dir / "me/Desktop")) << "a real home is never given folders";

    auto profile = PlatformProfile::linuxReal("/home/ada", {{"XDG_DATA_HOME", "relative/ignored"}});
    EXPECT_EQ(profile.dataFolder, "/home/ada/.local/share/Vantle Lite");
    EXPECT_EQ(profile.trashFolder, "/home/ada/.local/share/Trash");
    profile = PlatformProfile::linuxReal("/home/ada", {{"XDG_DATA_HOME", "/data"}, {"XDG_CONFIG_HOME", "/cfg"}});
    EXPECT_EQ(profile.dataFolder, "/data/Vantle Lite");
    EXPECT_EQ(profile.launchAgentsFolder, "/cfg/autostart");
}
