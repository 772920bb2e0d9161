#include "app/pages/storage/StoragePage.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/Symbols.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <atomic>
#include <chrono>
#include <set>

namespace vantle::app {

namespace {

constexpr const char* beforeSentence =
    "Vantle measures what takes up space in your home folder and what can be freed safely. Nothing is "
    "touched until you say yes.";
constexpr const char* pickSentence =
    "Tick the categories to delete, or the items to set aside; select a row to see what it holds and when "
    "it may be freed.";
constexpr std::string_view stoppedSentence =
    "The storage scan was stopped before it finished. Nothing was kept; the last report stays as it was.";

// Rows carry what they stand for: a category id, an item id or a held id.
constexpr int idRole = Qt::UserRole + 1;
constexpr int kindRole = Qt::UserRole + 2; // "category", "item", "held"
constexpr int detailRole = Qt::UserRole + 3;

QString bytes(std::int64_t n) {
    return qt(fileBytes(n));
}

QString progressText(const ScanProgress& p) {
    switch (p.phase) {
    case ScanProgress::Phase::finding:
        return "Finding what each category holds…";
    case ScanProgress::Phase::measuring:
        return QString("Measuring %1 %2: %3 entries, %4")
            .arg(QLocale().toString(qulonglong(p.items)), p.items == 1 ? "item" : "items",
                 QLocale().toString(qlonglong(p.entries)), bytes(p.bytes));
    case ScanProgress::Phase::done:
        return "Writing the report…";
    }
    return {};
}

QColor classColor(SafetyClass safety, const QPalette& palette) {
    switch (safety) {
    case SafetyClass::a:
        return palette.color(QPalette::Highlight);
    case SafetyClass::b:
        return palette.color(QPalette::Highlight).lighter(150);
    case SafetyClass::c:
        return palette.color(QPalette::Mid);
    case SafetyClass::d:
        return palette.color(QPalette::Dark);
    }
    return {};
}

QString className(SafetyClass safety) {
    switch (safety) {
    case SafetyClass::a:
        return "Can be deleted";
    case SafetyClass::b:
        return "Worth a look";
    case SafetyClass::c:
        return "Yours";
    case SafetyClass::d:
        return "The system's";
    }
    return {};
}

} // namespace

// The home's measured space as one bar, a segment a class, with a legend under it.
class ClassBar : public QWidget {
  public:
    using QWidget::QWidget;
    void setReport(const StorageReport& report) {
        sizes_.fill(0);
        for (const auto& c : report.categories)
            sizes_[std::size_t(c.safety)] += c.bytes;
        update();
    }
    QSize sizeHint() const override { return {600, 44}; }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        std::int64_t total = 0;
        for (auto s : sizes_)
            total += s;
        QRectF bar(0, 0, width(), 12);
        QPainterPath clip;
        clip.addRoundedRect(bar, 6, 6);
        p.setClipPath(clip);
        p.fillRect(bar, palette().color(QPalette::AlternateBase));
        double x = 0;
        for (std::size_t i = 0; i < sizes_.size() && total > 0; ++i) {
            double w = bar.width() * double(sizes_[i]) / double(total);
            p.fillRect(QRectF(x, 0, w, 12), classColor(SafetyClass(i), palette()));
            x += w;
        }
        p.setClipping(false);
        // The legend names only the classes the scan met.
        int lx = 0;
        auto metrics = fontMetrics();
        for (std::size_t i = 0; i < sizes_.size(); ++i) {
            if (sizes_[i] == 0) continue;
            p.setBrush(classColor(SafetyClass(i), palette()));
            p.setPen(Qt::NoPen);
            p.drawEllipse(QRectF(lx, 24, 10, 10));
            auto text = className(SafetyClass(i)) + "  " + bytes(sizes_[i]);
            p.setPen(palette().color(QPalette::WindowText));
            p.drawText(QPointF(lx + 16, 24 + metrics.ascent() - 2), text);
            lx += 16 + metrics.horizontalAdvance(text) + 24;
        }
    }

