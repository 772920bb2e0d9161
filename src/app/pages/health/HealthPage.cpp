#include "app/pages/health/HealthPage.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "Vantle_Lite/BusyProcess.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/Gauges.h"
#include "app/design/Labels.h"
#include "app/design/Symbols.h"
#include "app/pages/health/HistoryChart.h"

#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QDateTime>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QStackedWidget>
#include <QTimer>
#include <QToolButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace vantle::app {

namespace {

constexpr const char* readingSentence = "Looking over this Mac…";
constexpr const char* balanceLine =
    "Moves your heavy background work onto the efficiency cores, and asks before quitting apps you aren't "
    "using.";
constexpr const char* recordOffSentence =
    "Health keeps no record of this computer yet. With the record on, it notes the processor, memory, heat "
    "and battery once a minute while Vantle is open, and keeps it on this computer only.";
constexpr const char* recordEmptySentence =
    "The record is on. Its first minute appears here within a minute, while Vantle is open.";
constexpr const char* recordNothingInSpan = "The record holds nothing for this span yet.";
constexpr const char* recordUnreadable = "Health's record could not be read: {reason}";
constexpr int busyShown = 8;
constexpr double busyFrom = 1.0; // percent of a core: below it a process is not worth a row

QString text(std::string_view words) {
    return QString::fromUtf8(words.data(), qsizetype(words.size()));
}

QFrame* makeCard(const QString& name) {
    auto* card = new QFrame;
    card->setObjectName(name);
    card->setStyleSheet(QString("#%1 { border: 1px solid palette(mid); border-radius: 8px; }").arg(name));
    return card;
}

QLabel* cardTitle(const QString& words, int delta = 2) {
    auto* label = new QLabel(words);
    auto font = label->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() + delta);
    label->setFont(font);
    return label;
}

// "Excellent", "Good", ...: the grade's own name, as a heading.
QString gradeWord(HealthScore::Grade grade) {
    auto word = text(nameOf(grade));
    word[0] = word[0].toUpper();
    return word;
}

QString pressureWords(VitalsSnapshot::Pressure pressure) {
    switch (pressure) {
    case VitalsSnapshot::Pressure::normal:
        return "no pressure";
    case VitalsSnapshot::Pressure::warning:
        return "under pressure";
    case VitalsSnapshot::Pressure::critical:
        return "nearly full";
    }
    return {};
}

QString areaTitle(CheckupArea area) {
    auto name = text(nameOf(area));
    if (area == CheckupArea::startup) return "Startup items";
    name[0] = name[0].toUpper();
    return name;
}

// A status as a dot, drawn rather than taken from the icon theme, whose symbolic marks vanish on a
// dark window: the highlight for good, the warning colour for attention, quieter tones between.
QPixmap statusDot(CheckupStatus status, const QPalette& palette, int side) {
    QColor colour = status == CheckupStatus::good        ? palette.color(QPalette::Highlight)
                    : status == CheckupStatus::attention ? warningColor()
                    : status == CheckupStatus::note      ? palette.color(QPalette::PlaceholderText)
                                                         : palette.color(QPalette::Mid);
    qreal ratio = qApp->devicePixelRatio();
    QPixmap dot(QSize(side, side) * ratio);
    dot.setDevicePixelRatio(ratio);
    dot.fill(Qt::transparent);
    QPainter p(&dot);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(colour);
    double d = side * 0.6;
    p.drawEllipse(QRectF((side - d) / 2, (side - d) / 2, d, d));
    return dot;
}

QString statusWords(CheckupStatus status) {
    switch (status) {
    case CheckupStatus::good:
        return "Good";
    case CheckupStatus::note:
        return "Worth a look";
    case CheckupStatus::attention:
        return "Needs attention";
    case CheckupStatus::unknown:
        return "Not known";
    }
    return {};
}

QString actionWords(const CheckupAction& action) {
    switch (action.kind) {
    case CheckupAction::Kind::openSettings:
        return "Open Settings";
    case CheckupAction::Kind::quit:
        return action.target ? "Quit " + QString::fromStdString(*action.target) + "…" : "Quit…";
    case CheckupAction::Kind::reveal:
        return "Show in Files";
    case CheckupAction::Kind::turnOffLaunchAgent:
        return "Turn Off…";
    case CheckupAction::Kind::showActivity:
        return "Show Activity";
    case CheckupAction::Kind::restart:
        return "Restart…";
    case CheckupAction::Kind::cleanUp:
        return "Clean Up…";
    case CheckupAction::Kind::showStorage:
        return "Show Storage";
    case CheckupAction::Kind::balanceLoad:
        return "Balance the Load…";
    }
    return {};
}

void clearLayout(QLayout* layout) {
    while (auto* item = layout->takeAt(0)) {
        if (auto* widget = item->widget()) widget->deleteLater();
        // A nested layout is its own item: emptied, then deleted once.
        if (auto* inner = item->layout()) clearLayout(inner);
        delete item;
    }
}

} // namespace

struct HealthPage::Reading {
    VitalsSnapshot vitals;
    ActivitySample activity;
};

HealthPage::HealthPage(ProductBridge& bridge, QWidget* parent) : Page(parent), bridge_(bridge) {
    summary_ = readingSentence;
    timer_ = new QTimer(this);
    timer_->setInterval(2000);
    connect(timer_, &QTimer::timeout, this, &HealthPage::tick);
    connect(&bridge_, &ProductBridge::windowVisibleChanged, this, &HealthPage::updateLive);

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    scroll_ = new QScrollArea;
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setWidgetResizable(true);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    outer->addWidget(scroll_);
    auto* content = new QWidget;
    scroll_->setWidget(content);
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(24, 16, 24, 24);
    column->setSpacing(16);
    column->addWidget(makeScoreCard());
    column->addWidget(makeGaugesCard());
    column->addWidget(makeHistoryCard());
    column->addWidget(makeActivityCard());
    column->addWidget(makeBalanceCard());
    column->addWidget(makeCheckupCard());
    column->addStretch(1);
    showBalance();
}

