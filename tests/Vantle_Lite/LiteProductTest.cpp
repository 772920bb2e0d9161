#include "Vantle_Lite/LiteProduct.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;

namespace {

// A product over a sandbox in `dir`, whose home is the sandbox rule's one allowed folder.
VantleLite::Options sandboxedProductOptions(TempDir& dir) {
    dir.mkdir("home");
    VantleLite::Options options;
    options.sandbox = dir / "box";
    options.sandboxRule = SandboxRule{{dir / "home"}};
    return options;
}

} // namespace

TEST(LiteProduct, HealthRecordChoiceIsKeptInTheSettingsAndOffUntilChosen) {
    TempDir dir;
    auto options = sandboxedProductOptions(dir);
    {
        auto product = LiteProduct::make(*VantleLite::make(options));
        EXPECT_FALSE(product->keepsHealthRecord());
        product->setKeepsHealthRecord(true);
    }
    auto again = LiteProduct::make(*VantleLite::make(options));
    EXPECT_TRUE(again->keepsHealthRecord());
    EXPECT_EQ(again->settings().boolean("keepHealthRecord"), true);
}

TEST(LiteProduct, HealthRecordWasNotKeptWhileTheProgramRan) {
    TempDir dir;
    auto options = sandboxedProductOptions(dir);
    auto minutesKept = [&] {
        return VantleLite::make(options)->healthRecord->latest(HealthRecord::Table::minutes);
    };
    {
        // A product for one command never records: its seconds would replace the app's minute.
        auto command = LiteProduct::make(*VantleLite::make(options), LiteProduct::Lifetime::oneCommand);
        command->setKeepsHealthRecord(true);
    }
    EXPECT_FALSE(minutesKept());
    {
        auto program = LiteProduct::make(*VantleLite::make(options));
        ASSERT_TRUE(program->keepsHealthRecord());
    } // the open minute is written as the program ends
    EXPECT_TRUE(minutesKept()) << "the record is kept while the program runs and the choice is on";

    TempDir off;
    options = sandboxedProductOptions(off);
    { auto program = LiteProduct::make(*VantleLite::make(options)); }
    EXPECT_FALSE(minutesKept()) << "nothing is written until the user turns the record on";
}

TEST(LiteProduct, BalanceAsksNamingWhatIsTickedThenUndoPutsTheMovesBackOnEveryCore) {
    TempDir dir;
    auto options = sandboxedProductOptions(dir);
    auto product = LiteProduct::make(*VantleLite::make(options), LiteProduct::Lifetime::oneCommand);

    auto before = LiteProduct::readLoad(product->live());
    std::vector<BalanceCandidate> chosen;
    for (const auto& c : findCandidates(before.reading).candidates)
        if (c.action == BalanceCandidate::Action::slow) chosen.push_back(c);
    ASSERT_GE(chosen.size(), 2u) << "the busy stand-in scene has background work to move";
    chosen.resize(2);

    product->askToBalance(before, chosen);
    ASSERT_TRUE(product->confirmation());
    EXPECT_EQ(product->confirmation()->title, "Balance the load?");
    EXPECT_EQ(product->confirmation()->message,
              chosen[0].name + " and " + chosen[1].name +
                  " move to the efficiency cores at low priority, and ⌘Z puts them back on every core.");
    auto standIn = [&] { return StandInBalance(product->live().support).record().events; };
    EXPECT_TRUE(standIn().empty()) << "nothing moves before the yes";

    auto done = product->answer(true);
    ASSERT_TRUE(done);
    EXPECT_EQ(done->text, "Moved 2 processes to the efficiency cores · ⌘Z puts them back");
    ASSERT_TRUE(product->lastBalance());
    EXPECT_EQ(product->lastBalance()->moved.size(), 2u);
    ASSERT_TRUE(product->undoable());

    auto undone = product->undoLast();
    ASSERT_TRUE(undone);
    EXPECT_EQ(undone->text, chosen[0].name + " and " + chosen[1].name + " are back on every core.");
    auto events = standIn();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[2].act, "putBack");
    EXPECT_EQ(events[3].act, "putBack");
    EXPECT_FALSE(product->undoable());

    // Cancelling moves nothing and keeps nothing for Undo.
    product->askToBalance(before, chosen);
    EXPECT_EQ(product->answer(false)->text, "Nothing was changed.");
    EXPECT_EQ(standIn().size(), 4u);
    EXPECT_FALSE(product->undoable());
}

TEST(LiteProduct, QuittingABusyProcessAsksWithItsShareOfACoreAndItsMemoryFirst) {
    TempDir dir;
    auto options = sandboxedProductOptions(dir);
    auto product = LiteProduct::make(*VantleLite::make(options), LiteProduct::Lifetime::oneCommand);
    auto running = product->live().processes->processes();
    auto target = std::ranges::find_if(running, [](const StandInProcess& p) { return !p.asksToSave; });
    ASSERT_NE(target, running.end());
    ProcessRow row;
    row.pid = target->pid;
    row.name = "worker";
    row.app = "Editor";
    row.cpuPercent = 149.5; // a share of one core may pass a whole core
    row.memory = 3ull << 30;

    product->askToQuit(row);
    ASSERT_TRUE(product->confirmation());
    EXPECT_EQ(product->confirmation()->title, "Quit Editor?");
    EXPECT_EQ(
        product->confirmation()->message,
        "Editor is using 150% of a core and 3 GB of memory. It quits as its own Quit command does: with "
        "unsaved work it asks you first.");
    EXPECT_EQ(product->live().processes->processes().size(), running.size())
        << "nothing quits before the yes";
    EXPECT_EQ(product->answer(false)->text, "Editor stays open");

    product->askToQuit(row);
    auto quit = product->answer(true);
    ASSERT_TRUE(quit);
    EXPECT_EQ(quit->text, "Editor is no longer running");
    EXPECT_EQ(product->live().processes->record().events.size(), 1u) << "asked once, as its own Quit does";
    EXPECT_FALSE(product->undoable()) << "a quit cannot be undone";
}
