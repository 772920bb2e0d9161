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

void Catalog::loadIndexLocked() {
    if (std::exchange(indexLoaded_, true) || walked_ || !options_.indexFile) return;
    // A missing or damaged index is simply not there: the walk that follows writes a new one.
    auto kept = CatalogIndex(*options_.indexFile).load();
    if (!kept) return;
    walked_ = Result{std::make_shared<const Snapshot>(std::move(kept->snapshot)), std::move(kept->reading)};
}

std::optional<CatalogIndex::Kept> Catalog::readKept(const CatalogIndex::Each& each) {
    std::lock_guard lock(mutex_);
    if (walked_ || indexLoaded_ || walks_ == Walk::running || !options_.indexFile) return std::nullopt;
    const bool stale = changes_ > 0 || cancelledWalk_;
    bool fresh = false;
    auto kept = CatalogIndex(*options_.indexFile)
                    .stream(
                        [&](const CatalogIndex::Kept& walk, std::size_t) {
                            fresh = decide(Walk::ready, walk.snapshot.at, stale, options_.now(),
                                           options_.walkFreshness) == Next::use;
                            return fresh;
                        },
                        each);
    if (kept && fresh) return std::move(*kept);
    // A missing or damaged index is not read again; a stale one is still loaded by read(), so that
    // latest() has it while the walk runs.
    if (!kept) indexLoaded_ = true;
    return std::nullopt;
}

Catalog::Result Catalog::read(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress) {
    std::unique_lock lock(mutex_);
    loadIndexLocked();
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
    // The lock is not held while walking, so changes heard meanwhile are counted and the state can
    // be asked for; only this call writes walked_.
    DiskWalk walk{options_.scope, options_.walkLimit, options_.now() + options_.walkTimeLimit, options_.now};
    Result result;
    try {
        auto outcome = walk.run(cancel, progress);
        // Read after the walk, not in it: the walk's pace is its own, and most files carry nothing.
        if (options_.readMediaFacts && !cancel.isCancelled()) {
            media_.fill(outcome.snapshot.facts, cancel);
            if (auto kept = media_.keep(); !kept) outcome.reading.notKept = kept.error();
        }
        result = {std::make_shared<const Snapshot>(std::move(outcome.snapshot)), std::move(outcome.reading)};
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
        if (auto kept = CatalogIndex(*options_.indexFile).keep(*result.snapshot, result.reading); !kept)
            result.reading.notKept = kept.error();
    }
    lock.lock();
    // Changes heard during the walk may have been missed by it: they keep the new snapshot stale.
    changes_ -= changesBefore;
    cancelledWalk_ = result.reading.stop == Reading::Stop::cancelled;
    walked_ = result;
    walks_ = Walk::ready;
    ++generation_;
    walkEnded_.notify_all();
    return result;
}

LibrarySummary summaryOf(const Snapshot& snapshot, const Reading& reading, int samples) {
    SummaryTally tally(samples);
    for (const auto& facts : snapshot.facts)
        tally.offer(facts);
    return tally.summary(snapshot.at, reading);
}

} // namespace vantle