// The score: the ring and grade, then what took points off it.
QWidget* HealthPage::makeScoreCard() {
    auto* score = makeCard("scoreCard");
    scoreCard_ = score;
    auto* scoreRow = new QHBoxLayout(score);
    scoreRow->setContentsMargins(24, 20, 24, 20);
    scoreRow->setSpacing(24);
    scoreRing_ = new Ring(148);
    scoreRing_->setObjectName("scoreRing");
    scoreRow->addWidget(scoreRing_, 0, Qt::AlignTop);
    auto* reasons = new QVBoxLayout;
    reasons->setSpacing(8);
    reasons->addWidget(cardTitle("Health score"));
    scoreLine_ = mutedLabel(readingSentence);
    scoreLine_->setObjectName("scoreLine");
    reasons->addWidget(scoreLine_);
    penalties_ = new QVBoxLayout;
    penalties_->setSpacing(12);
    reasons->addLayout(penalties_);
    auto* how = new QToolButton;
    how->setText(text(HealthScore::explanationTitle));
    how->setObjectName("howWorkedOut");
    how->setCheckable(true);
    how->setAutoRaise(true);
    how->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    how->setArrowType(Qt::RightArrow);
    explanation_ = mutedLabel();
    explanation_->setObjectName("explanation");
    explanation_->setTextFormat(Qt::RichText);
    {
        QString rows =
            "<p>" + text(HealthScore::explanationHeader).toHtmlEscaped() + "</p><table cellspacing=4>";
        for (const auto& row : HealthScore::explanation())
            rows += QString("<tr><td><b>%1</b></td><td align=right>up to %2&nbsp;&nbsp;</td><td>%3</td></tr>")
                        .arg(QString::fromStdString(row.title).toHtmlEscaped())
                        .arg(row.most)
                        .arg(QString::fromStdString(row.sentence).toHtmlEscaped());
        explanation_->setText(rows + "</table>");
    }
    explanation_->hide();
    connect(how, &QToolButton::toggled, this, [this, how](bool open) {
        how->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
        explanation_->setVisible(open);
    });
    reasons->addWidget(how, 0, Qt::AlignLeft);
    reasons->addWidget(explanation_);
    reasons->addStretch(1);
    scoreRow->addLayout(reasons, 1);
    return score;
}

// The gauges: one small ring each, with its line under it.
QWidget* HealthPage::makeGaugesCard() {
    auto* gauges = makeCard("gaugesCard");
    gaugesCard_ = gauges;
    auto* gaugeRow = new QHBoxLayout(gauges);
    gaugeRow->setContentsMargins(16, 16, 16, 16);
    gaugeRow->setSpacing(8);
    for (const char* name : {"Processor", "Memory", "Disk", "Heat", "Battery"}) {
        auto* holder = new QWidget;
        auto* stack = new QVBoxLayout(holder);
        stack->setContentsMargins(0, 0, 0, 0);
        stack->setSpacing(6);
        auto* ring = new Ring(88);
        ring->setObjectName(QString(name).toLower() + "Gauge");
        auto* heading = new QLabel(name);
        auto font = heading->font();
        font.setBold(true);
        heading->setFont(font);
        heading->setAlignment(Qt::AlignHCenter);
        auto* line = mutedLabel();
        line->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
        line->setMinimumHeight(line->fontMetrics().lineSpacing() * 2);
        stack->addWidget(ring, 0, Qt::AlignHCenter);
        stack->addWidget(heading);
        stack->addWidget(line);
        gauges_.push_back(ring);
        gaugeLines_.push_back(line);
        gaugeRow->addWidget(holder, 1);
        if (QString(name) == "Battery") batteryGauge_ = holder;
    }
    batteryGauge_->hide();
    return gauges;
}

// The history: Day, Month, Year over the chart.
QWidget* HealthPage::makeHistoryCard() {
    auto* history = makeCard("historyCard");
    historyCard_ = history;
    auto* historyColumn = new QVBoxLayout(history);
    historyColumn->setContentsMargins(20, 16, 20, 16);
    historyColumn->setSpacing(8);
    auto* historyHead = new QHBoxLayout;
    historyHead->addWidget(cardTitle("History"));
    historyHead->addStretch(1);
    spans_ = new QButtonGroup(this);
    spans_->setExclusive(true);
    for (auto [span, words] :
         {std::pair{HealthHistory::Span::day, "Day"}, std::pair{HealthHistory::Span::month, "Month"},
          std::pair{HealthHistory::Span::year, "Year"}}) {
        auto* button = new QPushButton(words);
        button->setCheckable(true);
        button->setObjectName(QString("span") + words);
        button->setAccessibleName(QString("History of the last ") + QString(words).toLower());
        button->setChecked(span == HealthHistory::Span::day);
        // The span shown is marked in the highlight, as a segmented control marks its choice.
        button->setStyleSheet(
            "QPushButton { border: 1px solid palette(mid); border-radius: 6px; padding: 4px 16px; }"
            "QPushButton:checked { background: palette(highlight); color: palette(highlighted-text);"
            " border-color: palette(highlight); }");
        spans_->addButton(button, int(span));
        historyHead->addWidget(button);
    }
    connect(spans_, &QButtonGroup::idClicked, this, [this](int id) { showSpan(HealthHistory::Span(id)); });
    historyColumn->addLayout(historyHead);
    chart_ = new HistoryChart;
    historyColumn->addWidget(chart_);
    auto* legend = mutedLabel();
    legend->setTextFormat(Qt::RichText);
    auto swatch = [](const QColor& c, const QString& words) {
        return QString("<span style='color:%1'>■</span>&nbsp;%2").arg(c.name(), words);
    };
    legend->setText(
        swatch(HistoryChart::processorColor(palette()), "Processor, average") + "&nbsp;&nbsp;&nbsp;" +
        swatch(HistoryChart::memoryColor(palette()), "Memory in use, average") + "&nbsp;&nbsp;&nbsp;" +
        QString("<span style='color:%1'>●</span>&nbsp;Memory pressure or heat").arg(warningColor().name()));
    historyColumn->addWidget(legend);
    historyLine_ = new QLabel;
    historyLine_->setObjectName("historyLine");
    historyLine_->setWordWrap(true);
    historyColumn->addWidget(historyLine_);
    auto* emptyRow = new QHBoxLayout;
    historyEmpty_ = mutedLabel();
    historyEmpty_->setObjectName("historyEmpty");
    keepRecord_ = new QPushButton("Keep a Record");
    keepRecord_->setObjectName("keepRecord");
    keepRecord_->setAccessibleName("Keep a record of this Mac's health");
    connect(keepRecord_, &QPushButton::clicked, this, [this] {
        bridge_.withProduct([](LiteProduct& p) { p.setKeepsHealthRecord(true); }, [this] { readHistory(); });
    });
    emptyRow->addWidget(historyEmpty_, 1);
    emptyRow->addWidget(keepRecord_, 0, Qt::AlignVCenter);
    historyColumn->addLayout(emptyRow);
    return history;
}

