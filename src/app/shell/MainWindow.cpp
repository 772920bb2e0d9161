#include "app/shell/MainWindow.h"

#include "VantleSpec/Uuid.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/Page.h"
#include "app/design/ResultBar.h"
#include "app/design/Symbols.h"
#include "app/pages/health/HealthPage.h"
#include "app/pages/home/HomePage.h"
#include "app/pages/privacy/PrivacyPage.h"
#include "app/pages/settings/SettingsPage.h"
#include "app/pages/storage/StoragePage.h"
#include "app/panel/MenuBarItem.h"
#include "app/panel/PanelView.h"
#include "app/shell/ScreenLockWatch.h"

#include <QApplication>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>

namespace vantle::app {

namespace {

constexpr const char* readyText = "Getting Vantle Lite ready";
constexpr const char* welcomeTitle = "Welcome to Vantle Lite";
constexpr const char* welcomeLine = "Your files and your Mac's health, in one calm place.";
constexpr const char* welcomeFiles = "Finds, sorts and cleans up the files in your home folder. Nothing is "
                                     "deleted without your yes, and Undo puts it back.";
constexpr const char* welcomeHealth = "Reads this Mac's processor, memory, storage, battery, security and "
                                      "backups, and says what to do about anything that needs it.";

// Sidebar rows carry what they lead to: "page:home", "place:/home/me/Documents", "search:words".
constexpr int targetRole = Qt::UserRole + 1;

QLabel* heading(const QString& text, int pointDelta, bool bold = true) {
    auto* label = new QLabel(text);
    auto font = label->font();
    font.setPointSizeF(font.pointSizeF() + pointDelta);
    font.setBold(bold);
    label->setFont(font);
    return label;
}

QFont smaller(QFont font) {
    font.setPointSizeF(font.pointSizeF() - 1);
    return font;
}

} // namespace

MainWindow::MainWindow(LiteLaunch launch, VantleLite::Options base, QWidget* parent)
    : QMainWindow(parent), launch_(std::move(launch)) {
    setWindowTitle("Vantle Lite");
    setWindowIcon(symbolIcon("drive-harddisk"));
    phases_ = new QStackedWidget;
    phases_->addWidget(makeStarting());
    setCentralWidget(phases_);
    buildMenu();
    place();

    lock_ = new ScreenLockWatch(this);
    connect(lock_, &ScreenLockWatch::lockChanged, this, &MainWindow::screenLockChanged);

    // The observer runs on the wiring's worker; the phase moves on the UI thread.
    state_.observe([this](const LiteState::Phase& phase) {
        QMetaObject::invokeMethod(
            this, [this, phase] { started(phase); }, Qt::QueuedConnection);
    });
    startUp_ = beginStartUp(launch_, state_, std::move(base));
}

MainWindow::~MainWindow() {
    // The wiring's worker may still be telling the observer; it must finish before the window goes.
    if (startUp_.valid()) startUp_.wait();
    if (bridge_) {
        if (auto library = bridge_->live().library) library->stopWatching();
        delete bridge_; // cancels and waits for its work before the pages it reports to go away
        bridge_ = nullptr;
    }
}

void MainWindow::place() {
    // A sandbox window never reads or writes the real window's remembered frame.
    if (!launch_.sandbox && !launch_.sizeAsked) {
        QSettings frames("Vantle Lite", "Vantle Lite");
        if (restoreGeometry(frames.value("frame").toByteArray())) return;
    }
    resize(int(launch_.size.width), int(launch_.size.height));
    if (auto* screen = QGuiApplication::primaryScreen()) {
        auto area = screen->availableGeometry();
        move(area.center() - rect().center());
    }
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (!launch_.sandbox && !launch_.sizeAsked)
        QSettings("Vantle Lite", "Vantle Lite").setValue("frame", saveGeometry());
    QMainWindow::closeEvent(event);
}

QWidget* MainWindow::makeStarting() {
    auto* page = new QWidget;
    auto* column = new QVBoxLayout(page);
    column->addStretch(1);
    auto* label = heading(readyText, 4, false);
    label->setObjectName("startingText");
    label->setAlignment(Qt::AlignHCenter);
    auto* bar = new QProgressBar;
    bar->setRange(0, 0); // how long the wiring takes is not known
    bar->setTextVisible(false);
    bar->setFixedWidth(240);
    bar->setAccessibleName(readyText);
    column->addWidget(label);
    column->addSpacing(12);
    column->addWidget(bar, 0, Qt::AlignHCenter);
    column->addStretch(2);
    return page;
}

QWidget* MainWindow::makeFailed() {
    auto* page = new QWidget;
    auto* column = new QVBoxLayout(page);
    column->addStretch(1);
    auto* symbol = new QLabel;
    symbol->setPixmap(symbolIcon("dialog-warning").pixmap(64, 64));
    symbol->setAlignment(Qt::AlignHCenter);
    auto* title = heading(QString::fromUtf8(VantleLite::Failure::title.data()), 6);
    title->setAlignment(Qt::AlignHCenter);
    failure_ = new QLabel;
    failure_->setObjectName("failure");
    failure_->setWordWrap(true);
    failure_->setAlignment(Qt::AlignHCenter);
    failure_->setMaximumWidth(640);
    failure_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(symbol);
    column->addSpacing(12);
    column->addWidget(title);
    column->addSpacing(8);
    column->addWidget(failure_, 0, Qt::AlignHCenter);
    column->addStretch(2);
    return page;
}

QWidget* MainWindow::makeWelcome() {
    auto* page = new QWidget;
    page->setObjectName("welcome");
    auto* column = new QVBoxLayout(page);
    column->addStretch(1);
    auto* title = heading(welcomeTitle, 10);
    title->setAlignment(Qt::AlignHCenter);
    auto* line = heading(welcomeLine, 2, false);
    line->setAlignment(Qt::AlignHCenter);
    column->addWidget(title);
    column->addSpacing(8);
    column->addWidget(line);
    column->addSpacing(32);
    auto feature = [&](const char* icon, const char* text) {
        auto* row = new QHBoxLayout;
        auto* symbol = new QLabel;
        symbol->setPixmap(symbolIcon(icon).pixmap(40, 40));
        symbol->setFixedSize(48, 48);
        symbol->setAlignment(Qt::AlignTop | Qt::AlignHCenter);
        auto* words = new QLabel(text);
        words->setWordWrap(true);
        words->setFixedWidth(460);
        row->addStretch(1);
        row->addWidget(symbol);
        row->addSpacing(12);
        row->addWidget(words);
        row->addStretch(1);
        column->addLayout(row);
        column->addSpacing(16);
    };
    feature("folder-documents", welcomeFiles);
    feature("computer", welcomeHealth);
    column->addSpacing(16);
    auto* go = new QPushButton("Continue");
    go->setObjectName("continue");
    go->setDefault(true);
    go->setAutoDefault(true);
    go->setMinimumWidth(160);
    connect(go, &QPushButton::clicked, this, &MainWindow::leaveWelcome);
    column->addWidget(go, 0, Qt::AlignHCenter);
    column->addStretch(2);
    return page;
}

QWidget* MainWindow::makeShell() {
    auto* shell = new QWidget;
    auto* row = new QHBoxLayout(shell);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(0);

    sidebar_ = new QListWidget;
    sidebar_->setObjectName("sidebar");
    sidebar_->setAccessibleName("Sidebar");
    sidebar_->setFixedWidth(220);
    sidebar_->setFrameShape(QFrame::NoFrame);
    sidebar_->setIconSize(QSize(16, 16));
    sidebar_->setSpacing(1);
    sidebar_->setAutoFillBackground(true);
    auto sidePalette = sidebar_->palette();
    sidePalette.setColor(QPalette::Base, palette().color(QPalette::Window).darker(104));
    sidebar_->setPalette(sidePalette);
    connect(sidebar_, &QListWidget::itemClicked, this, &MainWindow::sidebarChosen);
    connect(sidebar_, &QListWidget::itemActivated, this, &MainWindow::sidebarChosen);
    sidebar_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(sidebar_, &QListWidget::customContextMenuRequested, this, [this](const QPoint& at) {
        auto* item = sidebar_->itemAt(at);
        if (!item) return;
        auto target = item->data(targetRole).toString();
        QMenu menu;
        if (target.startsWith("pin:")) {
            menu.addAction("Remove from Sidebar", this, [this, pin = utf8(target.section(':', 1))] {
                bridge_->withProduct([pin](LiteProduct& p) { removePin(p.settings(), pin); },
                                     [this] { fillSidebar(); });
            });
        } else if (target.startsWith("search:")) {
            menu.addAction(
                "Remove Saved Search", this, [this, id = utf8(item->data(targetRole + 1).toString())] {
                    bridge_->withProduct(
                        [id](LiteProduct& p) {
                            auto searches = savedSearches(p.settings());
                            std::erase_if(searches, [&](const SavedSearch& s) { return s.id == id; });
                            saveSearches(p.settings(), searches);
                        },
                        [this] { fillSidebar(); });
                });
        }
        if (!menu.isEmpty()) menu.exec(sidebar_->viewport()->mapToGlobal(at));
    });
    row->addWidget(sidebar_);

    auto* separator = new QFrame;
    separator->setFrameShape(QFrame::VLine);
    separator->setFrameShadow(QFrame::Plain);
    separator->setStyleSheet("color: palette(mid);");
    row->addWidget(separator);

    auto* right = new QVBoxLayout;
    right->setContentsMargins(0, 0, 0, 0);
    right->setSpacing(0);
    row->addLayout(right, 1);

    auto* header = new QWidget;
    auto* headerColumn = new QVBoxLayout(header);
    headerColumn->setContentsMargins(24, 16, 24, 12);
    headerColumn->setSpacing(4);
    headerRow_ = new QHBoxLayout;
    title_ = heading("", 8);
    title_->setObjectName("pageTitle");
    headerRow_->addWidget(title_, 1);
    headerColumn->addLayout(headerRow_);
    summary_ = new QLabel;
    summary_->setObjectName("pageSummary");
    summary_->setForegroundRole(QPalette::PlaceholderText);
    headerColumn->addWidget(summary_);
    right->addWidget(header);

    // Start-up notes: shown once, quietly, until closed.
    notes_ = new QFrame;
    notes_->setObjectName("notes");
    notes_->setStyleSheet("#notes { border: 1px solid palette(mid); border-radius: 8px; }");
    auto* notesRow = new QHBoxLayout(notes_);
    notesRow->setContentsMargins(12, 8, 8, 8);
    auto* notesIcon = new QLabel;
    notesIcon->setPixmap(symbolIcon("info.circle").pixmap(16, 16));
    auto* notesText = new QLabel;
    notesText->setObjectName("notesText");
    notesText->setWordWrap(true);
    auto* close = new QToolButton;
    close->setIcon(symbolIcon("window-close"));
    close->setAutoRaise(true);
    close->setAccessibleName("Close the start-up notes");
    connect(close, &QToolButton::clicked, notes_, &QWidget::hide);
    notesRow->addWidget(notesIcon, 0, Qt::AlignTop);
    notesRow->addWidget(notesText, 1);
    notesRow->addWidget(close, 0, Qt::AlignTop);
    QStringList notes;
    for (const auto& note : bridge_->live().notes)
        notes << qt(note);
    notesText->setText(notes.join("\n"));
    notes_->setVisible(!notes.isEmpty());
    auto* notesHolder = new QHBoxLayout;
    notesHolder->setContentsMargins(24, 0, 24, 8);
    notesHolder->addWidget(notes_);
    right->addLayout(notesHolder);

    auto* rule = new QFrame;
    rule->setFrameShape(QFrame::HLine);
    rule->setFrameShadow(QFrame::Plain);
    rule->setStyleSheet("color: palette(mid);");
    right->addWidget(rule);

    pages_ = new QStackedWidget;
    right->addWidget(pages_, 1);
    home_ = new HomePage(*bridge_);
    // A search worth keeping goes to the sidebar under its own words.
    connect(home_, &HomePage::saveSearch, this, [this](const QString& words) {
        bridge_->withProduct(
            [words = utf8(words)](LiteProduct& p) {
                auto searches = savedSearches(p.settings());
                if (std::ranges::find(searches, words, &SavedSearch::words) != searches.end()) return;
                searches.push_back({newUuid(), words, words});
                saveSearches(p.settings(), searches);
            },
            [this] { fillSidebar(); });
    });
    storage_ = new StoragePage(*bridge_);
    auto addPage = [&](const QString& name, Page* page) {
        page->setObjectName(name);
        pages_->addWidget(page);
        pageByName_[name] = page;
        connect(page, &Page::summaryChanged, this, &MainWindow::updateHeader);
        connect(page, &Page::openPage, this,
                [this](const QString& to) { to == "cleanUp" ? cleanUp() : showPage(to); });
    };
    addPage("home", home_);
    addPage("health", new HealthPage(*bridge_));
    addPage("storage", storage_);
    privacy_ = new PrivacyPage(*bridge_);
    addPage("privacy", privacy_);
    // What the autostart entry runs: this program, on this run's home, starting in the tray.
    QStringList atLogin{QCoreApplication::applicationFilePath()};
    if (launch_.sandbox) atLogin << "-sandbox" << qt(launch_.sandbox->string());
    atLogin << "--at-login";
    settings_ = new SettingsPage(*bridge_, atLogin);
    if (menuBar_) settings_->setHotKeyNote(menuBar_->hotKeyNote());
    addPage("settings", settings_);

    rule = new QFrame;
    rule->setFrameShape(QFrame::HLine);
    rule->setFrameShadow(QFrame::Plain);
    rule->setStyleSheet("color: palette(mid);");
    right->addWidget(rule);
    resultBar_ = new ResultBar(*bridge_);
    right->addWidget(resultBar_);

    fillSidebar();
    return shell;
}

void MainWindow::addSidebarSection(const QString& text) {
    auto* item = new QListWidgetItem(text);
    item->setFlags(Qt::NoItemFlags);
    auto font = smaller(sidebar_->font());
    font.setBold(true);
    item->setFont(font);
    item->setForeground(palette().color(QPalette::PlaceholderText));
    item->setSizeHint(QSize(200, 30));
    sidebar_->addItem(item);
}

QListWidgetItem* MainWindow::addSidebarRow(const QString& text, const char* icon, const QString& target) {
    auto* item = new QListWidgetItem(symbolIcon(icon), text);
    item->setData(targetRole, target);
    item->setToolTip(target.section(':', 1));
    item->setSizeHint(QSize(200, 28));
    sidebar_->addItem(item);
    return item;
}

void MainWindow::fillSidebar() {
    sidebar_->clear();
    auto* title = new QListWidgetItem("Vantle Lite");
    title->setFlags(Qt::NoItemFlags);
    auto font = sidebar_->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() + 2);
    title->setFont(font);
    title->setSizeHint(QSize(200, 40));
    title->setForeground(palette().color(QPalette::WindowText));
    sidebar_->addItem(title);
    addSidebarRow("Home", "user-home", "page:home");
    addSidebarRow("Health", "computer", "page:health");
    addSidebarRow("Storage", "drive-harddisk", "page:storage");
    addSidebarRow("Privacy", "security-high", "page:privacy");

