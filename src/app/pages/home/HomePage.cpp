#include "app/pages/home/HomePage.h"

#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/Library.h"
#include "VantleLibrary/SearchParser.h"
#include "VantleLibrary/Sources.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/FlowLayout.h"
#include "app/design/Symbols.h"
#include "app/pages/home/FileListModel.h"
#include "app/pages/home/Thumbnails.h"

#include <QButtonGroup>
#include <QComboBox>
#include <QFontMetrics>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QProgressBar>
#include <QPushButton>
#include <QShortcut>
#include <QStackedWidget>
#include <QTableView>
#include <QTimer>
#include <QToolButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <chrono>

namespace vantle::app {

namespace {

constexpr int listLimit = 5000;
constexpr int pathRole = Qt::UserRole + 1;
constexpr const char* searchPlaceholder = "Search your files in plain words";

// `text` on at most two lines of `width` pixels, broken between words, the second cut short with an
// ellipsis if it must: a card's line is read whole far more often than it is hovered for a tooltip.
QString twoLines(const QFontMetrics& metrics, const QString& text, int width) {
    if (metrics.horizontalAdvance(text) <= width) return text;
    qsizetype breakAt = -1;
    for (auto space = text.indexOf(' '); space > 0; space = text.indexOf(' ', space + 1)) {
        if (metrics.horizontalAdvance(text.left(space)) > width) break;
        breakAt = space;
    }
    if (breakAt < 0) return metrics.elidedText(text, Qt::ElideRight, width);
    return text.left(breakAt) + "\n" + metrics.elidedText(text.mid(breakAt + 1), Qt::ElideRight, width);
}

QString countOf(std::int64_t n, const char* one, const char* many) {
    return QLocale().toString(qlonglong(n)) + " " + (n == 1 ? one : many);
}

QString listIcon(SmartList list) {
    switch (list) {
    case SmartList::recents:
        return "document-open-recent";
    case SmartList::largeFiles:
        return "drive-harddisk";
    case SmartList::screenshots:
    case SmartList::oldScreenshots:
        return "image-x-generic";
    case SmartList::duplicates:
        return "edit-copy";
    case SmartList::forgottenDownloads:
        return "folder-download";
    case SmartList::oldInstallers:
        return "package-x-generic";
    case SmartList::bigOldVideos:
        return "video-x-generic";
    case SmartList::unusedApps:
        return "application-x-executable";
    }
    return "folder";
}

// A card of the row at the top: the list's title, its count and size, and its line.
QPushButton* makeCard(const CleanUpCard& card) {
    auto* button = new QPushButton;
    button->setObjectName(qt(std::string(nameOf(card.list))));
    button->setCheckable(false);
    button->setFixedSize(184, 76);
    button->setAccessibleName(qt(std::string(vantle::title(card.list))));
    button->setStyleSheet(
        "QPushButton { text-align: left; border: 1px solid palette(mid); border-radius: 8px; "
        "background: palette(base); padding: 8px 12px; }"
        "QPushButton:hover { border-color: palette(highlight); }");
    auto* column = new QVBoxLayout(button);
    column->setContentsMargins(10, 6, 10, 6);
    column->setSpacing(1);
    auto* top = new QHBoxLayout;
    auto* icon = new QLabel;
    icon->setPixmap(symbolIcon(listIcon(card.list).toStdString()).pixmap(16, 16));
    auto* name = new QLabel(qt(std::string(vantle::title(card.list))));
    auto font = name->font();
    font.setBold(true);
    name->setFont(font);
    top->addWidget(icon);
    top->addWidget(name, 1);
    auto* figures = new QLabel(countOf(card.count, "file", "files") + (card.isPartial ? "+" : "") + " · " +
                               qt(fileBytes(card.bytes)));
    auto* detail = new QLabel;
    detail->setForegroundRole(QPalette::PlaceholderText);
    auto small = detail->font();
    small.setPointSizeF(small.pointSizeF() - 1);
    detail->setFont(small);
    detail->setText(twoLines(detail->fontMetrics(), qt(card.detail), 156));
    detail->setToolTip(qt(card.detail));
    column->addLayout(top);
    column->addWidget(figures);
    column->addWidget(detail);
    for (auto* label : button->findChildren<QLabel*>())
        label->setAttribute(Qt::WA_TransparentForMouseEvents);
    return button;
}

} // namespace

HomePage::HomePage(ProductBridge& bridge, QWidget* parent) : Page(parent), bridge_(bridge) {
    summary_ = "Your files by kind, where they came from, and what could go";
    const auto home = bridge_.live().home;
    thumbnails_ = new Thumbnails(bridge_, home / ".cache" / "thumbnails", this);
    model_ = new FileListModel(*thumbnails_, home, this);

    searchField_ = new QLineEdit;
    searchField_->setObjectName("search");
    searchField_->setPlaceholderText(searchPlaceholder);
    searchField_->setAccessibleName("Search files");
    searchField_->setClearButtonEnabled(true);
    searchField_->addAction(symbolIcon("edit-find"), QLineEdit::LeadingPosition);
    searchField_->setFixedWidth(320);
    searchTimer_ = new QTimer(this);
    searchTimer_->setSingleShot(true);
    searchTimer_->setInterval(250);
    connect(searchField_, &QLineEdit::textEdited, searchTimer_, qOverload<>(&QTimer::start));
    connect(searchField_, &QLineEdit::returnPressed, this, [this] { search(searchField_->text()); });
    connect(searchTimer_, &QTimer::timeout, this, [this] { search(searchField_->text()); });

    auto* outer = new QHBoxLayout(this);
    outer->setContentsMargins(24, 12, 0, 12);
    outer->setSpacing(0);
    auto* column = new QVBoxLayout;
    column->setSpacing(8);
    outer->addLayout(column, 1);

    cardsHolder_ = new QWidget;
    cards_ = new FlowLayout(cardsHolder_, 8);
    column->addWidget(cardsHolder_);

    chipsRow_ = new QWidget;
    chipsRow_->setObjectName("chips");
    chipsRow_->setLayout(new FlowLayout(nullptr, 6));
    chipsRow_->hide();
    column->addWidget(chipsRow_);

    // The view switch, the kind filter and the page's action.
    auto* bar = new QHBoxLayout;
    viewButtons_ = new QButtonGroup(this);
    int id = 0;
    for (auto [text, name] : {std::pair{"Files", "filesView"}, std::pair{"Duplicates", "duplicatesView"},
                              std::pair{"Sources", "sourcesView"}}) {
        auto* button = new QToolButton;
        button->setText(text);
        button->setObjectName(name);
        button->setCheckable(true);
        button->setAutoRaise(true);
        button->setToolButtonStyle(Qt::ToolButtonTextOnly);
        viewButtons_->addButton(button, id++);
        bar->addWidget(button);
    }
    viewButtons_->button(0)->setChecked(true);
    connect(viewButtons_, &QButtonGroup::idClicked, this, [this](int which) { showView(View(which)); });
    bar->addSpacing(16);
    kinds_ = new QComboBox;
    kinds_->setObjectName("kinds");
    kinds_->setAccessibleName("Kind");
    kinds_->addItem("All kinds", -1);
    for (auto kind : allCases<LibraryKind>())
        kinds_->addItem(qt(std::string(vantle::title(kind))), int(kind));
    connect(kinds_, &QComboBox::activated, this, [this](int index) {
        auto value = kinds_->itemData(index).toInt();
        showKind(value < 0 ? std::nullopt : std::optional(LibraryKind(value)));
    });
    bar->addWidget(kinds_);
    listTitle_ = new QLabel;
    listTitle_->setObjectName("listTitle");
    listTitle_->setForegroundRole(QPalette::PlaceholderText);
    // A count with a note behind it ("still being read…") wraps in the room the bar leaves rather
    // than widening the whole window past the screen.
    listTitle_->setWordWrap(true);
    listTitle_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    bar->addSpacing(8);
    bar->addWidget(listTitle_, 1);
    trash_ = new QPushButton(symbolIcon("user-trash"), "Move to Trash…");
    trash_->setObjectName("moveToTrash");
    trash_->setEnabled(false);
    connect(trash_, &QPushButton::clicked, this, &HomePage::trashSelection);
    bar->addWidget(trash_);
    bar->addSpacing(16);
    column->addLayout(bar);

    views_ = new QStackedWidget;
    column->addWidget(views_, 1);

    // Files: a sortable list, or a grid of thumbnails for images.
    fileViews_ = new QStackedWidget;
    table_ = new QTableView;
    table_->setObjectName("fileTable");
    table_->setModel(model_);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    table_->setSortingEnabled(true);
    table_->sortByColumn(FileListModel::modified, Qt::DescendingOrder);
    table_->verticalHeader()->hide();
    table_->verticalHeader()->setDefaultSectionSize(26);
    table_->setShowGrid(false);
    table_->setIconSize(QSize(20, 20));
    table_->setWordWrap(false);
    table_->setTextElideMode(Qt::ElideMiddle);
    table_->horizontalHeader()->setSectionResizeMode(FileListModel::name, QHeaderView::Stretch);
    table_->horizontalHeader()->setHighlightSections(false);
    table_->setColumnWidth(FileListModel::kind, 100);
    table_->setColumnWidth(FileListModel::size, 90);
    table_->setColumnWidth(FileListModel::modified, 150);
    table_->setColumnWidth(FileListModel::folder, 200);
    grid_ = new QListView;
    grid_->setObjectName("imageGrid");
    grid_->setModel(model_);
    grid_->setViewMode(QListView::IconMode);
    grid_->setIconSize(QSize(Thumbnails::side, Thumbnails::side));
    grid_->setGridSize(QSize(Thumbnails::side + 32, Thumbnails::side + 40));
    grid_->setResizeMode(QListView::Adjust);
    grid_->setMovement(QListView::Static);
    grid_->setUniformItemSizes(true);
    grid_->setWordWrap(false);
    grid_->setTextElideMode(Qt::ElideMiddle);
    grid_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    empty_ = new QLabel;
    empty_->setObjectName("emptyFiles");
    empty_->setAlignment(Qt::AlignCenter);
    empty_->setWordWrap(true);
    empty_->setForegroundRole(QPalette::PlaceholderText);
    fileViews_->addWidget(table_);
    fileViews_->addWidget(grid_);
    fileViews_->addWidget(empty_);
    views_->addWidget(fileViews_);
    for (auto* view : {static_cast<QAbstractItemView*>(table_), static_cast<QAbstractItemView*>(grid_)})
        connect(view->selectionModel(), &QItemSelectionModel::selectionChanged, this,
                &HomePage::selectionChanged);
    connect(model_, &QAbstractItemModel::modelReset, this, &HomePage::selectionChanged);

    // Duplicates: each group opens to its copies; a ticked copy goes to the Trash, the unticked one stays.
    auto* dupes = new QWidget;
    auto* dupesColumn = new QVBoxLayout(dupes);
    dupesColumn->setContentsMargins(0, 0, 0, 0);
    auto* dupesBar = new QHBoxLayout;
    duplicatesText_ = new QLabel("Vantle compares the contents of files that share a size. Nothing is "
                                 "moved until you choose the copies and say yes.");
    duplicatesText_->setObjectName("duplicatesText");
    duplicatesText_->setWordWrap(true);
    findDuplicates_ = new QPushButton(symbolIcon("edit-find"), "Find Duplicates");
    findDuplicates_->setObjectName("findDuplicates");
    connect(findDuplicates_, &QPushButton::clicked, this, &HomePage::findDuplicates);
    duplicatesProgress_ = new QProgressBar;
    duplicatesProgress_->setFixedWidth(160);
    duplicatesProgress_->setTextVisible(false);
    duplicatesProgress_->hide();
    trashCopies_ = new QPushButton(symbolIcon("user-trash"), "Move Ticked Copies to Trash…");
    trashCopies_->setObjectName("trashCopies");
    trashCopies_->setEnabled(false);
    connect(trashCopies_, &QPushButton::clicked, this, &HomePage::trashSelection);
    dupesBar->addWidget(duplicatesText_, 1);
    dupesBar->addWidget(duplicatesProgress_);
    dupesBar->addWidget(findDuplicates_);
    dupesBar->addWidget(trashCopies_);
    dupesBar->addSpacing(16);
    duplicates_ = new QTreeWidget;
    duplicates_->setObjectName("duplicates");
    duplicates_->setHeaderLabels({"Copies", "Size", "Modified"});
    duplicates_->header()->setStretchLastSection(false);
    duplicates_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    duplicates_->setColumnWidth(1, 90);
    duplicates_->setColumnWidth(2, 150);
    duplicates_->setTextElideMode(Qt::ElideMiddle);
    connect(duplicates_, &QTreeWidget::itemChanged, this, &HomePage::duplicateTicked);
    dupesColumn->addLayout(dupesBar);
    dupesColumn->addWidget(duplicates_, 1);
    views_->addWidget(dupes);

    // Sources: where files came from, a family a row, opening to a few of its files.
    sources_ = new QTreeWidget;
    sources_->setObjectName("sources");
    sources_->setHeaderLabels({"Came from", "Files", "Size"});
    sources_->header()->setStretchLastSection(false);
    sources_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    sources_->setColumnWidth(1, 90);
    sources_->setColumnWidth(2, 90);
    sources_->setTextElideMode(Qt::ElideMiddle);
    views_->addWidget(sources_);

    // The inspector of the selected file.
    inspector_ = new QWidget;
    inspector_->setObjectName("inspector");
    inspector_->setFixedWidth(300);
    auto* facts = new QVBoxLayout(inspector_);
    facts->setContentsMargins(16, 0, 16, 0);
    inspectorIcon_ = new QLabel;
    inspectorIcon_->setFixedHeight(Thumbnails::side + 8);
    inspectorIcon_->setAlignment(Qt::AlignCenter);
    inspectorName_ = new QLabel;
    inspectorName_->setObjectName("inspectorName");
    inspectorName_->setWordWrap(true);
    auto bold = inspectorName_->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() + 1);
    inspectorName_->setFont(bold);
    inspectorName_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    inspectorFacts_ = new QLabel;
    inspectorFacts_->setWordWrap(true);
    inspectorFacts_->setTextFormat(Qt::RichText);
    inspectorFacts_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    inspectorFacts_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    open_ = new QPushButton(symbolIcon("document-open"), "Open");
    reveal_ = new QPushButton(symbolIcon("system-file-manager"), "Show in Folder");
    connect(open_, &QPushButton::clicked, this, [this] {
        auto rows = table_->selectionModel()->selectedRows();
        const auto* item = rows.isEmpty() ? nullptr : model_->itemAt(rows.first().row());
        if (!item) return;
        auto opener = bridge_.live().opener;
        auto path = item->path;
        bridge_.inBackground(
            [opener, path](CancelFlag&) -> std::string {
                auto opened = opener->openFile(path);
                return opened ? std::string() : opened.error().reason;
            },
            [this](std::string refusal) {
                if (!refusal.empty()) inspectorFacts_->setToolTip(qt(refusal));
                if (!refusal.empty()) listTitle_->setText(qt(refusal));
            });
    });
    connect(reveal_, &QPushButton::clicked, this, [this] {
        auto name = inspectorName_->property("path").toString();
        if (name.isEmpty()) return;
        bridge_.withProduct([path = utf8(name)](LiteProduct& p) { p.showInFileManager(path); });
    });
    auto* actions = new QHBoxLayout;
    actions->addWidget(open_);
    actions->addWidget(reveal_);
    facts->addWidget(inspectorIcon_);
    facts->addWidget(inspectorName_);
    facts->addWidget(inspectorFacts_, 1);
    facts->addLayout(actions);
    outer->addWidget(inspector_);
    selectionChanged();

