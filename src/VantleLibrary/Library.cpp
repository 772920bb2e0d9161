#include "VantleLibrary/Library.h"

#include "VantleLibrary/SummaryTally.h"

namespace vantle {

namespace {
Catalog::Options catalogOptions(const LibraryScope& scope, const Library::Options& o) {
    return {scope,           o.useSpotlight, o.queryTimeLimit, o.walkLimit, o.walkTimeLimit,
            o.walkFreshness, o.now,          o.catalogFile};
}
Duplicates::Options duplicateOptions(const Library::Options& o) {
    Duplicates::Options d;
    d.cacheFile = o.fingerprintFile.value_or(std::filesystem::path());
    d.timeLimit = o.duplicateTimeLimit;
    d.clock = o.now;
    d.freshness = o.duplicateFreshness;
    return d;
}
} // namespace

Library::Library(LibraryScope scope, Options options)
    : scope_(std::move(scope)), options_(std::move(options)), catalog_(catalogOptions(scope_, options_)),
      kept_(options_.summaryFile), lists_(scope_.home), duplicates_(duplicateOptions(options_)),
      watcher_(ChangeWatcher::Options{scope_.home, options_.changeLatency, options_.changeQuiet,
                                      options_.changeLongestWait, options_.changeCooldown, options_.now},
               [this](const ChangeSignal& signal) {
                   catalog_.noteChanges(std::max<std::int64_t>(signal.changes, 1));
                   duplicates_.noteChanges();
               }) {}

// The watcher's thread calls into the catalog: it must end before the catalog does.
Library::~Library() {
    watcher_.stop();
}

Catalog::Result Library::read(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress) {
    return catalog_.read(cancel, progress);
}

std::optional<SearchResult> Library::search(const SearchParser& parser, std::string_view words, int limit,
                                            const CancelFlag& cancel, const DiskWalk::ProgressFn& progress,
                                            const Catalog::MediaProgressFn* waitForMediaFacts) {
    const auto query = parser.parse(words, limit).query;
    const bool needsMediaFacts = usesMediaFacts(query), needsAttributes = usesAttributeFacts(query);
    auto fromIndex = searchFiles(parser, words, limit, [&](const std::function<void(const Facts&)>& each) {
        auto kept = catalog_.readKept(each, needsMediaFacts, needsAttributes);
        return kept ? std::optional(kept->reading) : std::nullopt;
    });
    if (fromIndex) return fromIndex;
    auto result = waitForMediaFacts && (needsMediaFacts || needsAttributes)
                      ? catalog_.readWithMediaFacts(cancel, progress, *waitForMediaFacts, !needsMediaFacts)
                      : catalog_.read(cancel, progress);
    if (cancel.isCancelled() || !result.snapshot) return std::nullopt;
    return searchFiles(parser, words, *result.snapshot, result.reading, limit);
}

std::optional<QueryAnswer> Library::find(const FileQuery& query, const CancelFlag& cancel) {
    if (auto latest = catalog_.latest(); latest && latest->snapshot)
        return runQuery(query, latest->snapshot->facts);
    QueryMatcher matcher(query);
    if (catalog_.readKept([&](const Facts& f) { matcher.offer(f); })) return matcher.answer();
    auto result = catalog_.read(cancel);
    if (cancel.isCancelled() || !result.snapshot) return std::nullopt;
    return runQuery(query, result.snapshot->facts);
}

LibrarySummary Library::summary(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress) {
    // A fresh kept index is tallied entry by entry, without loading it; kept again only if it differs.
    SummaryTally tally(options_.samples);
    if (auto kept = catalog_.readKept([&](const Facts& f) { tally.offer(f); })) {
        auto summary = tally.summary(kept->snapshot.at, kept->reading);
        std::lock_guard lock(mutex_);
        if (kept_.summary() == summary) return summary;
        if (auto written = kept_.keep(summary); !written)
            summary.note = summary.note ? *summary.note + " " + written.error() : written.error();
        return summary;
    }
    auto result = catalog_.read(cancel, progress);
    auto summary = summaryOf(*result.snapshot, result.reading, options_.samples);
    std::lock_guard lock(mutex_);
    // A reading stopped by the user is not worth keeping over a whole one from before.
    if (keptFrom_ == result.snapshot || result.reading.stop == Reading::Stop::cancelled) return summary;
    if (auto kept = kept_.keep(summary); !kept) {
        summary.note = summary.note ? *summary.note + " " + kept.error() : kept.error();
        return summary;
    }
    keptFrom_ = result.snapshot;
    return summary;
}

namespace {
// Files the catalog could not see may have copies too.
void noteUnseen(DuplicateScan& scan, const Reading& reading) {
    if (auto partial = reading.note()) {
        scan.isComplete = false;
        scan.note = scan.note ? *scan.note + " " + *partial : *partial;
    }
}
} // namespace

DuplicateScan Library::findDuplicates(CancelFlag& cancel,
                                      const std::function<void(const DuplicateProgress&)>& progress,
                                      const Catalog::Result* read) {
    if (auto fresh = duplicates_.fresh()) return *fresh;
    std::optional<Catalog::Result> own;
    if (!read) read = &own.emplace(catalog_.read(cancel));
    auto scan = duplicates_.scan(std::span<const Facts>(read->snapshot->facts), cancel, progress);
    noteUnseen(scan, read->reading);
    return scan;
}

std::optional<DuplicateScan>
Library::findDuplicatesInKeptIndex(CancelFlag& cancel,
                                   const std::function<void(const DuplicateProgress&)>& progress) {
    if (auto fresh = duplicates_.fresh()) return fresh;
    auto index = catalog_.openKept();
    if (!index) return std::nullopt;
    auto scan = duplicates_.scan(*index, cancel, progress);
    if (scan) noteUnseen(*scan, index->walk().reading);
    return scan;
}

std::optional<DuplicateLook> Library::duplicateLook(CancelFlag& cancel, const Catalog::Result& read) {
    if (auto fresh = duplicates_.fresh()) return fresh->look();
    // On demand, a scan costs reading files, which only the user's asking pays for.
    if (options_.duplicatesOnDemand) return std::nullopt;
    return findDuplicates(cancel, {}, &read).look();
}

std::vector<FileItem> Library::list(SmartList list, size_t limit, CancelFlag& cancel,
                                    const DiskWalk::ProgressFn& progress, const DuplicateLook* duplicates) {
    if (list == SmartList::duplicates && duplicates)
        return lists_.items(list, Snapshot{}, options_.now(), limit, duplicates);
    auto result = catalog_.read(cancel, progress);
    std::optional<DuplicateLook> look;
    if (list == SmartList::duplicates && (look = duplicateLook(cancel, result))) duplicates = &*look;
    return lists_.items(list, *result.snapshot, options_.now(), limit, duplicates);
}

std::vector<CleanUpCard> Library::cleanUpCards(CancelFlag& cancel, const DiskWalk::ProgressFn& progress,
                                               const DuplicateLook* duplicates) {
    auto result = catalog_.read(cancel, progress);
    std::optional<DuplicateLook> look;
    if (!duplicates && (look = duplicateLook(cancel, result))) duplicates = &*look;
    return lists_.cards(*result.snapshot, result.reading, options_.now(), options_.samples, duplicates);
}

bool Library::startWatching() {
    return watcher_.start();
}
void Library::stopWatching() {
    watcher_.stop();
}
std::shared_ptr<ChangeStream> Library::changes() {
    return watcher_.subscribe();
}
ChangeWatcher::Status Library::watching() const {
    return watcher_.status();
}

} // namespace vantle
