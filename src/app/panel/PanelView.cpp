#include "app/panel/PanelView.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "Vantle_Lite/BusyProcess.h"
#include "app/bridge/ProductBridge.h"
#include "app/design/Labels.h"
#include "app/design/Symbols.h"
#include "app/pages/home/FileListModel.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QStyledItemDelegate>
#include <QTimer>
#include <QVBoxLayout>

#include <unistd.h>

namespace vantle::app {

namespace {

constexpr const char* searchPlaceholder = "Search files by name";
constexpr const char* recentTitle = "Recent downloads";
constexpr const char* foundTitle = "Files";
constexpr const char* readingDownloads = "Reading your downloads…";
constexpr const char* noDownloads = "Nothing downloaded lately.";
constexpr const char* noFiles = "No file's name has those words.";
constexpr const char* readingRunning = "Reading what's running…";
constexpr const char* nothingBusy = "Nothing is busy.";
constexpr const char* lookingOver = "Looking over this Mac…";
// The key names this desktop shows: Ctrl and Alt where the other system has its own symbols.
constexpr const char* hintLine = "↩ Open   Ctrl+↩ Show in Vantle Lite   Alt+↩ Show in Folder";

// Enough to find what was just downloaded or typed for, and few enough that the panel stays small.
constexpr int recentDownloads = 4;
constexpr int filesFound = 5;
constexpr int busyListed = 3;
constexpr int panelHeight = 500;
constexpr auto recentDays = std::chrono::days(30);

constexpr int pathRole = Qt::UserRole + 1;
constexpr int placeRole = Qt::UserRole + 2;

QLabel* sectionTitle(const QString& text) {
    auto* label = new QLabel(text);
    auto font = label->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() - 1);
    label->setFont(font);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

// A file row: icon, name, and the folder it is in under it, in the palette's quieter colour.
class FileRowDelegate : public QStyledItemDelegate {
  public:
    using QStyledItemDelegate::QStyledItemDelegate;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const override {
        return {option.rect.width(), option.fontMetrics.height() * 2 + 12};
    }
    void paint(QPainter* p, const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        QStyleOptionViewItem o(option);
        initStyleOption(&o, index);
        bool selected = o.state & QStyle::State_Selected;
        p->save();
        if (selected) {
            p->setRenderHint(QPainter::Antialiasing);
            p->setPen(Qt::NoPen);
            p->setBrush(o.palette.color(QPalette::Highlight));
            p->drawRoundedRect(QRectF(o.rect).adjusted(2, 1, -2, -1), 6, 6);
        }
        auto r = o.rect.adjusted(8, 6, -8, -6);
        o.icon.paint(p, QRect(r.left(), r.top() + (r.height() - 24) / 2, 24, 24));
        auto text = r.adjusted(32, 0, 0, 0);
        auto line = o.fontMetrics.height();
        p->setPen(o.palette.color(selected ? QPalette::HighlightedText : QPalette::Text));
        p->drawText(
            QRect(text.left(), text.top(), text.width(), line), Qt::AlignVCenter,
            o.fontMetrics.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideMiddle, text.width()));
        auto small = o.font;
        small.setPointSizeF(small.pointSizeF() - 1);
        p->setFont(small);
        p->setPen(o.palette.color(selected ? QPalette::HighlightedText : QPalette::PlaceholderText));
        p->drawText(
            QRect(text.left(), text.top() + line, text.width(), line), Qt::AlignVCenter,
            QFontMetrics(small).elidedText(index.data(placeRole).toString(), Qt::ElideLeft, text.width()));
        p->restore();
    }
};

// The folder a file is in, from the home ("Downloads", "Documents/Taxes"), or its full path outside it.
QString placeOf(const std::string& path, const std::filesystem::path& home) {
    auto folder = std::filesystem::path(path).parent_path();
    auto relative = folder.lexically_relative(home);
    if (relative.empty() || *relative.begin() == "..") return qt(folder.string());
    if (relative == ".") return "Home";
    return qt(relative.string());
}

} // namespace

