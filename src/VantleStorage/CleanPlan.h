// A clean plan: what one request to free space will do, made against a recent scan and shown to the
// user before anything is touched; and the refusals that stop a request before or at carrying out,
// each with its sentence. Plain values, freely copied.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/ItemFacts.h"
#include "VantleStorage/Rule.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct LeftAlone {
    std::string category;
    std::string name;
    std::int64_t bytes = 0;
    std::string reason;
    bool operator==(const LeftAlone&) const = default;
};
VANTLE_RECORD_JSON(LeftAlone, category, name, bytes, reason)

struct CleanPlan {
    enum class Action { remove, hold };
    struct Item {
        std::string id;       // the scan's item id, "{rule id}:{6 hex}"
        std::string category; // the rule id
        std::string title;
        std::string name;
        std::string path;
        std::int64_t bytes = 0; // space on disk at planning
        SafetyClass safety = SafetyClass::a;
        Action action = Action::remove;
        std::string allowedBecause;     // the precondition's words
        std::vector<std::string> parts; // relative to the home
        ItemFacts measurement;          // what the scan measured
        TimePoint measuredAt;
        bool operator==(const Item&) const = default;
    };

    std::string id;
    TimePoint createdAt;
    std::string home;
    std::optional<std::string> holding; // for plans that set items aside
    std::vector<Item> items;
    std::vector<LeftAlone> leftAlone;

    std::int64_t bytes() const;
    bool operator==(const CleanPlan&) const = default;
};
VANTLE_ENUM_NAMES(CleanPlan::Action, "remove", "hold")
VANTLE_RECORD_JSON(CleanPlan::Item, id, category, title, name, path, bytes, safety, action, allowedBecause,
                   parts, measurement, measuredAt)
VANTLE_RECORD_JSON(CleanPlan, id, createdAt, home, holding, items, leftAlone)

struct CleanRefusal {
    enum class Kind {
        unknownCategory,
        neverFreed,
        itemByItem,
        unknownItem,
        changedSinceScan,
        staleScan,
        stalePlan,
        holdingUnusable,
    };
    Kind kind = Kind::unknownCategory;
    std::string message;
    bool operator==(const CleanRefusal&) const = default;

    static constexpr std::string_view noCategoryWords =
        "No category was chosen. The categories Vantle can clear are: {ids}";
    static constexpr std::string_view unknownCategoryWords =
        "\"{id}\" is not a storage category. The categories Vantle can clear are: {ids}";
    static constexpr std::string_view outsideHomeWords =
        "{title} is outside the home folder, and Vantle never deletes anything there.";
    static constexpr std::string_view macosWords =
        "{title} is looked after by macOS. Vantle never touches it.";
    static constexpr std::string_view yoursWords =
        "{title} is yours, so Vantle only shows its size and never deletes it.";
    static constexpr std::string_view ownersToolWords =
        "Vantle does not delete {title} itself: only the tool that owns it can do that safely. {instruction}";
    static constexpr std::string_view itemByItemWords =
        "{title} are never taken as a whole. The owner chooses each item by name, and only those are set "
        "aside.";
    static constexpr std::string_view noItemWords = "No item was chosen. Nothing was planned.";
    static constexpr std::string_view unknownItemWords =
        "\"{id}\" is not the id of an item in the scan. Nothing was planned.";
    static constexpr std::string_view notItemByItemWords =
        "\"{id}\" is an item of {title}, which is not set aside item by item. Nothing was planned.";
    static constexpr std::string_view otherHomeWords = "That scan is of another home folder. Scan again.";
    static constexpr std::string_view staleScanWords =
        "That scan is more than 15 minutes old. Scan again so the figures are current.";
    static constexpr std::string_view changedWords =
        "{title} changed since the scan. Nothing was planned and nothing was touched. Scan again.";
    static constexpr std::string_view grewWords =
        "{title} was {then} when you were shown it and holds {now} now. Ask again to see what is there.";
    static constexpr std::string_view stalePlanWords =
        "That was shown more than 8 minutes ago, and the disk has moved on since. Nothing was touched. Ask "
        "again to see what is there now.";
    static constexpr std::string_view holdingUnknownWords =
        "The holding folder's location could not be worked out, so nothing was planned.";
    static constexpr std::string_view holdingOtherDiskWords =
        "The holding folder is on another disk, so items cannot be set aside there. Nothing was planned.";
    static constexpr std::string_view holdingContainsWords =
        "The holding folder contains {place}, which Vantle may clear. Nothing was planned.";
    static constexpr std::string_view holdingInsideWords =
        "The holding folder is inside {place}, which Vantle may clear. Nothing was planned.";
    static constexpr std::string_view holdingHoldsHomeWords =
        "The holding folder contains the home folder, so nothing was planned.";

    // A plan-time refusal raised again while carrying out speaks of what would have been touched.
    CleanRefusal atCarryingOut() const;
};
VANTLE_ENUM_NAMES(CleanRefusal::Kind, "unknownCategory", "neverFreed", "itemByItem", "unknownItem",
                  "changedSinceScan", "staleScan", "stalePlan", "holdingUnusable")

} // namespace vantle
