// Finds files whose contents are byte-for-byte the same: size groups, then a sample hash of three
// slices, then the SHA-256 of the whole file, with every hash kept in the fingerprint cache so an
// unchanged file is read once. An actor: every public operation holds its lock, so scans run one at
// a time; callers own the scans returned.
#pragma once
#include "VantleLibrary/CatalogIndex.h"
#include "VantleLibrary/Facts.h"
#include "VantleLibrary/Fingerprint.h"
#include "VantleLibrary/FingerprintCache.h"
#include "VantleSpec/CancelFlag.h"
#include "VantleSpec/Json.h"
#include "VantleSpec/LibraryRecords.h"
#include "VantleSpec/Time.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace vantle {

// How the copies of one group share their storage. Removing a hard link frees nothing while another
// name of the file is kept; removing a clone frees only the blocks it does not share.
struct DuplicateSharing {
    std::string fingerprint;                         // the group's
    std::vector<std::vector<std::string>> hardLinks; // names of one file, two or more each
    std::vector<std::string> clones;                 // copies whose every block is shared with another file
    std::int64_t freeable = 0;                       // what removing all but one copy really frees
    bool operator==(const DuplicateSharing&) const = default;
};
VANTLE_RECORD_JSON(DuplicateSharing, fingerprint, hardLinks, clones, freeable)

// The outcome of one scan.
struct DuplicateScan {
    std::vector<DuplicateGroup> groups;
    bool isComplete = true; // false when the scan stopped (deadline, cancel) or left a candidate out
    TimePoint at{};
    int candidates = 0;         // files that shared a size with another file
    std::int64_t bytesRead = 0; // read for hashing
    double seconds = 0;
    std::vector<DuplicateSharing> sharing; // one per group, in the same order
    std::optional<std::string> note;       // what degraded, shown as it stands
    int missed = 0; // candidates left out because they could not be read or changed while read

    std::int64_t freeableBytes() const;
    DuplicateLook look() const { return {groups, isComplete}; }
    bool operator==(const DuplicateScan&) const = default;
};
VANTLE_RECORD_JSON(DuplicateScan, groups, isComplete, at, candidates, bytesRead, seconds, sharing, note,
                   missed)

// What a scan is doing, for a progress line.
struct DuplicateProgress {
    enum class Phase { recording, sampling, hashing };
    Phase phase = Phase::recording;
    size_t done = 0;
    size_t total = 0;
    std::int64_t bytesRead = 0;
};

class Duplicates {
  public:
    // One candidate file, read once before any hashing.
    struct Record {
        std::string path;
        std::vector<std::string> names; // as shown
        FileNumber number;
        std::int64_t size = 0;
        std::int64_t allocated = 0;
        std::int64_t privateSize = 0; // blocks not shared with a clone
        std::uint32_t linkCount = 0;
        std::uint64_t cloneID = 0; // where the shared blocks start: equal for clones of one file; 0 = none
        bool sharesAllBlocks = false;
        bool isShared = false;
        std::int64_t modified = 0; // nanoseconds since the epoch
        std::optional<std::int64_t> born;
    };

    struct Options {
        std::filesystem::path cacheFile; // empty: hashes are kept for this run only
        std::chrono::milliseconds timeLimit{45'000};
        std::int64_t smallestSize = 1; // empty files are all alike and free nothing
        Clock clock = systemClock();
        // How long a complete scan answers again. Zero: never, and no scan is kept (latest() has none).
        std::chrono::milliseconds freshness{60'000};
        unsigned threads = 0; // hashing threads; 0: eight per processor, so the disk has reads to order
    };

    static inline constexpr std::string_view cacheNotSaved =
        "The fingerprint cache could not be saved ({reason}), so the next scan reads these files again.";

    static inline constexpr std::string_view stoppedNote =
        "The duplicate scan was stopped before it finished; these are the copies found so far.";
    // A file cut short by the limit keeps no partial hash: the next run reads it from its start.
    static inline constexpr std::string_view timeLimitNote =
        "The duplicate scan reached its time limit of {seconds} seconds; there may be more copies. Run it "
        "again to continue: files already read whole are not read again, but a file the limit cut short "
        "is read again from its start.";
    static inline constexpr std::string_view filesMissedNote =
        "{count} files that share a size with another could not be read or changed while being read, so "
        "they were left out and there may be more copies.";

    explicit Duplicates(Options options);

    using ProgressFn = std::function<void(const DuplicateProgress&)>;

    // Scans `items` (regular files; others are skipped). Stops at the time limit or when `cancel` is
    // set, returning the groups found so far with isComplete false.
    DuplicateScan scan(std::span<const FileItem> items, CancelFlag& cancel, const ProgressFn& progress = {});

    // The same over a catalog reading, taking candidatesOf's files: an item is made only for a file
    // that ends in a group, so a library of tens of thousands of files costs no copy of each.
    DuplicateScan scan(std::span<const Facts> facts, CancelFlag& cancel, const ProgressFn& progress = {});

    // The same over a kept catalog index read in place: an entry is decoded again, from the index, only
    // for a file that ends in a group, and no list of the catalog's entries is made. Nothing when the
    // index's entries cannot be read.
    std::optional<DuplicateScan> scan(const CatalogIndex::Opened& index, CancelFlag& cancel,
                                      const ProgressFn& progress = {});

    // The files of a catalog reading worth giving to scan(): regular files (not folders or app
    // bundles) at least `smallestSize` long whose size another such file shares.
    static std::vector<FileItem> candidatesOf(std::span<const Facts> facts, std::int64_t smallestSize = 1);

    // How one group's copies share storage: hard links are one file, and clones of one family free
    // only their own blocks unless the whole family goes.
    static DuplicateSharing sharingOf(std::string fingerprint, std::int64_t size,
                                      std::span<const Record> copies);

    // The latest scan, if any.
    std::optional<DuplicateScan> latest() const;
    // The latest scan while it may stand for a new one: complete, younger than `freshness`, and no
    // change heard since it began.
    std::optional<DuplicateScan> fresh() const;
    // Something changed under the library: the latest scan no longer stands for a new one. Does not
    // wait for a running scan.
    void noteChanges() { changes_.fetch_add(1); }

    // Starts reading the fingerprint cache on a thread of its own, for a scan about to begin: a front
    // end reads the catalog meanwhile. Does nothing once the cache is read or being read.
    void readCacheAhead();

  private:
    // A file to look at: its path and listed size, and where it came from in the caller's list.
    struct Candidate {
        std::string_view path; // not always followed by a NUL
        std::int64_t size;
        size_t source;
    };
    DuplicateScan scanCandidates(std::vector<Candidate> candidates,
                                 const std::function<FileItem(size_t source)>& itemOf, CancelFlag& cancel,
                                 const ProgressFn& progress);

    // Reads the cache, or waits for readCacheAhead's thread to. Under the lock.
    void loadCache();

    mutable std::mutex mutex_;
    Options options_;
    FingerprintCache cache_;
    std::optional<DuplicateScan> latest_;
    // Changes heard, counted without the lock so a watcher is never held up by a running scan.
    std::atomic<std::uint64_t> changes_{0};
    std::uint64_t changesBeforeLatest_ = 0;
    std::jthread cacheReading_; // last: it is joined before what it reads into goes
};

} // namespace vantle
