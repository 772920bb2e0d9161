#include "VantleLibrary/Library.h"

namespace vantle {

namespace {
Catalog::Options catalogOptions(const LibraryScope& scope, const Library::Options& o) {
    return {scope,           o.useSpotlight, o.queryTimeLimit, o.walkLimit, o.walkTimeLimit,
            o.walkFreshness, o.now,          o.catalogFile};
}
} // namespace

Library::Library(LibraryScope scope, Options options)
    : scope_(std::move(scope)), options_(std::move(options)), catalog_(catalogOptions(scope_, options_)),
      kept_(options_.summaryFile), lists_(scope_.home),
      watcher_(ChangeWatcher::Options{scope_.home, options_.changeLatency, options_.changeQuiet,
                                      options_.changeLongestWait, options_.changeCooldown, options_.now},
               [this](const ChangeSignal& signal) {
                   catalog_.noteChanges(std::max<std::int64_t>(signal.changes, 1));
               }) {}

// The watcher's thread calls into the catalog: it must end before the catalog does.
Library::~Library() {
    watcher_.stop();
}

Catalog::Result Library::read(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress) {
    return catalog_.read(cancel, progress);
}

LibrarySummary Library::summary(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress) {
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

std::vector<FileItem> Library::list(SmartList list, size_t limit, const CancelFlag& cancel,
                                    const DiskWalk::ProgressFn& progress, const DuplicateLook* duplicates) {
    if (list == SmartList::duplicates)
        return lists_.items(list, Snapshot{}, options_.now(), limit, duplicates);
    auto result = catalog_.read(cancel, progress);
    return lists_.items(list, *result.snapshot, options_.now(), limit, duplicates);
}

std::vector<CleanUpCard> Library::cleanUpCards(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress,
                                               const DuplicateLook* duplicates) {
    auto result = catalog_.read(cancel, progress);
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