PanelView::PanelView(ProductBridge& bridge, QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint), bridge_(bridge) {
    setObjectName("panel");
    setWindowTitle("Vantle Lite");
    setAccessibleName("Vantle Lite panel");
    setFixedWidth(360);
    setAttribute(Qt::WA_StyledBackground);
    setStyleSheet("#panel { border: 1px solid palette(mid); background: palette(window); }");

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(12, 12, 12, 12);
    column->setSpacing(8);

    search_ = new QLineEdit;
    search_->setObjectName("panelSearch");
    search_->setPlaceholderText(searchPlaceholder);
    search_->setAccessibleName(searchPlaceholder);
    search_->setClearButtonEnabled(true);
    search_->addAction(symbolIcon("magnifyingglass"), QLineEdit::LeadingPosition);
    search_->installEventFilter(this);
    connect(search_, &QLineEdit::textChanged, this, &PanelView::searchChanged);
    column->addWidget(search_);

    filesTitle_ = sectionTitle(recentTitle);
    filesTitle_->setObjectName("filesTitle");
    column->addWidget(filesTitle_);
    files_ = new QListWidget;
    files_->setObjectName("panelFiles");
    files_->setAccessibleName("Files");
    files_->setFrameShape(QFrame::NoFrame);
    files_->setItemDelegate(new FileRowDelegate(files_));
    files_->setIconSize(QSize(24, 24));
    files_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    files_->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    files_->viewport()->setAutoFillBackground(false);
    files_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    files_->installEventFilter(this);
    connect(files_, &QListWidget::currentRowChanged, this, &PanelView::updateHint);
    connect(files_, &QListWidget::itemActivated, this, [this] { actOnSelection(Qt::NoModifier); });
    column->addWidget(files_);
    filesNote_ = mutedLabel(readingDownloads);
    filesNote_->setObjectName("filesNote");
    column->addWidget(filesNote_);
    hint_ = mutedLabel(hintLine);
    hint_->setObjectName("hint");
    auto hintFont = hint_->font();
    hintFont.setPointSizeF(hintFont.pointSizeF() - 1);
    hint_->setFont(hintFont);
    hint_->setVisible(false);
    column->addWidget(hint_);

    auto* rule = new QFrame;
    rule->setFrameShape(QFrame::HLine);
    rule->setFrameShadow(QFrame::Plain);
    rule->setStyleSheet("color: palette(mid);");
    column->addWidget(rule);

    auto* busyHead = new QHBoxLayout;
    busyHead->addWidget(sectionTitle("Busy"));
    busyHead->addStretch(1);
    auto* activity = new QLabel("<a href=\"activity\">Show in Activity</a>");
    activity->setObjectName("showActivity");
    connect(activity, &QLabel::linkActivated, this, [this] {
        Q_EMIT showActivity();
        hide();
    });
    busyHead->addWidget(activity);
    column->addLayout(busyHead);
    busyBox_ = new QWidget;
    busyRows_ = new QVBoxLayout(busyBox_);
    busyRows_->setContentsMargins(0, 0, 0, 0);
    busyRows_->setSpacing(8);
    column->addWidget(busyBox_);
    busyNote_ = mutedLabel(readingRunning);
    busyNote_->setObjectName("busyNote");
    column->addWidget(busyNote_);

    // The Quit question is asked here: a window of its own would take the focus and close the panel.
    question_ = new QFrame;
    question_->setObjectName("panelQuestion");
    question_->setStyleSheet("#panelQuestion { border: 1px solid palette(highlight); border-radius: 8px; }");
    auto* asked = new QVBoxLayout(question_);
    asked->setContentsMargins(12, 10, 12, 10);
    questionTitle_ = new QLabel;
    auto bold = questionTitle_->font();
    bold.setBold(true);
    questionTitle_->setFont(bold);
    questionText_ = new QLabel;
    questionText_->setObjectName("questionText");
    questionText_->setWordWrap(true);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    auto* no = new QPushButton("Cancel");
    no->setObjectName("questionCancel");
    questionYes_ = new QPushButton("Quit");
    questionYes_->setObjectName("questionConfirm");
    questionYes_->setDefault(true);
    connect(no, &QPushButton::clicked, this, [this] { answer(false); });
    connect(questionYes_, &QPushButton::clicked, this, [this] { answer(true); });
    buttons->addWidget(no);
    buttons->addWidget(questionYes_);
    asked->addWidget(questionTitle_);
    asked->addWidget(questionText_);
    asked->addLayout(buttons);
    question_->hide();
    column->addWidget(question_);

    column->addStretch(1);
    said_ = mutedLabel();
    said_->setObjectName("panelResult");
    said_->hide();
    column->addWidget(said_);
    reading_ = mutedLabel(lookingOver);
    reading_->setObjectName("reading");
    column->addWidget(reading_);
    auto* open = new QPushButton(symbolIcon("arrow.up.forward.app"), "Open Vantle Lite");
    open->setObjectName("openVantle");
    connect(open, &QPushButton::clicked, this, [this] {
        hide();
        Q_EMIT openWindow();
    });
    column->addWidget(open);

    readings_ = new QTimer(this);
    readings_->setInterval(2000);
    connect(readings_, &QTimer::timeout, this, &PanelView::readMachine);
    connect(&bridge_, &ProductBridge::changed, this, &PanelView::productChanged);
    resize(360, panelHeight);
}

