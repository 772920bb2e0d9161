// The desktop app driven offscreen over sandbox homes made by each test: the start-up phases, the
// welcome, the menu's enabling, the window's visibility, a trash and its Undo, a clean's question
// and receipt.
#include "app/bridge/ProductBridge.h"
#include "app/design/ResultBar.h"
#include "app/pages/home/FileListModel.h"
#include "app/pages/home/HomePage.h"
#include "app/pages/home/Thumbnails.h"
#include "app/pages/storage/StoragePage.h"
#include "app/shell/MainWindow.h"

#include "AppTestSupport.h"

#include <QAction>
#include <QApplication>
#include <QImage>
#include <QLabel>
#include <QMessageBox>
#include <QPixmap>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTreeWidget>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace vantle;
using namespace vantle::app;
using namespace vantle::testing;
namespace fs = std::filesystem;

namespace {

void age(const fs::path& root, std::chrono::hours by) {
    auto then = std::chrono::system_clock::now() - by;
    timespec times[2] = {{std::chrono::system_clock::to_time_t(then), 0},
                         {std::chrono::system_clock::to_time_t(then), 0}};
    if (fs::is_directory(root))
        for (auto& entry : fs::recursive_directory_iterator(root))
            ::utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
    ::utimensat(AT_FDCWD, root.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

} // namespace

TEST(AppStartUp, ShowsReadyAtOnceThenWelcomeUntilLeftOnceThenTheShell) {
    TempDir dir;
    {
        MainWindow window(sandboxLaunch(dir), sandboxSeams(dir));
        EXPECT_EQ(window.windowTitle(), "Vantle Lite");
        EXPECT_EQ(window.phase(), MainWindow::Phase::starting)
            << "the window shows before the wiring is done";
        EXPECT_EQ(labelText(window, "startingText"), "Getting Vantle Lite ready");
        EXPECT_FALSE(window.action("goHome")->isEnabled());

        ASSERT_TRUE(
            QTest::qWaitFor([&] { return window.phase() != MainWindow::Phase::starting; }, appWaitMs));
        ASSERT_EQ(window.phase(), MainWindow::Phase::welcome);
        auto* welcome = window.findChild<QWidget*>("welcome");
        ASSERT_TRUE(welcome);
        QStringList texts;
        for (auto* label : welcome->findChildren<QLabel*>())
            texts << label->text();
        EXPECT_TRUE(texts.contains("Welcome to Vantle Lite"));
        EXPECT_TRUE(texts.contains("Your files and your Mac's health, in one calm place."));
        EXPECT_FALSE(window.action("goStorage")->isEnabled()) << "the pages wait behind the welcome";

        QTest::mouseClick(welcome->findChild<QPushButton*>("continue"), Qt::LeftButton);
        EXPECT_EQ(window.phase(), MainWindow::Phase::shell);
        EXPECT_EQ(window.pageShown(), "home");
        EXPECT_TRUE(window.action("goStorage")->isEnabled());
        window.action("goStorage")->trigger();
        EXPECT_EQ(window.pageShown(), "storage");
        ASSERT_TRUE(settle(window));
    }
    // Leaving the welcome was kept: the next start goes straight to the shell.
    MainWindow again(sandboxLaunch(dir), sandboxSeams(dir));
    ASSERT_TRUE(QTest::qWaitFor([&] { return again.phase() != MainWindow::Phase::starting; }, appWaitMs));
    EXPECT_EQ(again.phase(), MainWindow::Phase::shell);
    ASSERT_TRUE(settle(again));
}

TEST(AppStartUp, AFolderThatIsNoSandboxEndsInTheFailedPageWithItsSentence) {
    TempDir dir;
    auto options = sandboxSeams(dir);
    options.sandboxRule = SandboxRule{{dir / "box"}}; // the sandbox is a real home
    dir.mkdir("box");
    MainWindow window(sandboxLaunch(dir), options);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window.phase() != MainWindow::Phase::starting; }, appWaitMs));
    ASSERT_EQ(window.phase(), MainWindow::Phase::failed);
    EXPECT_TRUE(
        window.failure().endsWith("A sandbox is a folder of its own that stands in for the home folder."))
        << window.failure().toStdString();
    EXPECT_FALSE(window.action("undo")->isEnabled());
    EXPECT_FALSE(window.action("cleanUp")->isEnabled());
    EXPECT_FALSE(fs::exists(dir / "box/.vantle-lite")) << "a refused sandbox gets nothing made in it";
}