    const auto home = bridge_->live().home;
    addSidebarSection("Places");
    for (auto [name, icon] :
         {std::pair{"Desktop", "user-desktop"}, std::pair{"Documents", "folder-documents"},
          std::pair{"Downloads", "folder-download"}})
        addSidebarRow(name, icon, "place:" + qt((home / name).string()));

    // Pins and saved searches are the settings store's; read on the product's thread.
    bridge_->withProduct(
        [](LiteProduct& p) {
            return std::pair{pinnedFolders(p.settings()), savedSearches(p.settings())};
        },
        [this](std::pair<std::vector<std::string>, std::vector<SavedSearch>> kept) {
            if (!sidebar_) return;
            // The places are listed above already; a pin of one of them would say it twice.
            std::vector<std::string> pins;
            for (const auto& pin : kept.first)
                if (pin != "Desktop" && pin != "Documents" && pin != "Downloads") pins.push_back(pin);
            if (!pins.empty()) {
                addSidebarSection("Pins");
                for (const auto& pin : pins)
                    addSidebarRow(qt(std::filesystem::path(pin).filename().string()), "folder",
                                  "pin:" + qt(pin));
            }
            if (!kept.second.empty()) {
                addSidebarSection("Searches");
                for (const auto& saved : kept.second) {
                    addSidebarRow(qt(saved.name), "folder-saved-search", "search:" + qt(saved.words))
                        ->setData(targetRole + 1, qt(saved.id));
                }
            }
            auto* gap = new QListWidgetItem;
            gap->setFlags(Qt::NoItemFlags);
            gap->setSizeHint(QSize(200, 16));
            sidebar_->addItem(gap);
            addSidebarRow("Settings", "preferences-system", "page:settings");
            updateHeader();
        });
}

