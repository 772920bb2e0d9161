// Reproducible bytes that differ from seed to seed, for files whose contents must not repeat.
// Test-only; pure functions.
#pragma once
#include <cstddef>
#include <string>

namespace vantle::testing {

inline std::string patterned(std::size_t size, unsigned seed = 1) {
    std::string s(size, '\0');
    for (auto& c : s) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>(seed >> 16);
    }
    return s;
}

} // namespace vantle::testing
