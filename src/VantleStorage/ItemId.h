// The ids by which a scan's items are named to the user and the tools: "{rule id}:{6 hex digits}"
// for an item of a category and "held:{6 hex digits}" for an item in the holding folder. The digits
// are a digest of the item's place, so the same item keeps its id from one scan to the next. Pure
// functions; thread-safe.
#pragma once
#include "VantleStorage/Rule.h"

#include <span>
#include <string>
#include <string_view>

namespace vantle {

inline constexpr std::string_view heldPrefix = "held";

// `salt` is 0 for the first id of a place; a scan that meets two places with the same digits gives
// the later one salt 1, 2, ... so no two items of one scan share an id.
std::string itemId(std::string_view ruleId, Anchor anchor, std::span<const std::string> parts, int salt = 0);

// A held item is named after the place it was taken from, relative to the home folder.
std::string heldItemId(std::span<const std::string> formerParts, int salt = 0);

} // namespace vantle
