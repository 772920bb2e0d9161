// The catalog: which files the user has and the facts about each, read by a disk walk (Linux has
// no metadata index) and reused while fresh. Only one walk runs at a time; a request that arrives
// during a walk waits for that walk's snapshot. Photos' and media facts are read behind the walk on
// a thread of the catalog's own, and arrive as a later snapshot of the same walk. An actor: every
// public operation may be called from any thread. Snapshots are shared, immutable, and live as long
// as their holders keep them.
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
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

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
        // Read download origins and tags, photos' capture dates and cameras and the playing time of
        // songs and videos after each walk, behind it (media facts once per file: kept in media.index
        // beside the index file, in memory without one). The walk's snapshot is published first,
        // marked mediaPending.
        bool readMediaFacts = true;
        // How long after a walk that reading waits before it starts, unless someone asks for those
        // facts first: a command that only wanted counts has answered and ended by then, and
        // never pays for them. Their absence is kept with the walk, so whoever needs them later
        // has them read.
        std::chrono::milliseconds lateFactsDelay{2000};
    };

    struct Result {
        std::shared_ptr<const Snapshot> snapshot;
        Reading reading;
    };

    explicit Catalog(Options options);
    // Stops the reading of media facts, keeping what it had read for the next run.
    ~Catalog();
    Catalog(const Catalog&) = delete;
    Catalog& operator=(const Catalog&) = delete;

    // The snapshot to answer from: the one in hand while fresh, the running walk's, or a new walk's.
    // `cancel` and `progress` apply only when this call walks; a cancelled walk's partial snapshot is
    // returned but not kept as fresh.
    Result read(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress = {});

    // The kept index, looked at entry by entry instead of loaded, when read() would answer from it:
    // nothing read yet in this run, no walk running, and the kept walk fresh by the same rule. `each`
    // sees every entry in turn (see CatalogIndex::stream); the answer is how that walk went, without
    // its facts. nullopt when read() must be asked instead (then whatever `each` saw is void).
    // `needsMediaFacts` refuses a kept walk whose media facts were never read (its run ended first),
    // so that read() loads it and reads them.
    // `needsAttributes` does the same for download origins and tags.
    std::optional<CatalogIndex::Kept> readKept(const CatalogIndex::Each& each, bool needsMediaFacts = false,
                                               bool needsAttributes = false);
    // The same kept index opened to be read twice over (see CatalogIndex::Opened), under the same
    // rule, for work that looks at every entry and then again at a few.
    std::optional<CatalogIndex::Opened> openKept();

    // The latest reading once its download origins, tags, photos' and media facts have been read,
    // waiting for that when it is under way; for a caller whose answer depends on them and who would rather
    // wait than be told it may be missing files. `progress` sees how many files are read of how many, about
    // ten times a second. Stopped by `cancel`, it answers the reading in hand, still mediaPending.
    using MediaProgressFn = std::function<void(std::size_t read, std::size_t toRead)>;
    // `attributesOnly` waits only for the origins and tags, which are read first.
    Result readWithMediaFacts(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress = {},
                              const MediaProgressFn& mediaProgress = {}, bool attributesOnly = false);
    // The latest reading once its download origins and tags have been read, for the lists of sources.
    Result readWithAttributes(const CancelFlag& cancel) { return readWithMediaFacts(cancel, {}, {}, true); }

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
    // The kept index may answer in place of read(): nothing read yet in this run and no walk running.
    bool keptMayAnswerLocked() const;
    // A kept walk is fresh by read()'s own rule.
    bool keptIsFreshLocked(const CatalogIndex::Kept& walk) const;
    // True when the kept walk it loaded still owes its media facts.
    bool loadIndexLocked();
    // Starts reading the media facts of `from` behind it (the one running before is stopped first).
    void startFilling(const Result& from);
    void stopFilling();
    void stopFillerLocked(); // with filling_ held
    void fill(Result from);
    // Puts `from` with `reading`, and with `apply` run on its facts when given, in hand and keeps
    // it, unless a walk replaced it meanwhile; `from` becomes what was put in hand.
    bool publish(Result& from, Reading reading, const std::function<void(std::vector<Facts>&)>& apply);
    CatalogIndex keptIndex() const { return CatalogIndex(*options_.indexFile, options_.scope); }

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

    // The media facts' reader: one thread at a time, started and stopped under filling_ (never
    // taken while mutex_ is held). media_ is touched only by that thread.
    std::mutex filling_;
    std::jthread filler_;
    CancelFlag stopFill_;
    // With mutex_: someone waits for the facts read behind the walk, so the delay is cut short.
    bool fillWanted_ = false;
    std::condition_variable fillNow_;
    MediaIndex media_;
    MediaIndex::Progress mediaProgress_;
    std::condition_variable mediaRead_; // with mutex_: a fill ended, whether or not it published
    // With mutex_: the snapshot whose media facts are owed (being read, or about to be); none when
    // the one in hand has them or its fill was stopped.
    std::shared_ptr<const Snapshot> fillFor_;
};

// The library at a glance from one reading: counts and bytes per kind (kinds without files left
// out) with the `samples` most recently changed files of each.
LibrarySummary summaryOf(const Snapshot& snapshot, const Reading& reading, int samples);

} // namespace vantle
