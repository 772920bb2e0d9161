// Image thumbnails for the Home page: taken from the freedesktop thumbnail cache where it has a
// current one, otherwise made from the image itself on a worker (read without moving its access
// time, and never written back into the user's cache). Kept in memory for the run. Asked for and
// answered on the UI thread.
#pragma once
#include <QHash>
#include <QObject>
#include <QPixmap>
#include <QSet>
#include <QStringList>

#include <filesystem>

namespace vantle::app {

class ProductBridge;

class Thumbnails : public QObject {
    Q_OBJECT
  public:
    Thumbnails(ProductBridge& bridge, std::filesystem::path cacheFolder, QObject* parent = nullptr);
    // The thumbnail if it is made; otherwise a null pixmap, and `ready` follows once it is.
    QPixmap get(const QString& path);

    // Where the freedesktop cache keeps a file's thumbnail of `size` ("normal", "large").
    static QString cachedFile(const std::filesystem::path& cacheFolder, const QString& path,
                              const char* size);
    static constexpr int side = 128;

  Q_SIGNALS:
    void ready(const QString& path);

  private:
    void startNext();
    ProductBridge& bridge_;
    std::filesystem::path cache_;
    QHash<QString, QPixmap> made_;
    QSet<QString> failed_;
    QStringList waiting_;
    bool working_ = false;
};

} // namespace vantle::app
