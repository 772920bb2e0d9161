// The menu bar panel, the Privacy and the Settings pages, driven offscreen over sandbox homes made by
// each test: the panel's search and its section title, the busy processes' sentences and the Quit
// question asked in the panel, erasing the health record only after its yes, and Open at login.
#include "VantleLiteLive/StandInProcesses.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/ResultBar.h"
#include "app/pages/privacy/PrivacyPage.h"
#include "app/pages/settings/SettingsPage.h"
#include "app/panel/MenuBarItem.h"
#include "app/panel/PanelView.h"
#include "app/shell/MainWindow.h"

#include "AppTestSupport.h"

#include <QApplication>
#include <QCheckBox>
#include <QFrame>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>

#include <gtest/gtest.h>

using namespace vantle;
using namespace vantle::app;
using namespace vantle::testing;
namespace fs = std::filesystem;

namespace {

QStringList shownNames(const PanelView& panel) {
    QStringList shown;
    for (const auto& file : panel.filesShown())
        shown << QString::fromStdString(file.name);
    return shown;
}

bool panelOpenInProduct(MainWindow& window) {
    bool open = false;
    window.bridge()->withProduct([](LiteProduct& p) { return p.panelOpen(); }, [&](bool o) { open = o; });
    settle(window);
    return open;
}

} // namespace

TEST(AppPanel, SearchTurnsTheSectionIntoFilesAndClearingItBringsBackRecentDownloads) {
    TempDir dir;
    dir.write("box/Downloads/boarding-pass.pdf", std::string(800, 'b'));
    dir.write("box/Downloads/tax-report-2026.zip", std::string(900, 't'));
    dir.write("box/Documents/annual report.odt", std::string(700, 'a'));
    auto window = shellOver(dir);
    ASSERT_TRUE(window->menuBarItem());
    window->menuBarItem()->open();
    auto* panel = window->menuBarItem()->panel();
    ASSERT_TRUE(panel->isVisible());
    EXPECT_EQ(panel->searchField()->placeholderText(), "Search files by name");
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel->filesShown().size() == 2; }, appWaitMs))
        << panel->filesNote().toStdString();
    EXPECT_EQ(panel->filesTitle(), "Recent downloads");
    EXPECT_FALSE(shownNames(*panel).contains("annual report.odt")) << "only the downloads";
    EXPECT_TRUE(panelOpenInProduct(*window)) << "the product knows the panel is open";

    QTest::keyClicks(panel->searchField(), "report");
    EXPECT_EQ(panel->filesTitle(), "Files");
    ASSERT_TRUE(QTest::qWaitFor([&] { return shownNames(*panel).size() == 2 && !panel->busy(); }, appWaitMs));
    EXPECT_TRUE(shownNames(*panel).contains("annual report.odt"))
        << shownNames(*panel).join(", ").toStdString();
    EXPECT_TRUE(shownNames(*panel).contains("tax-report-2026.zip"));

    QTest::keyClicks(panel->searchField(), " annual");
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return shownNames(*panel) == QStringList{"annual report.odt"}; }, appWaitMs))
        << "every word must be in the name";

    panel->searchField()->clear();
    EXPECT_EQ(panel->filesTitle(), "Recent downloads");
    EXPECT_EQ(panel->filesShown().size(), 2u);
    EXPECT_FALSE(shownNames(*panel).contains("annual report.odt"));

    QTest::keyClick(panel, Qt::Key_Escape);
    EXPECT_FALSE(panel->isVisible());
    EXPECT_FALSE(panelOpenInProduct(*window));
}

TEST(AppPanel, BusyProcessesAreWordedByKindAndHalfACoreIsBusyAndQuitAsksInThePanel) {
    TempDir dir;
    StandInProcesses::Record record;
    auto process = [](int pid, std::string name, std::optional<std::string> app, ProcessKind kind,
                      double cpu) {
        return StandInProcess{.pid = pid,
                              .name = std::move(name),
                              .app = std::move(app),
                              .kind = kind,
                              .user = "ada",
                              .cpuPercent = cpu,
                              .memoryBytes = 300ull << 20};
    };
    record.processes = {process(101, "Web Browser", "Web Browser", ProcessKind::app, 80.0),
                        process(201, "render", std::nullopt, ProcessKind::background, 50.0),
                        process(202, "sync", std::nullopt, ProcessKind::background, 12.0)};
    record.apps = {{"Web Browser", 101}};
    dir.write("box/.vantle-lite/stand-in-processes.json", encodeJson(record));
    auto window = shellOver(dir);
    window->menuBarItem()->open();
    auto* panel = window->menuBarItem()->panel();
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel->busyShown().size() == 3; }, appWaitMs));
    QStringList shown;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            shown.clear();
            for (auto* label : panel->findChildren<QLabel*>("busySentence"))
                shown << label->text();
            return shown.size() == 3;
        },
        appWaitMs));
    EXPECT_EQ(shown, (QStringList{"An app you have open.", "A program you started, busy right now.",
                                  "A program you started, running in the background."}));
    EXPECT_TRUE(panel->readingText().startsWith("Processor ")) << panel->readingText().toStdString();

    // Quitting asks inside the panel, and the window asks nothing of its own.
    panel->askToQuit(1);
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel->questionFrame()->isVisible(); }, appWaitMs));
    EXPECT_EQ(
        panel->findChild<QLabel*>("questionText")->text(),
        "render is using 50% of a core and 300 MB of memory. It quits as its own Quit command does: with "
        "unsaved work it asks you first.");
    EXPECT_EQ(window->questionBox(), nullptr);
    QTest::mouseClick(panel->findChild<QPushButton*>("questionCancel"), Qt::LeftButton);
    ASSERT_TRUE(settle(*window));
    EXPECT_EQ(window->resultBar()->text(), "render stays open");
    EXPECT_EQ(window->bridge()->live().processes->processes().size(), 3u) << "Cancel quits nothing";
}