void MainWindow::sidebarChosen(QListWidgetItem* item) {
    if (!item) return;
    auto target = item->data(targetRole).toString();
    auto kind = target.section(':', 0, 0);
    auto rest = target.section(':', 1);
    if (kind == "page") {
        showPage(rest);
    } else if (kind == "place") {
        showPage("home");
        home_->showFolder(rest);
    } else if (kind == "pin") {
        showPage("home");
        home_->showFolder(qt((bridge_->live().home / utf8(rest)).string()));
    } else if (kind == "search") {
        showPage("home");
        home_->search(rest);
    }
}

void MainWindow::showPage(const QString& name) {
    if (phase_ != Phase::shell) return;
    auto found = pageByName_.find(name);
    if (found == pageByName_.end()) return;
    pages_->setCurrentWidget(found->second);
    // The sidebar marks the page, unless a place or search of the Home page is marked already.
    auto current = sidebar_->currentItem();
    bool placeOfHome = current && name == "home" && !current->data(targetRole).toString().startsWith("page:");
    if (!placeOfHome)
        for (int i = 0; i < sidebar_->count(); ++i)
            if (sidebar_->item(i)->data(targetRole).toString() == "page:" + name) sidebar_->setCurrentRow(i);
    updateHeader();
    found->second->shown();
}

