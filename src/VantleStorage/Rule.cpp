#include "VantleStorage/Rule.h"

#include "VantleSpec/Sentence.h"

#include <functional>

namespace vantle {

std::optional<TimePoint> Precondition::ageSince(const ItemFacts& facts) const {
    auto lastChange = lastChangeOf(facts);
    switch (ageSignal) {
    case AgeSignal::modified:
        return lastChange;
    case AgeSignal::added: {
        std::optional<TimePoint> out = lastChange;
        for (const auto& d : {facts.added, facts.opened})
            if (d && (!out || *d > *out)) out = d;
        return out;
    }
    case AgeSignal::xcodeLastAccessed:
        return facts.ownersRecord;
    }
    return std::nullopt;
}

std::string_view heading(SafetyClass safety) {
    switch (safety) {
    case SafetyClass::a:
        return "Can be deleted for good, a whole category at a time; made again when needed unless its line "
               "says otherwise (class A)";
    case SafetyClass::b:
        return "Worth a look; never taken as a category (class B)";
    case SafetyClass::c:
        return "Yours, shown only (class C)";
    case SafetyClass::d:
        return "Looked after by macOS, never touched (class D)";
    }
    return {};
}

std::optional<std::string_view> Precondition::Owner::nameIn(std::span<const std::string> parts) const {
    switch (kind) {
    case Kind::none:
        return std::nullopt;
    case Kind::itemName:
        if (parts.empty()) return std::nullopt;
        return parts.back();
    case Kind::pathComponent:
        if (component >= parts.size()) return std::nullopt;
        return parts[component];
    }
    return std::nullopt;
}

namespace {
constexpr std::string_view ownerRunningWords = "no {ownerName} process is found running";
constexpr std::string_view namedAfterOwnerWords = "no running app or process carries its name";
constexpr std::string_view notInUseWords = "no program has a file open in it, runs from it or works in it";
constexpr std::string_view unchangedWords = "nothing in it changed in the last 10 minutes";
constexpr std::string_view arrivedLongAgoWords =
    "it arrived, and was last opened or changed, more than {days} days ago";
constexpr std::string_view unusedLongWords = "it was not used for {days} days";
} // namespace

std::vector<std::string> Precondition::clauses() const {
    std::vector<std::string> out;
    if (ownerName && (!apps.empty() || !processes.empty()))
        out.push_back(fillIn(ownerRunningWords, {{"ownerName", *ownerName}}));
    if (owner.kind != Owner::Kind::none) out.emplace_back(namedAfterOwnerWords);
    out.emplace_back(notInUseWords);
    out.emplace_back(unchangedWords);
    if (minimumAgeDays) {
        auto days = std::to_string(*minimumAgeDays);
        out.push_back(
            fillIn(ageSignal == AgeSignal::added ? arrivedLongAgoWords : unusedLongWords, {{"days", days}}));
    }
    return out;
}

std::string Precondition::words() const {
    std::string out;
    for (const auto& clause : clauses()) {
        if (!out.empty()) out += "; ";
        out += clause;
    }
    return out;
}

bool Rule::letsSystemFree() const {
    if (anchor != Anchor::home) return false;
    return (safety == SafetyClass::a && method == FreeMethod::remove) ||
           (safety == SafetyClass::b && method == FreeMethod::hold);
}

namespace {
struct Hasher {
    std::size_t seed = 0;
    template <class T> Hasher& add(const T& value) {
        seed ^= std::hash<T>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
        return *this;
    }
    template <class T> Hasher& add(const std::optional<T>& value) {
        add(value.has_value());
        if (value) add(*value);
        return *this;
    }
    template <class T> Hasher& add(const std::vector<T>& values) {
        add(values.size());
        for (const auto& value : values)
            add(value);
        return *this;
    }
};
} // namespace

std::size_t hashValue(const Rule& rule) {
    Hasher h;
    const auto& p = rule.precondition;
    h.add(rule.id).add(rule.title).add(rule.explanation).add(rule.safety).add(rule.anchor);
    h.add(rule.patterns).add(rule.exclusions);
    h.add(p.ownerName).add(p.apps).add(p.processes).add(p.owner.kind).add(p.owner.component);
    h.add(p.minimumAgeDays).add(p.ageSignal);
    h.add(rule.method).add(rule.instruction).add(rule.depth).add(rule.cost);
    h.add(rule.comesBack).add(rule.takesUnknownFolders);
    return h.seed;
}

} // namespace vantle
