// The nine smart lists over a catalog snapshot, and the clean-up cards made from the lists that
// free space. The thresholds are fixed here, in one place, so the Home, the CLI and the tests read
// the same ones. Holds no state beyond its settings; safe from several threads; results are values.
#pragma once
#include "VantleLibrary/DiskWalk.h"
#include "VantleSpec/LibraryRecords.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// "Untouched" below means: neither opened nor changed within that time (Facts::lastTouched), so a
// file on a volume that keeps no access times is judged by its changes.
struct SmartListRules {
    std::chrono::days recentDays{30};          // recents: touched within
    std::int64_t largeFileBytes = 100'000'000; // largeFiles: at least this size
    std::chrono::days forgottenDays{30};       // forgottenDownloads: in Downloads, untouched for
    std::chrono::days oldScreenshotDays{30};   // oldScreenshots: untouched for
    std::chrono::days oldInstallerDays{14};    // oldInstallers: untouched for
    std::int64_t bigVideoBytes = 200'000'000;  // bigOldVideos: at least this size ...
    std::chrono::days oldVideoDays{180};       // ... and untouched for
    std::chrono::days unusedAppDays{90};       // unusedApps: untouched for
};

// The lines shown under each list's title; {size} and {days} come from the rules.
constexpr std::string_view detailSentence(SmartList list) {
    switch (list) {
    case SmartList::recents:
        return "Opened or changed in the last {days} days";
    case SmartList::largeFiles:
        return "Files of {size} or more";
    case SmartList::screenshots:
        return "Screen captures in your home folder";
    case SmartList::duplicates:
        return "Extra copies of files you already have";
    case SmartList::forgottenDownloads:
        return "Downloads left untouched for {days} days";
    case SmartList::oldScreenshots:
        return "Screenshots left untouched for {days} days";
    case SmartList::oldInstallers:
        return "Installers left untouched for {days} days";
    case SmartList::bigOldVideos:
        return "Videos of {size} or more left untouched for {days} days";
    case SmartList::unusedApps:
        return "Apps not opened for {days} days";
    }
    return {};
}

// Installer and disk-image extensions: what an app arrives in and is no longer needed once installed.
bool isInstallerExtension(std::string_view lowerExtension);

class SmartLists {
  public:
    explicit SmartLists(std::filesystem::path home, SmartListRules rules = {});

    const SmartListRules& rules() const { return rules_; }
    std::string detail(SmartList list) const;
    // The lists offered for cleaning: all but recents and screenshots, which free nothing by being seen.
    static bool isCleanUpList(SmartList list);

    // Whether one file belongs to a list at `now`. Duplicates are not decided from facts: false.
    bool contains(SmartList list, const Facts& facts, TimePoint now) const;

    // The list's files, at most `limit`: recents and screenshots newest first, the rest largest first.
    // Duplicates come from `duplicates`: every copy of every group, largest groups first.
    std::vector<FileItem> items(SmartList list, const Snapshot& snapshot, TimePoint now, size_t limit,
                                const DuplicateLook* duplicates = nullptr) const;

    // One list as a card: its files counted and summed, its first `samples` in the list's order. For
    // duplicates it counts the extra copies in `duplicates` (none given: an empty card).
    CleanUpCard card(SmartList list, const Snapshot& snapshot, const Reading& reading, TimePoint now,
                     int samples, const DuplicateLook* duplicates = nullptr) const;

    // One card per clean-up list that has files, in list order. The duplicates card appears only
    // when a duplicate look is given.
    std::vector<CleanUpCard> cards(const Snapshot& snapshot, const Reading& reading, TimePoint now,
                                   int samples, const DuplicateLook* duplicates = nullptr) const;

  private:
    std::string downloads_; // "<home>/Downloads/", to test membership by prefix
    SmartListRules rules_;
};

} // namespace vantle
