// The disk walk: reads the facts of every file in the library's scope by descriptors, one folder at
// a time, within an entry limit and a deadline, and says how the reading went. A DiskWalk is a
// plain value; run() may be called from any thread (one run per call, nothing shared), reads on a few
// threads of its own, and returns values the caller owns. The clock and the progress callback are
// called from those threads (the callback one call at a time).
#pragma once
#include "VantleLibrary/Facts.h"
#include "VantleSpec/CancelFlag.h"
#include "VantleSpec/Time.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// What the library covers: the home folder and the folders that hold applications.
// In the home, names beginning with "." and the top-level "Library" are left out (they hold the
// system's and programs' own files), except "Library/Mobile Documents", the cloud documents.
// Folders on another disk than the one they are reached from are listed but not looked into. From
// the application folders (shared with the system) only apps are taken.
struct LibraryScope {
    std::filesystem::path home;
    std::vector<std::filesystem::path> appFolders;
    bool operator==(const LibraryScope&) const = default;
};

// One reading of the whole scope. Folders are included (isFolder) so a browser can show them;
// files inside an app bundle are not: the bundle is one item whose size is theirs summed.
struct Snapshot {
    std::vector<Facts> facts;
    bool isWhole = true; // false when the reading stopped at a limit
    TimePoint at{};
};

// How a reading went.
struct Reading {
    enum class Stop { finished, entryLimit, timeLimit, cancelled };

    bool isComplete = true;
    bool readDisk = true; // the disk walk supplied the facts (always, on Linux: there is no index)
    std::vector<std::string> missedContents; // folders that could not be read
    Stop stop = Stop::finished;
    std::int64_t entries = 0; // entries visited
    double seconds = 0;
    // Why the walk could not be kept for the next run, when it could not; the reading itself is whole.
    std::optional<std::string> notKept;
    // Photos' capture dates and cameras and songs' and videos' playing times are still being read
    // behind this reading: a later one of the same walk carries them. Only searches by those facts
    // can miss files meanwhile, so note() leaves it out and the search says it (mediaPendingSentence).
    bool mediaPending = false;
    // The same for download origins and tags, read first (attributesPendingSentence). Whoever needs
    // either waits for them (Catalog::readWithMediaFacts).
    bool attributesPending = false;

    // Why the reading may be incomplete, for the user; none when it is complete.
    std::optional<std::string> note() const;

    static constexpr std::string_view entryLimitSentence =
        "Only the first {count} items were read; the rest of the home folder was not looked at.";
    static constexpr std::string_view timeLimitSentence =
        "Reading stopped after {seconds} seconds; the rest of the home folder was not looked at.";
    static constexpr std::string_view cancelledSentence = "Reading was stopped before it finished.";
    static constexpr std::string_view missedOneSentence = "The folder {path} could not be read.";
    static constexpr std::string_view missedManySentence =
        "{count} folders could not be read, among them {path}.";
    static constexpr std::string_view mediaPendingSentence =
        "Cameras, capture dates and playing times are still being read, so some files they would "
        "match may be missing.";
    static constexpr std::string_view attributesPendingSentence =
        "Where files came from is still being read, so some files it would match may be missing.";
};

// "300,000": counts in sentences are grouped by thousands.
std::string groupedCount(std::int64_t count);

class DiskWalk {
  public:
    struct Progress {
        std::int64_t entries = 0;
        std::int64_t files = 0;
        std::string_view folder; // valid during the call
    };
    using ProgressFn = std::function<void(const Progress&)>;

    struct Outcome {
        Snapshot snapshot;
        Reading reading;
    };

    LibraryScope scope;
    std::int64_t entryLimit = 300'000;
    TimePoint deadline{};
    Clock now = systemClock();
    // Threads reading folders side by side; 0 means one per processor, at most four.
    int threads = 0;

    // Reads the cancel flag between folders; reports progress every few thousand entries.
    Outcome run(const CancelFlag& cancel, const ProgressFn& progress = {}) const;
};

} // namespace vantle