QString MainWindow::pageShown() const {
    if (!pages_) return {};
    return pages_->currentWidget() ? pages_->currentWidget()->objectName() : QString();
}

void MainWindow::updateHeader() {
    if (!pages_) return;
    auto* page = qobject_cast<Page*>(pages_->currentWidget());
    if (!page) return;
    title_->setText(page->title());
    summary_->setText(page->summary());
    auto* tool = page->headerTool();
    if (tool != headerTool_) {
        if (headerTool_) {
            headerRow_->removeWidget(headerTool_);
            headerTool_->hide();
        }
        headerTool_ = tool;
        if (tool) {
            headerRow_->addWidget(tool, 0, Qt::AlignRight | Qt::AlignVCenter);
            tool->show();
        }
    }
}

void MainWindow::started(const LiteState::Phase& phase) {
    if (auto* failed = std::get_if<LiteState::Failed>(&phase)) {
        phases_->addWidget(makeFailed());
        failure_->setText(qt(failed->sentence));
        enter(Phase::failed);
        return;
    }
    auto* ready = std::get_if<LiteState::Ready>(&phase);
    if (!ready) return;
    bridge_ = new ProductBridge(ready->product, this);
    connect(bridge_, &ProductBridge::changed, this, &MainWindow::productChanged);
    menuBar_ = new MenuBarItem(*bridge_, launch_.sandbox ? qt(launch_.sandbox->string()) : QString(), this);
    connect(menuBar_, &MenuBarItem::openWindow, this, [this] {
        showNormal();
        raise();
        activateWindow();
    });
    connect(menuBar_, &MenuBarItem::showInVantle, this, &MainWindow::showFileInHome);
    connect(menuBar_, &MenuBarItem::showActivity, this, [this] {
        showNormal();
        raise();
        activateWindow();
        showPage("health");
    });
    if (panelAsked_) menuBar_->open();
    auto library = ready->product->live().library;
    // The catalog follows the disk while the app runs; adding the watches walks the home, so off the UI.
    bridge_->inBackground([library](CancelFlag&) { return library ? library->startWatching() : false; },
                          [](bool) {});
    bridge_->withProduct(
        [](LiteProduct& p) { return p.settings().boolean(SettingsKey::welcomed).value_or(false); },
        [this](bool welcomed) {
            if (welcomed) {
                phases_->addWidget(makeShell());
                enter(Phase::shell);
            } else {
                phases_->addWidget(makeWelcome());
                enter(Phase::welcome);
            }
            updateVisibility();
        });
}