// What is busy now, each with its sentence; Quit asks first.
QWidget* HealthPage::makeActivityCard() {
    auto* activity = makeCard("activityCard");
    activityCard_ = activity;
    auto* activityColumn = new QVBoxLayout(activity);
    activityColumn->setContentsMargins(20, 16, 20, 16);
    activityColumn->addWidget(cardTitle("Busy now"));
    activity_ = new QTreeWidget;
    activity_->setObjectName("activity");
    activity_->setAccessibleName("Busy processes");
    activity_->setColumnCount(4);
    activity_->setHeaderLabels({"Name", "Share of a core", "Memory", "What it is"});
    activity_->setRootIsDecorated(false);
    activity_->setUniformRowHeights(true);
    activity_->setFrameShape(QFrame::NoFrame);
    activity_->header()->setStretchLastSection(true);
    activity_->setColumnWidth(0, 220);
    activity_->setColumnWidth(1, 120);
    activity_->setColumnWidth(2, 100);
    activity_->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    activityColumn->addWidget(activity_);
    quit_ = new QPushButton("Quit…");
    quit_->setObjectName("quitProcess");
    quit_->setEnabled(false);
    connect(activity_, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        int at = item ? activity_->indexOfTopLevelItem(item) : -1;
        quit_->setEnabled(at >= 0 && at < int(busy_.size()) && busy_[std::size_t(at)].isOwn);
    });
    connect(quit_, &QPushButton::clicked, this, [this] {
        int at = activity_->indexOfTopLevelItem(activity_->currentItem());
        if (at < 0 || at >= int(busy_.size())) return;
        bridge_.withProduct([row = busy_[std::size_t(at)]](LiteProduct& p) { p.askToQuit(row); });
    });
    activityColumn->addWidget(quit_, 0, Qt::AlignRight);
    return activity;
}

// Balance the load: the line and its button, then the candidates, the wait, and the report.
QWidget* HealthPage::makeBalanceCard() {
    auto* balance = makeCard("balanceCard");
    balanceCard_ = balance;
    auto* balanceColumn = new QVBoxLayout(balance);
    balanceColumn->setContentsMargins(20, 16, 20, 16);
    balanceColumn->setSpacing(8);
    balanceColumn->addWidget(cardTitle("Balance the load"));
    balanceStates_ = new QStackedWidget;
    // idle
    auto* idle = new QWidget;
    auto* idleColumn = new QVBoxLayout(idle);
    idleColumn->setContentsMargins(0, 0, 0, 0);
    auto* line = mutedLabel(balanceLine);
    idleColumn->addWidget(line);
    auto* start = new QPushButton("Balance the Load…");
    start->setObjectName("balanceStart");
    connect(start, &QPushButton::clicked, this, &HealthPage::startBalance);
    idleColumn->addSpacing(4);
    idleColumn->addWidget(start, 0, Qt::AlignLeft);
    idleColumn->addStretch(1);
    balanceStates_->addWidget(idle);
    // reading and balancing
    auto* waiting = new QWidget;
    auto* waitingColumn = new QVBoxLayout(waiting);
    waitingColumn->setContentsMargins(0, 0, 0, 0);
    balanceStatus_ = new QLabel;
    balanceStatus_->setObjectName("balanceStatus");
    auto* busyBar = new QProgressBar;
    busyBar->setRange(0, 0);
    busyBar->setTextVisible(false);
    busyBar->setMaximumWidth(240);
    waitingColumn->addWidget(balanceStatus_);
    waitingColumn->addWidget(busyBar);
    waitingColumn->addStretch(1);
    balanceStates_->addWidget(waiting);
    // candidates
    auto* choose = new QWidget;
    auto* chooseColumn = new QVBoxLayout(choose);
    chooseColumn->setContentsMargins(0, 0, 0, 0);
    nothing_ = new QLabel;
    nothing_->setObjectName("balanceNothing");
    nothing_->setWordWrap(true);
    chooseColumn->addWidget(nothing_);
    candidates_ = new QVBoxLayout;
    candidates_->setSpacing(8);
    chooseColumn->addLayout(candidates_);
    chooseColumn->addStretch(1);
    auto* chooseButtons = new QHBoxLayout;
    balanceCancel_ = new QPushButton("Cancel");
    balanceCancel_->setObjectName("balanceCancel");
    connect(balanceCancel_, &QPushButton::clicked, this, &HealthPage::closeBalance);
    balanceGo_ = new QPushButton("Balance…");
    balanceGo_->setObjectName("balanceAsk");
    balanceGo_->setDefault(true);
    connect(balanceGo_, &QPushButton::clicked, this, &HealthPage::askToBalance);
    chooseButtons->addStretch(1);
    chooseButtons->addWidget(balanceCancel_);
    chooseButtons->addWidget(balanceGo_);
    chooseColumn->addLayout(chooseButtons);
    balanceStates_->addWidget(choose);
    // report
    auto* reported = new QWidget;
    auto* reportColumn = new QVBoxLayout(reported);
    reportColumn->setContentsMargins(0, 0, 0, 0);
    reportLabel_ = new QLabel;
    reportLabel_->setObjectName("balanceReport");
    reportLabel_->setWordWrap(true);
    reportLabel_->setTextFormat(Qt::RichText);
    reportLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    reportColumn->addWidget(reportLabel_);
    reportColumn->addStretch(1);
    auto* reportButtons = new QHBoxLayout;
    balanceUndo_ = new QPushButton(symbolIcon("arrow.uturn.backward"), "Undo");
    balanceUndo_->setObjectName("balanceUndo");
    balanceUndo_->setAccessibleName("Put the moved processes back on every core");
    connect(balanceUndo_, &QPushButton::clicked, &bridge_, &ProductBridge::undoLast);
    auto* done = new QPushButton("Done");
    done->setObjectName("balanceDone");
    connect(done, &QPushButton::clicked, this, &HealthPage::closeBalance);
    reportButtons->addStretch(1);
    reportButtons->addWidget(balanceUndo_);
    reportButtons->addWidget(done);
    reportColumn->addLayout(reportButtons);
    balanceStates_->addWidget(reported);
    balanceColumn->addWidget(balanceStates_, 1);
    connect(&bridge_, &ProductBridge::changed, this,
            [this] { balanceUndo_->setVisible(bridge_.undoKind() == "balance"); });
    connect(&bridge_, &ProductBridge::answered, this, [this](bool yes) {
        if (balance_ != Balance::asking) return;
        balance_ = yes ? Balance::balancing : Balance::candidates;
        showBalance();
        if (!yes) return;
        // The product carries the balance out on its own thread; this read queues behind it.
        bridge_.withProduct([](LiteProduct& p) { return p.lastBalance(); },
                            [this](std::optional<LoadBalanced> balanced) {
                                report_.clear();
                                if (balanced)
                                    for (const auto& l : reportOf(*balanced))
                                        report_ << QString::fromStdString(l);
                                balance_ = Balance::report;
                                showBalance();
                            });
    });
    return balance;
}

