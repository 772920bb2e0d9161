// vantle-lite-tour OUTDIR SANDBOX [PREFIX]: opens the app on a sandbox home (a fresh demo home, made by
// tools/screenshots) and walks it through its pages and states, saving a PNG of the screen at each:
// the welcome, Home (files, images, a search with chips, duplicates, sources, the Trash question),
// Storage (a scan, the report, a clean's question, its receipt), Privacy, Settings and the menu bar
// panel (recent downloads, a search, a Quit question). Run under an X server (Xvfb): the
// questions are windows of their own, so the screen is what is captured. Changes the sandbox.
#include "Vantle_Lite/LiteLaunch.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/ResultBar.h"
#include "app/design/Symbols.h"
#include "app/pages/health/HealthPage.h"
#include "app/pages/home/FileListModel.h"
#include "app/pages/home/HomePage.h"
#include "app/pages/privacy/PrivacyPage.h"
#include "app/pages/storage/StoragePage.h"
#include "app/panel/MenuBarItem.h"
#include "app/panel/PanelView.h"
#include "app/shell/MainWindow.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLineEdit>
#include <QMessageBox>
#include <QScreen>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>
#include <QTreeWidget>

#include <cstdio>

using namespace vantle;
using namespace vantle::app;

namespace {

QString outDir;
QString prefix;
int failures = 0;

void shoot(MainWindow& window, const QString& name) {
    QTest::qWait(400); // let thumbnails and layouts settle
    QApplication::processEvents();
    auto* screen = window.screen();
    auto frame = window.frameGeometry();
    // A question is a window of its own; the screen holds both.
    auto pixmap = screen->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
    if (pixmap.isNull()) pixmap = window.grab();
    auto file = outDir + "/" + prefix + name + ".png";
    if (!pixmap.save(file)) {
        std::fprintf(stderr, "could not save %s\n", qPrintable(file));
        ++failures;
    } else {
        std::printf("%s\n", qPrintable(file));
    }
}

// The panel is a window of its own, away from the main one.
void shootPanel(PanelView& panel, const QString& name) {
    QTest::qWait(400);
    QApplication::processEvents();
    auto frame = panel.frameGeometry();
    auto pixmap = panel.screen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
    if (pixmap.isNull()) pixmap = panel.grab();
    auto file = outDir + "/" + prefix + name + ".png";
    if (!pixmap.save(file)) {
        std::fprintf(stderr, "could not save %s\n", qPrintable(file));
        ++failures;
    } else {
        std::printf("%s\n", qPrintable(file));
    }
}

// The demo home has sent nothing yet: two update checks are written to its ledger as the broker
// writes them, one answered and one that found no connection.
void recordDemoRequests(EgressLedger& ledger, bool answered) {
    EgressLedger::Leaving leaving{.purpose = LedgerEntry::Purpose::update,
                                  .url = "https://vantle.app/updates/lite/appcast.xml"};
    auto id = ledger.recordLeaving(leaving);
    if (!id) return;
    if (answered)
        ledger.recordResult(*id, {.status = 200, .bytesReceived = 3184});
    else
        ledger.recordResult(*id, {.failure = "connection failed"});
}

bool waitFor(const std::function<bool()>& done, const char* what, int ms = 60000) {
    if (QTest::qWaitFor(done, ms)) return true;
    std::fprintf(stderr, "gave up waiting for %s\n", what);
    ++failures;
    return false;
}

} // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    if (argc < 3) {
        std::fprintf(stderr, "usage: vantle-lite-tour OUTDIR SANDBOX [PREFIX]\n");
        return 2;
    }
    outDir = argv[1];
    prefix = argc > 3 ? argv[3] : "";
    chooseIconTheme();
    applyAppearance();
    MainWindow window(LiteLaunch::parse({"vantle-lite", "-sandbox", argv[2]}));
    window.show();
    if (!waitFor([&] { return window.phase() != MainWindow::Phase::starting; }, "start-up")) return 1;
    if (window.phase() == MainWindow::Phase::welcome) shoot(window, "01-welcome");
    window.leaveWelcome();
    if (window.phase() != MainWindow::Phase::shell) return 1;

    auto* home = window.homePage();
    waitFor([&] { return !home->reading() && home->files()->rowCount() > 0; }, "the files");
    shoot(window, "02-home-files");

    home->showKind(LibraryKind::images);
    waitFor(
        [&] {
            return home->files()->rowCount() > 0 &&
                   home->files()->items().front().kind == LibraryKind::images;
        },
        "the images");
    QTest::qWait(1500); // thumbnails are made on workers
    shoot(window, "03-home-images");

    home->search("screenshots older than 6 months");
    waitFor([&] { return !home->chips().isEmpty(); }, "the search's chips");
    shoot(window, "04-home-search-chips");

    home->showView(HomePage::View::duplicates);
    home->findDuplicates();
    waitFor([&] { return home->duplicatesTree()->topLevelItemCount() > 0; }, "the duplicates");
    shoot(window, "05-home-duplicates");

    home->showView(HomePage::View::sources);
    waitFor([&] { return home->sourcesTree()->topLevelItemCount() > 0; }, "the sources");
    shoot(window, "06-home-sources");

    // The search's list is still in hand until the new one comes: wait for a different count.
    const auto searched = home->files()->rowCount();
    home->showKind(std::nullopt);
    waitFor([&] { return home->files()->rowCount() > 1 && home->files()->rowCount() != searched; },
            "the files again");
    home->select(qt(home->files()->items().front().path));
    home->trashSelection();
    waitFor([&] { return window.questionBox() != nullptr; }, "the Trash question");
    shoot(window, "07-trash-question");
    if (window.questionBox()) window.questionBox()->reject();
    QTest::qWait(300);

    window.showPage("storage");
    auto* storage = window.storagePage();
    bool scanningShot = false;
    QObject::connect(storage, &StoragePage::scanProgress, [&](const QString&) {
        if (scanningShot) return;
        scanningShot = true;
        shoot(window, "08-storage-scanning");
    });
    storage->scan();
    waitFor([&] { return storage->state() == StoragePage::State::report; }, "the storage report");
    shoot(window, "09-storage-report");

    // Tick every category that can be deleted whole, then ask.
    int ticked = 0;
    for (const auto& category : storage->report()->categories)
        if (category.safety == SafetyClass::a && category.systemFrees &&
            category.method == FreeMethod::remove && ticked < 3 && storage->tick(qt(category.id)))
            ++ticked;
    storage->cleanTicked();
    if (waitFor([&] { return window.questionBox() != nullptr; }, "the clean's question")) {
        shoot(window, "10-storage-clean-question");
        for (auto* button : window.questionBox()->buttons())
            if (button->objectName() == "confirm") button->click();
        waitFor([&] { return window.bridge()->pending() == 0 && !window.resultBar()->text().isEmpty(); },
                "the receipt");
        waitFor([&] { return storage->state() == StoragePage::State::report; }, "the new figures");
        shoot(window, "11-storage-receipt");
    }

    // Health: the score, the history of a made-up week put into the sandbox's record, a balance.
    {
        auto week = HealthHistory::madeUpWeek(systemNow());
        (void)window.bridge()->live().healthRecord->seed(week.hours, week.quarters, week.minutes);
        window.showPage("health");
        auto* health = window.findChild<HealthPage*>("health");
        waitFor([&] { return health->score() && health->checkup() && health->readingsTaken() > 2; },
                "the health score and the checkup");
        shoot(window, "12-health-score");
        if (auto* how = health->findChild<QToolButton*>("howWorkedOut")) {
            how->click();
            shoot(window, "12-health-score-explained");
            how->click();
        }
        health->scrollTo(HealthPage::Card::history);
        waitFor([&] { return health->historyRows() > 0; }, "the history");
        shoot(window, "13-health-history");
        // The sandbox's checkups take their made-up rows in turn: the third needs attention.
        auto attention = [&] {
            return std::ranges::any_of(health->checkup()->findings,
                                       [](const auto& f) { return f.status == CheckupStatus::attention; });
        };
        for (int i = 0; i < 3 && !attention(); ++i) {
            QSignalSpy checked(health, &HealthPage::checkupShown);
            health->runCheckup();
            waitFor([&] { return checked.count() > 0; }, "a checkup");
        }
        health->scrollTo(HealthPage::Card::checkup);
        shoot(window, "14-health-checkup");
        health->scrollTo(HealthPage::Card::activity);
        health->startBalance();
        waitFor([&] { return health->balanceState() == HealthPage::Balance::candidates; }, "the candidates");
        shoot(window, "15-health-balance-candidates");
        health->askToBalance();
        if (waitFor([&] { return window.questionBox() != nullptr; }, "the balance's question")) {
            shoot(window, "16-health-balance-question");
            for (auto* button : window.questionBox()->buttons())
                if (button->objectName() == "confirm") button->click();
            waitFor([&] { return health->balanceState() == HealthPage::Balance::report; },
                    "the balance's report");
            waitFor([&] { return window.bridge()->pending() == 0; }, "the result line");
            shoot(window, "17-health-balance-report");
        }
    }

    if (auto ledger = window.bridge()->live().ledgerWriter) recordDemoRequests(*ledger, false);
    window.showPage("privacy");
    auto* privacy = window.privacyPage();
    waitFor([&] { return privacy->requests()->topLevelItemCount() > 0; }, "the ledger");
    // A request made while the page is open arrives on its own.
    if (auto ledger = window.bridge()->live().ledgerWriter) recordDemoRequests(*ledger, true);
    waitFor([&] { return privacy->requests()->topLevelItemCount() > 1; }, "the new request");
    privacy->requests()->expandItem(privacy->requests()->topLevelItem(0));
    shoot(window, "18-privacy");

    window.showPage("settings");
    waitFor([&] { return window.bridge()->pending() == 0; }, "the settings");
    shoot(window, "19-settings");

    auto* item = window.menuBarItem();
    item->open();
    auto* panel = item->panel();
    waitFor([&] { return !panel->filesShown().empty() && !panel->busyShown().empty(); },
            "the panel's readings");
    shootPanel(*panel, "20-panel-downloads");
    QTest::keyClicks(panel->searchField(), "invoice");
    waitFor([&] { return panel->filesTitle() == "Files" && !panel->busy() && !panel->filesShown().empty(); },
            "the panel's search");
    shootPanel(*panel, "21-panel-search");
    panel->searchField()->clear();
    panel->askToQuit(0);
    waitFor([&] { return panel->questionFrame()->isVisible(); }, "the Quit question");
    shootPanel(*panel, "22-panel-quit-question");
    panel->answer(false);
    return failures == 0 ? 0 : 1;
}
