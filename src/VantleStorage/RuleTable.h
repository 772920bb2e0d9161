// The storage rule table: every category the storage subsystem measures, frees, sets aside or only
// shows, written in code, compiled into path components once and never changed afterwards. The table,
// a RuleSelection and a RuleMatcher are immutable values; all of their functions are const and may be
// called from several threads at once. `RuleTable::shared()` lives for the whole run; a selection or
// matcher keeps a pointer to the table it was made from, which must outlive it.
#pragma once
#include "VantleStorage/Rule.h"

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// A path component the walker may hand on: never empty, ".", "..", and never holding a "/".
bool isValidComponent(std::string_view component);

class RuleTable {
  public:
    // A rule's patterns and exclusions split into their components, ready for matching.
    struct Compiled {
        std::vector<std::vector<std::string>> patterns;
        std::vector<std::vector<std::string>> exclusions;
    };

    // The table this program ships: built, compiled and sealed on first use, shared read-only.
    static const RuleTable& shared();

    // Compiles a table; a malformed rule (duplicate or empty id, an empty, "." or ".." component, an
    // instruction on a rule that is not `ownersTool` or none on one that is) is a sentence naming it.
    //
    // `places` are rows a platform adds for where its own tools keep what the rows name (a Linux
    // home's ~/.cache/pip beside the table's Library/Caches/pip). They come after `rules`, so every
    // row of `rules` keeps its index, and they never change a row of `rules`. Precedence is kept by
    // claiming, not by position: the added rows claim ahead of the first catch-all (a rule that takes
    // unknown folders), and each catch-all leaves out, as its own exclusions already do for the
    // table's named caches, the folder an added row reaches inside (`.cache/JetBrains` for
    // `.cache/JetBrains/*`), so freeing the catch-all's item never takes an added row's items with it.
    // With no added rows the claim order is the table's order and nothing is derived, so `rules`
    // behave exactly as they do alone.
    static std::expected<RuleTable, std::string> compile(std::vector<Rule> rules,
                                                         std::vector<Rule> places = {});

    std::span<const Rule> rules() const { return rules_; }
    std::size_t size() const { return rules_.size(); }
    const Rule& operator[](std::size_t index) const { return rules_[index]; }
    const Compiled& compiled(std::size_t index) const { return compiled_[index]; }

    // Exact, case-sensitive lookup. An unknown id is not an error here; callers word it.
    const Rule* find(std::string_view id) const;
    std::optional<std::size_t> indexOf(std::string_view id) const;

    // Whether `parts` (components relative to the rule's anchor) match one of the rule's patterns and
    // lie neither at nor under a match of one of its exclusions. Components are compared one at a time
    // with fnmatch, ignoring case.
    bool matches(std::size_t ruleIndex, std::span<const std::string> parts) const;

    // The rule that claims `parts` below `anchor`: the first in table order that matches them, so a
    // named cache wins over a catch-all and no item belongs to two rules. Absent when no rule does or
    // a component is not valid.
    std::optional<std::size_t> claimant(Anchor anchor, std::span<const std::string> parts) const;

    // Rule indices in the order they claim: the table's order with added rows ahead of the catch-alls.
    std::span<const std::size_t> claimOrder() const { return claimOrder_; }
    // How many rows a platform added after the table's own (they are the last ones).
    std::size_t addedCount() const { return added_; }

  private:
    RuleTable() = default;
    std::vector<Rule> rules_;
    std::vector<Compiled> compiled_;
    std::vector<std::size_t> claimOrder_;
    std::size_t added_ = 0;
};

// The rows of the shipped table, in order (defined beside the table's words).
std::vector<Rule> shippedRules();

// Which rules one scan measures: those whose depth is at most `depth`, limited to the ids in `only`
// when it is given (ids that name no rule are ignored here; callers word them).
class RuleSelection {
  public:
    RuleSelection(const RuleTable& table, ScanDepth depth,
                  const std::optional<std::set<std::string>>& only = std::nullopt);

    bool contains(std::size_t ruleIndex) const { return chosen_[ruleIndex]; }
    // Whether any chosen rule is anchored at `anchor`, i.e. whether that anchor needs walking at all.
    bool touches(Anchor anchor) const;
    std::size_t count() const;

  private:
    const RuleTable* table_;
    std::vector<bool> chosen_;
};

// Matches a walk of folders below one anchor against the table, one entry at a time, so the walker
// never matches whole paths and never needs to build one.
//
// The walker starts at `root()` with the anchor's folder open. For each entry of the folder it stands
// in it calls `step(place, name)`:
//   - `rule` set: the entry is an item of that rule (and the selection measures the rule). The first
//     rule in table order that matches claims it, even when that rule is not selected, in which case
//     `rule` is absent and the entry is left to whatever holds it.
//   - `inside` set: some selected rule's pattern reaches below this entry; if it is a folder, open it
//     (relative to its parent, no link followed) and step through its entries with `*inside`.
// Both may be set: `Library` is an item of the catch-all of the home folder and also holds the items
// of named caches. Whoever sizes an item keeps stepping while `inside` is set and leaves out every
// entry that comes back with a `rule`: it is an item of its own, measured once, under its own rule.
// Entries named "", "." or ".." or holding a "/" never match and are never descended into.
class RuleMatcher {
  public:
    // Where a walk stands: the components from the anchor down to the current folder, and the
    // patterns still reaching below it.
    class Place {
      public:
        std::span<const std::string> parts() const { return parts_; }
        // parts() with `name` appended: the item's path components relative to the anchor.
        std::vector<std::string> partsWith(std::string_view name) const;

      private:
        friend class RuleMatcher;
        struct Live {
            std::uint16_t rule;
            std::uint16_t pattern;
        };
        std::vector<std::string> parts_;
        std::vector<Live> live_; // in table order
    };

    struct Step {
        std::optional<std::size_t> rule; // index into the table of the rule this entry is an item of
        std::optional<Place> inside;     // where the walk stands inside this entry, if it must go in
    };

    RuleMatcher(const RuleTable& table, Anchor anchor, RuleSelection selection);

    Anchor anchor() const { return anchor_; }
    const RuleTable& table() const { return *table_; }
    const Place& root() const { return root_; }
    Step step(const Place& from, std::string_view name) const;

  private:
    const RuleTable* table_;
    Anchor anchor_;
    RuleSelection selection_;
    Place root_;
};

} // namespace vantle
