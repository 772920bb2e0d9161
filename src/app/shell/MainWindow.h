// The main window: shown at once with "Getting Vantle Lite ready" while the live wiring is built on a
// worker, then "Vantle Lite could not start" or the welcome until it has been left once, then the
// shell (sidebar, header with the start-up notes, the pages, the result line) and the main menu.
// Keeps the product's `windowVisible` in step with minimising, hiding and the screen lock. A widget
// of the UI thread; it owns the bridge to the product once start-up succeeds.
#pragma once
#include "VantleLiteLive/VantleLite.h"
#include "Vantle_Lite/LiteLaunch.h"
#include "Vantle_Lite/LiteState.h"

#include <QMainWindow>

#include <future>
#include <map>

class QAction;
class QLabel;
class QListWidget;
class QListWidgetItem;
class QMessageBox;
class QStackedWidget;
class QHBoxLayout;
class QFrame;

namespace vantle::app {

class Page;
class ProductBridge;
class ResultBar;
class ScreenLockWatch;
class HomePage;
class StoragePage;
class PrivacyPage;
class SettingsPage;
class MenuBarItem;

class MainWindow : public QMainWindow {
    Q_OBJECT
  public:
    enum class Phase { starting, failed, welcome, shell };

    // Starts the live wiring at once; `base` carries the seams tests set (the sandbox rule).
    explicit MainWindow(LiteLaunch launch, VantleLite::Options base = {}, QWidget* parent = nullptr);
    ~MainWindow() override;

    Phase phase() const { return phase_; }
    QString failure() const;
    ProductBridge* bridge() const { return bridge_; }
    // Menu items by their object name ("undo", "goHome", "cleanUp", ...).
    QAction* action(const QString& name) const;
    // The question on screen, if any.
    QMessageBox* questionBox() const { return question_; }
    ResultBar* resultBar() const { return resultBar_; }
    HomePage* homePage() const { return home_; }
    StoragePage* storagePage() const { return storage_; }
    PrivacyPage* privacyPage() const { return privacy_; }
    SettingsPage* settingsPage() const { return settings_; }
    // The tray item and its panel; none until start-up succeeds.
    MenuBarItem* menuBarItem() const { return menuBar_; }
    // Opens the menu bar panel, now or as soon as start-up has succeeded (`vantle-lite --panel`).
    void openPanel();
    // Shows a page by its name: "home", "health", "storage", "privacy", "settings".
    void showPage(const QString& name);
    QString pageShown() const;
    // Leaves the welcome, remembering that it was seen.
    void leaveWelcome();
    // What a screen-lock notification does (the DBus watch calls this too).
    void screenLockChanged(bool locked);

  Q_SIGNALS:
    void phaseChanged(Phase phase);

  protected:
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

  private:
    void buildMenu();
    void place();
    void started(const LiteState::Phase& phase);
    void enter(Phase phase);
    QWidget* makeStarting();
    QWidget* makeFailed();
    QWidget* makeWelcome();
    QWidget* makeShell();
    void fillSidebar();
    void addSidebarSection(const QString& text);
    QListWidgetItem* addSidebarRow(const QString& text, const char* icon, const QString& target);
    void sidebarChosen(QListWidgetItem* item);
    void updateHeader();
    void productChanged();
    void updateMenu();
    void updateVisibility();
    void cleanUp();
    void showFileInHome(const QString& path);

    LiteLaunch launch_;
    LiteState state_;
    std::future<void> startUp_;
    Phase phase_ = Phase::starting;
    ProductBridge* bridge_ = nullptr;
    ScreenLockWatch* lock_ = nullptr;
    bool locked_ = false;

    QStackedWidget* phases_ = nullptr;
    QLabel* failure_ = nullptr;
    QWidget* shell_ = nullptr;
    QListWidget* sidebar_ = nullptr;
    QLabel* title_ = nullptr;
    QLabel* summary_ = nullptr;
    QHBoxLayout* headerRow_ = nullptr;
    QWidget* headerTool_ = nullptr;
    QFrame* notes_ = nullptr;
    QStackedWidget* pages_ = nullptr;
    std::map<QString, Page*> pageByName_;
    HomePage* home_ = nullptr;
    StoragePage* storage_ = nullptr;
    PrivacyPage* privacy_ = nullptr;
    SettingsPage* settings_ = nullptr;
    MenuBarItem* menuBar_ = nullptr;
    bool panelAsked_ = false;
    ResultBar* resultBar_ = nullptr;
    QMessageBox* question_ = nullptr;
    std::map<QString, QAction*> actions_;
};

} // namespace vantle::app
