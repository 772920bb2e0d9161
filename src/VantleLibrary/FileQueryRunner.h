// Answers a FileQuery, or a search in plain words, from one catalog reading: which files match, how
// many, and the first `limit` of them in the query's order. Pure functions over a snapshot the
// caller holds; thread-safe. Returned items are the caller's.
#pragma once
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/Facts.h"
#include "VantleLibrary/SearchParser.h"
#include "VantleSpec/LibraryRecords.h"

#include <span>
#include <string_view>

namespace vantle {

struct QueryAnswer {
    std::vector<FileItem> items; // at most the query's limit, in its order
    int total = 0;               // matches before the limit
};

// Folders are answered only for a search by name alone; files inside app bundles are never listed
// by the catalog, so an app is one item.
QueryAnswer runQuery(const FileQuery& query, std::span<const Facts> facts);

// Parses `words` and runs the query over the reading, timing both. A reading that was not complete
// makes the result say so in its note.
SearchResult searchFiles(const SearchParser& parser, std::string_view words, const Snapshot& snapshot,
                         const Reading& reading, int limit = 100);

} // namespace vantle