    auto* del = new QShortcut(QKeySequence::Delete, this);
    connect(del, &QShortcut::activated, this, &HomePage::trashSelection);

    changeTimer_ = new QTimer(this);
    changeTimer_->setInterval(1000);
    connect(changeTimer_, &QTimer::timeout, this, &HomePage::pollChanges);
    connect(&bridge_, &ProductBridge::changed, this, &HomePage::productChanged);
    updateSummary();
}

HomePage::~HomePage() = default;

QWidget* HomePage::headerTool() {
    return searchField_;
}

void HomePage::shown() {
    if (started_) return;
    started_ = true;
    changes_ = bridge_.live().library->changes();
    changeTimer_->start();
    read(false);
}

void HomePage::read(bool again) {
    if (reading_) {
        readAgain_ = readAgain_ || again;
        return;
    }
    reading_ = true;
    updateSummary();
    auto library = bridge_.live().library;
    bridge_.inBackground(
        [library, this](CancelFlag& cancel) {
            auto last = std::chrono::steady_clock::time_point{};
            return library->read(cancel, [&](const DiskWalk::Progress& p) {
                auto now = std::chrono::steady_clock::now();
                if (now - last < std::chrono::milliseconds(150)) return;
                last = now;
                auto entries = p.entries;
                QMetaObject::invokeMethod(
                    this,
                    [this, entries] {
                        summary_ =
                            qt(fillIn("Reading your files… {count} items",
                                      {{"count", QLocale().toString(qlonglong(entries)).toStdString()}}));
                        Q_EMIT summaryChanged();
                    },
                    Qt::QueuedConnection);
            });
        },
        [this](Catalog::Result result) { readDone(std::move(result)); });
}