void MainWindow::leaveWelcome() {
    if (phase_ != Phase::welcome) return;
    bridge_->withProduct([](LiteProduct& p) { p.settings().setBoolean(SettingsKey::welcomed, true); });
    phases_->addWidget(makeShell());
    enter(Phase::shell);
}

void MainWindow::enter(Phase phase) {
    phase_ = phase;
    QWidget* shown = phases_->widget(phases_->count() - 1);
    if (phase == Phase::shell) {
        shown = phases_->widget(phases_->count() - 1);
        shell_ = shown;
    }
    phases_->setCurrentWidget(shown);
    // The welcome and the progress page are not needed again.
    while (phases_->count() > 1) {
        auto* old = phases_->widget(0);
        phases_->removeWidget(old);
        old->deleteLater();
    }
    if (phase == Phase::shell) showPage("home");
    updateMenu();
    Q_EMIT phaseChanged(phase);
}

QString MainWindow::failure() const {
    return failure_ ? failure_->text() : QString();
}

void MainWindow::productChanged() {
    updateMenu();
    const auto& question = bridge_->question();
    // The panel asks its own questions inside itself.
    if (question && !question_ && !(menuBar_ && menuBar_->asksItself())) {
        question_ = new QMessageBox(this);
        question_->setObjectName("question");
        question_->setIcon(QMessageBox::Question);
        question_->setWindowTitle("Vantle Lite");
        question_->setText(question->title);
        question_->setInformativeText(question->message);
        // A clean's question names items and what is left alone; at the box's own narrow width a
        // long name breaks every few words.
        if (auto* detail = question_->findChild<QLabel*>("qt_msgbox_informativelabel"))
            detail->setMinimumWidth(480);
        auto* yes = question_->addButton(question->confirm, QMessageBox::AcceptRole);
        auto* no = question_->addButton(question->cancel, QMessageBox::RejectRole);
        yes->setObjectName("confirm");
        no->setObjectName("cancel");
        question_->setDefaultButton(yes);
        question_->setEscapeButton(no);
        question_->setWindowModality(Qt::WindowModal);
        connect(question_, &QMessageBox::finished, this, [this, yes] {
            bool agreed = question_->clickedButton() == yes;
            question_->deleteLater();
            question_ = nullptr;
            bridge_->answer(agreed);
        });
        question_->open();
    }
}

