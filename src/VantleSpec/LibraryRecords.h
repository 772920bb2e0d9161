// The file library's value records: one file as the library sees it, the summary by kind, the smart
// lists and their clean-up cards, source and duplicate groups, a structured query, a parsed search
// and its result. Plain copyable values with JSON coding; free functions are thread-safe.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// The broad kind of a file; a file of none of these has no kind and counts only in the totals.
enum class LibraryKind { images, videos, music, documents, archives, apps };
VANTLE_ENUM_NAMES(LibraryKind, "images", "videos", "music", "documents", "archives", "apps")

constexpr std::string_view title(LibraryKind kind) {
    switch (kind) {
    case LibraryKind::images:
        return "Images";
    case LibraryKind::videos:
        return "Videos";
    case LibraryKind::music:
        return "Music";
    case LibraryKind::documents:
        return "Documents";
    case LibraryKind::archives:
        return "Archives";
    case LibraryKind::apps:
        return "Apps";
    }
    return {};
}

// The name of the symbol image shown beside the kind.
constexpr std::string_view symbol(LibraryKind kind) {
    switch (kind) {
    case LibraryKind::images:
        return "photo.on.rectangle";
    case LibraryKind::videos:
        return "film";
    case LibraryKind::music:
        return "music.note";
    case LibraryKind::documents:
        return "doc.text";
    case LibraryKind::archives:
        return "archivebox";
    case LibraryKind::apps:
        return "square.grid.2x2";
    }
    return {};
}

// The fixed lists the Home offers.
enum class SmartList {
    recents,
    largeFiles,
    screenshots,
    duplicates,
    forgottenDownloads,
    oldScreenshots,
    oldInstallers,
    bigOldVideos,
    unusedApps
};
VANTLE_ENUM_NAMES(SmartList, "recents", "largeFiles", "screenshots", "duplicates", "forgottenDownloads",
                  "oldScreenshots", "oldInstallers", "bigOldVideos", "unusedApps")

constexpr std::string_view title(SmartList list) {
    switch (list) {
    case SmartList::recents:
        return "Recents";
    case SmartList::largeFiles:
        return "Large Files";
    case SmartList::screenshots:
        return "Screenshots";
    case SmartList::duplicates:
        return "Duplicates";
    case SmartList::forgottenDownloads:
        return "Forgotten Downloads";
    case SmartList::oldScreenshots:
        return "Old Screenshots";
    case SmartList::oldInstallers:
        return "Old Installers";
    case SmartList::bigOldVideos:
        return "Big Old Videos";
    case SmartList::unusedApps:
        return "Unused Apps";
    }
    return {};
}

constexpr std::string_view symbol(SmartList list) {
    switch (list) {
    case SmartList::recents:
        return "clock";
    case SmartList::largeFiles:
        return "externaldrive";
    case SmartList::screenshots:
        return "camera.viewfinder";
    case SmartList::duplicates:
        return "plus.square.on.square";
    case SmartList::forgottenDownloads:
        return "arrow.down.circle";
    case SmartList::oldScreenshots:
        return "camera.viewfinder";
    case SmartList::oldInstallers:
        return "shippingbox";
    case SmartList::bigOldVideos:
        return "film.stack";
    case SmartList::unusedApps:
        return "hourglass";
    }
    return {};
}

// One file; `path` is its identity.
struct FileItem {
    std::string path;
    std::string name;
    std::string contentType;
    std::optional<LibraryKind> kind;
    std::int64_t size = 0; // logical length in bytes
    std::optional<TimePoint> created;
    std::optional<TimePoint> modified;
    std::optional<TimePoint> lastOpened;
    std::optional<TimePoint> added;   // added to its folder
    std::vector<std::string> sources; // download origins; empty when unknown
    bool isScreenshot = false;
    std::optional<double> length; // playing time in seconds, audio and video
    bool operator==(const FileItem&) const = default;
};
VANTLE_RECORD_JSON(FileItem, path, name, contentType, kind, size, created, modified, lastOpened, added,
                   sources, isScreenshot, length)

// One kind's share of the library.
struct CategorySummary {
    LibraryKind kind = LibraryKind::images;
    int count = 0;
    std::int64_t bytes = 0;
    std::vector<FileItem> samples;
    bool operator==(const CategorySummary&) const = default;
};
VANTLE_RECORD_JSON(CategorySummary, kind, count, bytes, samples)

