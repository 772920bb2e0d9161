#include "app/pages/settings/SettingsPage.h"

#include "VantleLiteLive/Opener.h"
#include "VantleLiteLive/VantleLite.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/Labels.h"
#include "app/design/Symbols.h"

#include <QCheckBox>
#include <QFrame>
#include <QHBoxLayout>
#include <QKeySequenceEdit>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QTimer>
#include <QVBoxLayout>

namespace vantle::app {

namespace {

constexpr const char* recordLabel = "Keep a record of this Mac's health";
constexpr const char* recordLine =
    "A point a minute for about a day, then each quarter hour for a month and each "
    "hour for a year, kept on this computer only. History is drawn from it.";
constexpr const char* hotKeyLabel = "Open the menu bar panel with";
constexpr const char* loginLabel = "Open Vantle Lite when you log in";
constexpr const char* loginLine =
    "Vantle Lite starts in the tray when you log in, so the menu bar panel is there "
    "and the health record keeps going.";
constexpr const char* linuxPrivacyLine = "On this system no prompt guards those folders: Vantle Lite reads "
                                         "them as you do. Where it runs as a Flatpak "
                                         "or Snap, that store's permission settings decide what it may see.";

// A group of settings: its heading, then its rows in a card.
QVBoxLayout* group(QVBoxLayout* page, const QString& heading, const char* icon) {
    auto* head = new QHBoxLayout;
    auto* symbol = new QLabel;
    symbol->setPixmap(symbolIcon(icon).pixmap(20, 20));
    auto* title = new QLabel(heading);
    auto font = title->font();
    font.setBold(true);
    title->setFont(font);
    head->addWidget(symbol);
    head->addWidget(title, 1);
    page->addLayout(head);
    auto* card = new QFrame;
    card->setObjectName("settingsCard");
    card->setStyleSheet("#settingsCard { border: 1px solid palette(mid); border-radius: 8px; }");
    auto* rows = new QVBoxLayout(card);
    rows->setContentsMargins(16, 12, 16, 12);
    rows->setSpacing(8);
    page->addWidget(card);
    page->addSpacing(12);
    return rows;
}

} // namespace

SettingsPage::SettingsPage(ProductBridge& bridge, QStringList loginCommand, QWidget* parent)
    : Page(parent), bridge_(bridge), loginCommand_(std::move(loginCommand)) {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea;
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    outer->addWidget(scroll);
    auto* inner = new QWidget;
    scroll->setWidget(inner);
    // The rows keep a readable width on a wide window, from the left edge as the other pages do.
    auto* holder = new QHBoxLayout(inner);
    holder->setContentsMargins(24, 16, 24, 16);
    auto* sized = new QWidget;
    sized->setMaximumWidth(760);
    auto* page = new QVBoxLayout(sized);
    page->setContentsMargins(0, 0, 0, 0);
    page->setSpacing(6);
    holder->addWidget(sized, 1);
    holder->addStretch(0);

    // Health record.
    auto* record = group(page, "Health record", "computer");
    auto* recordRow = new QHBoxLayout;
    keepRecord_ = new QCheckBox(recordLabel);
    keepRecord_->setObjectName("keepRecord");
    erase_ = new QPushButton("Erase…");
    erase_->setObjectName("eraseRecord");
    erase_->setAccessibleName("Erase the health record");
    recordRow->addWidget(keepRecord_, 1);
    recordRow->addWidget(erase_);
    record->addLayout(recordRow);
    record->addWidget(mutedLabel(recordLine));
    connect(keepRecord_, &QCheckBox::toggled, this,
            [this](bool on) { bridge_.withProduct([on](LiteProduct& p) { p.setKeepsHealthRecord(on); }); });
    connect(erase_, &QPushButton::clicked, this,
            [this] { bridge_.withProduct([](LiteProduct& p) { p.askToEraseHealthRecord(); }); });

    // Updates.
    auto* updates = group(page, "Updates", "system-software-update");
    auto* updateRow = new QHBoxLayout;
    status_ = new QLabel;
    status_->setObjectName("updateStatus");
    status_->setWordWrap(true);
    check_ = new QPushButton("Check for Updates…");
    check_->setObjectName("checkForUpdates");
    updateRow->addWidget(status_, 1);
    updateRow->addWidget(check_);
    updates->addLayout(updateRow);
    updates->addWidget(
        mutedLabel("Each request of the check is written to the network ledger first; the Privacy page "
                   "lists them."));
    connect(check_, &QPushButton::clicked, this, [this] {
        if (checking_) return;
        checking_ = true;
        check_->setEnabled(false);
        auto updater = bridge_.live().updater;
        bridge_.inBackground(
            [updater](CancelFlag&) { return updater ? updater->checkNow().sentence() : std::string(); },
            [this](std::string) {
                checking_ = false;
                check_->setEnabled(true);
                readStatus();
            });
        readStatus();
    });

    // Menu bar panel.
    auto* panel = group(page, "Menu bar panel", "input-keyboard");
    auto* keyRow = new QHBoxLayout;
    auto* keyLabel = new QLabel(hotKeyLabel);
    hotKey_ = new QKeySequenceEdit;
    hotKey_->setObjectName("hotKey");
    hotKey_->setAccessibleName(hotKeyLabel);
    hotKey_->setClearButtonEnabled(true);
    hotKey_->setMaximumWidth(220);
    keyLabel->setBuddy(hotKey_);
    keyRow->addWidget(keyLabel, 1);
    keyRow->addWidget(hotKey_);
    panel->addLayout(keyRow);
    hotKeyNote_ = mutedLabel({});
    hotKeyNote_->setObjectName("hotKeyNote");
    hotKeyNote_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    panel->addWidget(hotKeyNote_);
    connect(hotKey_, &QKeySequenceEdit::editingFinished, this, [this] {
        // One chord: a global key is pressed at once, never as a sequence.
        auto key =
            hotKey_->keySequence().isEmpty() ? QKeySequence() : QKeySequence(hotKey_->keySequence()[0]);
        hotKey_->setKeySequence(key);
        bridge_.withProduct([text = utf8(key.toString(QKeySequence::PortableText))](LiteProduct& p) {
            p.settings().setStrings(hotKeyKey, {text});
        });
        Q_EMIT hotKeyChanged(key);
    });

    // Open at login.
    auto* login = group(page, "Open at login", "system-log-out");
    openAtLogin_ = new QCheckBox(loginLabel);
    openAtLogin_->setObjectName("openAtLogin");
    login->addWidget(openAtLogin_);
    loginNote_ = mutedLabel(loginLine);
    loginNote_->setObjectName("loginNote");
    login->addWidget(loginNote_);
    connect(openAtLogin_, &QCheckBox::clicked, this, &SettingsPage::setOpenAtLogin);

    // Privacy & Security.
    auto* privacy = group(page, qt(std::string(Opener::privacyTitle)), "security-high");
    auto* privacyText = new QLabel(qt(std::string(Opener::privacySentence)));
    privacyText->setWordWrap(true);
    privacy->addWidget(privacyText);
    privacy->addWidget(mutedLabel(linuxPrivacyLine));
    page->addStretch(1);

    statusPoll_ = new QTimer(this);
    statusPoll_->setInterval(1000);
    connect(statusPoll_, &QTimer::timeout, this, &SettingsPage::readStatus);
}

void SettingsPage::shown() {
    readStatus();
    auto login = bridge_.live().openAtLogin;
    bridge_.withProduct(
        [login](LiteProduct& p) {
            auto key = p.settings().strings(hotKeyKey);
            return std::tuple{p.keepsHealthRecord(), login && login->isOn(),
                              key && !key->empty() ? key->front() : std::string(defaultHotKey)};
        },
        [this](std::tuple<bool, bool, std::string> read) {
            QSignalBlocker quiet(keepRecord_);
            keepRecord_->setChecked(std::get<0>(read));
            openAtLogin_->setChecked(std::get<1>(read));
            hotKey_->setKeySequence(QKeySequence(qt(std::get<2>(read)), QKeySequence::PortableText));
        });
}

void SettingsPage::showEvent(QShowEvent* event) {
    Page::showEvent(event);
    statusPoll_->start();
}

void SettingsPage::hideEvent(QHideEvent* event) {
    Page::hideEvent(event);
    statusPoll_->stop();
}

void SettingsPage::readStatus() {
    // The status is the updater's, under its own lock: cheap enough to read while the page is seen.
    auto updater = bridge_.live().updater;
    status_->setText(updater ? qt(updater->status().sentence()) : QString());
}

QString SettingsPage::loginNote() const {
    return loginNote_->text();
}

void SettingsPage::setHotKeyNote(const QString& text) {
    hotKeyNote_->setText(text);
}

void SettingsPage::setOpenAtLogin(bool on) {
    auto login = bridge_.live().openAtLogin;
    if (!login) return;
    std::vector<std::string> command;
    for (const auto& part : loginCommand_)
        command.push_back(utf8(part));
    openAtLogin_->setEnabled(false);
    bridge_.inBackground(
        [login, on, command](CancelFlag&) -> std::string {
            auto done = on ? login->turnOn(command) : login->turnOff();
            return done ? std::string() : done.error().sentence;
        },
        [this, login](std::string failure) {
            openAtLogin_->setEnabled(true);
            // What the disk holds is the answer, whatever was asked.
            QSignalBlocker quiet(openAtLogin_);
            openAtLogin_->setChecked(login->isOn());
            loginNote_->setText(failure.empty() ? QString(loginLine) : qt(failure));
        });
}

} // namespace vantle::app