  private:
    std::array<std::int64_t, 4> sizes_{};
};

StoragePage::StoragePage(ProductBridge& bridge, QWidget* parent) : Page(parent), bridge_(bridge) {
    summary_ = "What takes up space in your home folder, and what can be freed safely";
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(24, 16, 24, 16);
    states_ = new QStackedWidget;
    outer->addWidget(states_);

    // Before a scan: one sentence and Scan.
    auto* before = new QWidget;
    auto* beforeColumn = new QVBoxLayout(before);
    beforeColumn->addStretch(1);
    auto* icon = new QLabel;
    icon->setPixmap(symbolIcon("drive-harddisk").pixmap(64, 64));
    icon->setAlignment(Qt::AlignHCenter);
    beforeText_ = new QLabel(beforeSentence);
    beforeText_->setObjectName("beforeText");
    beforeText_->setWordWrap(true);
    beforeText_->setAlignment(Qt::AlignHCenter);
    beforeText_->setFixedWidth(520);
    scanButton_ = new QPushButton("Scan");
    scanButton_->setObjectName("scan");
    scanButton_->setDefault(true);
    scanButton_->setMinimumWidth(140);
    connect(scanButton_, &QPushButton::clicked, this, &StoragePage::scan);
    beforeColumn->addWidget(icon);
    beforeColumn->addSpacing(12);
    beforeColumn->addWidget(beforeText_, 0, Qt::AlignHCenter);
    beforeColumn->addSpacing(16);
    beforeColumn->addWidget(scanButton_, 0, Qt::AlignHCenter);
    beforeColumn->addStretch(2);
    states_->addWidget(before);

    // During a scan: what is being read, and Cancel.
    auto* scanning = new QWidget;
    auto* scanColumn = new QVBoxLayout(scanning);
    scanColumn->addStretch(1);
    progressText_ = new QLabel("Finding what each category holds…");
    progressText_->setObjectName("progressText");
    progressText_->setAlignment(Qt::AlignHCenter);
    progress_ = new QProgressBar;
    progress_->setRange(0, 0);
    progress_->setTextVisible(false);
    progress_->setFixedWidth(320);
    progress_->setAccessibleName("Scanning");
    auto* cancel = new QPushButton("Cancel");
    cancel->setObjectName("cancelScan");
    connect(cancel, &QPushButton::clicked, this, &StoragePage::cancelScan);
    scanColumn->addWidget(progressText_);
    scanColumn->addSpacing(12);
    scanColumn->addWidget(progress_, 0, Qt::AlignHCenter);
    scanColumn->addSpacing(12);
    scanColumn->addWidget(cancel, 0, Qt::AlignHCenter);
    scanColumn->addStretch(2);
    states_->addWidget(scanning);

    // After: the figure, the bar by class, the categories, the details of the selected row.
    auto* report = new QWidget;
    auto* column = new QVBoxLayout(report);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(8);
    figure_ = new QLabel;
    figure_->setObjectName("figure");
    auto font = figure_->font();
    font.setPointSizeF(font.pointSizeF() + 10);
    font.setBold(true);
    figure_->setFont(font);
    figureLine_ = new QLabel;
    figureLine_->setWordWrap(true);
    bar_ = new ClassBar;
    bar_->setMinimumHeight(40);
    tree_ = new QTreeWidget;
    tree_->setObjectName("categories");
    tree_->setAccessibleName("Categories");
    tree_->setColumnCount(3);
    tree_->setHeaderLabels({"Category", "Size", "What freeing costs"});
    tree_->header()->setStretchLastSection(true);
    tree_->header()->setSectionResizeMode(0, QHeaderView::Interactive);
    tree_->setColumnWidth(0, 420);
    tree_->setColumnWidth(1, 100);
    tree_->setUniformRowHeights(true);
    tree_->setAlternatingRowColors(false);
    tree_->setTextElideMode(Qt::ElideMiddle);
    connect(tree_, &QTreeWidget::itemChanged, this, [this] { ticksChanged(); });
    connect(tree_, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        details_->setText(item ? item->data(0, detailRole).toString() : QString(pickSentence));
    });
    details_ = new QLabel;
    details_->setObjectName("details");
    details_->setWordWrap(true);
    details_->setMinimumHeight(details_->fontMetrics().lineSpacing() * 3);
    details_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    details_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    details_->setForegroundRole(QPalette::PlaceholderText);
    auto* buttons = new QHBoxLayout;
    auto* again = new QPushButton(symbolIcon("view-refresh"), "Scan Again");
    again->setObjectName("scanAgain");
    connect(again, &QPushButton::clicked, this, &StoragePage::scan);
    putBack_ = new QPushButton(symbolIcon("edit-undo"), "Put Back");
    putBack_->setObjectName("putBack");
    connect(putBack_, &QPushButton::clicked, this, &StoragePage::putBackTicked);
    setAside_ = new QPushButton("Set Aside…");
    setAside_->setObjectName("setAside");
    connect(setAside_, &QPushButton::clicked, this, &StoragePage::setAsideTicked);
    clean_ = new QPushButton(symbolIcon("user-trash"), "Clean…");
    clean_->setObjectName("clean");
    clean_->setDefault(true);
    connect(clean_, &QPushButton::clicked, this, &StoragePage::cleanTicked);
    buttons->addWidget(again);
    buttons->addStretch(1);
    buttons->addWidget(putBack_);
    buttons->addWidget(setAside_);
    buttons->addWidget(clean_);
    column->addWidget(figure_);
    column->addWidget(figureLine_);
    column->addSpacing(4);
    column->addWidget(bar_);
    column->addWidget(tree_, 1);
    column->addWidget(details_);
    column->addLayout(buttons);
    states_->addWidget(report);

    // After a clean or a put back is answered, the figures are measured again.
    connect(&bridge_, &ProductBridge::changed, this, [this] {
        if (rescanAfterAnswer_ && !bridge_.question()) {
            rescanAfterAnswer_ = false;
            scan();
        }
    });
    connect(&bridge_, &ProductBridge::storageUndone, this, [this] {
        if (state_ == State::report) scan();
    });
    enter(State::before);
}

