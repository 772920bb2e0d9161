// The catalog: which files the user has and the facts about each, read by a disk walk (Linux has
// no metadata index) and reused while fresh. Only one walk runs at a time; a request that arrives
// during a walk waits for that walk's snapshot. An actor: every public operation may be called from
// any thread. Snapshots are shared, immutable, and live as long as their holders keep them.
#pragma once
#include "VantleLibrary/CatalogIndex.h"
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/MediaIndex.h"
#include "VantleSpec/CancelFlag.h"
#include "VantleSpec/LibraryRecords.h"
#include "VantleSpec/Time.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

namespace vantle {

class Catalog {
  public:
    enum class Walk { running, ready };
    // What the next request gets: the snapshot in hand, the running walk's, or a new walk.
    enum class Next { use, wait, walk };

    struct Options {
        LibraryScope scope;
        // Ask the metadata index first. Linux has none, so the catalog always walks; the value is kept
        // so the same options read the same on every system.
        bool useSpotlight = false;
        std::chrono::seconds queryTimeLimit{30};
        std::int64_t walkLimit = 300'000;
        std::chrono::seconds walkTimeLimit{20};
        // How long a walk's snapshot answers requests when no change has been heard. A change watcher
        // makes a snapshot stale at once, so this only bounds what the watcher cannot hear (another
        // disk, a full event queue); five minutes keeps repeated commands and page switches cheap.
        std::chrono::seconds walkFreshness{300};
        Clock now = systemClock();
        // Where the latest walk is kept between runs (Library/catalog.index in the data folder); none
        // keeps it only in memory. A kept walk answers like a walk of this run, by the same freshness.
        std::optional<std::filesystem::path> indexFile;
        // Read photos' capture dates and cameras and the playing time of songs and videos after each
        // walk, once per file: kept in media.index beside the index file (in memory without one).
        bool readMediaFacts = true;
    };

    struct Result {
        std::shared_ptr<const Snapshot> snapshot;
        Reading reading;
    };

    explicit Catalog(Options options);

    // The snapshot to answer from: the one in hand while fresh, the running walk's, or a new walk's.
    // `cancel` and `progress` apply only when this call walks; a cancelled walk's partial snapshot is
    // returned but not kept as fresh.
    Result read(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress = {});

    // The kept index, looked at entry by entry instead of loaded, when read() would answer from it:
    // nothing read yet in this run, no walk running, and the kept walk fresh by the same rule. `each`
    // sees every entry in turn (see CatalogIndex::stream); the answer is how that walk went, without
    // its facts. nullopt when read() must be asked instead (then whatever `each` saw is void).
    std::optional<CatalogIndex::Kept> readKept(const CatalogIndex::Each& each);

    Next next() const;
    // A change was heard under the scope: the snapshot in hand is stale.
    void noteChanges(std::int64_t count = 1);
    std::int64_t changes() const;
    // Requests waiting for the running walk.
    int waiting() const;
    // The latest walk's result, if any, without walking.
    std::optional<Result> latest() const;
    const Options& options() const { return options_; }

    // The decision itself, pure so it can be checked for every combination.
    static Next decide(Walk walks, std::optional<TimePoint> walkedAt, bool stale, TimePoint now,
                       std::chrono::seconds freshness);

  private:
    Next nextLocked() const;
    void loadIndexLocked();

    const Options options_;
    mutable std::mutex mutex_;
    std::condition_variable walkEnded_;
    Walk walks_ = Walk::ready;
    std::int64_t changes_ = 0; // heard since the walk in hand began
    bool cancelledWalk_ = false;
    int waiting_ = 0;
    std::uint64_t generation_ = 0; // walks finished
    std::optional<Result> walked_;
    bool indexLoaded_ = false; // tried once, on the first request
    std::mutex keeping_;       // one write of the index at a time
    MediaIndex media_;         // touched only by the walking call, one walk at a time
};

// The library at a glance from one reading: counts and bytes per kind (kinds without files left
// out) with the `samples` most recently changed files of each.
LibrarySummary summaryOf(const Snapshot& snapshot, const Reading& reading, int samples);

} // namespace vantle