// The checkup: the summary and findings, then a card for each area.
QWidget* HealthPage::makeCheckupCard() {
    auto* checkup = makeCard("checkupCard");
    checkupCard_ = checkup;
    auto* checkupColumn = new QVBoxLayout(checkup);
    checkupColumn->setContentsMargins(20, 16, 20, 16);
    checkupColumn->setSpacing(10);
    auto* checkupHead = new QHBoxLayout;
    checkupHead->addWidget(cardTitle("Checkup"));
    checkupHead->addStretch(1);
    checkAgain_ = new QPushButton(symbolIcon("view-refresh"), "Check Again");
    checkAgain_->setObjectName("checkAgain");
    connect(checkAgain_, &QPushButton::clicked, this, &HealthPage::runCheckup);
    checkupHead->addWidget(checkAgain_);
    checkupColumn->addLayout(checkupHead);
    checkupLine_ = new QLabel("Reading this computer area by area…");
    checkupLine_->setObjectName("checkupLine");
    checkupLine_->setWordWrap(true);
    checkupColumn->addWidget(checkupLine_);
    checkupNote_ = mutedLabel();
    checkupNote_->setObjectName("checkupNote");
    checkupNote_->hide();
    checkupColumn->addWidget(checkupNote_);
    findings_ = new QVBoxLayout;
    findings_->setSpacing(10);
    checkupColumn->addLayout(findings_);
    // Three across, each as wide as a third: the cards fill the width and a row shares one height.
    sections_ = new QGridLayout;
    sections_->setSpacing(12);
    for (int c = 0; c < sectionColumns; ++c)
        sections_->setColumnStretch(c, 1);
    checkupColumn->addLayout(sections_);
    return checkup;
}

void HealthPage::setSummary(const QString& words) {
    if (summary_ == words) return;
    summary_ = words;
    Q_EMIT summaryChanged();
}

// ---- live readings

bool HealthPage::readingLive() const {
    return timer_->isActive();
}

void HealthPage::setRefreshInterval(int ms) {
    timer_->setInterval(ms);
}

void HealthPage::showEvent(QShowEvent* event) {
    Page::showEvent(event);
    updateLive();
}

void HealthPage::hideEvent(QHideEvent* event) {
    Page::hideEvent(event);
    updateLive();
}

void HealthPage::updateLive() {
    // The machine is read while the page is open and the window can be seen, and at no other time.
    bool on = isVisible() && bridge_.windowVisible();
    if (on == timer_->isActive()) return;
    if (!on) {
        timer_->stop();
        return;
    }
    timer_->start();
    tick();
}

void HealthPage::tick() {
    if (inFlight_) return;
    inFlight_ = true;
    auto vitals = bridge_.live().vitals;
    auto activity = bridge_.live().activity;
    bridge_.inBackground(
        [vitals, activity](CancelFlag&) {
            Reading r;
            if (vitals) r.vitals = vitals->sample();
            if (activity) r.activity = activity->read();
            return r;
        },
        [this](Reading reading) {
            inFlight_ = false;
            apply(reading);
        });
}

