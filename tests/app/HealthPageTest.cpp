// The Health page driven offscreen over sandbox homes made by each test: the live readings follow the
// window's visibility, a balance goes from its candidates through the question to its report and
// Undo, and the history says why it is empty until the record holds something.
#include "app/pages/health/HealthPage.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/Gauges.h"
#include "app/design/ResultBar.h"
#include "app/pages/storage/StoragePage.h"
#include "app/shell/MainWindow.h"

#include "AppTestSupport.h"

#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

#include <gtest/gtest.h>

using namespace vantle;
using namespace vantle::app;
using namespace vantle::testing;

namespace {

std::unique_ptr<MainWindow> healthOver(const TempDir& dir) {
    auto window = shellOver(dir);
    window->showPage("health");
    return window;
}

HealthPage* healthOf(MainWindow& window) {
    return window.findChild<HealthPage*>("health");
}

} // namespace

TEST(AppHealth, LiveGaugesStopWhileTheWindowIsHiddenOrThePageIsLeftAndResumeWhenShownAgain) {
    TempDir dir;
    auto window = healthOver(dir);
    auto* page = healthOf(*window);
    ASSERT_TRUE(page);
    page->setRefreshInterval(50);
    ASSERT_TRUE(QTest::qWaitFor([&] { return page->readingsTaken() >= 3; }, appWaitMs));
    EXPECT_TRUE(page->readingLive());
    ASSERT_TRUE(page->score());
    EXPECT_EQ(page->findChild<Ring*>("scoreRing")->figure(), QString::number(page->score()->value));
    // The busy list words each process as the panel does: the stand-in's browser is an open app.
    QStringList sentences;
    for (const auto& [name, sentence] : page->busyRows())
        sentences << name + ": " + sentence;
    EXPECT_TRUE(sentences.contains("Web Browser: An app you have open."))
        << sentences.join(" | ").toStdString();

    auto stillAfterAWhile = [&] {
        EXPECT_TRUE(settle(*window)); // a reading already on its way may land
        int taken = page->readingsTaken();
        QTest::qWait(400); // eight intervals
        EXPECT_TRUE(settle(*window));
        return page->readingsTaken() == taken;
    };
    window->hide();
    EXPECT_FALSE(page->readingLive());
    EXPECT_TRUE(stillAfterAWhile()) << "nothing is read while the window is hidden";

    window->show();
    EXPECT_TRUE(page->readingLive());
    int shown = page->readingsTaken();
    ASSERT_TRUE(QTest::qWaitFor([&] { return page->readingsTaken() > shown + 1; }, appWaitMs));

    window->screenLockChanged(true);
    EXPECT_FALSE(page->readingLive()) << "a locked screen is not looked at";
    window->screenLockChanged(false);
    EXPECT_TRUE(page->readingLive());

    window->showPage("storage");
    EXPECT_FALSE(page->readingLive());
    EXPECT_TRUE(stillAfterAWhile()) << "nothing is read while another page is shown";
    window->showPage("health");
    EXPECT_TRUE(page->readingLive());
    page->setRefreshInterval(2000);
    ASSERT_TRUE(settle(*window));
}