void StoragePage::enter(State state) {
    state_ = state;
    states_->setCurrentIndex(int(state));
}

QString StoragePage::stateText() const {
    switch (state_) {
    case State::before:
        return beforeText_->text();
    case State::scanning:
        return progressText_->text();
    case State::report:
        return figure_->text();
    }
    return {};
}

void StoragePage::shown() {
    if (loadedKept_) return;
    loadedKept_ = true;
    // The last report is shown at once, with its scan kept for planning while it is recent enough.
    auto support = bridge_.live().support;
    auto shelf = bridge_.live().holdingShelf;
    bridge_.inBackground(
        [support, shelf](CancelFlag&) {
            return std::pair{loadKeptStorageReport(support), shelf->heldItems()};
        },
        [this](std::pair<std::expected<KeptStorageReport, std::string>, std::vector<HeldItem>> kept) {
            if (state_ != State::before || !kept.first) return;
            scan_ = std::move(kept.first->scan);
            report_ = std::move(kept.first->report);
            held_ = std::move(kept.second);
            showReport();
        });
}

void StoragePage::scanIfNone() {
    if (state_ == State::before) scan();
}

void StoragePage::scan() {
    if (state_ == State::scanning) return;
    enter(State::scanning);
    progressText_->setText("Finding what each category holds…");
    auto live = &bridge_.live();
    auto scanner = live->storageScanner;
    auto shelf = live->holdingShelf;
    auto home = live->home;
    auto support = live->support;
    auto holding = live->holding;
    struct Outcome {
        std::expected<StorageScan, StorageScanError> scan;
        std::optional<StorageReport> report;
        std::vector<HeldItem> held;
    };
    QPointer<StoragePage> self(this);
    cancel_ = bridge_.inBackground(
        [=, this](CancelFlag& cancel) {
            // Progress is posted at most ten times a second, whatever the scanner's pace.
            auto last = std::make_shared<std::chrono::steady_clock::time_point>();
            auto result = scanner->scan(home, ScanDepth::rules, std::nullopt, false, holding, cancel,
                                        [&](const ScanProgress& p) {
                                            auto now = std::chrono::steady_clock::now();
                                            if (now - *last < std::chrono::milliseconds(100)) return;
                                            *last = now;
                                            auto text = progressText(p);
                                            QMetaObject::invokeMethod(
                                                this,
                                                [this, text] {
                                                    progressText_->setText(text);
                                                    Q_EMIT scanProgress(text);
                                                },
                                                Qt::QueuedConnection);
                                        });
            Outcome out{std::move(result), std::nullopt, {}};
            if (out.scan && out.scan->complete) {
                auto report = makeStorageReport(*out.scan, scanner->table(),
                                                StorageAbilities{true, true, true}, systemNow());
                (void)keepStorageReport(support, report, *out.scan);
                out.report = std::move(report);
            }
            out.held = shelf->heldItems();
            return out;
        },
        [this](Outcome out) {
            cancel_.reset();
            if (!out.scan) {
                beforeText_->setText(qt(out.scan.error().message));
                enter(State::before);
                return;
            }
            if (!out.scan->complete) {
                beforeText_->setText(qt(std::string(stoppedSentence)));
                enter(report_ ? State::report : State::before);
                return;
            }
            scan_ = std::move(*out.scan);
            report_ = std::move(out.report);
            held_ = std::move(out.held);
            showReport();
        });
}

