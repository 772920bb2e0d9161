// One row of the storage rule table: a category of places the storage subsystem measures, and how far
// it may go with them (free, set aside, show only, never touch). Plain values, freely copied; every
// function here is pure and may be called from any thread.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/ItemFacts.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// How far the system may go with a category. Raw values are the one-letter class names.
enum class SafetyClass {
    a, // deleted a whole category at a time; its owner makes it again
    b, // worth a look item by item; never taken as a whole category
    c, // the user's own data, or something only its app may change; shown only
    d, // looked after by the operating system; never touched
};
VANTLE_ENUM_NAMES(SafetyClass, "A", "B", "C", "D")

// The heading a report puts above the categories of a class.
std::string_view heading(SafetyClass safety);

// The folder a rule's patterns are relative to: the user's home folder, or the root of the start-up
// disk (the scanner's `systemRoot`, "/" on a real run).
enum class Anchor { home, system };
VANTLE_ENUM_NAMES(Anchor, "home", "system")

// Which scan measures a category. Ordered: a scan of depth d measures every rule whose depth <= d.
enum class ScanDepth { rules, full };
VANTLE_ENUM_NAMES(ScanDepth, "rules", "full")

// How space is freed. `ownersTool` carries its instruction in `Rule::instruction`.
enum class FreeMethod {
    ownersTool, // only the owning tool may clear it; the instruction is shown, nothing is deleted
    remove,     // deleted for good, a whole category at a time
    hold,       // moved item by item, only items chosen by name, into the holding folder
    show,       // measured and shown only
    never,      // measured and shown as the operating system's own; never touched
};
VANTLE_ENUM_NAMES(FreeMethod, "ownersTool", "remove", "hold", "show", "never")

// What must be true of an item at the moment it is freed. The cleaner checks it; `words()` is how the
// report and the plan state it.
struct Precondition {
    // Where the name of an item's owning app is read, for items whose owner the rule cannot name.
    struct Owner {
        enum class Kind { pathComponent, none, itemName };
        Kind kind = Kind::none;
        std::size_t component = 0; // index into the item's parts, for `pathComponent` only

        static constexpr Owner pathComponent(std::size_t n) { return {Kind::pathComponent, n}; }
        static constexpr Owner none() { return {}; }
        static constexpr Owner itemName() { return {Kind::itemName, 0}; }

        // The owner's name read from an item's path components (relative to the anchor); absent for
        // `none` or when the path is too short to hold it.
        std::optional<std::string_view> nameIn(std::span<const std::string> parts) const;

        bool operator==(const Owner&) const = default;
    };

    // Which date an item's age is read from.
    enum class AgeSignal {
        modified,          // last content change
        added,             // arrival in its folder, and not opened or changed since
        xcodeLastAccessed, // the project's last access as Xcode records it (LastAccessedDate in info.plist)
    };

    std::optional<std::string> ownerName; // "Xcode", "The Android emulator"
    std::vector<std::string> apps;        // bundle identifiers that must not be running
    std::vector<std::string> processes;   // process names that must not be running
    Owner owner;
    std::optional<int> minimumAgeDays;
    AgeSignal ageSignal = AgeSignal::modified;

    // The date the minimum age is counted from, by `ageSignal`: the item's last change; the newest
    // of its arrival, last opening and last change; or its owner's own record of last use. None when
    // the facts do not hold that date. The scan's report and the cleaner's check both count from it.
    std::optional<TimePoint> ageSince(const ItemFacts& facts) const;

    // The clauses that state this precondition, in their fixed order.
    std::vector<std::string> clauses() const;
    // The clauses joined with "; ".
    std::string words() const;

    bool operator==(const Precondition&) const = default;
};
VANTLE_ENUM_NAMES(Precondition::AgeSignal, "modified", "added", "xcodeLastAccessed")
VANTLE_ENUM_NAMES(Precondition::Owner::Kind, "pathComponent", "none", "itemName")

struct Rule {
    std::string id;          // lower-case category id (`gradle_caches`); prefix of its item ids
    std::string title;       // the category's name as the user reads it
    std::string explanation; // what the place holds and what deleting it costs
    SafetyClass safety = SafetyClass::c;
    Anchor anchor = Anchor::home;
    std::vector<std::string> patterns;   // relative globs ("/"-separated); each match is one item
    std::vector<std::string> exclusions; // relative globs; a match at or under one is not in the category
    Precondition precondition;
    FreeMethod method = FreeMethod::show;
    std::optional<std::string> instruction; // the owner's own way to clear it; present for `ownersTool` only
    ScanDepth depth = ScanDepth::rules;
    std::optional<std::string> cost;  // "Cargo restores on the next build"; absent where nothing is freed
    bool comesBack = true;            // whether its owner makes again what is freed
    bool takesUnknownFolders = false; // whether a wildcard may take folders of an owner nobody knows

    // True exactly for rules anchored at home that are class A freed by `remove`, or class B set aside
    // by `hold`. Every other rule is measured and shown only, whatever its patterns match.
    bool letsSystemFree() const;

    bool operator==(const Rule&) const = default;
};

std::size_t hashValue(const Rule& rule);

} // namespace vantle

template <> struct std::hash<vantle::Rule> {
    std::size_t operator()(const vantle::Rule& rule) const noexcept { return vantle::hashValue(rule); }
};
