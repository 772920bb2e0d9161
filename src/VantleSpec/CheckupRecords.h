// The checkup: the machine read area by area, the findings that say what to do, its score and the
// past checkups kept for the trend. Plain values owned by whoever holds them; safe to copy between
// threads. checkupSummary is a pure function.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

enum class CheckupArea {
    age,
    performance,
    memory,
    storage,
    battery,
    energy,
    stability,
    startup,
    security,
    updates,
    backups,
    network,
    system
};
VANTLE_ENUM_NAMES(CheckupArea, "age", "performance", "memory", "storage", "battery", "energy", "stability",
                  "startup", "security", "updates", "backups", "network", "system")

enum class CheckupStatus { good, unknown, note, attention };
VANTLE_ENUM_NAMES(CheckupStatus, "good", "unknown", "note", "attention")

// What a button under a reading, item or finding does; `target` names what it acts on (a settings
// pane, an app, a path) for the kinds that need one.
struct CheckupAction {
    enum class Kind {
        openSettings,
        quit,
        reveal,
        turnOffLaunchAgent,
        showActivity,
        restart,
        cleanUp,
        showStorage,
        balanceLoad
    };
    Kind kind = Kind::showActivity;
    std::optional<std::string> target;
    bool operator==(const CheckupAction&) const = default;
};
VANTLE_ENUM_NAMES(CheckupAction::Kind, "openSettings", "quit", "reveal", "turnOffLaunchAgent", "showActivity",
                  "restart", "cleanUp", "showStorage", "balanceLoad")
VANTLE_RECORD_JSON(CheckupAction, kind, target)

struct CheckupReading {
    std::string id;
    std::string title;
    std::string value;   // the figure as shown
    std::string meaning; // what the figure is
    std::string why;     // why it matters
    CheckupStatus status = CheckupStatus::unknown;
    std::string source; // where it was read, in the words of the system's own interfaces
    std::optional<CheckupAction> action;
    bool operator==(const CheckupReading&) const = default;
};
VANTLE_RECORD_JSON(CheckupReading, id, title, value, meaning, why, status, source, action)

struct CheckupItem {
    std::string id;
    std::string title;
    std::optional<std::string> detail;
    std::optional<std::int64_t> count;
    CheckupStatus status = CheckupStatus::unknown;
    std::optional<std::string> path;
    std::optional<CheckupAction> action;
    bool operator==(const CheckupItem&) const = default;
};
VANTLE_RECORD_JSON(CheckupItem, id, title, detail, count, status, path, action)

struct CheckupSection {
    CheckupArea area = CheckupArea::system;
    std::string verdict;
    CheckupStatus status = CheckupStatus::unknown;
    std::vector<CheckupReading> readings;
    std::optional<std::string> listTitle;
    std::vector<CheckupItem> items;
    bool operator==(const CheckupSection&) const = default;
};
VANTLE_RECORD_JSON(CheckupSection, area, verdict, status, readings, listTitle, items)

struct CheckupFinding {
    std::string id;
    CheckupArea area = CheckupArea::system;
    CheckupStatus status = CheckupStatus::note;
    std::string title;
    std::string detail;
    std::string why;
    std::optional<CheckupAction> action;
    bool operator==(const CheckupFinding&) const = default;
};
VANTLE_RECORD_JSON(CheckupFinding, id, area, status, title, detail, why, action)

struct CheckupScore {
    struct Part {
        CheckupArea area = CheckupArea::system;
        int points = 0; // taken
        int most = 0;   // the most this area can take
        std::string line;
        bool operator==(const Part&) const = default;
    };
    int value = 0;
    std::vector<Part> parts;
    bool operator==(const CheckupScore&) const = default;
};
VANTLE_RECORD_JSON(CheckupScore::Part, area, points, most, line)
VANTLE_RECORD_JSON(CheckupScore, value, parts)

// One past checkup, kept for the trend.
struct CheckupPoint {
    TimePoint date{};
    int value = 0;
    std::vector<CheckupScore::Part> parts;
    bool operator==(const CheckupPoint&) const = default;
};
VANTLE_RECORD_JSON(CheckupPoint, date, value, parts)

struct MacCheckup {
    TimePoint read{};
    std::vector<CheckupSection> sections;
    std::vector<CheckupFinding> findings;
    CheckupScore score;
    bool operator==(const MacCheckup&) const = default;
};
VANTLE_RECORD_JSON(MacCheckup, read, sections, findings, score)

// The checkup's one-line summary sentences; {count} is a whole number.
namespace checkup_summary {
inline constexpr std::string_view oneNeedsAttention = "One thing needs your attention.";
inline constexpr std::string_view manyNeedAttention = "{count} things need your attention.";
inline constexpr std::string_view fineOneWorthALook = "Your Mac is fine. One thing is worth a look.";
inline constexpr std::string_view fineManyWorthALook = "Your Mac is fine. {count} things are worth a look.";
inline constexpr std::string_view goodShape = "Your Mac is in good shape.";
} // namespace checkup_summary

// Findings that need attention speak first; otherwise all findings are counted.
std::string checkupSummary(const std::vector<CheckupFinding>& findings);

} // namespace vantle
