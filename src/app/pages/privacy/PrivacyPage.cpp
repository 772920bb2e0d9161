#include "app/pages/privacy/PrivacyPage.h"

#include "VantleEgress/EgressLedgerReading.h"
#include "VantleEgress/UpdateStatus.h"
#include "VantleLiteLive/VantleLite.h"
#include "VantleSpec/ByteCount.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/Symbols.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPainter>
#include <QStackedWidget>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace vantle::app {

namespace {

constexpr const char* onlineStatement =
    "Only the update check leaves this computer, and each of its requests is written here before it goes. "
    "Your files, your searches and this computer's readings never leave it.";
constexpr const char* offlineStatement =
    "Nothing is sent anywhere during this run, so nothing new can appear here.";
constexpr const char* nothingLeft = "Nothing has left this computer.";

constexpr int idRole = Qt::UserRole + 1;
constexpr int atRole = Qt::UserRole + 2;

QString timeOf(TimePoint at) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
    return QLocale().toString(QDateTime::fromMSecsSinceEpoch(ms), QLocale::ShortFormat);
}

QString secondsOf(TimePoint at) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
    return QDateTime::fromMSecsSinceEpoch(ms).toString("HH:mm:ss");
}

QString purposeWords(LedgerEntry::Purpose purpose) {
    switch (purpose) {
    case LedgerEntry::Purpose::update:
        return "Update check";
    case LedgerEntry::Purpose::download:
        return "Update download";
    case LedgerEntry::Purpose::search:
        return "Web search";
    case LedgerEntry::Purpose::page:
        return "Web page";
    case LedgerEntry::Purpose::weather:
        return "Weather";
    case LedgerEntry::Purpose::places:
        return "Places";
    case LedgerEntry::Purpose::facts:
        return "Facts";
    case LedgerEntry::Purpose::picture:
        return "Picture";
    case LedgerEntry::Purpose::mail:
        return "Mail";
    }
    return {};
}

// A symbolic (one-colour) icon drawn in the palette's text colour, so it shows in the dark style too.
QIcon tinted(const char* name, const QColor& colour) {
    auto pixmap = symbolIcon(name).pixmap(16, 16);
    if (pixmap.isNull()) return {};
    QPainter painter(&pixmap);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(pixmap.rect(), colour);
    return QIcon(pixmap);
}

bool isLeaving(const LedgerEntry& e) {
    return e.failure && *e.failure == LedgerEntry::leavingNote;
}

// What a request came to, from its last line: the status and bytes, or why it failed.
QString resultOf(const std::vector<LedgerEntry>& lines) {
    const auto& last = lines.back();
    if (last.failure && *last.failure == LedgerEntry::neverRecorded) return "Result never recorded";
    if (lines.size() == 1 && isLeaving(last)) return "On its way…";
    if (!last.status) {
        // The broker's short note ("connection failed"), as the start of a line.
        auto note = last.failure ? qt(*last.failure) : QString("Failed");
        if (!note.isEmpty()) note[0] = note[0].toUpper();
        return note;
    }
    QString text = QString("Status %1").arg(*last.status);
    if (last.bytesReceived > 0) text += " · " + qt(fileBytes(last.bytesReceived));
    if (last.failure) text += " · " + qt(*last.failure);
    return text;
}

QString detailOf(const LedgerEntry& e, bool first) {
    QString text;
    if (first) {
        text = QString("Left at %1 · %2 %3").arg(secondsOf(e.at), qt(e.method), qt(e.url));
        if (e.query) text += " · searched for “" + qt(*e.query) + "”";
        if (e.framework) text += " · via " + qt(*e.framework);
        if (e.failure && !isLeaving(e)) text += " · " + qt(*e.failure);
        return text;
    }
    text = QString("Answered at %1").arg(secondsOf(e.at));
    if (e.status) text += QString(" · status %1").arg(*e.status);
    if (e.bytesSent > 0) text += " · " + qt(fileBytes(e.bytesSent)) + " sent";
    text += " · " + qt(fileBytes(e.bytesReceived)) + " received";
    if (e.redirectedFrom) text += " · redirected from " + qt(*e.redirectedFrom);
    if (e.failure) text += " · " + qt(*e.failure);
    return text;
}

} // namespace

