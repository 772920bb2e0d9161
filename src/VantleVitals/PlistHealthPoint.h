// How a health point is kept in the record: a binary property list whose keys are the point's field
// names in declaration order (dates as property-list dates, states as their case names, an absent
// optional left out). Pure functions; thread-safe. The caller owns the returned bytes.
#pragma once
#include "VantleSpec/HealthPoint.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace vantle {

std::vector<std::byte> encodeHealthPointPlist(const HealthPoint& point);

// None when the bytes are not a binary property list of a point: wrong root, a missing field, a
// field of the wrong type, or a state with an unknown name.
std::optional<HealthPoint> decodeHealthPointPlist(std::span<const std::byte> bytes);

} // namespace vantle