void HealthPage::apply(const Reading& r) {
    ++readings_;
    const auto& s = r.vitals;
    keeper_.look(s.at, HealthScore::Reading::of(s));
    showScore();

    auto whole = [](double fraction) { return QString::fromStdString(wholePercent(fraction * 100)); };
    // Processor
    QString cpuLine =
        QString::number(s.cpu.perCore.size()) + (s.cpu.perCore.size() == 1 ? " core" : " cores");
    if (s.cpu.performanceCores)
        cpuLine = "performance cores " + whole(*s.cpu.performanceCores) + "\n" + cpuLine;
    else
        cpuLine = "busy\n" + cpuLine;
    gauges_[0]->set(s.cpu.total, whole(s.cpu.total), {}, s.cpu.total >= 0.9);
    gaugeLines_[0]->setText(cpuLine);
    // Memory
    const auto& m = s.memory;
    double used = m.totalBytes ? double(m.usedBytes) / double(m.totalBytes) : 0;
    gauges_[1]->set(used, whole(used), {}, m.pressure != VitalsSnapshot::Pressure::normal);
    gaugeLines_[1]->setText(QString::fromStdString(memoryBytes(std::int64_t(m.usedBytes)) + " of " +
                                                   memoryBytes(std::int64_t(m.totalBytes))) +
                            "\n" + pressureWords(m.pressure));
    // Disk
    if (s.disk.totalBytes) {
        double full =
            1.0 - double(std::min(s.disk.availableBytes, s.disk.totalBytes)) / double(s.disk.totalBytes);
        gauges_[2]->set(full, whole(full), {}, full > 0.9);
        gaugeLines_[2]->setText(QString::fromStdString(fileBytes(std::int64_t(s.disk.availableBytes))) +
                                " free\nof " +
                                QString::fromStdString(fileBytes(std::int64_t(s.disk.totalBytes))));
    } else {
        gauges_[2]->set(0, "–", {});
        gaugeLines_[2]->setText("not read");
    }
    // Heat
    double heat = (int(s.thermal) + 1) / 4.0;
    gauges_[3]->set(heat, text(heatWord(s.thermal)), {}, s.thermal >= VitalsSnapshot::Thermal::serious);
    gaugeLines_[3]->setText(s.thermal == VitalsSnapshot::Thermal::nominal ? "nothing is slowed"
                            : s.thermal == VitalsSnapshot::Thermal::fair  ? "nothing is slowed yet"
                                                                          : "the chip is slowed to cool it");
    // Battery, where there is one
    batteryGauge_->setVisible(s.power.hasBattery);
    if (s.power.hasBattery) {
        double charge = s.power.charge.value_or(0);
        gauges_[4]->set(charge, s.power.charge ? whole(charge) : "–", {}, s.power.charge && charge < 0.1);
        QString state = s.power.isCharging ? "charging" : s.power.onAC ? "on power" : "on battery";
        if (s.power.battery)
            if (auto health = s.power.battery->health()) state += "\nholds " + whole(*health) + " of new";
        gaugeLines_[4]->setText(state);
    }

    // What is busy: the busiest few, each with its sentence.
    busy_.clear();
    for (const auto& row : r.activity.rows)
        if (row.cpuPercent >= busyFrom) busy_.push_back(row);
    std::ranges::sort(busy_,
                      [](const ProcessRow& a, const ProcessRow& b) { return a.cpuPercent > b.cpuPercent; });
    if (busy_.size() > busyShown) busy_.resize(busyShown);
    agents_ = r.activity.agents;
    showActivity();
    Q_EMIT readingApplied();
}

void HealthPage::showScore() {
    if (!keeper_.shown) return;
    const auto& score = *keeper_.shown;
    auto grade = score.grade();
    bool attention = grade == HealthScore::Grade::fair || grade == HealthScore::Grade::poor;
    scoreRing_->set(score.value / 100.0, QString::number(score.value), gradeWord(grade), attention);
    scoreLine_->setText(score.penalties.empty() ? "Nothing takes points off the score now."
                                                : "What takes points off it now:");
    // Rebuilt only when the penalties change, not at every reading.
    if (shownPenalties_ && *shownPenalties_ == score.penalties) return;
    shownPenalties_ = score.penalties;
    clearLayout(penalties_);
    for (const auto& penalty : score.penalties) {
        auto* row = new QHBoxLayout;
        row->setSpacing(12);
        auto* points = new QLabel(QString("−%1").arg(penalty.points));
        auto font = points->font();
        font.setBold(true);
        points->setFont(font);
        points->setFixedWidth(points->fontMetrics().horizontalAdvance("−30") + 4);
        points->setAlignment(Qt::AlignRight | Qt::AlignTop);
        if (penalty.points >= 15) {
            auto warn = points->palette();
            warn.setColor(QPalette::WindowText, warningColor());
            points->setPalette(warn);
        }
        auto* words = new QVBoxLayout;
        words->setSpacing(2);
        auto* line = new QLabel(QString::fromStdString(penalty.line));
        line->setObjectName("penaltyLine");
        line->setWordWrap(true);
        words->addWidget(line);
        if (penalty.help) {
            auto* help = mutedLabel(QString::fromStdString(*penalty.help));
            help->setObjectName("penaltyHelp");
            words->addWidget(help);
        }
        row->addWidget(points, 0, Qt::AlignTop);
        row->addLayout(words, 1);
        if (penalty.fix) {
            auto* fix = new QPushButton(*penalty.fix == HealthScore::Fix::balance ? "Balance the Load…"
                                                                                  : "Show Storage");
            fix->setObjectName("fix");
            if (*penalty.fix == HealthScore::Fix::balance)
                connect(fix, &QPushButton::clicked, this, [this] {
                    scrollTo(Card::balance);
                    startBalance();
                });
            else
                connect(fix, &QPushButton::clicked, this, [this] { Q_EMIT openPage("storage"); });
            row->addWidget(fix, 0, Qt::AlignTop);
        }
        penalties_->addLayout(row);
    }
}

void HealthPage::showActivity() {
    // The selection stays on the same process across readings.
    int selectedPid = -1;
    if (auto* current = activity_->currentItem()) selectedPid = current->data(0, Qt::UserRole).toInt();
    QSignalBlocker quiet(activity_);
    activity_->clear();
    for (const auto& row : busy_) {
        auto name = QString::fromStdString(row.app.value_or(row.name));
        // A share of one core, which a process with several threads takes past 100%.
        auto share = QString::fromStdString(percent(row.cpuPercent / 100));
        auto* item = new QTreeWidgetItem(
            activity_,
            {name, share,
             QString::fromStdString(memoryBytes(std::int64_t(row.memory ? row.memory : row.realMemory))),
             QString::fromStdString(busySentence(row, agents_))});
        item->setData(0, Qt::UserRole, row.pid);
        item->setToolTip(0, QString::fromStdString(row.path.value_or(row.name)));
        item->setToolTip(3, item->text(3));
        item->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
        item->setTextAlignment(2, Qt::AlignRight | Qt::AlignVCenter);
        if (row.pid == selectedPid) activity_->setCurrentItem(item);
    }
    if (busy_.empty()) {
        auto* none = new QTreeWidgetItem(activity_, {"Nothing is busy."});
        none->setFlags(Qt::ItemIsEnabled);
        none->setFirstColumnSpanned(true);
    }
    // As tall as the most rows it shows, so the cards below stay put as processes come and go.
    if (activity_->topLevelItemCount() > 0) {
        int row = activity_->visualItemRect(activity_->topLevelItem(0)).height();
        if (row > 0)
            activity_->setFixedHeight(activity_->header()->sizeHint().height() + row * busyShown + 4);
    }
    auto* current = activity_->currentItem();
    int at = current ? activity_->indexOfTopLevelItem(current) : -1;
    quit_->setEnabled(at >= 0 && at < int(busy_.size()) && busy_[std::size_t(at)].isOwn);
}

