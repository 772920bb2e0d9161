// Answers a FileQuery, or a search in plain words, from one catalog reading: which files match, how
// many, and the first `limit` of them in the query's order. Pure functions over a snapshot the
// caller holds; thread-safe. Returned items are the caller's.
#pragma once
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/Facts.h"
#include "VantleLibrary/SearchParser.h"
#include "VantleSpec/LibraryRecords.h"

#include <functional>
#include <memory>
#include <optional>
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

// One query over entries offered one at a time, as the kept catalog index hands them out: each
// match is copied, so what is offered need only live during the call. Not thread-safe.
class QueryMatcher {
  public:
    explicit QueryMatcher(FileQuery query);
    ~QueryMatcher();
    QueryMatcher(const QueryMatcher&) = delete;
    QueryMatcher& operator=(const QueryMatcher&) = delete;

    void offer(const Facts& facts);
    // The matches so far, in the query's order and cut to its limit, as runQuery answers.
    QueryAnswer answer() const;

  private:
    struct State;
    FileQuery query_;
    std::unique_ptr<State> state_;
};

// Whether the query asks about what is read from photos, songs and videos behind the walk: a camera,
// a playing time, or dates (which a photo's capture date can meet).
bool usesMediaFacts(const FileQuery& query);
// Whether it asks where files came from, which is also read behind the walk.
bool usesAttributeFacts(const FileQuery& query);

// Parses `words` and runs the query over the reading, timing both. A reading that was not complete,
// or whose media facts are still being read when the query needs them, makes the result say so in
// its note.
SearchResult searchFiles(const SearchParser& parser, std::string_view words, const Snapshot& snapshot,
                         const Reading& reading, int limit = 100);

// The same search over entries offered one at a time: `offerEach` hands every entry to the function
// it is given and says how that reading went, or nullopt when it had none to give (nothing is then
// searched, and nullopt is returned).
using OfferEach = std::function<std::optional<Reading>(const std::function<void(const Facts&)>&)>;
std::optional<SearchResult> searchFiles(const SearchParser& parser, std::string_view words, int limit,
                                        const OfferEach& offerEach);

} // namespace vantle