void HomePage::countTotals() {
    auto snapshot = snapshot_;
    bridge_.inBackground(
        [snapshot](CancelFlag&) {
            std::pair<std::int64_t, std::int64_t> totals{0, 0};
            for (const auto& f : snapshot->facts)
                if (!f.isFolder || f.isPackage) {
                    ++totals.first;
                    totals.second += f.size;
                }
            return totals;
        },
        [this, snapshot](std::pair<std::int64_t, std::int64_t> totals) {
            if (snapshot != snapshot_) return;
            totals_ = totals;
            updateSummary();
        });
}

void HomePage::readDone(Catalog::Result result) {
    reading_ = false;
    if (result.snapshot) {
        snapshot_ = result.snapshot;
        readingFacts_ = result.reading;
    }
    updateSummary();
    if (!snapshot_) return;
    countTotals();
    // Cards, sources and the list are worked out from the new reading off the UI thread.
    auto library = bridge_.live().library;
    auto snapshot = snapshot_;
    auto reading = *readingFacts_;
    bridge_.inBackground(
        [library, snapshot, reading](CancelFlag&) {
            std::vector<CleanUpCard> cards;
            auto now = library->options().now();
            for (auto list : allCases<SmartList>())
                if (list != SmartList::duplicates)
                    cards.push_back(library->smartLists().card(list, *snapshot, reading, now, 0));
            return cards;
        },
        [this](std::vector<CleanUpCard> cards) { showCards(std::move(cards)); });
    refreshList();
    showSources();
    if (readAgain_) {
        readAgain_ = false;
        read(true);
    }
}

