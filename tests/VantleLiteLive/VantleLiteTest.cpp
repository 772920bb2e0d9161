#include "VantleLiteLive/VantleLite.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <map>
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
    struct stat st {};
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
    for (auto name : {"Desktop", "Documents", "Downloads"})
        EXPECT_TRUE(fs::is_directory(dir / "box" / name)) << name;
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
    EXPECT_EQ(live->notes[0],
              "The network ledger could not be opened (Is a directory), so Vantle Lite is offline.");
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
    options.support =
        dir / "me/.local/share/Vantle Lite"; // the environment's XDG_DATA_HOME is not ours to set
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
    profile =
        PlatformProfile::linuxReal("/home/ada", {{"XDG_DATA_HOME", "/data"}, {"XDG_CONFIG_HOME", "/cfg"}});
    EXPECT_EQ(profile.dataFolder, "/data/Vantle Lite");
    EXPECT_EQ(profile.launchAgentsFolder, "/cfg/autostart");
}

TEST(VantleLiteMake, RealRunStartsWhenLocalOrLocalShareIsALink) {
    TempDir dir;
    dir.mkdir("dotfiles/local/share");
    dir.mkdir("me");
    fs::create_directory_symlink(dir / "dotfiles/local", dir / "me/.local");
    VantleLite::Options options;
    options.realHome = dir / "me";
    options.support = dir / "me/.local/share/Vantle Lite";
    auto live = VantleLite::make(options);
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_TRUE(fs::is_directory(dir / "dotfiles/local/share/Vantle Lite"));
    EXPECT_EQ(modeOf(dir / "dotfiles/local/share/Vantle Lite"), 0700u);

    TempDir other;
    other.mkdir("me/.local");
    other.mkdir("elsewhere");
    fs::create_directory_symlink(other / "elsewhere", other / "me/.local/share");
    options.realHome = other / "me";
    options.support = other / "me/.local/share/Vantle Lite";
    ASSERT_TRUE(VantleLite::make(options));
    EXPECT_EQ(modeOf(other / "elsewhere/Vantle Lite"), 0700u);
}

TEST(VantleLiteMake, DataFolderThatIsItselfALinkIsRefused) {
    TempDir dir;
    dir.mkdir("me/.local/share");
    dir.mkdir("someone-elses");
    fs::create_directory_symlink(dir / "someone-elses", dir / "me/.local/share/Vantle Lite");
    VantleLite::Options options;
    options.realHome = dir / "me";
    options.support = dir / "me/.local/share/Vantle Lite";
    auto live = VantleLite::make(options);
    ASSERT_FALSE(live);
    EXPECT_EQ(live.error().what, VantleLite::Failure::Case::couldNotMake);
    EXPECT_NE(modeOf(dir / "someone-elses"), 0700u) << "nothing was restricted through the link";
}

TEST(VantleLiteMake, SandboxWithALinkedDownloadsInsideItStartsAndMakesNothingThroughIt) {
    TempDir dir;
    dir.mkdir("realhome");
    dir.mkdir("box/stuff");
    fs::create_directory_symlink(dir / "box/stuff", dir / "box/Downloads");
    auto live = VantleLite::make(sandboxOptions(dir, dir / "box"));
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_TRUE(fs::is_symlink(dir / "box/Downloads"));
    EXPECT_TRUE(fs::is_directory(dir / "box/Desktop"));
}

TEST(VantleLiteMake, StartUpThatEndsInFailedHasCreatedNothing) {
    TempDir dir;
    dir.mkdir("realhome");
    dir.write("box/.vantle-lite", "a file where the data folder goes");
    auto live = VantleLite::make(sandboxOptions(dir, dir / "box"));
    ASSERT_FALSE(live);
    EXPECT_EQ(live.error().what, VantleLite::Failure::Case::couldNotMake);
    for (auto name : {"Desktop", "Documents", "Downloads"})
        EXPECT_FALSE(fs::exists(dir / "box" / name)) << name;

    auto fresh = sandboxOptions(dir, dir / "new/box");
    fresh.support = dir / "new/box/blocker/data";
    dir.write("new/box/blocker", "x");
    ASSERT_FALSE(VantleLite::make(fresh));
    EXPECT_FALSE(fs::exists(dir / "new/box/Desktop"));
}

TEST(VantleLiteMake, SandboxGivenAsALinkToAFolderWorksAsTheFolder) {
    TempDir dir;
    dir.mkdir("realhome");
    dir.mkdir("box");
    fs::create_directory_symlink(dir / "box", dir / "box-link");
    auto live = VantleLite::make(sandboxOptions(dir, dir / "box-link"));
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_TRUE(fs::is_directory(dir / "box/.vantle-lite"));
    EXPECT_TRUE(fs::is_directory(dir / "box/Documents"));
}