QAction* MainWindow::action(const QString& name) const {
    auto found = actions_.find(name);
    return found == actions_.end() ? nullptr : found->second;
}

void MainWindow::buildMenu() {
    auto add = [this](QMenu* menu, const QString& name, const QString& text, QKeySequence key, auto slot) {
        auto* a = menu->addAction(text);
        a->setObjectName(name);
        if (!key.isEmpty()) a->setShortcut(key);
        a->setShortcutContext(Qt::ApplicationShortcut);
        connect(a, &QAction::triggered, this, slot);
        actions_[name] = a;
        return a;
    };
    auto* app = menuBar()->addMenu("Vantle Lite");
    add(app, "about", "About Vantle Lite", {}, [this] {
        QMessageBox::about(this, "About Vantle Lite",
                           "Vantle Lite " VANTLE_VERSION
                           "\nYour files and your Mac's health, in one calm place.");
    });
    add(app, "checkForUpdates", "Check for Updates…", {}, [this] {
        if (!bridge_) return;
        auto updater = bridge_->live().updater;
        // The answer goes to the result line as the updater's own sentence.
        bridge_->inBackground(
            [updater](CancelFlag&) { return updater->checkNow().sentence(); },
            [this](std::string sentence) { QMessageBox::information(this, "Vantle Lite", qt(sentence)); });
    });
    app->addSeparator();
    add(app, "settings", "Settings…", QKeySequence("Ctrl+,"), [this] { showPage("settings"); });
    app->addSeparator();
    // A desktop without a dock has no way back to a hidden window: hiding minimises it.
    add(app, "hide", "Hide Vantle Lite", QKeySequence("Ctrl+H"), [this] { showMinimized(); });
    add(app, "quit", "Quit Vantle Lite", QKeySequence("Ctrl+Q"), [] { QApplication::quit(); });

    auto* file = menuBar()->addMenu("File");
    add(file, "closeWindow", "Close Window", QKeySequence("Ctrl+W"), [this] { close(); });

    auto* edit = menuBar()->addMenu("Edit");
    add(edit, "undo", "Undo", QKeySequence("Ctrl+Z"), [this] {
        // A text field keeps its own Undo for typing.
        if (auto* field = qobject_cast<QLineEdit*>(QApplication::focusWidget());
            field && field->isUndoAvailable())
            return field->undo();
        if (bridge_) bridge_->undoLast();
    });
    edit->addSeparator();
    auto forward = [](const char* slot) {
        return [slot] {
            if (auto* focus = QApplication::focusWidget()) QMetaObject::invokeMethod(focus, slot);
        };
    };
    add(edit, "cut", "Cut", QKeySequence("Ctrl+X"), forward("cut"));
    add(edit, "copy", "Copy", QKeySequence("Ctrl+C"), forward("copy"));
    add(edit, "paste", "Paste", QKeySequence("Ctrl+V"), forward("paste"));
    add(edit, "selectAll", "Select All", QKeySequence("Ctrl+A"), forward("selectAll"));

    auto* go = menuBar()->addMenu("Go");
    int position = 1;
    for (auto [name, text] : {std::pair{"home", "Home"}, std::pair{"health", "Health"},
                              std::pair{"storage", "Storage"}, std::pair{"privacy", "Privacy"}}) {
        QString page = name;
        add(go, "go" + QString(text), text, QKeySequence(QString("Ctrl+Alt+%1").arg(position++)),
            [this, page] { showPage(page); });
    }
    go->addSeparator();
    add(go, "cleanUp", "Clean Up", QKeySequence("Ctrl+Shift+K"), [this] { cleanUp(); });

    auto* window = menuBar()->addMenu("Window");
    add(window, "minimize", "Minimize", QKeySequence("Ctrl+M"), [this] { showMinimized(); });
    add(window, "zoom", "Zoom", {}, [this] { isMaximized() ? showNormal() : showMaximized(); });
    window->addSeparator();
    // Without a tray this is where the panel opens from (and from `vantle-lite --panel`).
    add(window, "panel", "Menu Bar Panel", {}, [this] { openPanel(); });
    updateMenu();
}