void StoragePage::cancelScan() {
    if (cancel_) cancel_->cancel();
    progressText_->setText("Stopping…");
}

void StoragePage::showReport() {
    const auto& r = *report_;
    figure_->setText(QString("%1 can be freed").arg(bytes(r.reclaimableBytes)));
    QStringList line;
    line << QString("%1 can be deleted now, a whole category at a time").arg(bytes(r.freeableNowBytes));
    if (r.chosenItemByItem > 0)
        line << QString("%1 %2 can be set aside one by one")
                    .arg(r.chosenItemByItem)
                    .arg(r.chosenItemByItem == 1 ? "item" : "items");
    auto measured = QDateTime::fromSecsSinceEpoch(
        std::chrono::duration_cast<std::chrono::seconds>(r.measuredAt.time_since_epoch()).count());
    line << "measured " + QLocale().toString(measured, QLocale::ShortFormat);
    figureLine_->setText(line.join(" · ") + ".");
    bar_->setReport(r);

    QSignalBlocker quiet(tree_);
    tree_->clear();
    auto boldFont = tree_->font();
    boldFont.setBold(true);
    for (auto safety : {SafetyClass::a, SafetyClass::b, SafetyClass::c, SafetyClass::d}) {
        QTreeWidgetItem* head = nullptr;
        std::int64_t classBytes = 0;
        for (const auto& c : r.categories) {
            if (c.safety != safety) continue;
            if (!head) {
                head = new QTreeWidgetItem(tree_, {className(safety)});
                head->setFont(0, boldFont);
                head->setFlags(Qt::ItemIsEnabled);
                head->setData(0, detailRole, qt(std::string(heading(safety))));
                head->setFirstColumnSpanned(false);
            }
            classBytes += c.bytes;
            const Rule* rule = bridge_.live().storageScanner->table().find(c.id);
            auto* row = new QTreeWidgetItem(head, {qt(c.title), bytes(c.bytes)});
            row->setData(0, idRole, qt(c.id));
            row->setData(0, kindRole, "category");
            row->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
            QString cost;
            if (c.method == FreeMethod::ownersTool && c.instruction)
                cost = qt(*c.instruction);
            else if (c.systemFrees && c.cost)
                cost = qt(*c.cost);
            else if (c.method == FreeMethod::never)
                cost = "Never touched";
            else if (c.method == FreeMethod::show)
                cost = "Shown only";
            row->setText(2, cost);
            row->setToolTip(2, cost);
            QStringList detail;
            if (rule) detail << qt(rule->explanation);
            if (c.systemFrees)
                detail << (c.method == FreeMethod::hold ? "Set aside only when " : "Freed only when ") +
                              qt(c.precondition) + ".";
            if (c.unreadableItems > 0) detail << qt(std::string(StorageReport::partlyRead));
            row->setData(0, detailRole, detail.join("\n"));
            bool removable = c.safety == SafetyClass::a && c.systemFrees && c.method == FreeMethod::remove;
            if (removable) {
                row->setFlags(row->flags() | Qt::ItemIsUserCheckable);
                row->setCheckState(0, Qt::Unchecked);
            } else {
                // In place of a tick, how it is freed: by its own tool, item by item, or not at all.
                row->setIcon(0, symbolIcon(c.method == FreeMethod::ownersTool ? "utilities-terminal"
                                           : c.method == FreeMethod::hold     ? "folder-download"
                                                                              : "changes-prevent"));
            }
            bool holdable = c.systemFrees && c.method == FreeMethod::hold;
            for (const auto& item : c.items) {
                auto name = std::filesystem::path(item.path).filename().string();
                auto* child = new QTreeWidgetItem(row, {qt(name), bytes(item.bytes)});
                child->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
                child->setToolTip(0, qt(item.path));
                child->setData(0, idRole, qt(item.id));
                child->setData(0, kindRole, "item");
                child->setData(0, detailRole, qt(item.path));
                if (holdable) {
                    child->setFlags(child->flags() | Qt::ItemIsUserCheckable);
                    child->setCheckState(0, Qt::Unchecked);
                }
            }
            if (holdable) row->setExpanded(true);
        }
        if (head) {
            head->setText(1, bytes(classBytes));
            head->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
            head->setExpanded(true);
        }
    }
    if (!held_.empty()) {
        auto* head = new QTreeWidgetItem(tree_, {"Set aside earlier"});
        head->setFont(0, boldFont);
        head->setFlags(Qt::ItemIsEnabled);
        head->setData(0, detailRole, qt(std::string(StorageReport::heldHeading)) + ".");
        std::int64_t total = 0;
        for (const auto& held : held_) {
            total += held.bytes;
            auto* row =
                new QTreeWidgetItem(head, {qt(held.name), bytes(held.bytes), "From " + qt(held.original)});
            row->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
            row->setToolTip(2, qt(held.original));
            row->setData(0, idRole, qt(held.id));
            row->setData(0, kindRole, "held");
            row->setData(0, detailRole, qt(held.title) + ": set aside from " + qt(held.original) + ".");
            row->setFlags(row->flags() | Qt::ItemIsUserCheckable);
            row->setCheckState(0, Qt::Unchecked);
        }
        head->setText(1, bytes(total));
        head->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
        head->setExpanded(true);
    }
    if (r.categories.empty() && held_.empty()) {
        auto* none = new QTreeWidgetItem(tree_, {"Nothing here takes up space that Vantle could free."});
        none->setFlags(Qt::ItemIsEnabled);
        none->setFirstColumnSpanned(true);
    }
    details_->setText(pickSentence);
    enter(State::report);
    ticksChanged();
    Q_EMIT reportShown();
}