TEST(VantleLiteMake, TornStandInRecordIsKeptBesideItWithANote) {
    TempDir dir;
    dir.mkdir("realhome");
    dir.write("box/.vantle-lite/stand-in-mac.json", "{\"initial\": {\"wifi\": tr");
    auto live = VantleLite::make(sandboxOptions(dir, dir / "box"));
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_EQ(vantle::testing::readFile(dir / "box/.vantle-lite/stand-in-mac.json.torn"),
              "{\"initial\": {\"wifi\": tr");
    ASSERT_EQ(live->notes.size(), 1u);
    EXPECT_TRUE(live->notes[0].starts_with("The sandbox's stand-in-mac.json could not be read ("))
        << live->notes[0];
    EXPECT_TRUE(
        live->notes[0].ends_with("so it was kept as stand-in-mac.json.torn and a fresh record was started."));
}

TEST(VantleLiteMake, DeepStandInMacValuesAreNeverRewrittenLarger) {
    TempDir dir;
    dir.mkdir("realhome");
    // Free-form settings nested just inside the limit, thousands wide: indentation would multiply it.
    std::string wide = std::string(50, '[') + "1";
    for (int i = 0; i < 5000; ++i)
        wide += ",1";
    wide += std::string(50, ']');
    std::string record = R"({"initial":{},"settings":{"x":)" + wide +
                         R"(},"changes":[],"acts":[],"awake":false,"keptAwake":[],"trash":[]})";
    dir.write("box/.vantle-lite/stand-in-mac.json", record);
    {
        auto live = VantleLite::make(sandboxOptions(dir, dir / "box"));
        ASSERT_TRUE(live) << live.error().sentence;
        EXPECT_EQ(vantle::testing::readFile(dir / "box/.vantle-lite/stand-in-mac.json"), record)
            << "read, not rewritten";
        live->mac->act("lock");
    }
    auto after = vantle::testing::readFile(dir / "box/.vantle-lite/stand-in-mac.json");
    EXPECT_LT(after.size(), record.size() + 200) << "only what this run added";

    dir.write("box/.vantle-lite/stand-in-mac.json", R"({"initial":{},"settings":{"x":)" +
                                                        std::string(100'000, '[') +
                                                        std::string(100'000, ']') + "}}");
    auto live = VantleLite::make(sandboxOptions(dir, dir / "box"));
    ASSERT_TRUE(live) << live.error().sentence;
    EXPECT_FALSE(live->notes.empty()) << "too deep to read: kept aside, with a note";
}

TEST(VantleLiteMake, OnlyARealRunsStorageKnowsTheLinuxPlacesAndOnlyWhereTheyLieInTheHome) {
    TempDir dir;
    dir.mkdir("realhome");
    auto box = VantleLite::make(sandboxOptions(dir, dir / "box"));
    ASSERT_TRUE(box) << box.error().sentence;
    EXPECT_EQ(box->storageScanner->table().find("pip_cache_linux"), nullptr)
        << "a sandbox keeps the table's layout";
    EXPECT_EQ(&box->storageCleaner->table(), &box->storageScanner->table());

    VantleLite::Options options;
    options.realHome = dir.mkdir("me");
    options.support = dir / "me/.local/share/Vantle Lite";
    auto real = VantleLite::make(options);
    ASSERT_TRUE(real) << real.error().sentence;
    EXPECT_NE(real->storageScanner->table().find("trash_linux"), nullptr);
    EXPECT_EQ(&real->storageCleaner->table(), &real->storageScanner->table())
        << "freed by the same guard's table";

    auto ids = [](const PlatformProfile& p) {
        std::map<std::string, std::vector<std::string>> out;
        for (const auto& rule : p.placeRules)
            out[rule.id] = rule.patterns;
        return out;
    };
    auto moved =
        ids(PlatformProfile::linuxReal("/home/ada", {{"XDG_CACHE_HOME", "/var/cache/ada"},
                                                     {"XDG_DATA_HOME", "/home/ada/data"},
                                                     {"XDG_STATE_HOME", "/home/ada/.local/state/../st"}}));
    EXPECT_FALSE(moved.contains("pip_cache_linux")) << "a cache outside the home has no home-anchored rows";
    EXPECT_EQ(moved["trash_linux"], std::vector<std::string>{"data/Trash"});
    EXPECT_EQ(moved["app_logs_linux"].front(), ".local/st/*/log");
    EXPECT_TRUE(PlatformProfile::sandbox("/box").placeRules.empty());
}