TEST(AppWindow, VisibilityFollowsMinimisingAndTheScreenLockAndIsPublishedOnlyOnChange) {
    TempDir dir;
    MainWindow window(sandboxLaunch(dir), sandboxSeams(dir));
    window.screenLockChanged(true); // while starting: nothing changes, nothing is remembered
    window.show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window.phase() != MainWindow::Phase::starting; }, appWaitMs));
    auto* bridge = window.bridge();
    ASSERT_TRUE(bridge);
    EXPECT_TRUE(bridge->windowVisible()) << "a lock heard before start-up ended is forgotten";
    QSignalSpy published(bridge, &ProductBridge::windowVisibleChanged);

    window.screenLockChanged(true);
    window.screenLockChanged(true);
    EXPECT_FALSE(bridge->windowVisible());
    EXPECT_EQ(published.count(), 1) << "a second lock is no change";

    window.showMinimized();
    window.screenLockChanged(false);
    EXPECT_FALSE(bridge->windowVisible()) << "unlocked, but the window is minimised";
    EXPECT_EQ(published.count(), 1);
    window.showNormal();
    EXPECT_TRUE(bridge->windowVisible());
    EXPECT_EQ(published.count(), 2);
    window.hide();
    EXPECT_FALSE(bridge->windowVisible());
    ASSERT_TRUE(settle(window));
    bool productSees = true;
    bridge->withProduct([](LiteProduct& p) { return p.windowVisible(); }, [&](bool v) { productSees = v; });
    ASSERT_TRUE(settle(window));
    EXPECT_FALSE(productSees) << "the product model follows the window";
}

TEST(AppActions, TrashAsksThenCtrlZPutsItBackAndUndoIsEnabledOnlyWhileSomethingCanBeUndone) {
    TempDir dir;
    auto window = shellOver(dir);
    auto file = dir.write("box/Documents/plan.txt", std::string(3000, 'p'));
    EXPECT_FALSE(window->action("undo")->isEnabled());

    window->bridge()->askToTrash({file});
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    auto* box = window->questionBox();
    EXPECT_EQ(box->text(), "Move “plan.txt” to the Trash?");
    EXPECT_EQ(box->informativeText(),
              "plan.txt (3 KB). They go to the Trash, as Finder moves them, and ⌘Z puts them back.");
    EXPECT_FALSE(window->action("undo")->isEnabled()) << "no Undo over a question";
    QTest::mouseClick(box->findChild<QPushButton*>("confirm"), Qt::LeftButton);
    ASSERT_TRUE(settle(*window));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(window->resultBar()->text(), "Moved 1 item to the Trash · ⌘Z puts it back");
    EXPECT_TRUE(window->action("undo")->isEnabled());
    EXPECT_TRUE(window->resultBar()->undoButton()->isVisible());

    window->activateWindow(); // the question had the keyboard
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    QTest::keyClick(window->windowHandle(), Qt::Key_Z, Qt::ControlModifier);
    ASSERT_TRUE(settle(*window));
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(window->resultBar()->text(), "Put back 1 item");
    EXPECT_FALSE(window->action("undo")->isEnabled());

    // Cancelling touches nothing and keeps nothing for Undo.
    window->bridge()->askToTrash({file});
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    QTest::keyClick(window->questionBox(), Qt::Key_Escape);
    ASSERT_TRUE(settle(*window));
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(window->resultBar()->text(), "Nothing was moved");
    EXPECT_FALSE(window->action("undo")->isEnabled());
}