std::vector<std::string> StoragePage::tickedIds(bool heldItems, bool categories) const {
    std::vector<std::string> ids;
    for (QTreeWidgetItemIterator it(tree_); *it; ++it) {
        auto kind = (*it)->data(0, kindRole).toString();
        if ((*it)->checkState(0) != Qt::Checked) continue;
        if ((heldItems && kind == "held") || (categories && kind == "category") ||
            (!heldItems && !categories && kind == "item"))
            ids.push_back(utf8((*it)->data(0, idRole).toString()));
    }
    return ids;
}

bool StoragePage::tick(const QString& id, bool on) {
    for (QTreeWidgetItemIterator it(tree_); *it; ++it)
        if ((*it)->data(0, idRole).toString() == id && ((*it)->flags() & Qt::ItemIsUserCheckable)) {
            (*it)->setCheckState(0, on ? Qt::Checked : Qt::Unchecked);
            return true;
        }
    return false;
}

void StoragePage::ticksChanged() {
    auto categories = tickedIds(false, true).size();
    auto items = tickedIds(false, false).size();
    auto held = tickedIds(true, false).size();
    clean_->setEnabled(categories > 0);
    clean_->setText(categories > 1 ? QString("Clean %1 Categories…").arg(categories) : QString("Clean…"));
    setAside_->setEnabled(items > 0);
    setAside_->setVisible(report_ && report_->chosenItemByItem > 0);
    putBack_->setEnabled(held > 0);
    putBack_->setVisible(!held_.empty());
}

