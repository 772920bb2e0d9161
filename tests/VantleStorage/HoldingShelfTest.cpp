#include "CleanerTestSupport.h"

#include "VantleStorage/ItemId.h"

using namespace vantle;
using namespace vantle::testing;

namespace {

// Two old installers in Downloads, one chosen to be set aside.
class HoldingShelfTest : public CleanerTest {
  protected:
    HoldingShelf shelf{home, holding, home / ".vantle-lite/Library/holding.json", RuleTable::shared()};

    void SetUp() override {
        // Arrival in a folder is the birth time, which nothing can set back: the clock moves on instead.
        now += std::chrono::days(61);
        shelfPtr = &shelf;
        write("Downloads/setup.dmg", 30'000);
        write("Downloads/tool.pkg", 10'000);
        write("Documents/notes.txt", 100);
        ageTree(home, 60);
    }

    const ScannedItem& itemNamed(const StorageScan& s, std::string_view name) {
        for (const auto& item : s.items)
            if (item.name == name) return item;
        throw std::runtime_error("no item " + std::string(name));
    }

    CleanReceipt setAside(std::vector<std::string> names) {
        auto s = scan();
        std::vector<std::string> ids;
        for (const auto& n : names)
            ids.push_back(itemNamed(s, n).id);
        auto c = cleaner();
        auto plan = c.planSetAside(s, ids, shelf);
        EXPECT_TRUE(plan.has_value()) << (plan ? "" : plan.error().message);
        auto receipt = c.carryOut(*plan, cancel, &shelf);
        EXPECT_TRUE(receipt.has_value());
        return *receipt;
    }
};

TEST_F(HoldingShelfTest, SettingAsideMovesOnlyTheChosenItemAndPuttingBackRestoresItExactly) {
    auto before = listing(home);
    auto receipt = setAside({"setup.dmg"});
    ASSERT_EQ(receipt.outcomes.size(), 1u);
    EXPECT_EQ(receipt.outcomes[0].result, CleanReceipt::ItemResult::held);
    EXPECT_FALSE(std::filesystem::exists(home / "Downloads/setup.dmg"));
    EXPECT_TRUE(std::filesystem::exists(home / "Downloads/tool.pkg"));
    std::vector<std::string> parts{"Downloads", "setup.dmg"};
    EXPECT_EQ(receipt.undo.heldIds, std::vector<std::string>{heldItemId(parts)});
    EXPECT_EQ(receipt.freedBytes, 0);

    // The next scan lists it as held under its id, and never as an installer.
    auto s = scan(std::nullopt, true);
    ASSERT_EQ(s.held.size(), 1u);
    EXPECT_EQ(s.held[0].id, receipt.undo.heldIds[0]);
    for (const auto& item : s.items)
        EXPECT_NE(item.name.find("setup.dmg"), 0u) << item.path;

    auto back = shelf.putBack(receipt.undo.heldIds);
    EXPECT_EQ(back.putBack, receipt.undo.heldIds);
    EXPECT_TRUE(back.failures.empty());
    EXPECT_TRUE(shelf.entries().empty());
    EXPECT_EQ(without(listing(home), {".vantle-lite"}), before);
}

TEST_F(HoldingShelfTest, PuttingBackWhereSomethingNewHasTheNameNeverReplacesIt) {
    auto receipt = setAside({"setup.dmg"});
    dir.write("home/Downloads/setup.dmg", "a new download");
    auto back = shelf.putBack(receipt.undo.heldIds);
    EXPECT_TRUE(back.putBack.empty());
    ASSERT_EQ(back.failures.size(), 1u);
    EXPECT_EQ(back.failures[0],
              "setup.dmg could not be put back. Something with that name is there now, and Vantle "
              "never replaces an item.");
    EXPECT_EQ(readFile(home / "Downloads/setup.dmg"), "a new download");
    EXPECT_EQ(shelf.entries().size(), 1u);
}

TEST_F(HoldingShelfTest, PuttingBackWhenTheFormerFolderIsGoneLeavesItHeld) {
    auto receipt = setAside({"setup.dmg"});
    std::filesystem::remove_all(home / "Downloads");
    auto back = shelf.putBack(receipt.undo.heldIds);
    ASSERT_EQ(back.failures.size(), 1u);
    EXPECT_EQ(back.failures[0], "setup.dmg could not be put back. The folder it was in cannot be opened.");
    ASSERT_EQ(shelf.entries().size(), 1u);
    EXPECT_TRUE(std::filesystem::exists(holding / shelf.entries()[0].slot));
}

TEST_F(HoldingShelfTest, SettingAsideIsRefusedForIdsOfOtherKindsAndForAHoldingFolderInsideAClearablePlace) {
    write("Library/Caches/pip/x.whl", 100);
    ageTree(home, 60);
    auto s = scan();
    auto c = cleaner();
    auto pip = itemNamed(s, "pip").id;
    auto plan = c.planSetAside(s, std::vector<std::string>{pip}, shelf);
    ASSERT_FALSE(plan.has_value());
    EXPECT_EQ(plan.error().message, "\"" + pip +
                                        "\" is an item of pip cache, which is not set aside item by item. "
                                        "Nothing was planned.");
    EXPECT_EQ(c.planSetAside(s, std::vector<std::string>{"old_installers:000000"}, shelf).error().message,
              "\"old_installers:000000\" is not the id of an item in the scan. Nothing was planned.");

    HoldingShelf cached(home, home / "Library/Caches/Vantle/Holding", home / "shelf.json",
                        RuleTable::shared());
    auto dmg = itemNamed(s, "setup.dmg").id;
    auto inside = c.planSetAside(s, std::vector<std::string>{dmg}, cached);
    ASSERT_FALSE(inside.has_value());
    EXPECT_EQ(inside.error().kind, CleanRefusal::Kind::holdingUnusable);
    EXPECT_TRUE(inside.error().message.starts_with("The holding folder is inside " +
                                                   (home / "Library/Caches/Vantle").string()))
        << inside.error().message;
    HoldingShelf above(home, dir.path(), home / "shelf.json", RuleTable::shared());
    EXPECT_EQ(c.planSetAside(s, std::vector<std::string>{dmg}, above).error().message,
              "The holding folder contains the home folder, so nothing was planned.");
    EXPECT_TRUE(std::filesystem::exists(home / "Downloads/setup.dmg"));
}

TEST_F(HoldingShelfTest, AnInstallerOpenedRecentlyIsNotSetAside) {
    // Opened three days ago: access time moves, nothing else.
    auto then = now - std::chrono::days(3);
    timespec times[2] = {{std::chrono::system_clock::to_time_t(then), 0}, {0, UTIME_OMIT}};
    ::utimensat(AT_FDCWD, (home / "Downloads/tool.pkg").c_str(), times, AT_SYMLINK_NOFOLLOW);
    auto s = scan();
    auto plan = cleaner().planSetAside(s, std::vector<std::string>{itemNamed(s, "tool.pkg").id}, shelf);
    ASSERT_TRUE(plan.has_value());
    EXPECT_TRUE(plan->items.empty());
    ASSERT_EQ(plan->leftAlone.size(), 1u);
    EXPECT_EQ(plan->leftAlone[0].reason,
              "It was opened or changed 3 days ago; it is left alone for 30 days after that.");
}

} // namespace
