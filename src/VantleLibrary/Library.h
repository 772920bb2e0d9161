// The file library: the catalog of the user's files, the summary kept between launches, the smart
// lists and their clean-up cards, the duplicate finder with its fingerprint cache, and the change
// watcher that makes the catalog and the latest duplicate scan stale, all set up by one
// Library::Options. Every public operation may be called from any thread; long ones take a
// cancel flag and a progress callback. Results are values (snapshots are shared and immutable).
#pragma once
#include "VantleLibrary/Calendar.h"
#include "VantleLibrary/Catalog.h"
#include "VantleLibrary/ChangeWatcher.h"
#include "VantleLibrary/Duplicates.h"
#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/LibrarySummaryStore.h"
#include "VantleLibrary/SmartLists.h"
#include "VantleSpec/LibraryRecords.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

namespace vantle {

class Library {
  public:
    struct Options {
        // Read facts from a metadata index first. Linux has none: the catalog walks the disk either
        // way, and the live wiring sets this false there so the options say what happens.
        bool useSpotlight = true;
        std::chrono::seconds queryTimeLimit{30};
        std::int64_t walkLimit = 300'000;
        std::chrono::seconds walkTimeLimit{20};
        // How long a walk answers while no change is heard (see Catalog::Options::walkFreshness).
        std::chrono::seconds walkFreshness{300};
        std::chrono::seconds duplicateTimeLimit{45};
        std::chrono::seconds duplicateFreshness{60};
        bool duplicatesOnDemand = false;                      // the app sets true
        std::optional<std::filesystem::path> fingerprintFile; // the app sets Library/fingerprints.json
        std::optional<std::filesystem::path> summaryFile;     // the app sets Library/summary.json
        // The catalog's kept index (the app sets Library/catalog.index): the last walk, answered
        // from at once in a later run while it is fresh.
        std::optional<std::filesystem::path> catalogFile;
        std::chrono::seconds modelTimeLimit{8};
        int samples = 4; // example items kept per category and per card
        ChangeTiming::Seconds changeLatency{1};
        ChangeTiming::Seconds changeQuiet{3};
        ChangeTiming::Seconds changeLongestWait{15};
        ChangeTiming::Seconds changeCooldown{60};
        Clock now = systemClock();
        Calendar calendar;
    };

    // Reads the kept summary at once, so figures are there before the first reading.
    Library(LibraryScope scope, Options options);
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    const Options& options() const { return options_; }
    const LibraryScope& scope() const { return scope_; }
    Catalog& catalog() { return catalog_; }
    const SmartLists& smartLists() const { return lists_; }

    // The summary kept from an earlier run (or the latest kept in this one).
    std::optional<LibrarySummary> keptSummary() const { return kept_.summary(); }

    // The catalog's reading: reused while fresh, else walked (one walk at a time).
    Catalog::Result read(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress = {});

    // A search in plain words over the catalog. While the kept index is fresh it is searched entry by
    // entry without being loaded (the fast answer of a new run); otherwise over the reading read()
    // gives. nullopt when the user stopped the walk that reading needed. A search by camera, playing
    // time or date while those facts are still being read says so in its note; with
    // `waitForMediaFacts` it waits for them instead (a one-shot answer, which is read once).
    std::optional<SearchResult> search(const SearchParser& parser, std::string_view words, int limit,
                                       const CancelFlag& cancel, const DiskWalk::ProgressFn& progress = {},
                                       const Catalog::MediaProgressFn* waitForMediaFacts = nullptr);

    // A query answered as fast as the catalog can: from the latest reading in memory even when a
    // change has made it stale (what a search-as-you-type wants; the next read() walks again), else
    // from the kept index entry by entry, else from one walk. nullopt when that walk was stopped.
    std::optional<QueryAnswer> find(const FileQuery& query, const CancelFlag& cancel);

    // The summary of the current reading, kept in Library/summary.json when the reading is new. A
    // summary that could not be kept says so in its note.
    LibrarySummary summary(const CancelFlag& cancel, const DiskWalk::ProgressFn& progress = {});

    // Copies among the catalog's files: the latest scan while it is fresh (see Duplicates::fresh),
    // else a new one over the current reading. `read` is that reading when the caller has one.
    DuplicateScan findDuplicates(CancelFlag& cancel,
                                 const std::function<void(const DuplicateProgress&)>& progress = {},
                                 const Catalog::Result* read = nullptr);
    // The same answered from the kept catalog index alone, read in place, when it is fresh enough to
    // answer from (see Catalog::openKept); nothing when a catalog reading is needed first.
    std::optional<DuplicateScan>
    findDuplicatesInKeptIndex(CancelFlag& cancel,
                              const std::function<void(const DuplicateProgress&)>& progress = {});
    Duplicates& duplicates() { return duplicates_; }

    // The duplicates list and card use `duplicates` when given. Otherwise they use the latest fresh
    // scan, and, unless duplicatesOnDemand, scan when there is none.
    std::vector<FileItem> list(SmartList list, size_t limit, CancelFlag& cancel,
                               const DiskWalk::ProgressFn& progress = {},
                               const DuplicateLook* duplicates = nullptr);
    std::vector<CleanUpCard> cleanUpCards(CancelFlag& cancel, const DiskWalk::ProgressFn& progress = {},
                                          const DuplicateLook* duplicates = nullptr);

    // Starts watching the home for changes; each signal makes the catalog stale. False when the
    // system gives no event queue (the catalog then relies on walkFreshness alone).
    bool startWatching();
    void stopWatching();
    // A listener's own stream of change signals (works before and after the watcher starts).
    std::shared_ptr<ChangeStream> changes();
    ChangeWatcher::Status watching() const;

  private:
    // The look the duplicates list and card are made from when the caller gave none.
    std::optional<DuplicateLook> duplicateLook(CancelFlag& cancel, const Catalog::Result& read);

    const LibraryScope scope_;
    const Options options_;
    Catalog catalog_;
    KeptSummary kept_;
    SmartLists lists_;
    Duplicates duplicates_;
    ChangeWatcher watcher_;
    mutable std::mutex mutex_;
    std::shared_ptr<const Snapshot> keptFrom_; // the snapshot whose summary was kept last
};

} // namespace vantle