std::vector<std::pair<QString, QString>> HealthPage::busyRows() const {
    std::vector<std::pair<QString, QString>> rows;
    for (int i = 0; i < activity_->topLevelItemCount() && i < int(busy_.size()); ++i)
        rows.emplace_back(activity_->topLevelItem(i)->text(0), activity_->topLevelItem(i)->text(3));
    return rows;
}

// ---- the page comes on screen

void HealthPage::shown() {
    updateLive();
    if (started_) return;
    started_ = true;
    readHistory();
    // The last checkup is shown at once; a fresh one is read behind it.
    auto service = bridge_.live().checkup;
    if (!service) return;
    bridge_.inBackground([service](CancelFlag&) { return service->kept().last; },
                         [this](std::optional<MacCheckup> last) {
                             if (last && !checkup_) {
                                 checkup_ = std::move(last);
                                 showCheckup();
                             }
                             runCheckup();
                         });
}

// ---- history

void HealthPage::showSpan(HealthHistory::Span span) {
    span_ = span;
    if (auto* button = spans_->button(int(span))) button->setChecked(true);
    readHistory();
}

int HealthPage::historyRows() const {
    return chart_->rowCount();
}

bool HealthPage::historyEmpty() const {
    return historyEmpty_->isVisible();
}

void HealthPage::readHistory() {
    auto history = bridge_.live().healthHistory;
    auto record = bridge_.live().healthRecord;
    if (!history) return;
    auto span = span_;
    struct Read {
        HealthHistory::Reading reading;
        std::optional<std::string> problem;
    };
    bridge_.inBackground(
        [history, record, span](CancelFlag&) {
            Read r{history->read(span), std::nullopt};
            if (r.reading.points.empty() && record) r.problem = record->problem();
            return r;
        },
        [this, span](Read r) {
            if (span != span_) return; // another span was chosen meanwhile
            bridge_.withProduct([](LiteProduct& p) { return p.keepsHealthRecord(); },
                                [this, r = std::move(r)](bool keeping) {
                                    if (r.problem) {
                                        // A record that cannot be opened is not "nothing yet".
                                        chart_->setRows(span_, {});
                                        chart_->hide();
                                        historyLine_->hide();
                                        historyEmpty_->setText(
                                            QString(recordUnreadable)
                                                .replace("{reason}", QString::fromStdString(*r.problem)));
                                        historyEmpty_->show();
                                        keepRecord_->hide();
                                        Q_EMIT historyShown();
                                        return;
                                    }
                                    showHistory(r.reading, keeping);
                                });
        });
}

void HealthPage::showHistory(const HealthHistory::Reading& reading, bool keeping) {
    auto rows = HealthHistory::rows(reading);
    chart_->setRows(span_, rows);
    auto overall = HealthHistory::overall(reading);
    if (overall) {
        auto whole = [](double f) { return QString::fromStdString(wholePercent(f * 100)); };
        QStringList line;
        line << "The processor averaged " + whole(overall->cpu) + " (at most " + whole(overall->cpuPeak) +
                    ")";
        line << "memory in use " + whole(overall->memory);
        if (overall->pressureShare > 0)
            line << "under memory pressure " + whole(overall->pressureShare) + " of the time";
        if (overall->thermal >= VitalsSnapshot::Thermal::fair)
            line << (overall->thermal == VitalsSnapshot::Thermal::fair ? "warm at times" : "hot at times");
        QString text = line.join(", ") + ".";
        if (!overall->apps.empty())
            text += " Busiest: " + QString::fromStdString(overall->apps.front().name) + ".";
        historyLine_->setText(text);
    }
    historyLine_->setVisible(overall.has_value());
    bool empty = reading.points.empty();
    // Without the record on, the chart says why it is empty or no longer grows.
    if (!keeping) {
        historyEmpty_->setText(empty
                                   ? recordOffSentence
                                   : "The record is off, so nothing new is added; what was kept stays here.");
        historyEmpty_->show();
        keepRecord_->show();
    } else {
        historyEmpty_->setText(empty ? (HealthHistory::tableOf(span_) == HealthRecord::Table::minutes
                                            ? recordEmptySentence
                                            : recordNothingInSpan)
                                     : QString());
        historyEmpty_->setVisible(empty);
        keepRecord_->hide();
    }
    chart_->setVisible(!empty);
    Q_EMIT historyShown();
}

// ---- balance

void HealthPage::startBalance() {
    if (balance_ == Balance::reading || balance_ == Balance::asking || balance_ == Balance::balancing) return;
    balance_ = Balance::reading;
    showBalance();
    const VantleLite* live = &bridge_.live();
    bridge_.inBackground(
        [live](CancelFlag&) {
            auto reading = LiteProduct::readLoad(*live);
            auto found = findCandidates(reading.reading);
            return std::pair{std::move(reading), std::move(found)};
        },
        [this](std::pair<ScoredReading, BalanceFound> read) {
            if (balance_ != Balance::reading) return;
            before_ = std::move(read.first);
            // The report's "before" is the score the page shows, not a second reading's.
            if (keeper_.shown) before_->score = keeper_.shown->value;
            found_ = std::move(read.second);
            balance_ = Balance::candidates;
            fillCandidates();
            showBalance();
        });
}