void HomePage::updateSummary() {
    if (!snapshot_) {
        summary_ =
            reading_ ? "Reading your files…" : "Your files by kind, where they came from, and what could go";
    } else if (!totals_) {
        summary_ = "Counting your files…";
    } else {
        // The title changes with the search, kind, folder or list shown; this line is always the whole
        // home's, so it says so rather than read as the count of what is listed.
        summary_ = countOf(totals_->first, "file", "files") + ", " + qt(fileBytes(totals_->second)) +
                   " in your home folder";
        if (readingFacts_)
            if (auto note = readingFacts_->note()) summary_ += " · " + qt(*note);
    }
    Q_EMIT summaryChanged();
}

void HomePage::showCards(std::vector<CleanUpCard> cards) {
    cards_->clear();
    for (const auto& card : cards) {
        if (card.count == 0) continue; // a list with nothing in it has nothing to offer
        auto* button = makeCard(card);
        auto list = card.list;
        connect(button, &QPushButton::clicked, this, [this, list] { showList(list); });
        cards_->addWidget(button);
    }
    cardsHolder_->updateGeometry();
}

void HomePage::showKind(std::optional<LibraryKind> kind) {
    kind_ = kind;
    kinds_->setCurrentIndex(kind ? kinds_->findData(int(*kind)) : 0);
    folder_.reset();
    list_.reset();
    forgetSearch();
    title_ = kind ? qt(std::string(vantle::title(*kind))) : QString("Home");
    showView(View::files);
    refreshList();
}

