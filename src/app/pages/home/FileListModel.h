// The files the Home page lists (a kind, a place, a smart list or a search), as a table the views
// read: name with its thumbnail or kind icon, kind, size, date modified, folder. Rows are handed to
// the view in chunks as it scrolls. A UI-thread object over values it owns.
#pragma once
#include "VantleSpec/LibraryRecords.h"

#include <QAbstractTableModel>

#include <filesystem>
#include <vector>

namespace vantle::app {

class Thumbnails;

class FileListModel : public QAbstractTableModel {
    Q_OBJECT
  public:
    enum Column { name, kind, size, modified, folder, columns };
    static constexpr int pathRole = Qt::UserRole + 1;

    FileListModel(Thumbnails& thumbnails, std::filesystem::path home, QObject* parent = nullptr);
    void setItems(std::vector<FileItem> items);
    const std::vector<FileItem>& items() const { return items_; }
    const FileItem* itemAt(int row) const;
    int rowOf(const QString& path) const;
    // Big thumbnails for the grid of images, small ones for the list.
    void setGrid(bool grid);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    bool canFetchMore(const QModelIndex& parent) const override;
    void fetchMore(const QModelIndex& parent) override;
    void sort(int column, Qt::SortOrder order) override;
    // The same order on a list not yet shown: thousands of names are sorted off the UI thread.
    static void sortItems(std::vector<FileItem>& items, int column, Qt::SortOrder order);

  private:
    void thumbnailReady(const QString& path);
    Thumbnails& thumbnails_;
    std::filesystem::path home_;
    std::vector<FileItem> items_;
    int shown_ = 0;
    bool grid_ = false;
};

QString kindTitle(const FileItem& item);
QIcon kindIcon(const FileItem& item);
QString shortDate(const std::optional<TimePoint>& at);
QString homeRelative(const std::filesystem::path& home, const std::string& path);

} // namespace vantle::app
