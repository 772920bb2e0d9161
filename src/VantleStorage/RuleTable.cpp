#include "VantleStorage/RuleTable.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <unordered_set>

namespace vantle {

bool isValidComponent(std::string_view component) {
    return !component.empty() && component != "." && component != ".." &&
           component.find('/') == std::string_view::npos && component.find('\0') == std::string_view::npos;
}

namespace {

// One component against one pattern component. Case is ignored because the home folder's disk may
// be case-insensitive, and a rule must not miss "library/caches" where it names "Library/Caches".
bool componentMatches(const std::string& pattern, const char* name) {
    return ::fnmatch(pattern.c_str(), name, FNM_CASEFOLD) == 0;
}

// Whether the path `parts`, followed by `last` when given, lies at or under a match of `glob`.
bool atOrUnder(const std::vector<std::string>& glob, std::span<const std::string> parts,
               const std::string* last = nullptr) {
    std::size_t length = parts.size() + (last ? 1 : 0);
    if (glob.empty() || glob.size() > length) return false;
    for (std::size_t i = 0; i < glob.size(); ++i) {
        const std::string& part = i < parts.size() ? parts[i] : *last;
        if (!componentMatches(glob[i], part.c_str())) return false;
    }
    return true;
}

bool exactly(const std::vector<std::string>& glob, std::span<const std::string> parts) {
    return glob.size() == parts.size() && atOrUnder(glob, parts);
}

std::expected<std::vector<std::string>, std::string> split(const Rule& rule, const std::string& glob) {
    std::vector<std::string> out;
    std::size_t from = 0;
    while (true) {
        auto slash = glob.find('/', from);
        auto component = glob.substr(from, slash == std::string::npos ? std::string::npos : slash - from);
        if (!isValidComponent(component))
            return std::unexpected("The rule " + rule.id +
                                   " has a path with an empty, \".\" or \"..\" part: \"" + glob + "\".");
        out.push_back(std::move(component));
        if (slash == std::string::npos) return out;
        from = slash + 1;
    }
}

bool isCategoryId(std::string_view id) {
    return !id.empty() && std::ranges::all_of(id, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

} // namespace

const RuleTable& RuleTable::shared() {
    static const RuleTable table = [] {
        auto compiled = compile(shippedRules());
        if (!compiled) {
            // The rows are part of the program; a bad one is a build fault no user can work around.
            std::fprintf(stderr, "vantle: the storage rule table is malformed: %s\n",
                         compiled.error().c_str());
            std::abort();
        }
        return std::move(*compiled);
    }();
    return table;
}

std::expected<RuleTable, std::string> RuleTable::compile(std::vector<Rule> rules, std::vector<Rule> places) {
    const std::size_t own = rules.size();
    for (auto& place : places)
        rules.push_back(std::move(place));
    constexpr auto limit = std::numeric_limits<std::uint16_t>::max();
    if (rules.size() > limit) return std::unexpected(std::string("The rule table has too many rules."));
    RuleTable table;
    std::unordered_set<std::string> ids;
    for (const auto& rule : rules) {
        if (!isCategoryId(rule.id))
            return std::unexpected("\"" + rule.id +
                                   "\" is not a category id: lower case letters, digits and _.");
        if (!ids.insert(rule.id).second) return std::unexpected("The rule " + rule.id + " appears twice.");
        if (rule.patterns.empty()) return std::unexpected("The rule " + rule.id + " has no patterns.");
        if (rule.patterns.size() > limit)
            return std::unexpected("The rule " + rule.id + " has too many patterns.");
        if (rule.instruction.has_value() != (rule.method == FreeMethod::ownersTool))
            return std::unexpected(
                "The rule " + rule.id +
                " must carry an instruction exactly when only its owner's tool clears it.");
        Compiled compiled;
        for (const auto& pattern : rule.patterns) {
            auto parts = split(rule, pattern);
            if (!parts) return std::unexpected(parts.error());
            compiled.patterns.push_back(std::move(*parts));
        }
        for (const auto& exclusion : rule.exclusions) {
            auto parts = split(rule, exclusion);
            if (!parts) return std::unexpected(parts.error());
            compiled.exclusions.push_back(std::move(*parts));
        }
        table.compiled_.push_back(std::move(compiled));
    }
    table.rules_ = std::move(rules);
    table.added_ = table.rules_.size() - own;

    std::size_t firstCatchAll = own;
    for (std::size_t i = 0; i < own; ++i)
        if (table.rules_[i].takesUnknownFolders) {
            firstCatchAll = i;
            break;
        }
    for (std::size_t i = 0; i < firstCatchAll; ++i)
        table.claimOrder_.push_back(i);
    for (std::size_t i = own; i < table.rules_.size(); ++i)
        table.claimOrder_.push_back(i);
    for (std::size_t i = firstCatchAll; i < own; ++i)
        table.claimOrder_.push_back(i);

    // A catch-all's pattern that covers the first components of a longer added pattern would take the
    // folder that holds the added rule's items; it leaves that folder out instead.
    for (std::size_t c = 0; c < own; ++c) {
        if (!table.rules_[c].takesUnknownFolders) continue;
        auto& exclusions = table.compiled_[c].exclusions;
        const auto catchAllPatterns = table.compiled_[c].patterns;
        for (std::size_t a = own; a < table.rules_.size(); ++a) {
            if (table.rules_[a].anchor != table.rules_[c].anchor) continue;
            for (const auto& longer : table.compiled_[a].patterns)
                for (const auto& glob : catchAllPatterns) {
                    if (longer.size() <= glob.size()) continue;
                    std::vector<std::string> holder(longer.begin(), longer.begin() + glob.size());
                    if (!exactly(glob, holder)) continue;
                    if (std::ranges::find(exclusions, holder) == exclusions.end())
                        exclusions.push_back(holder);
                }
        }
    }
    return table;
}

std::optional<std::size_t> RuleTable::indexOf(std::string_view id) const {
    for (std::size_t i = 0; i < rules_.size(); ++i)
        if (rules_[i].id == id) return i;
    return std::nullopt;
}

const Rule* RuleTable::find(std::string_view id) const {
    auto index = indexOf(id);
    return index ? &rules_[*index] : nullptr;
}

bool RuleTable::matches(std::size_t ruleIndex, std::span<const std::string> parts) const {
    if (ruleIndex >= rules_.size()) return false;
    if (!std::ranges::all_of(parts, [](const std::string& p) { return isValidComponent(p); })) return false;
    const auto& compiled = compiled_[ruleIndex];
    if (!std::ranges::any_of(compiled.patterns, [&](const auto& glob) { return exactly(glob, parts); }))
        return false;
    return std::ranges::none_of(compiled.exclusions,
                                [&](const auto& glob) { return atOrUnder(glob, parts); });
}

std::optional<std::size_t> RuleTable::claimant(Anchor anchor, std::span<const std::string> parts) const {
    for (std::size_t i : claimOrder_)
        if (rules_[i].anchor == anchor && matches(i, parts)) return i;
    return std::nullopt;
}

RuleSelection::RuleSelection(const RuleTable& table, ScanDepth depth,
                             const std::optional<std::set<std::string>>& only)
    : table_(&table), chosen_(table.size(), false) {
    for (std::size_t i = 0; i < table.size(); ++i)
        chosen_[i] = table[i].depth <= depth && (!only || only->contains(table[i].id));
}

bool RuleSelection::touches(Anchor anchor) const {
    for (std::size_t i = 0; i < chosen_.size(); ++i)
        if (chosen_[i] && (*table_)[i].anchor == anchor) return true;
    return false;
}

std::size_t RuleSelection::count() const {
    return std::ranges::count(chosen_, true);
}

std::vector<std::string> RuleMatcher::Place::partsWith(std::string_view name) const {
    std::vector<std::string> out;
    out.reserve(parts_.size() + 1);
    out.assign(parts_.begin(), parts_.end());
    out.emplace_back(name);
    return out;
}

RuleMatcher::RuleMatcher(const RuleTable& table, Anchor anchor, RuleSelection selection)
    : table_(&table), anchor_(anchor), selection_(std::move(selection)) {
    // A rule the scan does not measure still matters while a measured rule comes after it: it takes
    // what it matches first. Past the last measured rule nothing can take an item away any more.
    const auto order = table.claimOrder();
    std::size_t end = 0;
    for (std::size_t k = 0; k < order.size(); ++k)
        if (table[order[k]].anchor == anchor && selection_.contains(order[k])) end = k + 1;
    for (std::size_t k = 0; k < end; ++k) {
        const std::size_t i = order[k];
        if (table[i].anchor != anchor) continue;
        for (std::size_t p = 0; p < table.compiled(i).patterns.size(); ++p)
            root_.live_.push_back({static_cast<std::uint16_t>(i), static_cast<std::uint16_t>(p)});
    }
}

RuleMatcher::Step RuleMatcher::step(const Place& from, std::string_view name) const {
    Step step;
    if (!isValidComponent(name) || from.live_.empty()) return step;
    const std::string entry(name);
    const std::size_t level = from.parts_.size();

    std::vector<Place::Live> below;
    std::optional<std::size_t> claimant;
    bool reachesSelected = false;

    // Live patterns come grouped by rule, in claim order, so the first rule with a whole match is the
    // one that claims the entry. A rule excluded here is dropped for the whole subtree.
    std::size_t current = SIZE_MAX;
    bool excluded = false;
    for (const auto& live : from.live_) {
        const auto& compiled = table_->compiled(live.rule);
        const auto& glob = compiled.patterns[live.pattern];
        if (!componentMatches(glob[level], entry.c_str())) continue;
        if (live.rule != current) {
            current = live.rule;
            excluded = std::ranges::any_of(
                compiled.exclusions, [&](const auto& ex) { return atOrUnder(ex, from.parts_, &entry); });
        }
        if (excluded) continue;
        if (glob.size() == level + 1) {
            if (!claimant) claimant = live.rule;
        } else {
            below.push_back(live);
            reachesSelected = reachesSelected || selection_.contains(live.rule);
        }
    }

    if (claimant && selection_.contains(*claimant)) step.rule = claimant;
    if (reachesSelected) {
        Place inside;
        inside.parts_ = from.partsWith(name);
        inside.live_ = std::move(below);
        step.inside = std::move(inside);
    }
    return step;
}

} // namespace vantle