void HomePage::showFolder(const QString& folder) {
    folder_ = utf8(folder);
    list_.reset();
    forgetSearch();
    kind_.reset();
    kinds_->setCurrentIndex(0);
    title_ = qt(std::filesystem::path(*folder_).filename().string());
    showView(View::files);
    refreshList();
}

void HomePage::showList(SmartList list) {
    list_ = list;
    forgetSearch();
    title_ = qt(std::string(vantle::title(list)));
    if (list == SmartList::duplicates) return showView(View::duplicates);
    showView(View::files);
    refreshList();
}

// Leaving a search for a kind, a folder or a list: its words, its field and its chips go together.
void HomePage::forgetSearch() {
    searchTimer_->stop();
    words_.clear();
    chipTexts_.clear();
    showChips({});
    searchField_->clear();
}

void HomePage::search(const QString& words) {
    searchTimer_->stop();
    if (searchField_ && searchField_->text() != words) searchField_->setText(words);
    words_ = words.trimmed();
    if (words_.isEmpty()) {
        chipTexts_.clear();
        showChips({});
        title_ = list_ ? qt(std::string(vantle::title(*list_))) : QString("Home");
    } else {
        title_ = "Search";
    }
    showView(View::files);
    refreshList();
}

void HomePage::refreshList() {
    Q_EMIT summaryChanged();
    if (!snapshot_) return;
    int listing = ++listing_;
    auto library = bridge_.live().library;
    auto snapshot = snapshot_;
    auto reading = *readingFacts_;
    auto home = bridge_.live().home;
    struct Listed {
        std::vector<FileItem> items;
        int total = 0;
        std::vector<std::string> chips;
        std::optional<std::string> note;
    };
    auto words = utf8(words_);
    auto list = list_;
    int sortColumn = table_->horizontalHeader()->sortIndicatorSection();
    auto sortOrder = table_->horizontalHeader()->sortIndicatorOrder();
    FileQuery query;
    if (kind_) query.kinds = {*kind_};
    query.folder = folder_;
    query.limit = listLimit;
    bridge_.inBackground(
        [=](CancelFlag&) {
            Listed out;
            if (!words.empty()) {
                SearchParser parser(library->options().now, library->options().calendar, home);
                auto result = searchFiles(parser, words, *snapshot, reading, listLimit);
                out.items = std::move(result.items);
                out.total = result.total;
                out.chips = result.parsed.chips;
                out.note = result.note;
            } else if (list) {
                out.items =
                    library->smartLists().items(*list, *snapshot, library->options().now(), listLimit);
                out.total = int(out.items.size());
            } else {
                auto answer = runQuery(query, snapshot->facts);
                out.items = std::move(answer.items);
                out.total = answer.total;
                FileListModel::sortItems(out.items, sortColumn, sortOrder);
            }
            return out;
        },
        [this, listing](Listed out) {
            if (listing != listing_) return; // a newer listing was asked for meanwhile
            if (!words_.isEmpty()) showChips(out.chips);
            auto count = out.total;
            bool images = kind_ == LibraryKind::images && words_.isEmpty() && !list_;
            model_->setGrid(images);
            model_->setItems(std::move(out.items));
            if (!words_.isEmpty() || list_) {
                // The list's own order (relevance, newest, largest) stands until a header is clicked.
                table_->horizontalHeader()->setSortIndicatorShown(false);
            } else {
                table_->horizontalHeader()->setSortIndicatorShown(true);
            }
            QString what = countOf(count, "file", "files");
            if (count > model_->rowCount() && count > listLimit)
                what += QString(", the first %1 listed").arg(QLocale().toString(listLimit));
            if (out.note) what += " · " + qt(*out.note);
            listTitle_->setText(what);
            if (count == 0) {
                empty_->setText(!words_.isEmpty()
                                    ? "Nothing matches “" + words_ + "”. Remove a chip to look wider."
                                : list_   ? qt(fillIn("Nothing is in {title} now.",
                                                      {{"title", std::string(vantle::title(*list_))}}))
                                : folder_ ? "This folder holds no files Vantle lists."
                                          : "No files of this kind in your home folder.");
                fileViews_->setCurrentWidget(empty_);
            } else {
                fileViews_->setCurrentWidget(images ? static_cast<QWidget*>(grid_) : table_);
            }
            Q_EMIT summaryChanged();
            Q_EMIT listed();
        });
}

