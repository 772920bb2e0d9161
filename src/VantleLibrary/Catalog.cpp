#include "VantleLibrary/Catalog.h"

#include "VantleLibrary/SummaryTally.h"

#include <algorithm>
#include <array>
#include <utility>

namespace vantle {

Catalog::Catalog(Options options)
    : options_(std::move(options)),
      media_(options_.indexFile ? std::optional(options_.indexFile->parent_path() / "media.index")
                                : std::nullopt) {}

Catalog::~Catalog() {
    stopFilling();
}

Catalog::Next Catalog::decide(Walk walks, std::optional<TimePoint> walkedAt, bool stale, TimePoint now,
                              std::chrono::seconds freshness) {
    if (walks == Walk::running) return Next::wait;
    if (!walkedAt || stale) return Next::walk;
    // A clock that went backwards makes the age negative: treat that snapshot as stale too.
    auto age = now - *walkedAt;
    if (age < std::chrono::seconds(0) || age >= freshness) return Next::walk;
    return Next::use;
}

Catalog::Next Catalog::nextLocked() const {
    std::optional<TimePoint> at;
    if (walked_) at = walked_->snapshot->at;
    return decide(walks_, at, changes_ > 0 || cancelledWalk_, options_.now(), options_.walkFreshness);
}

Catalog::Next Catalog::next() const {
    std::lock_guard lock(mutex_);
    return nextLocked();
}

void Catalog::noteChanges(std::int64_t count) {
    std::lock_guard lock(mutex_);
    changes_ += count;
}

std::int64_t Catalog::changes() const {
    std::lock_guard lock(mutex_);
    return changes_;
}

int Catalog::waiting() const {
    std::lock_guard lock(mutex_);
    return waiting_;
}

std::optional<Catalog::Result> Catalog::latest() const {
    std::lock_guard lock(mutex_);
    return walked_;
}

bool Catalog::loadIndexLocked() {
    if (std::exchange(indexLoaded_, true) || walked_ || !options_.indexFile) return false;
    // A missing or damaged index is simply not there: the walk that follows writes a new one.
    auto kept = keptIndex().load();
    if (!kept) return false;
    // A run that ended before the facts were read leaves the walk without them: they are read now.
    kept->reading.mediaPending = kept->reading.mediaPending && options_.readMediaFacts;
    kept->reading.attributesPending = kept->reading.attributesPending && options_.readMediaFacts;
    walked_ = Result{std::make_shared<Snapshot>(std::move(kept->snapshot)), std::move(kept->reading)};
    if (!walked_->reading.mediaPending && !walked_->reading.attributesPending) return false;
    fillFor_ = walked_->snapshot;
    return true;
}

std::optional<CatalogIndex::Kept> Catalog::readKept(const CatalogIndex::Each& each, bool needsMediaFacts,
                                                    bool needsAttributes) {
    std::lock_guard lock(mutex_);
    if (!keptMayAnswerLocked()) return std::nullopt;
    bool fresh = false;
    auto kept = keptIndex().stream(
        [&](const CatalogIndex::Kept& walk, std::size_t) {
            // One still owing its media facts is loaded instead, so that they are read.
            fresh = keptIsFreshLocked(walk) &&
                    !(needsMediaFacts && walk.reading.mediaPending && options_.readMediaFacts) &&
                    !(needsAttributes && walk.reading.attributesPending && options_.readMediaFacts);
            return fresh;
        },
        each);
    if (kept && fresh) return std::move(*kept);
    // A missing or damaged index is not read again; a stale one is still loaded by read(), so that
    // latest() has it while the walk runs.
    if (!kept) indexLoaded_ = true;
    return std::nullopt;
}

std::optional<CatalogIndex::Opened> Catalog::openKept() {
    std::lock_guard lock(mutex_);
    if (!keptMayAnswerLocked()) return std::nullopt;
    auto opened = keptIndex().open();
    if (!opened) {
        indexLoaded_ = true; // missing or damaged: not looked for again
        return std::nullopt;
    }
    if (!keptIsFreshLocked(opened->walk())) return std::nullopt;
    return std::move(*opened);
}

bool Catalog::keptMayAnswerLocked() const {
    return !walked_ && !indexLoaded_ && walks_ != Walk::running && options_.indexFile;
}

bool Catalog::keptIsFreshLocked(const CatalogIndex::Kept& walk) const {
    const bool stale = changes_ > 0 || cancelledWalk_;
    return decide(Walk::ready, walk.snapshot.at, stale, options_.now(), options_.walkFreshness) == Next::use;
}

Catalog::Result Catalog::read(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress) {
    std::unique_lock lock(mutex_);
    if (loadIndexLocked() && nextLocked() == Next::use) {
        auto kept = *walked_;
        lock.unlock();
        startFilling(kept);
        return kept;
    }
    switch (nextLocked()) {
    case Next::use:
        return *walked_;
    case Next::wait: {
        auto waitingFor = generation_ + 1;
        ++waiting_;
        walkEnded_.wait(lock, [&] { return generation_ >= waitingFor; });
        --waiting_;
        return *walked_;
    }
    case Next::walk:
        break;
    }

    walks_ = Walk::running;
    auto changesBefore = changes_;
    lock.unlock();
    // The facts still being read belong to the walk this one replaces: stopped (what they read is
    // kept), so they do not slow this walk down.
    stopFilling();
    // The lock is not held while walking, so changes heard meanwhile are counted and the state can
    // be asked for; only this call writes walked_.
    DiskWalk walk{options_.scope, options_.walkLimit, options_.now() + options_.walkTimeLimit, options_.now};
    Result result;
    try {
        auto outcome = walk.run(cancel, progress);
        // Read behind the walk, never in it: most files carry nothing, and the walk's snapshot is
        // what the user waits for.
        outcome.reading.mediaPending = options_.readMediaFacts && !cancel.isCancelled();
        outcome.reading.attributesPending = outcome.reading.mediaPending;
        result = {std::make_shared<Snapshot>(std::move(outcome.snapshot)), std::move(outcome.reading)};
    } catch (const std::bad_alloc&) {
        // Out of memory with a huge home: answer with nothing rather than leave waiters hanging.
        Reading reading;
        reading.isComplete = false;
        reading.stop = Reading::Stop::cancelled;
        result = {std::make_shared<const Snapshot>(Snapshot{{}, false, options_.now()}), std::move(reading)};
    }
    // A stopped walk is not kept: the index keeps the last reading that went as far as it could.
    if (options_.indexFile && result.reading.stop != Reading::Stop::cancelled) {
        std::lock_guard keeping(keeping_);
        if (auto kept = keptIndex().keep(*result.snapshot, result.reading); !kept)
            result.reading.notKept = kept.error();
    }
    lock.lock();
    // Changes heard during the walk may have been missed by it: they keep the new snapshot stale.
    changes_ -= changesBefore;
    cancelledWalk_ = result.reading.stop == Reading::Stop::cancelled;
    walked_ = result;
    fillFor_ = result.reading.mediaPending || result.reading.attributesPending ? result.snapshot : nullptr;
    walks_ = Walk::ready;
    ++generation_;
    walkEnded_.notify_all();
    lock.unlock();
    startFilling(result);
    return result;
}

void Catalog::stopFillerLocked() {
    if (!filler_.joinable()) return;
    stopFill_.cancel();
    {
        // Under mutex_, so a filler about to wait for its delay cannot miss the news.
        std::lock_guard state(mutex_);
        fillNow_.notify_all();
    }
    filler_.join();
    stopFill_.reset();
}

void Catalog::stopFilling() {
    std::lock_guard lock(filling_);
    stopFillerLocked();
}

void Catalog::startFilling(const Result& from) {
    if (!from.reading.mediaPending && !from.reading.attributesPending) return;
    std::lock_guard lock(filling_);
    stopFillerLocked();
    // Moved into fill(), so the thread holds the snapshot only once (see publish()).
    filler_ = std::jthread([this, owed = from]() mutable { fill(std::move(owed)); });
}

bool Catalog::publish(Result& from, Reading reading, const std::function<void(std::vector<Facts>&)>& apply) {
    // The index is replaced under keeping_, with the check first, so a walk that ends meanwhile
    // writes after this one and its newer index stands.
    std::lock_guard keeping(keeping_);
    Result next{nullptr, std::move(reading)};
    {
        std::lock_guard state(mutex_);
        if (!walked_ || walked_->snapshot != from.snapshot) return false;
        if (apply) {
            auto filled = std::make_shared<Snapshot>();
            filled->isWhole = from.snapshot->isWhole;
            filled->at = from.snapshot->at;
            // Held only here, in hand and as the snapshot owed (nobody gets it without this lock):
            // its facts move over instead of being copied, so a large home is never held twice.
            // Every snapshot is made as a plain Snapshot, so taking from it is allowed.
            const long holders = 2 + (fillFor_ == from.snapshot ? 1 : 0);
            if (from.snapshot.use_count() == holders)
                filled->facts = std::move(const_cast<Snapshot&>(*from.snapshot).facts);
            else
                filled->facts = from.snapshot->facts;
            apply(filled->facts);
            next.snapshot = std::move(filled);
        } else {
            next.snapshot = from.snapshot;
        }
        // Still said to owe what it owed until it is kept, so that whoever waits for the facts
        // finds them in the index too.
        walked_ = Result{next.snapshot, from.reading};
        if (fillFor_ == from.snapshot) fillFor_ = next.snapshot;
    }
    if (options_.indexFile && next.reading.stop != Reading::Stop::cancelled)
        if (auto kept = keptIndex().keep(*next.snapshot, next.reading); !kept)
            next.reading.notKept = kept.error();
    from = next;
    std::lock_guard state(mutex_);
    if (!walked_ || walked_->snapshot != next.snapshot) return false;
    walked_ = next;
    if (fillFor_ == next.snapshot && !next.reading.mediaPending) fillFor_.reset();
    mediaRead_.notify_all();
    return true;
}

void Catalog::fill(Result from) {
    auto ended = [&] {
        std::lock_guard state(mutex_);
        if (fillFor_ == from.snapshot) fillFor_.reset();
        mediaRead_.notify_all();
    };
    {
        std::unique_lock state(mutex_);
        fillNow_.wait_for(state, options_.lateFactsDelay,
                          [&] { return fillWanted_ || stopFill_.isCancelled(); });
    }
    if (stopFill_.isCancelled()) return ended();

    // Origins and tags first: one quick call per file, and what the sources wait for.
    if (from.reading.attributesPending) {
        mediaProgress_.read = 0;
        mediaProgress_.toRead = 0;
        auto found = MediaIndex::attributes(from.snapshot->facts, stopFill_, &mediaProgress_);
        if (!found) return ended();
        auto reading = from.reading;
        reading.attributesPending = false;
        // A home where no file carries any keeps its snapshot.
        std::function<void(std::vector<Facts>&)> apply;
        if (!found->empty())
            apply = [&](std::vector<Facts>& facts) {
                for (const auto& [at, attributes] : *found)
                    attributes.applyTo(facts[at]);
            };
        if (!publish(from, std::move(reading), apply)) return ended();
    }
    if (!from.reading.mediaPending) return;

    mediaProgress_.read = 0;
    mediaProgress_.toRead = 0;
    auto found = media_.fill(from.snapshot->facts, stopFill_, &mediaProgress_);
    // Kept even when stopped, so the next run reads only what is left.
    auto keptMedia = media_.keep();
    if (!found.whole) return ended();

    auto reading = from.reading;
    reading.mediaPending = false;
    if (!keptMedia) reading.notKept = keptMedia.error();
    // A home without photos keeps its snapshot.
    std::function<void(std::vector<Facts>&)> apply;
    if (found.carries()) apply = [&](std::vector<Facts>& facts) { found.applyTo(facts); };
    if (!publish(from, std::move(reading), apply)) ended();
}

Catalog::Result Catalog::readWithMediaFacts(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress,
                                            const MediaProgressFn& mediaProgress, bool attributesOnly) {
    auto result = read(cancel, progress);
    auto owed = [&](const Reading& reading) {
        return reading.attributesPending || (!attributesOnly && reading.mediaPending);
    };
    if (!owed(result.reading)) return result;
    result = {}; // not held while the facts are added, so they need not be copied
    std::unique_lock lock(mutex_);
    fillWanted_ = true;
    fillNow_.notify_all();
    auto done = [&] {
        return !owed(walked_->reading) || (walks_ == Walk::ready && fillFor_ != walked_->snapshot);
    };
    while (!done() && !cancel.isCancelled()) {
        if (mediaProgress) {
            std::size_t read = mediaProgress_.read, toRead = mediaProgress_.toRead;
            lock.unlock();
            mediaProgress(read, toRead);
            lock.lock();
        }
        mediaRead_.wait_for(lock, std::chrono::milliseconds(100), done);
    }
    return *walked_;
}

LibrarySummary summaryOf(const Snapshot& snapshot, const Reading& reading, int samples) {
    SummaryTally tally(samples);
    for (const auto& facts : snapshot.facts)
        tally.offer(facts);
    return tally.summary(snapshot.at, reading);
}

} // namespace vantle
