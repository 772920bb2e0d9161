#include "Vantle_Lite/LiteProduct.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

std::shared_ptr<LiteProduct> sandboxProduct(const TempDir& dir) {
    dir.mkdir("home");
    VantleLite::Options options;
    options.sandbox = dir / "box";
    options.sandboxRule = SandboxRule{{dir / "home"}};
    return LiteProduct::make(*VantleLite::make(options));
}

} // namespace

TEST(LiteActions, TrashAsksWithNamesAndSizeThenUndoPutsTheBatchBackOnce) {
    TempDir dir;
    auto product = sandboxProduct(dir);
    int told = 0;
    product->addListener([&] { ++told; });
    std::vector<fs::path> files;
    for (auto name : {"a.txt", "b.txt", "c.txt", "d.txt", "e.txt"})
        files.push_back(dir.write(std::string("box/Documents/") + name, std::string(200, 'x')));
    EXPECT_EQ(product->askToTrash(files), std::nullopt);
    ASSERT_TRUE(product->confirmation());
    EXPECT_EQ(product->confirmation()->title, "Move 5 items to the Trash?");
    EXPECT_EQ(product->confirmation()->message, "a.txt, b.txt, c.txt and 2 more (1 KB). They go to the "
                                                "Trash, as Finder moves them, and ⌘Z puts them back.");
    EXPECT_EQ(told, 1);

    auto line = product->answer(true);
    EXPECT_FALSE(product->confirmation());
    EXPECT_EQ(line->text, "Moved 5 items to the Trash · ⌘Z puts them back");
    for (auto& f : files)
        EXPECT_FALSE(fs::exists(f));
    EXPECT_EQ(product->live().mac->record().trash.size(), 5u) << "the sandbox's stand-in keeps an account";

    fs::remove(dir / "box/.Trash/e.txt"); // emptied meanwhile
    EXPECT_EQ(product->undoLast(), (ResultLine{"Put back 4 items", "arrow.uturn.backward"}));
    EXPECT_TRUE(fs::exists(files[0]));
    EXPECT_FALSE(product->undoable());
    EXPECT_EQ(product->undoLast(), std::nullopt) << "nothing is left to undo";
}

TEST(LiteActions, OneFileIsNamedAndASelectionOfRefusedItemsIsNotAsked) {
    TempDir dir;
    auto product = sandboxProduct(dir);
    auto file = dir.write("box/notes.md", "n");
    product->askToTrash({file});
    EXPECT_EQ(product->confirmation()->title, "Move “notes.md” to the Trash?");
    EXPECT_EQ(product->answer(false), (ResultLine{"Nothing was moved", "info.circle"}));
    EXPECT_TRUE(fs::exists(file));
    EXPECT_FALSE(product->undoable());

    dir.write("box/Library/Caches/x", "x");
    EXPECT_EQ(product->askToTrash({dir / "box/Library/Caches/x", dir / "box/Downloads"}),
              (ResultLine{"Nothing to delete", "lock"}));
    EXPECT_FALSE(product->confirmation());
}

TEST(LiteActions, AgentOffThenFilesTrashedUndoPutsTheFilesBackNotTheAgent) {
    TempDir dir;
    auto product = sandboxProduct(dir);
    auto agent = dir.write("box/Library/LaunchAgents/com.example.sync.plist", "<plist/>");
    product->askToTurnOff(agent);
    EXPECT_EQ(product->confirmation()->title, "Turn off com.example.sync?");
    EXPECT_EQ(product->confirmation()->confirm, "Turn Off");
    EXPECT_EQ(product->answer(true)->text, "com.example.sync is off · ⌘Z turns it back on");
    EXPECT_FALSE(fs::exists(agent));

    auto file = dir.write("box/Desktop/old.zip", "z");
    product->askToTrash({file});
    product->answer(true);
    EXPECT_EQ(product->undoLast()->text, "Put back 1 item");
    EXPECT_TRUE(fs::exists(file));
    EXPECT_FALSE(fs::exists(agent)) << "only the last undoable action is kept";
    EXPECT_EQ(product->undoLast(), std::nullopt);
}

TEST(LiteActions, UndoTurnsTheAgentBackOnUnlessItsPlaceWasTaken) {
    TempDir dir;
    auto product = sandboxProduct(dir);
    auto agent = dir.write("box/Library/LaunchAgents/helper.plist", "old");
    product->askToTurnOff(agent);
    product->answer(true);
    EXPECT_EQ(product->undoLast(),
              (ResultLine{"helper is back in your startup items", "arrow.uturn.backward"}));
    EXPECT_EQ(vantle::testing::readFile(agent), "old");

    product->askToTurnOff(agent);
    product->answer(true);
    dir.write("box/Library/LaunchAgents/helper.plist", "new");
    EXPECT_EQ(product->undoLast(), (ResultLine{"helper could not be put back", "exclamationmark.circle"}));
    EXPECT_EQ(vantle::testing::readFile(agent), "new");
}

TEST(LiteActions, RestartCancelledKeepsNothingAndASandboxAsksItsStandIn) {
    TempDir dir;
    auto product = sandboxProduct(dir);
    product->askToRestart();
    EXPECT_EQ(product->confirmation()->title, "Restart this Mac?");
    EXPECT_EQ(product->answer(false)->text, "Nothing was restarted");
    EXPECT_FALSE(product->undoable());
    EXPECT_TRUE(product->live().mac->record().acts.empty());
    product->askToRestart();
    EXPECT_EQ(product->answer(true)->text, "Restart asked of the sandbox's stand-in Mac");
    ASSERT_EQ(product->live().mac->record().acts.size(), 1u);
    EXPECT_EQ(product->live().mac->record().acts[0].act, "restart");
    EXPECT_EQ(product->showInFileManager(dir / "box/Desktop").text, "Shown in Finder (a sandbox's stand-in)");
}