void HomePage::showChips(const std::vector<std::string>& chips) {
    chipTexts_.clear();
    auto* layout = static_cast<FlowLayout*>(chipsRow_->layout());
    layout->clear();
    int index = 0;
    for (const auto& chip : chips) {
        chipTexts_ << qt(chip);
        auto* button = new QToolButton;
        button->setText(qt(chip));
        button->setIcon(symbolIcon("window-close"));
        button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        button->setLayoutDirection(Qt::RightToLeft); // the cross after the words
        button->setAccessibleName("Remove " + qt(chip));
        button->setToolTip("Remove this from the search");
        button->setStyleSheet("QToolButton { border: 1px solid palette(mid); border-radius: 12px; "
                              "padding: 2px 10px; background: palette(alternate-base); }");
        connect(button, &QToolButton::clicked, this, [this, index] { removeChip(index); });
        layout->addWidget(button);
        ++index;
    }
    auto* keep = new QToolButton;
    keep->setText("Save Search");
    keep->setObjectName("saveSearch");
    keep->setIcon(symbolIcon("folder-saved-search"));
    keep->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    keep->setAutoRaise(true);
    connect(keep, &QToolButton::clicked, this, [this] { Q_EMIT saveSearch(words_); });
    layout->addWidget(keep);
    chipsRow_->setVisible(!chips.empty() && views_->currentIndex() == int(View::files));
}

void HomePage::removeChip(int index) {
    if (index < 0 || index >= chipTexts_.size()) return;
    // The chip's words are the shortest run of the search whose removal leaves exactly the other chips.
    auto library = bridge_.live().library;
    auto home = bridge_.live().home;
    auto words = words_.split(' ', Qt::SkipEmptyParts);
    std::vector<std::string> wanted;
    for (int i = 0; i < chipTexts_.size(); ++i)
        if (i != index) wanted.push_back(utf8(chipTexts_[i]));
    auto chipText = chipTexts_[index];
    bridge_.inBackground(
        [=](CancelFlag&) -> QString {
            SearchParser parser(library->options().now, library->options().calendar, home);
            for (int length = 1; length <= std::min<int>(5, int(words.size())); ++length)
                for (int start = 0; start + length <= words.size(); ++start) {
                    auto rest = words.mid(0, start) + words.mid(start + length);
                    auto text = rest.join(' ');
                    if (parser.parse(utf8(text)).chips == wanted) return text;
                }
            // No run of words gave that chip alone: take out the words that spell it.
            auto rest = words;
            for (const auto& word : chipText.split(' ', Qt::SkipEmptyParts))
                rest.removeIf([&](const QString& w) { return w.compare(word, Qt::CaseInsensitive) == 0; });
            return rest.join(' ');
        },
        [this](QString text) { search(text); });
}

void HomePage::showView(View view) {
    views_->setCurrentIndex(int(view));
    // The cards are the overview: they stand above the plain list, not above a search or a place.
    cardsHolder_->setVisible(view == View::files && words_.isEmpty() && !folder_ && !list_);
    // Chips belong to the search, which only the files view answers.
    chipsRow_->setVisible(view == View::files && !chipTexts_.isEmpty());
    viewButtons_->button(int(view))->setChecked(true);
    kinds_->setVisible(view == View::files);
    trash_->setVisible(view == View::files);
    listTitle_->setVisible(view == View::files);
    if (view == View::duplicates) title_ = "Duplicates";
    if (view == View::sources) title_ = "Sources";
    if (view == View::files && (title_ == "Duplicates" || title_ == "Sources"))
        title_ = kind_ ? qt(std::string(vantle::title(*kind_))) : QString("Home");
    selectionChanged();
    Q_EMIT summaryChanged();
}

void HomePage::findDuplicates() {
    if (duplicatesCancel_) {
        duplicatesCancel_->cancel();
        return;
    }
    findDuplicates_->setText("Stop");
    duplicatesProgress_->show();
    duplicatesProgress_->setRange(0, 0);
    duplicatesText_->setText("Comparing files that share a size…");
    auto library = bridge_.live().library;
    duplicatesCancel_ = bridge_.inBackground(
        [library, this](CancelFlag& cancel) {
            auto read = library->read(cancel);
            auto last = std::chrono::steady_clock::time_point{};
            return library->findDuplicates(
                cancel,
                [&](const DuplicateProgress& p) {
                    auto now = std::chrono::steady_clock::now();
                    if (now - last < std::chrono::milliseconds(150) || p.total == 0) return;
                    last = now;
                    int done = int(p.done), total = int(p.total);
                    QMetaObject::invokeMethod(
                        this,
                        [this, done, total] {
                            duplicatesProgress_->setRange(0, total);
                            duplicatesProgress_->setValue(done);
                        },
                        Qt::QueuedConnection);
                },
                &read);
        },
        [this](DuplicateScan scan) { showDuplicates(std::move(scan)); });
}

void HomePage::showDuplicates(DuplicateScan scan) {
    duplicatesCancel_.reset();
    findDuplicates_->setText("Find Again");
    duplicatesProgress_->hide();
    QSignalBlocker quiet(duplicates_);
    duplicates_->clear();
    if (scan.groups.empty()) {
        duplicatesText_->setText("No duplicates found.");
    } else {
        auto text =
            countOf(std::int64_t(scan.groups.size()), "group", "groups") +
            " of identical files; moving the extra copies to the Trash would free " +
            qt(fileBytes(scan.freeableBytes())).replace(' ', QChar::Nbsp) + // never "9" and "MB" apart
            ". The oldest copy of each is kept unless you choose another.";
        duplicatesText_->setText(text);
    }
    if (scan.note) duplicatesText_->setText(duplicatesText_->text() + " " + qt(*scan.note));
    duplicateGroups_ = std::move(scan.groups);
    duplicatesAdded_ = 0;
    addDuplicateGroups();
    Q_EMIT duplicatesShown();
}