void StoragePage::planned(std::expected<CleanPlan, CleanRefusal> plan) {
    if (!plan) {
        details_->setText(qt(plan.error().message));
        return;
    }
    if (plan->items.empty()) {
        QStringList why;
        for (const auto& left : plan->leftAlone)
            why << qt(left.name + ": " + left.reason);
        details_->setText("Nothing can be freed there right now. " + why.join(" "));
        return;
    }
    rescanAfterAnswer_ = true;
    bridge_.askToClean(std::move(*plan));
}

void StoragePage::cleanTicked() {
    if (!scan_) return;
    auto ids = tickedIds(false, true);
    if (ids.empty()) return;
    auto cleaner = bridge_.live().storageCleaner;
    planFromRecentScan(ids,
                       [cleaner, ids](const StorageScan& scan) { return cleaner->planRemoval(scan, ids); });
}

void StoragePage::setAsideTicked() {
    if (!scan_) return;
    auto ids = tickedIds(false, false);
    if (ids.empty()) return;
    auto cleaner = bridge_.live().storageCleaner;
    auto shelf = bridge_.live().holdingShelf;
    planFromRecentScan(ids, [cleaner, shelf, ids](const StorageScan& scan) {
        return cleaner->planSetAside(scan, ids, *shelf);
    });
}

// A plan is made only from a recent scan: when the one shown is too old, the rules the ticked rows
// belong to (an item's id is "{rule}:{item}") are measured again first, those only.
void StoragePage::planFromRecentScan(const std::vector<std::string>& ids, PlanFrom plan) {
    std::set<std::string> rules;
    for (const auto& id : ids)
        rules.insert(id.substr(0, id.find(':')));
    auto scanner = bridge_.live().storageScanner;
    auto home = bridge_.live().home;
    auto holding = bridge_.live().holding;
    bridge_.inBackground(
        [=, scan = *scan_](CancelFlag& cancel) -> std::expected<CleanPlan, CleanRefusal> {
            auto first = plan(scan);
            if (first || first.error().kind != CleanRefusal::Kind::staleScan) return first;
            auto fresh = scanner->scan(home, ScanDepth::rules, rules, false, holding, cancel);
            if (!fresh || !fresh->complete) return first;
            return plan(*fresh);
        },
        [this](std::expected<CleanPlan, CleanRefusal> planned) { this->planned(std::move(planned)); });
}

void StoragePage::putBackTicked() {
    auto ids = tickedIds(true, false);
    if (ids.empty()) return;
    rescanAfterAnswer_ = true;
    bridge_.withProduct([ids](LiteProduct& p) { p.putBackHeld(ids); });
}

} // namespace vantle::app