TEST(AppStorage, ACleanShowsItsQuestionThenTheReceiptsWordsAndTheFiguresAreMeasuredAgain) {
    TempDir dir;
    auto pip = dir.write("box/Library/Caches/pip/http/wheel-1.bin", std::string(40000, 'w'));
    dir.write("box/Library/Caches/pip/http/wheel-2.bin", std::string(20000, 'w'));
    age(dir / "box/Library/Caches/pip", std::chrono::hours(24 * 40));
    auto window = shellOver(dir);
    window->action("cleanUp")->trigger();
    auto* storage = window->storagePage();
    EXPECT_EQ(window->pageShown(), "storage");
    ASSERT_TRUE(QTest::qWaitFor([&] { return storage->state() == StoragePage::State::report; }, appWaitMs));
    ASSERT_TRUE(settle(*window));
    ASSERT_TRUE(storage->report());
    auto& categories = storage->report()->categories;
    auto found = std::ranges::find(categories, std::string("pip_cache"), &StorageReport::Category::id);
    ASSERT_NE(found, categories.end());

    ASSERT_TRUE(storage->tick("pip_cache"));
    storage->cleanTicked();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    EXPECT_EQ(window->questionBox()->text(), "Delete 1 item for good?");
    EXPECT_TRUE(window->questionBox()->informativeText().startsWith("pip ("))
        << window->questionBox()->informativeText().toStdString();
    EXPECT_TRUE(window->questionBox()->informativeText().contains("This cannot be undone."));
    EXPECT_TRUE(fs::exists(pip)) << "the question comes before anything is touched";

    QTest::mouseClick(window->questionBox()->findChild<QPushButton*>("confirm"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->resultBar()->text().startsWith("Deleted"); }, appWaitMs))
        << window->resultBar()->text().toStdString();
    EXPECT_FALSE(fs::exists(dir / "box/Library/Caches/pip"));
    EXPECT_TRUE(window->resultBar()->text().contains("This cannot be undone."));
    EXPECT_FALSE(window->action("undo")->isEnabled()) << "a deletion for good keeps nothing to undo";
    // The page measures again, and the cache is gone from it.
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            return storage->state() == StoragePage::State::report &&
                   std::ranges::find(storage->report()->categories, std::string("pip_cache"),
                                     &StorageReport::Category::id) == storage->report()->categories.end();
        },
        appWaitMs));
    ASSERT_TRUE(settle(*window));
}

TEST(AppHome, ListsTheFilesAndASearchsChipsAndRemovingAChipWidensTheSearch) {
    TempDir dir;
    dir.write("box/Documents/report.pdf", std::string(5000, 'r'));
    dir.write("box/Documents/notes.txt", "n");
    dir.write("box/Downloads/holiday.pdf", std::string(7000, 'h'));
    auto window = shellOver(dir);
    auto* home = window->homePage();
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return !home->reading() && home->files()->rowCount() == 3; }, appWaitMs))
        << home->files()->rowCount();

    home->search("pdfs in downloads");
    ASSERT_TRUE(QTest::qWaitFor([&] { return home->files()->rowCount() == 1 && home->chips().size() == 2; },
                                appWaitMs))
        << home->chips().join(" | ").toStdString();
    EXPECT_EQ(home->files()->itemAt(0)->name, "holiday.pdf");

    // Removing the place leaves every pdf.
    int place = home->chips().indexOf(home->chips().filter("ownload").value(0));
    ASSERT_GE(place, 0) << home->chips().join(" | ").toStdString();
    home->removeChip(place);
    ASSERT_TRUE(QTest::qWaitFor([&] { return home->files()->rowCount() == 2 && home->chips().size() == 1; },
                                appWaitMs))
        << home->chips().join(" | ").toStdString();

    // Leaving the search for a kind of file takes its chips away with its words.
    home->showKind(std::nullopt);
    ASSERT_TRUE(QTest::qWaitFor([&] { return home->files()->rowCount() == 3; }, appWaitMs));
    EXPECT_TRUE(home->chips().isEmpty()) << home->chips().join(" | ").toStdString();
    ASSERT_TRUE(settle(*window));
}

TEST(AppHome, MoveToTrashFromTheListAsksThenCtrlZPutsTheFileBackAndTheListFollows) {
    TempDir dir;
    auto file = dir.write("box/Documents/draft.txt", std::string(1200, 'd'));
    dir.write("box/Documents/keep.txt", "k");
    auto window = shellOver(dir);
    auto* home = window->homePage();
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return !home->reading() && home->files()->rowCount() == 2; }, appWaitMs));
    ASSERT_TRUE(home->select(QString::fromStdString(file.string())));
    EXPECT_EQ(home->inspectorName(), "draft.txt");
    home->trashSelection();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    EXPECT_EQ(window->questionBox()->text(), "Move “draft.txt” to the Trash?");
    QTest::mouseClick(window->questionBox()->findChild<QPushButton*>("confirm"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return home->files()->rowCount() == 1; }, appWaitMs))
        << "the list follows";
    EXPECT_FALSE(fs::exists(file));

    window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    QTest::keyClick(window->windowHandle(), Qt::Key_Z, Qt::ControlModifier);
    ASSERT_TRUE(QTest::qWaitFor([&] { return home->files()->rowCount() == 2; }, appWaitMs));
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(window->resultBar()->text(), "Put back 1 item");
    ASSERT_TRUE(settle(*window));
}