PrivacyPage::PrivacyPage(ProductBridge& bridge, QWidget* parent) : Page(parent), bridge_(bridge) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(24, 16, 24, 16);
    column->setSpacing(12);

    auto* top = new QHBoxLayout;
    auto* shield = new QLabel;
    shield->setPixmap(symbolIcon("security-high").pixmap(32, 32));
    shield->setAlignment(Qt::AlignTop);
    auto* words = new QVBoxLayout;
    statement_ = new QLabel(onlineStatement);
    statement_->setObjectName("privacyStatement");
    statement_->setWordWrap(true);
    offline_ = new QLabel;
    offline_->setObjectName("offlineStatement");
    offline_->setWordWrap(true);
    words->addWidget(statement_);
    words->addWidget(offline_);
    top->addWidget(shield, 0, Qt::AlignTop);
    top->addSpacing(8);
    // Sentences keep a readable line length on a wide window.
    top->addLayout(words, 3);
    top->addStretch(1);
    column->addLayout(top);

    const auto& live = bridge_.live();
    if (live.offline) {
        // Offline for the whole run: the start-up note says why, when the ledger was the reason.
        QString why = "<b>" + qt(std::string(UpdateStatus::offlineSentence)) + "</b> " + offlineStatement;
        for (const auto& note : live.notes)
            if (note.find("network ledger") != std::string::npos) why += "<br>" + qt(note).toHtmlEscaped();
        offline_->setText(why);
    }
    offline_->setVisible(live.offline);

    states_ = new QStackedWidget;
    auto* empty = new QWidget;
    auto* emptyColumn = new QVBoxLayout(empty);
    emptyColumn->addStretch(1);
    auto* emptyIcon = new QLabel;
    emptyIcon->setPixmap(symbolIcon("network-offline").pixmap(48, 48));
    emptyIcon->setAlignment(Qt::AlignHCenter);
    auto* emptyText = new QLabel(nothingLeft);
    emptyText->setObjectName("nothingLeft");
    emptyText->setAlignment(Qt::AlignHCenter);
    emptyColumn->addWidget(emptyIcon);
    emptyColumn->addSpacing(8);
    emptyColumn->addWidget(emptyText);
    emptyColumn->addStretch(2);
    states_->addWidget(empty);

    tree_ = new QTreeWidget;
    tree_->setObjectName("ledger");
    tree_->setAccessibleName("Requests that left this computer");
    tree_->setHeaderLabels({"Time", "Purpose", "Host", "Result"});
    tree_->setRootIsDecorated(true);
    tree_->setUniformRowHeights(false);
    tree_->setAlternatingRowColors(true);
    tree_->setSelectionMode(QAbstractItemView::SingleSelection);
    tree_->header()->setStretchLastSection(true);
    tree_->setColumnWidth(0, 180);
    tree_->setColumnWidth(1, 150);
    tree_->setColumnWidth(2, 240);
    tree_->setSortingEnabled(false);
    states_->addWidget(tree_);
    column->addWidget(states_, 1);

    poll_ = new QTimer(this);
    poll_->setInterval(1000);
    connect(poll_, &QTimer::timeout, this, &PrivacyPage::takeUpNew);
}

QString PrivacyPage::summary() const {
    return "Everything that left this computer, from the network ledger";
}

bool PrivacyPage::takingUp() const {
    return poll_->isActive();
}

void PrivacyPage::shown() {
    if (loaded_) return takeUpNew();
    loaded_ = true;
    auto ledger = bridge_.live().ledger;
    if (!ledger) return updateEmpty();
    // Subscribed before the entries are read, so a line written in between is in one or the other;
    // add() ignores a line it has seen.
    stream_ = ledger->subscribe();
    bridge_.inBackground([ledger](CancelFlag&) { return ledger->entries(); },
                         [this](std::vector<LedgerEntry> entries) {
                             for (const auto& e : entries)
                                 add(e);
                             takeUpNew();
                         });
}

void PrivacyPage::showEvent(QShowEvent* event) {
    Page::showEvent(event);
    if (stream_) poll_->start();
}

void PrivacyPage::hideEvent(QHideEvent* event) {
    Page::hideEvent(event);
    poll_->stop();
}

void PrivacyPage::takeUpNew() {
    if (!stream_) return updateEmpty();
    if (isVisible() && !poll_->isActive()) poll_->start();
    while (auto entry = stream_->tryNext())
        add(*entry);
    updateEmpty();
}

void PrivacyPage::add(const LedgerEntry& entry) {
    auto& lines = lines_[entry.id];
    if (std::ranges::find(lines, entry) != lines.end()) return;
    lines.push_back(entry);
    auto found = rows_.find(entry.id);
    QTreeWidgetItem* row = found != rows_.end() ? found->second : nullptr;
    if (!row) {
        row = new QTreeWidgetItem;
        row->setData(0, idRole, qt(entry.id));
        row->setData(0, atRole, qlonglong(entry.at.time_since_epoch().count()));
        // Newest first: a request goes above every request that left before it.
        int at = 0;
        while (at < tree_->topLevelItemCount() &&
               tree_->topLevelItem(at)->data(0, atRole).toLongLong() > entry.at.time_since_epoch().count())
            ++at;
        tree_->insertTopLevelItem(at, row);
        rows_[entry.id] = row;
    }
    fill(row, lines);
    updateEmpty();
}

void PrivacyPage::fill(QTreeWidgetItem* row, const std::vector<LedgerEntry>& lines) {
    const auto& first = lines.front();
    row->setText(0, timeOf(first.at));
    row->setText(1, purposeWords(first.purpose));
    row->setText(2, qt(first.host));
    row->setText(3, resultOf(lines));
    row->setToolTip(3, row->text(3));
    bool answered = lines.back().status && *lines.back().status < 400;
    bool underway = lines.size() == 1 && isLeaving(lines.back());
    auto text = palette().color(QPalette::Text);
    row->setIcon(3, answered   ? tinted("emblem-ok", text)
                    : underway ? tinted("content-loading", text)
                               : symbolIcon("dialog-warning"));
    qDeleteAll(row->takeChildren());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        auto* detail = new QTreeWidgetItem(row);
        detail->setText(0, detailOf(lines[i], i == 0));
        detail->setFirstColumnSpanned(true);
        detail->setToolTip(0, qt(lines[i].url));
    }
}

void PrivacyPage::updateEmpty() {
    states_->setCurrentIndex(tree_->topLevelItemCount() > 0 ? 1 : 0);
}

} // namespace vantle::app