void PanelView::fitContent() {
    // Long names and sentences wrap: the panel grows to hold them rather than letting rows overlap.
    auto* box = layout();
    int need = box->hasHeightForWidth() ? box->heightForWidth(width()) : box->sizeHint().height();
    resize(width(), std::max(panelHeight, need));
}

PanelView::~PanelView() {
    if (searching_) searching_->cancel();
}

void PanelView::open(std::optional<QPoint> corner) {
    auto* screen = QGuiApplication::primaryScreen();
    if (screen) {
        auto area = screen->availableGeometry();
        QPoint topRight = corner ? *corner : QPoint(area.right() - 8, area.top() + 8);
        QPoint at(topRight.x() - width(), topRight.y());
        at.setX(std::clamp(at.x(), area.left(), std::max(area.left(), area.right() - width())));
        at.setY(std::clamp(at.y(), area.top(), std::max(area.top(), area.bottom() - height())));
        move(at);
    }
    show();
    raise();
    activateWindow();
    search_->setFocus();
}

void PanelView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    bridge_.withProduct([](LiteProduct& p) { p.setPanelOpen(true); });
    said_->hide();
    readDownloads();
    readMachine();
    readings_->start();
}

void PanelView::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    readings_->stop();
    // A question left open is a no: nothing is quit behind a closed panel.
    if (asking_ && question_->isVisible()) answer(false);
    bridge_.withProduct([](LiteProduct& p) { p.setPanelOpen(false); });
}

bool PanelView::event(QEvent* event) {
    // Like a menu, the panel goes when the user turns to something else.
    if (event->type() == QEvent::WindowDeactivate && isVisible() && !asking_) hide();
    return QWidget::event(event);
}

void PanelView::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Escape) {
        if (asking_) return answer(false);
        hide();
        return;
    }
    QWidget::keyPressEvent(event);
}

bool PanelView::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::KeyPress) return QWidget::eventFilter(watched, event);
    auto* key = static_cast<QKeyEvent*>(event);
    if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
        if (files_->currentRow() < 0 && files_->count() > 0) files_->setCurrentRow(0);
        actOnSelection(key->modifiers());
        return true;
    }
    if (watched == search_ && (key->key() == Qt::Key_Down || key->key() == Qt::Key_Up) &&
        files_->count() > 0) {
        int row = files_->currentRow() + (key->key() == Qt::Key_Down ? 1 : -1);
        files_->setCurrentRow(std::clamp(row, 0, files_->count() - 1));
        return true;
    }
    return QWidget::eventFilter(watched, event);
}

QString PanelView::filesTitle() const {
    return filesTitle_->text();
}