TEST(AppHome, DuplicatesKeepOneCopyOfEachGroupWhateverIsTicked) {
    TempDir dir;
    auto a = dir.write("box/Documents/song.mp3", std::string(9000, 's'));
    auto b = dir.write("box/Downloads/song.mp3", std::string(9000, 's'));
    auto window = shellOver(dir);
    auto* home = window->homePage();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !home->reading(); }, appWaitMs));
    home->showView(HomePage::View::duplicates);
    home->findDuplicates();
    ASSERT_TRUE(QTest::qWaitFor([&] { return home->duplicatesTree()->topLevelItemCount() == 1; }, appWaitMs));
    auto* group = home->duplicatesTree()->topLevelItem(0);
    ASSERT_EQ(group->childCount(), 2);
    auto ticked = [&] {
        int n = 0;
        for (int i = 0; i < group->childCount(); ++i)
            n += group->child(i)->checkState(0) == Qt::Checked;
        return n;
    };
    EXPECT_EQ(ticked(), 1) << "one copy is kept from the start";
    home->tickCopy(QString::fromStdString(a.string()), true);
    home->tickCopy(QString::fromStdString(b.string()), true);
    EXPECT_EQ(ticked(), 1) << "the last kept copy cannot be ticked away";
    home->trashSelection();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->questionBox() != nullptr; }, appWaitMs));
    QTest::mouseClick(window->questionBox()->findChild<QPushButton*>("confirm"), Qt::LeftButton);
    ASSERT_TRUE(settle(*window));
    EXPECT_NE(fs::exists(a), fs::exists(b)) << "exactly one copy went to the Trash";
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return window->bridge()->pending() == 0 && !home->reading(); }, appWaitMs));
}

TEST(AppHome, ImagesShowThumbnailsMadeOffTheUiThreadOrTakenFromTheDesktopsCache) {
    TempDir dir;
    dir.mkdir("box/Pictures");
    QImage red(400, 300, QImage::Format_RGB32);
    red.fill(Qt::red);
    auto photo = dir / "box/Pictures/red.png";
    ASSERT_TRUE(red.save(QString::fromStdString(photo.string())));
    // Made a day old, so that any read the kernel counts would move it to now.
    age(photo, std::chrono::hours(24));
    struct stat before {};
    ASSERT_EQ(::stat(photo.c_str(), &before), 0);
    // Not an image at all, but the desktop's cache holds a current thumbnail for it.
    auto cached = dir.write("box/Pictures/cached.jpg", "not really a jpeg");
    QImage blue(128, 96, QImage::Format_RGB32);
    blue.fill(Qt::blue);
    struct stat st {};
    ASSERT_EQ(::stat(cached.c_str(), &st), 0);
    blue.setText("Thumb::MTime", QString::number(st.st_mtim.tv_sec));
    auto thumbnail = Thumbnails::cachedFile(dir / "box/.cache/thumbnails",
                                            QString::fromStdString(cached.string()), "normal");
    fs::create_directories(fs::path(thumbnail.toStdString()).parent_path());
    ASSERT_TRUE(blue.save(thumbnail));

    auto window = shellOver(dir);
    auto* home = window->homePage();
    home->showKind(LibraryKind::images);
    auto decoration = [&](const fs::path& file) {
        int row = home->files()->rowOf(QString::fromStdString(file.string()));
        return row < 0 ? QVariant() : home->files()->data(home->files()->index(row, 0), Qt::DecorationRole);
    };
    auto pixmapOf = [&](const fs::path& file) {
        auto value = decoration(file);
        return value.typeId() == QMetaType::QPixmap ? value.value<QPixmap>() : QPixmap();
    };
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return !pixmapOf(photo).isNull() && !pixmapOf(cached).isNull(); }, appWaitMs));
    EXPECT_EQ(pixmapOf(photo).width(), Thumbnails::side) << "made, scaled to the thumbnail's side";
    EXPECT_EQ(pixmapOf(photo).toImage().pixelColor(10, 10), QColor(Qt::red));
    EXPECT_EQ(pixmapOf(cached).toImage().pixelColor(10, 10), QColor(Qt::blue)) << "taken from the cache";
    struct stat after {};
    ASSERT_EQ(::stat(photo.c_str(), &after), 0);
    EXPECT_EQ(after.st_atim.tv_sec, before.st_atim.tv_sec) << "making a thumbnail is not opening the photo";
    ASSERT_TRUE(settle(*window));
}

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
