// The result of one storage scan: every item the measured rules claimed, with its id, place and
// facts, the items kept in the holding folder, and the places that could not be read. Plain values,
// freely copied; the scanner hands each caller its own copy.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/ItemFacts.h"
#include "VantleStorage/Rule.h"
#include "VantleStorage/Tally.h"

#include <optional>
#include <string>
#include <vector>

namespace vantle {

// A place that could not be read, with the reason the system gave.
struct ScanGap {
    using Reason = Refusal;
    std::string path;
    Reason reason = Reason::other;
    std::string detail; // the system's own description of the error

    bool operator==(const ScanGap&) const = default;
};
VANTLE_RECORD_JSON(ScanGap, path, reason, detail)

struct ScannedItem {
    std::string id;       // "{rule id}:{6 hex}", or "held:{6 hex}" for an item in the holding folder
    std::string category; // the rule id; "held" for an item in the holding folder
    Anchor anchor = Anchor::home;
    std::vector<std::string> parts; // relative to the anchor; for a held item, its place before it was held
    std::string name;
    std::string path; // where it is now
    ItemFacts facts;
    bool operator==(const ScannedItem&) const = default;
};
VANTLE_RECORD_JSON(ScannedItem, id, category, anchor, parts, name, path, facts)

struct StorageScan {
    std::string home;
    std::optional<std::string> systemRoot; // absent where the scan measured no system area
    ScanDepth depth = ScanDepth::rules;
    std::optional<std::vector<std::string>> only;
    TimePoint startedAt;
    TimePoint finishedAt;
    bool complete = true;           // false when the scan was cancelled before it ended
    std::vector<ScannedItem> items; // in table order, then by path
    std::vector<ScannedItem> held;  // what the holding folder holds, never part of a category
    std::vector<ScanGap> gaps;
    std::vector<std::string> mountPoints; // other disks met on the way to the items, never entered

    bool operator==(const StorageScan&) const = default;
};
VANTLE_RECORD_JSON(StorageScan, home, systemRoot, depth, only, startedAt, finishedAt, complete, items, held,
                   gaps, mountPoints)

} // namespace vantle
