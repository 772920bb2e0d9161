#include "VantleLibrary/ContentTypes.h"

#include <array>
#include <unordered_map>

namespace vantle {
namespace {

constexpr auto I = LibraryKind::images;
constexpr auto V = LibraryKind::videos;
constexpr auto M = LibraryKind::music;
constexpr auto D = LibraryKind::documents;
constexpr auto A = LibraryKind::archives;
constexpr auto P = LibraryKind::apps;
constexpr std::optional<LibraryKind> none;

// Installers and disk images count as archives, not apps: they are what an app arrives in, and
// counting them as apps would put every old download among the unused apps.
constexpr ContentType table[] = {
    {"jpg", "image/jpeg", I},
    {"jpeg", "image/jpeg", I},
    {"jpe", "image/jpeg", I},
    {"png", "image/png", I},
    {"gif", "image/gif", I},
    {"heic", "image/heic", I},
    {"heif", "image/heif", I},
    {"webp", "image/webp", I},
    {"avif", "image/avif", I},
    {"tif", "image/tiff", I},
    {"tiff", "image/tiff", I},
    {"bmp", "image/bmp", I},
    {"ico", "image/vnd.microsoft.icon", I},
    {"icns", "image/x-icns", I},
    {"svg", "image/svg+xml", I},
    {"psd", "image/vnd.adobe.photoshop", I},
    {"xcf", "image/x-xcf", I},
    {"raw", "image/x-panasonic-raw", I},
    {"cr2", "image/x-canon-cr2", I},
    {"cr3", "image/x-canon-cr3", I},
    {"nef", "image/x-nikon-nef", I},
    {"arw", "image/x-sony-arw", I},
    {"dng", "image/x-adobe-dng", I},
    {"orf", "image/x-olympus-orf", I},
    {"raf", "image/x-fuji-raf", I},
    {"jxl", "image/jxl", I},

    {"mp4", "video/mp4", V},
    {"m4v", "video/x-m4v", V},
    {"mov", "video/quicktime", V},
    {"mkv", "video/x-matroska", V},
    {"webm", "video/webm", V},
    {"avi", "video/x-msvideo", V},
    {"wmv", "video/x-ms-wmv", V},
    {"flv", "video/x-flv", V},
    {"mpg", "video/mpeg", V},
    {"mpeg", "video/mpeg", V},
    {"3gp", "video/3gpp", V},
    {"mts", "video/mp2t", V},
    {"m2ts", "video/mp2t", V},
    {"ogv", "video/ogg", V},

    {"mp3", "audio/mpeg", M},
    {"m4a", "audio/mp4", M},
    {"aac", "audio/aac", M},
    {"wav", "audio/x-wav", M},
    {"aif", "audio/x-aiff", M},
    {"aiff", "audio/x-aiff", M},
    {"flac", "audio/flac", M},
    {"alac", "audio/x-alac", M},
    {"ogg", "audio/ogg", M},
    {"oga", "audio/ogg", M},
    {"opus", "audio/ogg", M},
    {"wma", "audio/x-ms-wma", M},
    {"mid", "audio/midi", M},
    {"midi", "audio/midi", M},
    {"caf", "audio/x-caf", M},

    {"pdf", "application/pdf", D},
    {"doc", "application/msword", D},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document", D},
    {"odt", "application/vnd.oasis.opendocument.text", D},
    {"rtf", "application/rtf", D},
    {"pages", "application/x-iwork-pages-sffpages", D},
    {"xls", "application/vnd.ms-excel", D},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", D},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet", D},
    {"numbers", "application/x-iwork-numbers-sffnumbers", D},
    {"csv", "text/csv", D},
    {"tsv", "text/tab-separated-values", D},
    {"ppt", "application/vnd.ms-powerpoint", D},
    {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation", D},
    {"odp", "application/vnd.oasis.opendocument.presentation", D},
    {"key", "application/x-iwork-keynote-sffkey", D},
    {"epub", "application/epub+zip", D},
    {"txt", "text/plain", D},
    {"md", "text/markdown", D},
    {"markdown", "text/markdown", D},
    {"html", "text/html", D},
    {"htm", "text/html", D},
    {"json", "application/json", D},
    {"xml", "application/xml", D},
    {"tex", "text/x-tex", D},
    {"log", "text/x-log", D},

    {"zip", "application/zip", A},
    {"tar", "application/x-tar", A},
    {"gz", "application/gzip", A},
    {"tgz", "application/x-compressed-tar", A},
    {"bz2", "application/x-bzip2", A},
    {"xz", "application/x-xz", A},
    {"zst", "application/zstd", A},
    {"7z", "application/x-7z-compressed", A},
    {"rar", "application/vnd.rar", A},
    {"lz", "application/x-lzip", A},
    {"cpio", "application/x-cpio", A},
    {"jar", "application/x-java-archive", A},
    {"dmg", "application/x-apple-diskimage", A},
    {"iso", "application/x-cd-image", A},
    {"img", "application/x-raw-disk-image", A},
    {"pkg", "application/x-xar", A},
    {"mpkg", "application/x-xar", A},
    {"deb", "application/vnd.debian.binary-package", A},
    {"rpm", "application/x-rpm", A},
    {"msi", "application/x-msi", A},

    {"app", appBundleContentType, P},
    {"desktop", "application/x-desktop", P},
    {"appimage", "application/vnd.appimage", P},
    {"flatpakref", "application/vnd.flatpak.ref", P},

    {"ttf", "font/ttf", none},
    {"otf", "font/otf", none},
    {"woff", "font/woff", none},
    {"woff2", "font/woff2", none},
    {"blend", "application/x-blender", none},
    {"apk", "application/vnd.android.package-archive", none},
    {"exe", "application/x-msdownload", none},
    {"ics", "text/calendar", none},
    {"vcf", "text/vcard", none},
    {"torrent", "application/x-bittorrent", none},
    {"sqlite", "application/vnd.sqlite3", none},
    {"db", "application/vnd.sqlite3", none},
};

const std::unordered_map<std::string_view, const ContentType*>& byExtension() {
    static const auto map = [] {
        std::unordered_map<std::string_view, const ContentType*> m;
        for (const auto& row : table)
            m.emplace(row.extension, &row);
        return m;
    }();
    return map;
}

const std::unordered_map<std::string_view, std::optional<LibraryKind>>& byMime() {
    static const auto map = [] {
        std::unordered_map<std::string_view, std::optional<LibraryKind>> m;
        for (const auto& row : table)
            m.emplace(row.mime, row.kind);
        return m;
    }();
    return map;
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

std::span<const ContentType> contentTypes() {
    return table;
}

std::string lowerExtension(std::string_view fileName) {
    auto dot = fileName.rfind('.');
    // A leading dot names a hidden file, not an extension.
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == fileName.size()) return {};
    std::string out(fileName.substr(dot + 1));
    for (auto& c : out)
        c = lower(c);
    return out;
}

const std::string_view& contentTypeForExtension(std::string_view extension) {
    auto& map = byExtension();
    auto it = map.find(extension);
    return it == map.end() ? unknownContentType : it->second->mime;
}

const std::string_view& contentTypeForName(std::string_view fileName) {
    auto dot = fileName.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == fileName.size()) return unknownContentType;
    // The walk asks this for every file: lower-case into a small buffer instead of a string.
    auto ext = fileName.substr(dot + 1);
    std::array<char, 16> buffer;
    if (ext.size() > buffer.size()) return unknownContentType;
    for (size_t i = 0; i < ext.size(); ++i)
        buffer[i] = lower(ext[i]);
    return contentTypeForExtension({buffer.data(), ext.size()});
}

std::optional<LibraryKind> kindOfContentType(std::string_view mime) {
    auto& map = byMime();
    if (auto it = map.find(mime); it != map.end()) return it->second;
    if (mime.starts_with("image/")) return LibraryKind::images;
    if (mime.starts_with("video/")) return LibraryKind::videos;
    if (mime.starts_with("audio/")) return LibraryKind::music;
    if (mime.starts_with("text/")) return LibraryKind::documents;
    return std::nullopt;
}

bool isAppBundleName(std::string_view folderName) {
    return contentTypeForName(folderName) == appBundleContentType;
}

} // namespace vantle