bool HealthPage::tickCandidate(int index, bool on) {
    if (balance_ != Balance::candidates || index < 0 || index >= int(ticks_.size())) return false;
    ticks_[std::size_t(index)]->setChecked(on);
    return true;
}

void HealthPage::askToBalance() {
    if (balance_ != Balance::candidates || !before_) return;
    std::vector<BalanceCandidate> chosen;
    for (std::size_t i = 0; i < ticks_.size() && i < found_.candidates.size(); ++i)
        if (ticks_[i]->isChecked()) chosen.push_back(found_.candidates[i]);
    if (chosen.empty()) return;
    balance_ = Balance::asking;
    showBalance();
    bridge_.withProduct([before = *before_, chosen = std::move(chosen)](LiteProduct& p) mutable {
        p.askToBalance(std::move(before), std::move(chosen));
    });
}

void HealthPage::closeBalance() {
    if (balance_ == Balance::asking || balance_ == Balance::balancing) return;
    balance_ = Balance::idle;
    showBalance();
}

void HealthPage::fillCandidates() {
    clearLayout(candidates_);
    ticks_.clear();
    nothing_->setText(found_.nothing
                          ? QString::fromStdString(*found_.nothing)
                          : "Ticked here is what Vantle would do. Nothing happens until you say yes.");
    for (const auto& c : found_.candidates) {
        auto* row = new QHBoxLayout;
        auto* tick = new QCheckBox;
        tick->setChecked(c.preferred);
        tick->setAccessibleName(QString::fromStdString(c.name));
        auto* why = new QLabel(QString::fromStdString(c.why));
        why->setWordWrap(true);
        why->setBuddy(tick);
        auto* kind = new QLabel;
        kind->setPixmap(
            symbolIcon(c.action == BalanceCandidate::Action::quit ? "application-exit" : "go-down")
                .pixmap(16, 16));
        kind->setToolTip(c.action == BalanceCandidate::Action::quit ? "Asked to quit"
                                                                    : "Moved to the efficiency cores");
        row->addWidget(tick, 0, Qt::AlignTop);
        row->addWidget(kind, 0, Qt::AlignTop);
        row->addWidget(why, 1);
        candidates_->addLayout(row);
        ticks_.push_back(tick);
        connect(tick, &QCheckBox::toggled, this, [this] {
            balanceGo_->setEnabled(std::ranges::any_of(ticks_, [](QCheckBox* t) { return t->isChecked(); }));
        });
    }
}

void HealthPage::showBalance() {
    switch (balance_) {
    case Balance::idle:
        balanceStates_->setCurrentIndex(0);
        break;
    case Balance::reading:
        balanceStatus_->setText("Reading what's running…");
        balanceStates_->setCurrentIndex(1);
        break;
    case Balance::balancing:
        balanceStatus_->setText("Balancing: the figures are read again after a short pause…");
        balanceStates_->setCurrentIndex(1);
        break;
    case Balance::candidates:
    case Balance::asking: {
        bool open = balance_ == Balance::candidates;
        for (auto* tick : ticks_)
            tick->setEnabled(open);
        balanceCancel_->setEnabled(open);
        balanceGo_->setVisible(!found_.candidates.empty());
        balanceGo_->setEnabled(open &&
                               std::ranges::any_of(ticks_, [](QCheckBox* t) { return t->isChecked(); }));
        balanceStates_->setCurrentIndex(2);
        break;
    }
    case Balance::report: {
        QString html = "<ul style='margin-left:-24px'>";
        for (const auto& l : report_)
            html += "<li style='margin-bottom:4px'>" + l.toHtmlEscaped() + "</li>";
        reportLabel_->setText(html + "</ul>");
        balanceUndo_->setVisible(bridge_.undoKind() == "balance");
        balanceStates_->setCurrentIndex(3);
        break;
    }
    }
    // The card is as tall as the state shown, not as the tallest state it has held.
    for (int i = 0; i < balanceStates_->count(); ++i) {
        bool current = i == balanceStates_->currentIndex();
        balanceStates_->widget(i)->setSizePolicy(current ? QSizePolicy::Preferred : QSizePolicy::Ignored,
                                                 current ? QSizePolicy::Preferred : QSizePolicy::Ignored);
    }
    balanceStates_->updateGeometry();
    Q_EMIT balanceChanged();
}

// ---- checkup

void HealthPage::runCheckup() {
    auto service = bridge_.live().checkup;
    if (!service || checking_) return;
    checking_ = true;
    checkAgain_->setEnabled(false);
    checkAgain_->setText("Checking…");
    bridge_.inBackground([service](CancelFlag&) { return service->run(); },
                         [this](MacCheckup fresh) {
                             checking_ = false;
                             checkAgain_->setEnabled(true);
                             checkAgain_->setText("Check Again");
                             checkup_ = std::move(fresh);
                             showCheckup();
                         });
}