void HomePage::addDuplicateGroups() {
    // Thousands of groups are added a batch an event-loop turn, so the window answers meanwhile.
    constexpr std::size_t batch = 100;
    QSignalBlocker quiet(duplicates_);
    auto end = std::min(duplicateGroups_.size(), duplicatesAdded_ + batch);
    for (; duplicatesAdded_ < end; ++duplicatesAdded_) {
        const auto& group = duplicateGroups_[duplicatesAdded_];
        auto* head = new QTreeWidgetItem(
            duplicates_,
            {QString("%1 copies of %2").arg(group.items.size()).arg(qt(group.items.front().name)),
             qt(fileBytes(group.size)), ""});
        head->setIcon(0, kindIcon(group.items.front()));
        head->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
        head->setFlags(Qt::ItemIsEnabled);
        // The oldest copy is the one kept until the user picks another.
        std::size_t keep = 0;
        for (std::size_t i = 1; i < group.items.size(); ++i)
            if (group.items[i].modified < group.items[keep].modified) keep = i;
        for (std::size_t i = 0; i < group.items.size(); ++i) {
            const auto& item = group.items[i];
            auto* copy = new QTreeWidgetItem(head, {homeRelative(bridge_.live().home, item.path),
                                                    qt(fileBytes(item.size)), shortDate(item.modified)});
            copy->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
            copy->setData(0, pathRole, qt(item.path));
            copy->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
            copy->setCheckState(0, i == keep ? Qt::Unchecked : Qt::Checked);
            copy->setToolTip(0, i == keep ? "Kept" : "Goes to the Trash");
        }
        head->setExpanded(true);
    }
    quiet.unblock();
    duplicateTicked();
    if (duplicatesAdded_ < duplicateGroups_.size())
        QTimer::singleShot(0, this, &HomePage::addDuplicateGroups);
}

bool HomePage::tickCopy(const QString& path, bool toTrash) {
    for (QTreeWidgetItemIterator it(duplicates_); *it; ++it)
        if ((*it)->data(0, pathRole).toString() == path) {
            (*it)->setCheckState(0, toTrash ? Qt::Checked : Qt::Unchecked);
            return true;
        }
    return false;
}

void HomePage::duplicateTicked() {
    // Every group keeps at least one copy: ticking the last one unticks nothing else, it is refused.
    QSignalBlocker quiet(duplicates_);
    int ticked = 0;
    for (int g = 0; g < duplicates_->topLevelItemCount(); ++g) {
        auto* group = duplicates_->topLevelItem(g);
        int kept = 0;
        for (int c = 0; c < group->childCount(); ++c)
            if (group->child(c)->checkState(0) == Qt::Unchecked) ++kept;
        if (kept == 0 && group->childCount() > 0)
            group->child(group->childCount() - 1)->setCheckState(0, Qt::Unchecked);
        for (int c = 0; c < group->childCount(); ++c) {
            bool goes = group->child(c)->checkState(0) == Qt::Checked;
            group->child(c)->setToolTip(0, goes ? "Goes to the Trash" : "Kept");
            group->child(c)->setForeground(
                0, palette().color(goes ? QPalette::PlaceholderText : QPalette::Text));
            if (goes) ++ticked;
        }
    }
    trashCopies_->setEnabled(ticked > 0);
    trashCopies_->setText(ticked > 0 ? QString("Move %1 to Trash…").arg(countOf(ticked, "Copy", "Copies"))
                                     : QString("Move Ticked Copies to Trash…"));
}

void HomePage::showSources() {
    auto library = bridge_.live().library;
    auto samples = library->options().samples;
    bridge_.inBackground(
        // Where files came from is read behind the walk: waited for here.
        [library, samples](CancelFlag& cancel) {
            return Sources::groups(library->catalog().readWithAttributes(cancel).snapshot->facts, samples);
        },
        [this](std::vector<SourceGroup> groups) {
            sources_->clear();
            if (groups.empty()) {
                auto* none = new QTreeWidgetItem(
                    sources_, {"No file says where it came from. Browsers record it for what "
                               "they download."});
                none->setFlags(Qt::ItemIsEnabled);
                none->setFirstColumnSpanned(true);
                return;
            }
            for (const auto& group : groups) {
                auto* row = new QTreeWidgetItem(
                    sources_, {qt(group.name), QLocale().toString(group.count), qt(fileBytes(group.bytes))});
                row->setIcon(0, symbolIcon(group.key.find("mail") != std::string::npos ? "emblem-mail"
                                                                                       : "emblem-web"));
                row->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
                row->setTextAlignment(2, Qt::AlignRight | Qt::AlignVCenter);
                for (const auto& sample : group.samples) {
                    auto* file = new QTreeWidgetItem(row, {qt(sample.name), "", qt(fileBytes(sample.size))});
                    file->setIcon(0, kindIcon(sample));
                    file->setToolTip(0, homeRelative(bridge_.live().home, sample.path));
                    file->setData(0, pathRole, qt(sample.path));
                    file->setTextAlignment(2, Qt::AlignRight | Qt::AlignVCenter);
                }
            }
        });
}

