#include "app/pages/home/FileListModel.h"

#include "VantleSpec/ByteCount.h"
#include "app/bridge/ProductBridge.h"
#include "app/pages/home/Thumbnails.h"

#include <QDateTime>
#include <QIcon>
#include <QLocale>
#include <QMimeDatabase>

#include <algorithm>

namespace vantle::app {

namespace {
constexpr int chunk = 200;
}

QString kindTitle(const FileItem& item) {
    return item.kind ? qt(std::string(title(*item.kind))) : QString("Other");
}

QIcon kindIcon(const FileItem& item) {
    static QMimeDatabase mimes;
    auto type = mimes.mimeTypeForName(qt(item.contentType));
    if (type.isValid()) {
        auto icon = QIcon::fromTheme(type.iconName());
        if (icon.isNull()) icon = QIcon::fromTheme(type.genericIconName());
        if (!icon.isNull()) return icon;
    }
    return QIcon::fromTheme("text-x-generic");
}

QString shortDate(const std::optional<TimePoint>& at) {
    if (!at) return {};
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(at->time_since_epoch()).count();
    auto local = QDateTime::fromSecsSinceEpoch(seconds);
    // Date and minute: seconds only make the column wider.
    return QLocale().toString(local.date(), QLocale::ShortFormat) + " " + local.toString("HH:mm");
}

QString homeRelative(const std::filesystem::path& home, const std::string& path) {
    auto prefix = home.string() + "/";
    return path.starts_with(prefix) ? "~/" + qt(path.substr(prefix.size())) : qt(path);
}

FileListModel::FileListModel(Thumbnails& thumbnails, std::filesystem::path home, QObject* parent)
    : QAbstractTableModel(parent), thumbnails_(thumbnails), home_(std::move(home)) {
    connect(&thumbnails_, &Thumbnails::ready, this, &FileListModel::thumbnailReady);
}

void FileListModel::setItems(std::vector<FileItem> items) {
    beginResetModel();
    items_ = std::move(items);
    shown_ = std::min<int>(chunk, int(items_.size()));
    endResetModel();
}

void FileListModel::setGrid(bool grid) {
    if (grid == grid_) return;
    grid_ = grid;
    if (shown_ > 0) Q_EMIT dataChanged(index(0, 0), index(shown_ - 1, 0), {Qt::DecorationRole});
}

const FileItem* FileListModel::itemAt(int row) const {
    return row >= 0 && row < shown_ ? &items_[std::size_t(row)] : nullptr;
}

int FileListModel::rowOf(const QString& path) const {
    auto wanted = utf8(path);
    for (int row = 0; row < shown_; ++row)
        if (items_[std::size_t(row)].path == wanted) return row;
    return -1;
}

int FileListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : shown_;
}

int FileListModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : Column::columns;
}

QVariant FileListModel::data(const QModelIndex& index, int role) const {
    const auto* item = itemAt(index.row());
    if (!item) return {};
    if (role == pathRole) return qt(item->path);
    if (role == Qt::ToolTipRole) return homeRelative(home_, item->path);
    if (role == Qt::TextAlignmentRole && index.column() == size)
        return QVariant(Qt::AlignRight | Qt::AlignVCenter);
    if (role == Qt::DecorationRole && index.column() == name) {
        if (item->kind == LibraryKind::images) {
            auto thumbnail = thumbnails_.get(qt(item->path));
            if (!thumbnail.isNull()) return thumbnail;
        }
        return kindIcon(*item);
    }
    if (role != Qt::DisplayRole) return {};
    switch (index.column()) {
    case name:
        return qt(item->name);
    case kind:
        return kindTitle(*item);
    case size:
        return qt(fileBytes(item->size));
    case modified:
        return shortDate(item->modified);
    case folder:
        return homeRelative(home_, std::filesystem::path(item->path).parent_path().string());
    }
    return {};
}

QVariant FileListModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
    case name:
        return "Name";
    case kind:
        return "Kind";
    case size:
        return "Size";
    case modified:
        return "Modified";
    case folder:
        return "Folder";
    }
    return {};
}

bool FileListModel::canFetchMore(const QModelIndex& parent) const {
    return !parent.isValid() && shown_ < int(items_.size());
}

void FileListModel::fetchMore(const QModelIndex& parent) {
    if (parent.isValid()) return;
    int more = std::min<int>(chunk, int(items_.size()) - shown_);
    if (more <= 0) return;
    beginInsertRows({}, shown_, shown_ + more - 1);
    shown_ += more;
    endInsertRows();
}

void FileListModel::sort(int column, Qt::SortOrder order) {
    beginResetModel();
    sortItems(items_, column, order);
    endResetModel();
}

void FileListModel::sortItems(std::vector<FileItem>& items_, int column, Qt::SortOrder order) {
    auto by = [column](const FileItem& a, const FileItem& b) {
        switch (column) {
        case kind:
            return std::pair(a.kind, a.name) < std::pair(b.kind, b.name);
        case size:
            return a.size < b.size;
        case modified:
            return a.modified < b.modified;
        case folder:
            return a.path < b.path;
        default:
            return QString::localeAwareCompare(qt(a.name), qt(b.name)) < 0;
        }
    };
    if (order == Qt::AscendingOrder)
        std::stable_sort(items_.begin(), items_.end(), by);
    else
        std::stable_sort(items_.begin(), items_.end(),
                         [&](const auto& a, const auto& b) { return by(b, a); });
}

void FileListModel::thumbnailReady(const QString& path) {
    int row = rowOf(path);
    if (row >= 0) Q_EMIT dataChanged(index(row, name), index(row, name), {Qt::DecorationRole});
}

} // namespace vantle::app
