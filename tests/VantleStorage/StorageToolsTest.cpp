#include "CleanerTestSupport.h"

#include "VantleStorage/StorageTools.h"

#include <regex>

using namespace vantle;
using namespace vantle::testing;

namespace {

class StorageToolsTest : public CleanerTest {
  protected:
    std::shared_ptr<HoldingShelf> shelf = std::make_shared<HoldingShelf>(
        home, holding, home / ".vantle-lite/Library/holding.json", RuleTable::shared());
    // Old installers count from their arrival, which is now: the tools' clock runs 61 days ahead.
    Clock later = [] { return std::chrono::system_clock::now() + std::chrono::days(61); };
    StorageTools tools{
        home,
        std::make_shared<StorageScanner>(
            StorageScanner::Options{.systemRoot = std::nullopt, .now = later, .workers = 2}),
        std::make_shared<StorageCleaner>(
            home, StorageCleaner::Options{.now = later, .running = [] { return RunningApps{}; }}),
        shelf};

    void SetUp() override {
        write("Library/Caches/pip/http/one.whl", 20'000);
        write("Downloads/setup.dmg", 30'000);
        ageTree(home, 60);
    }
};

TEST_F(StorageToolsTest, CleanStorageDeletesOnlyAfterAPreviewInTheSameRun) {
    Json pip = {{"categories", {"pip_cache"}}};
    auto unpreviewed = tools.call("clean_storage", pip, "run-1", true);
    EXPECT_TRUE(unpreviewed.refused);
    EXPECT_EQ(unpreviewed.text,
              "clean_storage deletes only what its preview showed in this run, and nothing was "
              "previewed. Nothing was touched.");
    EXPECT_TRUE(std::filesystem::exists(home / "Library/Caches/pip"));

    auto preview = tools.call("clean_storage", pip, "run-1");
    ASSERT_FALSE(preview.refused) << preview.text;
    EXPECT_TRUE(std::filesystem::exists(home / "Library/Caches/pip"));
    // Another run has seen nothing.
    EXPECT_TRUE(tools.call("clean_storage", pip, "run-2", true).refused);
    auto done = tools.call("clean_storage", pip, "run-1", true);
    ASSERT_FALSE(done.refused) << done.text;
    EXPECT_FALSE(std::filesystem::exists(home / "Library/Caches/pip"));
    EXPECT_EQ(done.figures["partlyRemovedCount"], 0);
    EXPECT_TRUE(done.figures.contains("measuredFreedBytes"));
}

TEST_F(StorageToolsTest, CleanStorageRefusesAClassBCategoryAndBadArgumentsAndPlansNothing) {
    auto classB = tools.call("clean_storage", {{"categories", {"old_installers"}}}, "run");
    EXPECT_EQ(classB.text,
              "Old installers and disk images are never taken as a whole category: nothing rebuilds "
              "them. Show the user the items scan_storage lists, and pass the ids of the ones the user "
              "chooses to set_aside_storage.");
    EXPECT_TRUE(tools.call("clean_storage", {{"categories", {"old_installers"}}}, "run", true).refused);
    EXPECT_TRUE(std::filesystem::exists(home / "Downloads/setup.dmg"));

    EXPECT_EQ(tools.call("clean_storage", {{"categories", 7}}, "run").text,
              "categories must be text, e.g. [\"gradle_caches\"]");
    EXPECT_TRUE(
        tools.call("clean_storage", Json::object(), "run")
            .text.starts_with("clean_storage needs categories: category ids from scan_storage, e.g. "
                              "gradle_caches. The categories that "
                              "can be freed are: xcode_build_data, xcode_caches, homebrew_downloads"));
    EXPECT_EQ(tools.call("clean_storage", {{"categories", {"documents"}}}, "run").text,
              "It is the user's own data: Vantle shows its size and never deletes it.");
    EXPECT_EQ(tools.call("clean_storage", {{"categories", {"uv_cache"}}}, "run").text,
              "Only the tool that owns it can clear it safely. Run uv cache prune in Terminal.");
    EXPECT_EQ(tools.call("scan_storage", {{"everything", "yes"}}, "run").text,
              "scan_storage: everything must be true or false.");
    EXPECT_EQ(
        tools.call("set_aside_storage", {{"items", {"pip_cache:abcdef"}}}, "run").text,
        "pip cache is not set aside item by item. It is cleared as a whole category, with clean_storage.");
    EXPECT_EQ(
        tools.call("set_aside_storage", {{"items", {"setup.dmg"}}}, "run").text,
        "\"setup.dmg\" is not an item id. Run scan_storage: it lists the items that can be set aside, each "
        "with its id.");
}

TEST_F(StorageToolsTest, PutBackStorageWithAnIdNotOnTheShelfListsWhatIsHeld) {
    EXPECT_EQ(
        tools.call("put_back_storage", {{"items", {"held:000000"}}}, "run").text,
        "\"held:000000\" is not the id of an item Vantle set aside. Vantle is keeping nothing set aside.");

    auto scan = tools.call("scan_storage", Json::object(), "run");
    ASSERT_FALSE(scan.refused);
    EXPECT_EQ(scan.figures["chosenItemByItem"], 1);
    std::smatch id;
    ASSERT_TRUE(std::regex_search(scan.text, id, std::regex("old_installers:[0-9a-f]{6}")));
    Json chosen = {{"items", {id.str()}}};
    ASSERT_FALSE(tools.call("set_aside_storage", chosen, "run").refused);
    auto held = tools.call("set_aside_storage", chosen, "run", true);
    ASSERT_FALSE(held.refused) << held.text;
    EXPECT_EQ(held.figures["heldCount"], 1);

    auto wrong = tools.call("put_back_storage", {{"items", {"held:000000"}}}, "run");
    EXPECT_EQ(wrong.text, "\"held:000000\" is not the id of an item Vantle set aside. The held items are: " +
                              shelf->heldItems().at(0).id + " (" + (home / "Downloads/setup.dmg").string() +
                              ")");
    EXPECT_FALSE(std::filesystem::exists(home / "Downloads/setup.dmg"));
}

} // namespace