TEST(AppHealth, BalanceAsksForWhatIsTickedThenReportsAndUndoPutsTheMoveBack) {
    TempDir dir;
    auto window = healthOver(dir);
    auto* page = healthOf(*window);
    ASSERT_TRUE(settle(*window));
    page->startBalance();
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return page->balanceState() == HealthPage::Balance::candidates; }, appWaitMs));
    ASSERT_GE(page->candidateCount(), 2) << "the busy stand-in scene offers work to move";
    for (int i = 1; i < page->candidateCount(); ++i)
        page->tickCandidate(i, false);
    ASSERT_TRUE(page->tickCandidate(0, true));

    // Cancelling the question moves nothing and leaves the ticks as they were.
    page->askToBalance();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    EXPECT_EQ(page->balanceState(), HealthPage::Balance::asking);
    EXPECT_FALSE(page->tickCandidate(1, true)) << "the ticks are held while the question is open";
    QTest::keyClick(window->questionBox(), Qt::Key_Escape);
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return page->balanceState() == HealthPage::Balance::candidates; }, appWaitMs));
    ASSERT_TRUE(settle(*window));
    EXPECT_EQ(window->resultBar()->text(), "Nothing was changed.");
    EXPECT_FALSE(window->bridge()->undoable());

    page->askToBalance();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    EXPECT_EQ(window->questionBox()->text(), "Balance the load?");
    const auto message = window->questionBox()->informativeText();
    EXPECT_TRUE(message.endsWith(" move to the efficiency cores at low priority, and ⌘Z puts them back on "
                                 "every core."))
        << message.toStdString();
    QTest::mouseClick(window->questionBox()->findChild<QPushButton*>("confirm"), Qt::LeftButton);
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return page->balanceState() == HealthPage::Balance::report; }, appWaitMs));
    ASSERT_TRUE(settle(*window));
    const auto moved = page->reportLines().value(0);
    EXPECT_TRUE(moved.startsWith("Moved to the efficiency cores at low priority: ")) << moved.toStdString();
    EXPECT_TRUE(page->reportLines().filter("health score").size() == 1) << "the score's change is reported";
    EXPECT_EQ(window->resultBar()->text(), "Moved 1 process to the efficiency cores · ⌘Z puts it back");

    auto* undo = page->findChild<QPushButton*>("balanceUndo");
    ASSERT_TRUE(undo && undo->isVisible());
    QTest::mouseClick(undo, Qt::LeftButton);
    ASSERT_TRUE(settle(*window));
    auto name = moved.mid(moved.indexOf(": ") + 2).chopped(1);
    EXPECT_EQ(window->resultBar()->text(), name + " is back on every core.");
    EXPECT_FALSE(undo->isVisible());
}

TEST(AppHealth, TheHistorySaysWhyItIsEmptyUntilTheRecordHoldsSomethingThenDrawsItsRows) {
    TempDir dir;
    auto window = healthOver(dir);
    auto* page = healthOf(*window);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !labelText(*page, "historyEmpty").isEmpty(); }, appWaitMs));
    ASSERT_TRUE(settle(*window));
    EXPECT_TRUE(labelText(*page, "historyEmpty").startsWith("Health keeps no record of this computer yet."));
    auto* keep = page->findChild<QPushButton*>("keepRecord");
    ASSERT_TRUE(keep && keep->isVisible());
    QTest::mouseClick(keep, Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return labelText(*page, "historyEmpty").startsWith("The record is on."); }, appWaitMs));
    EXPECT_FALSE(keep->isVisible());

    // A made-up week, as a sandbox's record may hold: a month shows its days.
    const auto& live = window->bridge()->live();
    auto week = HealthHistory::madeUpWeek(systemNow());
    ASSERT_TRUE(live.healthRecord->seed(week.hours, week.quarters, week.minutes));
    page->showSpan(HealthHistory::Span::month);
    ASSERT_TRUE(QTest::qWaitFor([&] { return page->historyRows() >= 7; }, appWaitMs)) << page->historyRows();
    EXPECT_FALSE(page->historyEmpty());
    EXPECT_TRUE(labelText(*page, "historyLine").startsWith("The processor averaged "))
        << "the span in a sentence";
    ASSERT_TRUE(settle(*window));
}

TEST(AppHealth, AFindingsButtonLeadsWhereItSaysBalanceHereCleanUpOnTheStoragePage) {
    TempDir dir;
    auto window = healthOver(dir);
    auto* page = healthOf(*window);
    // The sandbox's checkups take their made-up rows in turn; the third needs attention.
    auto actionNamed = [&](const QString& words) -> QPushButton* {
        for (auto* button : page->findChildren<QPushButton*>("findingAction"))
            if (button->text() == words) return button;
        return nullptr;
    };
    for (int i = 0; i < 4 && !actionNamed("Clean Up…"); ++i) {
        ASSERT_TRUE(settle(*window));
        page->runCheckup();
        ASSERT_TRUE(settle(*window));
    }
    ASSERT_TRUE(actionNamed("Clean Up…")) << "the stand-in's attention row offers Clean Up";

    QTest::mouseClick(actionNamed("Balance the Load…"), Qt::LeftButton);
    EXPECT_EQ(page->balanceState(), HealthPage::Balance::reading);
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return page->balanceState() == HealthPage::Balance::candidates; }, appWaitMs));
    EXPECT_EQ(window->pageShown(), "health");

    QTest::mouseClick(actionNamed("Clean Up…"), Qt::LeftButton);
    EXPECT_EQ(window->pageShown(), "storage");
    EXPECT_NE(window->storagePage()->state(), StoragePage::State::before) << "Clean Up starts the scan";
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->storagePage()->state() == StoragePage::State::report; },
                                appWaitMs));
    ASSERT_TRUE(settle(*window));
}