// The library at a glance; also exactly the object kept in Library/summary.json between launches.
struct LibrarySummary {
    int totalFiles = 0;
    std::int64_t totalBytes = 0;
    std::vector<CategorySummary> categories; // one per kind that has files
    TimePoint readAt{};
    bool isPartial = false;          // the read stopped at a time or entry limit
    std::optional<std::string> note; // shown as it stands
    bool operator==(const LibrarySummary&) const = default;
};
VANTLE_RECORD_JSON(LibrarySummary, totalFiles, totalBytes, categories, readAt, isPartial, note)

// One smart list offered for cleaning.
struct CleanUpCard {
    SmartList list = SmartList::recents;
    int count = 0;
    std::int64_t bytes = 0;
    std::vector<FileItem> samples;
    std::string detail;     // shown under the title
    bool isPartial = false; // the count is a lower bound
    bool operator==(const CleanUpCard&) const = default;
};
VANTLE_RECORD_JSON(CleanUpCard, list, count, bytes, samples, detail, isPartial)

// Files grouped by where they came from.
struct SourceGroup {
    std::string key; // the source family's key
    std::string name;
    int count = 0;
    std::int64_t bytes = 0;
    std::vector<FileItem> samples;
    bool operator==(const SourceGroup&) const = default;
};
VANTLE_RECORD_JSON(SourceGroup, key, name, count, bytes, samples)

// Files whose contents are byte-for-byte the same.
struct DuplicateGroup {
    std::string fingerprint;     // names the content hash that joins them
    std::int64_t size = 0;       // of one copy
    std::vector<FileItem> items; // two or more

    // What removing all but one copy would free.
    std::int64_t freedBytes() const {
        return items.empty() ? 0 : size * static_cast<std::int64_t>(items.size() - 1);
    }
    bool operator==(const DuplicateGroup&) const = default;
};
VANTLE_RECORD_JSON(DuplicateGroup, fingerprint, size, items)

// A duplicate search as the Home shows it.
struct DuplicateLook {
    std::vector<DuplicateGroup> groups;
    bool isComplete = true; // false when the search stopped at its time limit
    bool operator==(const DuplicateLook&) const = default;
};
VANTLE_RECORD_JSON(DuplicateLook, groups, isComplete)

// A structured query over the library. Empty sets mean "any".
struct FileQuery {
    enum class Sort {
        newest,
        oldest,
        largest,
        name,
        relevance,
        smallest,
        nameDescending,
        kind,
        kindDescending
    };
    // Which date `after` and `before` test; `any` matches when any of the file's dates does.
    enum class DateField { any, created, modified, added, opened };

    std::set<LibraryKind> kinds;
    std::set<std::string> extensions; // lower case, no dot
    std::vector<std::string> terms;   // every term must match the name
    bool screenshotsOnly = false;
    std::optional<TimePoint> after;  // inclusive
    std::optional<TimePoint> before; // exclusive
    DateField dateField = DateField::any;
    std::optional<std::int64_t> minSize;
    std::optional<std::int64_t> maxSize;
    std::optional<std::string> folder; // absolute path
    std::optional<std::string> source; // source family key
    std::optional<std::string> camera; // make or model contains it
    std::optional<double> minLength;   // playing time in seconds, at least
    std::optional<double> maxLength;   // playing time in seconds, at most
    Sort sort = Sort::newest;
    int limit = 100;
    bool operator==(const FileQuery&) const = default;
};
VANTLE_ENUM_NAMES(FileQuery::Sort, "newest", "oldest", "largest", "name", "relevance", "smallest",
                  "nameDescending", "kind", "kindDescending")
VANTLE_ENUM_NAMES(FileQuery::DateField, "any", "created", "modified", "added", "opened")
VANTLE_RECORD_JSON(FileQuery, kinds, extensions, terms, screenshotsOnly, after, before, dateField, minSize,
                   maxSize, folder, source, camera, minLength, maxLength, sort, limit)

// What the search parser made of the user's words.
struct ParsedSearch {
    FileQuery query;
    std::vector<std::string> chips; // one short label per understood piece
    std::string source;             // the words as typed
    int milliseconds = 0;           // parse and search together
    bool operator==(const ParsedSearch&) const = default;
};
VANTLE_RECORD_JSON(ParsedSearch, query, chips, source, milliseconds)

struct SearchResult {
    ParsedSearch parsed;
    std::vector<FileItem> items;     // at most the query's limit
    int total = 0;                   // matches before the limit
    std::optional<std::string> note; // why the result may be incomplete, shown as it stands
    bool operator==(const SearchResult&) const = default;
};
VANTLE_RECORD_JSON(SearchResult, parsed, items, total, note)

} // namespace vantle

// Files are keyed by path, their identity; equal items have equal paths.
template <> struct std::hash<vantle::FileItem> {
    size_t operator()(const vantle::FileItem& item) const noexcept {
        return std::hash<std::string>{}(item.path);
    }
};
