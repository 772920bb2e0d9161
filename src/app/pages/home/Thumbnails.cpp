#include "app/pages/home/Thumbnails.h"

#include "Platform/UserEntryOpen.h"
#include "app/bridge/ProductBridge.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QImage>
#include <QImageReader>
#include <QUrl>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle::app {

namespace {

// Larger images are not read for a thumbnail; they show their kind's icon.
constexpr qint64 largestImageBytes = 64LL * 1024 * 1024;

std::optional<QByteArray> readWithoutTouching(const std::string& path, qint64 most) {
    auto fd = openUserEntry(AT_FDCWD, path.c_str(), O_RDONLY | O_NONBLOCK);
    if (!fd) return std::nullopt;
    struct stat st {};
    if (::fstat(fd->get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > most) return std::nullopt;
    QByteArray bytes;
    bytes.resize(qsizetype(st.st_size));
    qsizetype at = 0;
    while (at < bytes.size()) {
        auto n = ::read(fd->get(), bytes.data() + at, size_t(bytes.size() - at));
        if (n <= 0) break;
        at += n;
    }
    bytes.truncate(at);
    return bytes;
}

// The cache's thumbnail counts only while it names the file's current modification time.
QImage fromCache(const std::filesystem::path& cache, const QString& path) {
    struct stat st {};
    if (::lstat(path.toUtf8().constData(), &st) != 0) return {};
    for (const char* size : {"normal", "large"}) {
        auto file = Thumbnails::cachedFile(cache, path, size);
        auto bytes = readWithoutTouching(file.toStdString(), 4 * 1024 * 1024);
        if (!bytes) continue;
        QImage image;
        if (!image.loadFromData(*bytes, "PNG")) continue;
        if (image.text("Thumb::MTime").toLongLong() != st.st_mtim.tv_sec) continue;
        return image;
    }
    return {};
}

QImage made(const QString& path) {
    auto bytes = readWithoutTouching(path.toStdString(), largestImageBytes);
    if (!bytes) return {};
    QBuffer buffer(&*bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setAutoTransform(true);
    auto size = reader.size();
    if (size.isValid() && (size.width() > Thumbnails::side || size.height() > Thumbnails::side))
        reader.setScaledSize(size.scaled(Thumbnails::side, Thumbnails::side, Qt::KeepAspectRatio));
    return reader.read();
}

} // namespace

Thumbnails::Thumbnails(ProductBridge& bridge, std::filesystem::path cacheFolder, QObject* parent)
    : QObject(parent), bridge_(bridge), cache_(std::move(cacheFolder)) {}

QString Thumbnails::cachedFile(const std::filesystem::path& cacheFolder, const QString& path,
                               const char* size) {
    auto uri = QUrl::fromLocalFile(path).toEncoded();
    auto md5 = QCryptographicHash::hash(uri, QCryptographicHash::Md5).toHex();
    return QString::fromStdString((cacheFolder / size).string()) + "/" + QString::fromLatin1(md5) + ".png";
}

QPixmap Thumbnails::get(const QString& path) {
    if (auto found = made_.find(path); found != made_.end()) return *found;
    if (!failed_.contains(path) && !waiting_.contains(path)) {
        waiting_.append(path);
        startNext();
    }
    return {};
}

void Thumbnails::startNext() {
    if (working_ || waiting_.isEmpty()) return;
    working_ = true;
    // The newest requests first: they are the rows on screen now.
    QStringList batch;
    while (!waiting_.isEmpty() && batch.size() < 12)
        batch.append(waiting_.takeLast());
    bridge_.inBackground(
        [batch, cache = cache_](CancelFlag& cancel) {
            std::vector<std::pair<QString, QImage>> out;
            for (const auto& path : batch) {
                if (cancel.isCancelled()) break;
                auto image = fromCache(cache, path);
                if (image.isNull()) image = made(path);
                out.emplace_back(path, std::move(image));
            }
            return out;
        },
        [this](std::vector<std::pair<QString, QImage>> out) {
            working_ = false;
            for (auto& [path, image] : out) {
                if (image.isNull()) {
                    failed_.insert(path);
                    continue;
                }
                made_.insert(path, QPixmap::fromImage(image));
                Q_EMIT ready(path);
            }
            startNext();
        });
}

} // namespace vantle::app
