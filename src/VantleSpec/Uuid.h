// Random (version 4) identifiers in the usual upper-case 8-4-4-4-12 spelling, for ledger entries,
// saved searches and the like. Thread-safe.
#pragma once
#include <string>
#include <string_view>

namespace vantle {

// Sixteen bytes from the kernel's random source; written by hand because it is a dozen lines and a
// whole library for it would be heavier than the code.
std::string newUuid();

bool isUuid(std::string_view text);

} // namespace vantle
