// The process's limit on open descriptors. Walkers keep a folder descriptor open for every level
// they are inside, so a scan raises the soft limit towards the hard one first. Thread-safe.
#pragma once
#include <cstdint>

namespace vantle {

// Raises the soft limit to at least `wanted` (never above the hard limit, never lowering it) and
// returns the soft limit now in force.
std::uint64_t raiseOpenFileLimit(std::uint64_t wanted);

} // namespace vantle