QString PanelView::filesNote() const {
    return filesNote_->isVisible() || !isVisible() ? filesNote_->text() : QString();
}

QString PanelView::readingText() const {
    return reading_->text();
}

void PanelView::searchChanged(const QString& text) {
    ++searchGeneration_;
    if (searching_) searching_->cancel();
    auto words = text.simplified();
    if (words.isEmpty()) {
        filesTitle_->setText(recentTitle);
        showFiles(downloads_);
        return;
    }
    filesTitle_->setText(foundTitle);
    FileQuery query;
    for (const auto& word : words.split(' ', Qt::SkipEmptyParts))
        query.terms.push_back(utf8(word));
    query.sort = FileQuery::Sort::relevance;
    query.limit = filesFound;
    auto library = bridge_.live().library;
    int generation = searchGeneration_;
    ++outstanding_;
    searching_ = bridge_.inBackground(
        [library, query](CancelFlag& cancel) {
            auto answer = library ? library->find(query, cancel) : std::nullopt;
            return answer ? answer->items : std::vector<FileItem>{};
        },
        [this, generation](std::vector<FileItem> found) {
            --outstanding_;
            // Typing on made this answer's words old: the newer search shows instead.
            if (generation != searchGeneration_) return;
            showFiles(found);
        });
}

void PanelView::readDownloads() {
    auto library = bridge_.live().library;
    FileQuery query;
    query.folder = (bridge_.live().home / "Downloads").string();
    query.dateField = FileQuery::DateField::added;
    query.after = std::chrono::system_clock::now() - recentDays;
    query.sort = FileQuery::Sort::newest;
    query.limit = recentDownloads;
    ++outstanding_;
    bridge_.inBackground(
        [library, query](CancelFlag& cancel) {
            auto answer = library ? library->find(query, cancel) : std::nullopt;
            return answer ? answer->items : std::vector<FileItem>{};
        },
        [this](std::vector<FileItem> found) {
            --outstanding_;
            downloads_ = std::move(found);
            downloadsRead_ = true;
            if (search_->text().simplified().isEmpty()) showFiles(downloads_);
        });
}

void PanelView::showFiles(const std::vector<FileItem>& files) {
    shownFiles_ = files;
    files_->clear();
    const auto home = bridge_.live().home;
    for (const auto& file : files) {
        auto* item = new QListWidgetItem(kindIcon(file), qt(file.name));
        item->setData(pathRole, qt(file.path));
        item->setData(placeRole, placeOf(file.path, home));
        item->setToolTip(qt(file.path));
        files_->addItem(item);
    }
    bool searching = !search_->text().simplified().isEmpty();
    int rowHeight = fontMetrics().height() * 2 + 12;
    files_->setFixedHeight(std::max(0, int(files.size())) * rowHeight + (files.empty() ? 0 : 4));
    files_->setVisible(!files.empty());
    if (files.empty())
        filesNote_->setText(searching ? noFiles : downloadsRead_ ? noDownloads : readingDownloads);
    filesNote_->setVisible(files.empty());
    if (!files.empty()) files_->setCurrentRow(0);
    updateHint();
    fitContent();
}

void PanelView::updateHint() {
    hint_->setVisible(files_->currentRow() >= 0 && files_->count() > 0);
}

void PanelView::actOnSelection(Qt::KeyboardModifiers modifiers) {
    auto* item = files_->currentItem();
    if (!item) return;
    auto path = item->data(pathRole).toString();
    if (modifiers & Qt::ControlModifier) {
        hide();
        Q_EMIT showInVantle(path);
        return;
    }
    if (modifiers & Qt::AltModifier) {
        bridge_.withProduct(
            [file = std::filesystem::path(utf8(path))](LiteProduct& p) { return p.showInFileManager(file); },
            [this](ResultLine line) { say(qt(line.text)); });
        return;
    }
    auto opener = bridge_.live().opener;
    bridge_.inBackground(
        [opener, file = std::filesystem::path(utf8(path))](CancelFlag&) -> std::string {
            auto opened = opener->openFile(file);
            return opened ? std::string() : opened.error().reason;
        },
        [this](std::string refusal) {
            if (refusal.empty())
                hide();
            else
                say(qt(refusal));
        });
}