TEST(AppSettings, TheHealthRecordIsErasedOnlyAfterItsQuestionIsAnsweredYes) {
    TempDir dir;
    auto window = shellOver(dir);
    auto record = window->bridge()->live().healthRecord;
    HealthPoint point;
    point.start = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    point.seconds = 60;
    point.cpu = 0.3;
    record->append(point);
    ASSERT_TRUE(record->holdsRecord());

    window->showPage("settings");
    auto* settings = window->settingsPage();
    QTest::mouseClick(settings->eraseRecord(), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    EXPECT_EQ(window->questionBox()->text(), "Erase the health record?");
    QTest::mouseClick(window->questionBox()->findChild<QPushButton*>("cancel"), Qt::LeftButton);
    ASSERT_TRUE(settle(*window));
    EXPECT_TRUE(record->holdsRecord()) << "Cancel keeps every point";
    EXPECT_EQ(window->resultBar()->text(), "Nothing was erased");

    QTest::mouseClick(settings->eraseRecord(), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    EXPECT_TRUE(record->holdsRecord()) << "the question comes before anything is erased";
    QTest::mouseClick(window->questionBox()->findChild<QPushButton*>("confirm"), Qt::LeftButton);
    ASSERT_TRUE(settle(*window));
    EXPECT_FALSE(record->holdsRecord());
    EXPECT_EQ(window->resultBar()->text(), "The health record was erased");
}

TEST(AppSettings, OpenAtLoginWritesTheSandboxsOwnAutostartEntryAndRemovesIt) {
    TempDir dir;
    auto window = shellOver(dir);
    window->showPage("settings");
    auto* box = window->settingsPage()->openAtLogin();
    ASSERT_TRUE(settle(*window));
    EXPECT_FALSE(box->isChecked());
    auto entry = dir / "box/.config/autostart/vantle-lite.desktop";

    box->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return box->isEnabled() && fs::exists(entry); }, appWaitMs))
        << window->settingsPage()->loginNote().toStdString();
    EXPECT_TRUE(box->isChecked());
    auto text = readFile(entry);
    EXPECT_NE(text.find("-sandbox " + (dir / "box").string() + " --at-login\n"), std::string::npos) << text;

    box->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return box->isEnabled() && !fs::exists(entry); }, appWaitMs));
    EXPECT_FALSE(box->isChecked());
    ASSERT_TRUE(settle(*window));
}

TEST(AppPrivacy, ARequestsTwoLinesArriveAsOneRowWhileThePageIsOnScreenAndWaitWhileItIsNot) {
    TempDir dir;
    auto window = shellOver(dir);
    auto ledger = window->bridge()->live().ledgerWriter;
    ASSERT_TRUE(ledger);
    window->showPage("privacy");
    auto* requests = window->privacyPage()->requests();
    ASSERT_TRUE(settle(*window));
    EXPECT_EQ(requests->topLevelItemCount(), 0);

    auto id = ledger->recordLeaving(
        {.purpose = LedgerEntry::Purpose::update, .url = "https://vantle.app/updates/lite/appcast.xml"});
    ASSERT_TRUE(id);
    ASSERT_TRUE(QTest::qWaitFor([&] { return requests->topLevelItemCount() == 1; }, appWaitMs));
    EXPECT_EQ(requests->topLevelItem(0)->text(3), "On its way…");
    ASSERT_TRUE(ledger->recordResult(*id, {.status = 200, .bytesReceived = 3184}));
    ASSERT_TRUE(QTest::qWaitFor([&] { return requests->topLevelItem(0)->childCount() == 2; }, appWaitMs));
    EXPECT_EQ(requests->topLevelItemCount(), 1) << "both lines of a request are one row";
    EXPECT_EQ(requests->topLevelItem(0)->text(2), "vantle.app");
    EXPECT_EQ(requests->topLevelItem(0)->text(3), "Status 200 · 3 KB");

    // Off screen the page takes nothing up; back on screen it catches up.
    window->showPage("settings");
    ASSERT_TRUE(ledger->recordLeaving({.purpose = LedgerEntry::Purpose::download,
                                       .url = "https://vantle.app/updates/lite/VantleLite-2.tar.xz"}));
    EXPECT_FALSE(window->privacyPage()->takingUp());
    QApplication::processEvents();
    EXPECT_EQ(requests->topLevelItemCount(), 1);
    window->showPage("privacy");
    ASSERT_TRUE(QTest::qWaitFor([&] { return requests->topLevelItemCount() == 2; }, appWaitMs));
    EXPECT_EQ(requests->topLevelItem(0)->text(1), "Update download") << "newest first";
    ASSERT_TRUE(settle(*window));
}