void MainWindow::updateMenu() {
    bool inShell = phase_ == Phase::shell;
    for (auto name : {"goHome", "goHealth", "goStorage", "goPrivacy", "cleanUp", "settings"})
        actions_[name]->setEnabled(inShell);
    actions_["checkForUpdates"]->setEnabled(bridge_ != nullptr);
    actions_["panel"]->setEnabled(menuBar_ != nullptr);
    // Undo is there only when the product holds something to put back, and never over a question.
    actions_["undo"]->setEnabled(inShell && bridge_ && bridge_->undoable() && !bridge_->question());
}

void MainWindow::cleanUp() {
    if (phase_ != Phase::shell) return;
    showPage("storage");
    storage_->scanIfNone();
}

void MainWindow::openPanel() {
    if (menuBar_)
        menuBar_->open();
    else
        panelAsked_ = true;
}

void MainWindow::showFileInHome(const QString& path) {
    if (phase_ != Phase::shell) return;
    showNormal();
    raise();
    activateWindow();
    showPage("home");
    // Selected once its folder is listed.
    auto* context = new QObject(this);
    connect(home_, &HomePage::listed, context, [this, path, context] {
        home_->select(path);
        context->deleteLater();
    });
    home_->showFolder(qt(std::filesystem::path(utf8(path)).parent_path().string()));
}

void MainWindow::changeEvent(QEvent* event) {
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::WindowStateChange) updateVisibility();
}

void MainWindow::showEvent(QShowEvent* event) {
    QMainWindow::showEvent(event);
    updateVisibility();
}

void MainWindow::hideEvent(QHideEvent* event) {
    QMainWindow::hideEvent(event);
    updateVisibility();
}

void MainWindow::updateVisibility() {
    if (!bridge_) return;
    bridge_->setWindowVisible(isVisible() && !isMinimized() && !locked_);
}

void MainWindow::screenLockChanged(bool locked) {
    // Until start-up is done a lock or unlock changes nothing, not even what is remembered.
    if (!bridge_) return;
    locked_ = locked;
    updateVisibility();
}

} // namespace vantle::app
