// The storage report: a scan grouped into its categories by safety class, with sizes, what freeing
// costs, the precondition's words, the items that can be set aside and the held items, as text for
// people and as JSON, and the copy kept in the data folder as Library/storage.json. Pure functions
// over values, except keepStorageReport, which writes the file atomically; all thread-safe.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/RuleTable.h"
#include "VantleStorage/StorageAbilities.h"
#include "VantleStorage/StorageScan.h"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct StorageReport {
    struct Item {
        std::string id;
        std::string path;
        std::int64_t bytes = 0; // space on disk
        bool operator==(const Item&) const = default;
    };

    struct Category {
        std::string id;
        std::string title;
        SafetyClass safety = SafetyClass::c;
        FreeMethod method = FreeMethod::show;
        bool systemFrees = false;          // the rule lets the system free it at all
        std::int64_t bytes = 0;            // space on disk
        std::int64_t reclaimableBytes = 0; // what freeing would give back
        std::int64_t pinnedBytes = 0;      // shared with files that stay
        std::int64_t unreadableItems = 0;  // items only partly read, so possibly larger
        bool privacyRefused = false;       // the system's privacy protection refused part of it
        std::optional<std::string> cost;
        std::optional<std::string> instruction;
        std::string precondition; // the precondition's words
        std::vector<Item> items;
        bool operator==(const Category&) const = default;
    };

    std::string home;
    TimePoint measuredAt;
    ScanDepth depth = ScanDepth::rules;
    bool complete = true;
    StorageAbilities abilities;
    std::vector<Category> categories; // by class, then in table order; only categories with items
    std::vector<Item> held;
    std::vector<ScanGap> gaps;
    std::int64_t freeableNowBytes = 0;  // class A categories whose precondition the disk shows holding now
    std::int64_t reclaimableBytes = 0;  // everything the system could free or set aside
    std::int64_t preconditionHolds = 0; // items of class A categories whose precondition holds now
    std::int64_t chosenItemByItem = 0;  // class B items that can be set aside, each only by name

    bool operator==(const StorageReport&) const = default;

    static constexpr std::string_view setAsideHeading =
        "Items that can be set aside, each only if the user chooses it by name (set_aside_storage takes "
        "these ids):";
    static constexpr std::string_view listedOnlyHeading =
        "Items worth a look one by one. This copy of Vantle lists them and does not set them aside:";
    static constexpr std::string_view heldHeading =
        "Set aside earlier and still taking up space; Vantle never "
        "deletes these";
    static constexpr std::string_view putBackIds = " (put_back_storage takes these ids)";
    static constexpr std::string_view scanEverythingHint =
        "This scan measured only what Vantle can free or point at. Scan everything to see the user's own "
        "folders "
        "and the system too.";
    static constexpr std::string_view classAMeasuredOnlyHeading =
        "Safe to delete, a whole category at a time; made again when needed unless its line says otherwise. "
        "This "
        "copy of Vantle measures it and deletes nothing (class A)";
    static constexpr std::string_view notSetAsideYet =
        " could be set aside item by item, which this copy of Vantle does not do yet";
    static constexpr std::string_view freesNothingYet = ". Vantle measures it and frees nothing yet.";
    static constexpr std::string_view partlyRead = "Part of it could not be read, so it may hold more.";
    static constexpr std::string_view privacyRefusal =
        "This Mac did not let Vantle read it. Full Disk Access in System Settings opens it.";
    static constexpr std::string_view couldNotRead = "could not be read";
    static constexpr std::string_view sizeNotKnown = ", so its size is not known";
    static constexpr std::string_view ofThemUnreadable = " of them could not be read)";
    static constexpr std::string_view sharedWithStaying =
        " would come back; the rest is shared with files that stay)";
    static constexpr std::string_view stoppedEarly =
        "The scan was stopped before it finished, so these figures are only what it had measured by then.";
};
VANTLE_RECORD_JSON(StorageReport::Item, id, path, bytes)
VANTLE_RECORD_JSON(StorageReport::Category, id, title, safety, method, systemFrees, bytes, reclaimableBytes,
                   pinnedBytes, unreadableItems, privacyRefused, cost, instruction, precondition, items)
VANTLE_RECORD_JSON(StorageReport, home, measuredAt, depth, complete, abilities, categories, held, gaps,
                   freeableNowBytes, reclaimableBytes, preconditionHolds, chosenItemByItem)

// Whether an item's precondition holds as far as the disk tells: nothing written in the last 10
// minutes, old enough by its rule's age signal, and nothing inside that makes freeing unsafe (a
// socket, a login, another disk, a part that could not be read). Running programs are the cleaner's
// to check at the moment of freeing.
bool preconditionHoldsOnDisk(const Rule& rule, const ItemFacts& facts, TimePoint now);

StorageReport makeStorageReport(const StorageScan& scan, const RuleTable& table,
                                const StorageAbilities& abilities, TimePoint now);

std::string storageReportText(const StorageReport& report);

// Keeps the report and the scan it came from in `dataFolder`/Library/storage.json, written atomically,
// so a later run can show it and plan against it. The error is the system's description.
std::expected<void, std::string> keepStorageReport(const std::filesystem::path& dataFolder,
                                                   const StorageReport& report, const StorageScan& scan);

struct KeptStorageReport {
    StorageReport report;
    StorageScan scan;
    bool operator==(const KeptStorageReport&) const = default;
};
VANTLE_RECORD_JSON(KeptStorageReport, report, scan)

// What keepStorageReport kept; an error sentence when there is none or it does not read.
std::expected<KeptStorageReport, std::string> loadKeptStorageReport(const std::filesystem::path& dataFolder);

std::filesystem::path storageReportFile(const std::filesystem::path& dataFolder);

} // namespace vantle