void HealthPage::showCheckup() {
    if (!checkup_) return;
    const auto& c = *checkup_;
    auto sentence = QString::fromStdString(checkupSummary(c.findings));
    setSummary(sentence);
    auto read = QDateTime::fromMSecsSinceEpoch(
        std::chrono::duration_cast<std::chrono::milliseconds>(c.read.time_since_epoch()).count());
    checkupLine_->setText("<b>" + sentence.toHtmlEscaped() + "</b>&nbsp;&nbsp;" +
                          QString("<span style='color:%1'>Checkup score %2 of 100 · read %3</span>")
                              .arg(palette().color(QPalette::PlaceholderText).name())
                              .arg(c.score.value)
                              .arg(QLocale().toString(read.date(), QLocale::ShortFormat) + " " +
                                   read.time().toString("HH:mm")));
    clearLayout(findings_);
    for (const auto& f : c.findings) {
        auto* row = new QHBoxLayout;
        row->setSpacing(12);
        auto* icon = new QLabel;
        icon->setPixmap(statusDot(f.status, palette(), 20));
        icon->setToolTip(statusWords(f.status));
        auto* words = new QVBoxLayout;
        words->setSpacing(2);
        auto* head = new QLabel(QString::fromStdString(f.title));
        auto font = head->font();
        font.setBold(true);
        head->setFont(font);
        head->setWordWrap(true);
        words->addWidget(head);
        auto* detail = new QLabel(QString::fromStdString(f.detail));
        detail->setWordWrap(true);
        words->addWidget(detail);
        if (!f.why.empty()) words->addWidget(mutedLabel(QString::fromStdString(f.why)));
        row->addWidget(icon, 0, Qt::AlignTop);
        row->addLayout(words, 1);
        if (f.action) {
            auto* button = new QPushButton(actionWords(*f.action));
            button->setObjectName("findingAction");
            connect(button, &QPushButton::clicked, this, [this, action = *f.action] { act(action); });
            row->addWidget(button, 0, Qt::AlignTop);
        }
        findings_->addLayout(row);
    }

    clearLayout(sections_);
    int at = 0;
    for (const auto& s : c.sections) {
        auto* card = new QFrame;
        card->setObjectName("sectionCard");
        card->setStyleSheet("#sectionCard { border: 1px solid palette(mid); border-radius: 8px; }");
        auto* col = new QVBoxLayout(card);
        col->setContentsMargins(12, 10, 12, 10);
        col->setSpacing(4);
        auto* head = new QHBoxLayout;
        auto* icon = new QLabel;
        icon->setPixmap(statusDot(s.status, palette(), 16));
        icon->setToolTip(statusWords(s.status));
        auto* name = new QLabel(areaTitle(s.area));
        auto font = name->font();
        font.setBold(true);
        name->setFont(font);
        head->addWidget(icon);
        head->addWidget(name, 1);
        col->addLayout(head);
        auto* verdict = new QLabel(QString::fromStdString(s.verdict));
        verdict->setWordWrap(true);
        col->addWidget(verdict);
        QStringList figures, tips;
        for (const auto& r : s.readings) {
            if (figures.size() < 3)
                figures << QString::fromStdString(r.title).toHtmlEscaped() + ": " +
                               QString::fromStdString(r.value).toHtmlEscaped();
            tips << QString::fromStdString(r.title + ": " + r.value + " — " + r.meaning + " " + r.why);
        }
        if (!s.items.empty()) {
            // The list by its first names: its count is often a reading already.
            QStringList names;
            for (std::size_t i = 0; i < s.items.size() && i < 3; ++i)
                names << QString::fromStdString(s.items[i].title).toHtmlEscaped();
            if (s.items.size() > 3) names.last() += QString(" and %1 more").arg(s.items.size() - 3);
            figures << QString::fromStdString(s.listTitle.value_or("Items")).toHtmlEscaped() + ": " +
                           names.join(", ");
        }
        if (!figures.isEmpty()) {
            auto* list = mutedLabel(figures.join("<br>"));
            list->setTextFormat(Qt::RichText);
            col->addWidget(list);
        }
        col->addStretch(1);
        card->setToolTip(tips.join("\n"));
        sections_->addWidget(card, at / sectionColumns, at % sectionColumns);
        ++at;
    }
    Q_EMIT checkupShown();
}

void HealthPage::act(const CheckupAction& action) {
    auto target = action.target.value_or("");
    switch (action.kind) {
    case CheckupAction::Kind::openSettings: {
        auto opener = bridge_.live().opener;
        if (!opener) return;
        bridge_.inBackground(
            [opener, target](CancelFlag&) -> std::optional<std::string> {
                auto opened = opener->openSettings(target);
                if (opened) return std::nullopt;
                return opened.error().reason;
            },
            [this](std::optional<std::string> refused) {
                checkupNote_->setText(refused ? QString::fromStdString(*refused) : QString());
                checkupNote_->setVisible(refused.has_value());
            });
        return;
    }
    case CheckupAction::Kind::quit: {
        auto found = std::ranges::find_if(
            busy_, [&](const ProcessRow& r) { return r.app.value_or(r.name) == target || r.name == target; });
        if (found == busy_.end()) {
            checkupNote_->setText(QString::fromStdString(target + " is not running now."));
            checkupNote_->show();
            return;
        }
        bridge_.withProduct([row = *found](LiteProduct& p) { p.askToQuit(row); });
        return;
    }
    case CheckupAction::Kind::reveal:
        bridge_.withProduct([target](LiteProduct& p) { p.showInFileManager(target); });
        return;
    case CheckupAction::Kind::turnOffLaunchAgent:
        bridge_.withProduct([target](LiteProduct& p) { p.askToTurnOff(target); });
        return;
    case CheckupAction::Kind::showActivity:
        scrollTo(Card::activity);
        return;
    case CheckupAction::Kind::restart:
        bridge_.withProduct([](LiteProduct& p) { p.askToRestart(); });
        return;
    case CheckupAction::Kind::cleanUp:
        Q_EMIT openPage("cleanUp");
        return;
    case CheckupAction::Kind::showStorage:
        Q_EMIT openPage("storage");
        return;
    case CheckupAction::Kind::balanceLoad:
        scrollTo(Card::balance);
        startBalance();
        return;
    }
}

// ---- placing

QWidget* HealthPage::card(Card which) const {
    switch (which) {
    case Card::score:
        return scoreCard_;
    case Card::gauges:
        return gaugesCard_;
    case Card::history:
        return historyCard_;
    case Card::activity:
        return activityCard_;
    case Card::balance:
        return balanceCard_;
    case Card::checkup:
        return checkupCard_;
    }
    return scoreCard_;
}

void HealthPage::scrollTo(Card which) {
    // Cards that just grew (new findings, a report) are placed once the layout has run: now, and
    // again after the scroll area has taken the content's new height.
    auto place = [this, which] {
        scroll_->widget()->layout()->activate();
        scroll_->verticalScrollBar()->setValue(card(which)->y() - 16);
    };
    place();
    QTimer::singleShot(0, this, place);
}

} // namespace vantle::app