bool HomePage::select(const QString& path) {
    int row = model_->rowOf(path);
    if (row < 0) return false;
    auto* view = fileViews_->currentWidget() == grid_ ? static_cast<QAbstractItemView*>(grid_)
                                                      : static_cast<QAbstractItemView*>(table_);
    view->selectionModel()->select(model_->index(row, 0),
                                   QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    view->scrollTo(model_->index(row, 0));
    return true;
}

QString HomePage::inspectorName() const {
    return inspectorName_->text();
}

void HomePage::selectionChanged() {
    auto* view = fileViews_->currentWidget() == grid_ ? static_cast<QAbstractItemView*>(grid_)
                                                      : static_cast<QAbstractItemView*>(table_);
    auto rows = view->selectionModel() ? view->selectionModel()->selectedRows() : QModelIndexList{};
    bool onFiles = views_->currentIndex() == int(View::files);
    trash_->setEnabled(onFiles && !rows.isEmpty());
    const FileItem* item = rows.size() == 1 ? model_->itemAt(rows.first().row()) : nullptr;
    open_->setEnabled(item != nullptr);
    reveal_->setEnabled(item != nullptr);
    if (!item) {
        inspectorIcon_->setPixmap(symbolIcon("folder-documents").pixmap(64, 64));
        inspectorName_->setText(rows.isEmpty() ? "No file selected"
                                               : countOf(rows.size(), "file", "files") + " selected");
        inspectorName_->setProperty("path", QString());
        std::int64_t bytes = 0;
        for (const auto& index : rows)
            if (const auto* selected = model_->itemAt(index.row())) bytes += selected->size;
        inspectorFacts_->setText(rows.isEmpty()
                                     ? "Select a file to see its kind, size, dates and where it came from."
                                     : "Together " + qt(fileBytes(bytes)) + ".");
        return;
    }
    auto thumbnail = item->kind == LibraryKind::images ? thumbnails_->get(qt(item->path)) : QPixmap();
    inspectorIcon_->setPixmap(!thumbnail.isNull() ? thumbnail : kindIcon(*item).pixmap(64, 64));
    inspectorName_->setText(qt(item->name));
    inspectorName_->setProperty("path", qt(item->path));
    QString html = "<table cellspacing='0' cellpadding='2'>";
    auto row = [&](const QString& label, const QString& value) {
        if (value.isEmpty()) return;
        html += "<tr><td style='color: palette(placeholder-text); padding-right: 8px'>" +
                label.toHtmlEscaped() + "</td><td>" + value.toHtmlEscaped() + "</td></tr>";
    };
    row("Kind", kindTitle(*item));
    row("Size", qt(fileBytes(item->size)));
    row("Created", shortDate(item->created));
    row("Modified", shortDate(item->modified));
    row("Opened", shortDate(item->lastOpened));
    row("Added", shortDate(item->added));
    if (item->length)
        row("Length",
            QString("%1:%2").arg(int(*item->length) / 60).arg(int(*item->length) % 60, 2, 10, QChar('0')));
    for (const auto& source : item->sources)
        row("From", qt(source));
    row("Where", homeRelative(bridge_.live().home, std::filesystem::path(item->path).parent_path().string()));
    html += "</table>";
    inspectorFacts_->setText(html);
}

void HomePage::trashSelection() {
    std::vector<std::filesystem::path> paths;
    if (views_->currentIndex() == int(View::duplicates)) {
        for (QTreeWidgetItemIterator it(duplicates_); *it; ++it)
            if ((*it)->checkState(0) == Qt::Checked && !(*it)->data(0, pathRole).toString().isEmpty())
                paths.emplace_back(utf8((*it)->data(0, pathRole).toString()));
    } else if (views_->currentIndex() == int(View::files)) {
        auto* view = fileViews_->currentWidget() == grid_ ? static_cast<QAbstractItemView*>(grid_)
                                                          : static_cast<QAbstractItemView*>(table_);
        for (const auto& index : view->selectionModel()->selectedRows())
            if (const auto* item = model_->itemAt(index.row())) paths.emplace_back(item->path);
    }
    if (!paths.empty()) bridge_.askToTrash(std::move(paths));
}

void HomePage::pollChanges() {
    if (!changes_) return;
    if (changes_->poll()) read(true);
}

void HomePage::productChanged() {
    // After a trash or its Undo the catalog is read again at once, without waiting for the watcher.
    const auto& result = bridge_.result();
    if (result == lastResult_) return;
    lastResult_ = result;
    if (!started_ || !result) return;
    bridge_.live().library->catalog().noteChanges();
    read(true);
    if (views_->currentIndex() == int(View::duplicates) && duplicates_->topLevelItemCount() > 0)
        findDuplicates();
}

} // namespace vantle::app
