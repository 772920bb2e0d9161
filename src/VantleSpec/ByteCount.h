// Byte counts for people, as the desktop's usual formatter shows them. Memory style counts in powers
// of 1024 (memory, swap); file style in powers of 1000 (disk space, file sizes). Pure functions.
#pragma once
#include <cstdint>
#include <string>

namespace vantle {

inline constexpr std::uint64_t GiB = 1ull << 30;

enum class ByteStyle { memory, file };

// "Zero KB", "1 byte", "512 bytes", "12 KB", "1.5 MB", "19.99 GB": bytes whole, KB whole, MB with one
// decimal, GB and above with two, trailing zeros dropped. Below zero shows as zero.
std::string formatBytes(std::int64_t bytes, ByteStyle style);

inline std::string memoryBytes(std::int64_t bytes) {
    return formatBytes(bytes, ByteStyle::memory);
}
inline std::string fileBytes(std::int64_t bytes) {
    return formatBytes(bytes, ByteStyle::file);
}

// Whole percent, rounded half away from zero, for a fraction 0..1 (or beyond, as a process's share
// of one core is): "42%". Not a number or below zero shows 0%; the top is 1,000,000%.
std::string percent(double fraction);

} // namespace vantle