void PanelView::say(const QString& text) {
    said_->setText(text);
    said_->setVisible(!text.isEmpty());
}

void PanelView::readMachine() {
    // One reading at a time: a slow /proc never piles readings up behind each other.
    if (reading_machine_) return;
    auto activity = bridge_.live().activity;
    if (!activity) return;
    reading_machine_ = true;
    ++outstanding_;
    bridge_.inBackground([activity](CancelFlag&) { return activity->read(); },
                         [this](ActivitySample sample) {
                             --outstanding_;
                             reading_machine_ = false;
                             if (!isVisible()) return;
                             showBusy(sample);
                             reading_->setText(qt(readingLine(sample.totals)));
                         });
}

void PanelView::showBusy(const ActivitySample& sample) {
    // The rows stay as they are while their question is open, so the question keeps its process.
    if (asking_) return;
    busy_ = busyProcesses(sample, busyListed, int(::getpid()));
    while (auto* item = busyRows_->takeAt(0)) {
        if (auto* w = item->widget()) w->deleteLater();
        delete item;
    }
    for (std::size_t i = 0; i < busy_.size(); ++i) {
        const auto& process = busy_[i];
        auto* row = new QWidget;
        row->setObjectName("busyRow");
        auto* words = new QVBoxLayout(row);
        words->setContentsMargins(0, 0, 0, 0);
        words->setSpacing(0);
        auto* name = new QLabel(qt(process.app.value_or(process.name)));
        auto bold = name->font();
        bold.setBold(true);
        name->setFont(bold);
        auto memory = process.memory ? process.memory : process.realMemory;
        auto* figures = mutedLabel(QString("%1% of a core · %2")
                                       .arg(qt(wholeNumber(process.cpuPercent, 0, 1e6)))
                                       .arg(qt(memoryBytes(std::int64_t(memory)))));
        figures->setWordWrap(false);
        auto* sentence = mutedLabel(qt(busySentence(process, sample.agents)));
        sentence->setObjectName("busySentence");
        auto small = sentence->font();
        small.setPointSizeF(small.pointSizeF() - 1);
        sentence->setFont(small);
        auto* quit = new QPushButton("Quit");
        quit->setObjectName("quit");
        quit->setAccessibleName("Quit " + name->text());
        connect(quit, &QPushButton::clicked, this, [this, i] { askToQuit(int(i)); });
        auto* top = new QHBoxLayout;
        top->addWidget(name, 1);
        top->addWidget(figures);
        top->addSpacing(8);
        top->addWidget(quit);
        words->addLayout(top);
        words->addWidget(sentence);
        busyRows_->addWidget(row);
    }
    busyNote_->setText(nothingBusy);
    busyNote_->setVisible(busy_.empty());
    fitContent();
}

void PanelView::askToQuit(int index) {
    if (index < 0 || std::size_t(index) >= busy_.size() || asking_) return;
    asking_ = true;
    say({});
    bridge_.withProduct([process = busy_[std::size_t(index)]](LiteProduct& p) { p.askToQuit(process); });
}

void PanelView::productChanged() {
    const auto& question = bridge_.question();
    if (asking_ && question && !question_->isVisible()) {
        questionTitle_->setText(question->title);
        questionText_->setText(question->message);
        questionYes_->setText(question->confirm);
        // The question stands in the busy rows' place; its title names the process.
        busyBox_->hide();
        question_->show();
        fitContent();
        questionYes_->setFocus();
    }
    if (awaitingResult_ && !question && bridge_.result()) {
        awaitingResult_ = false;
        say(qt(bridge_.result()->text));
        readMachine();
    }
}

void PanelView::answer(bool yes) {
    if (!asking_) return;
    question_->hide();
    busyBox_->show();
    asking_ = false;
    awaitingResult_ = true;
    bridge_.answer(yes);
    search_->setFocus();
}

} // namespace vantle::app
