// The status of one folder entry read relative to its folder's descriptor, never following a link
// (statx with AT_SYMLINK_NOFOLLOW). A plain value; the function is thread-safe.
#pragma once
#include <chrono>
#include <cstdint>
#include <expected>
#include <optional>

namespace vantle {

struct EntryStatus {
    enum class Type { file, folder, link, socket, other };
    Type type = Type::other;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t links = 0;
    std::uint32_t owner = 0;
    std::uint64_t sizeBytes = 0;      // the file's length
    std::uint64_t allocatedBytes = 0; // the space its blocks take on disk
    std::chrono::system_clock::time_point modified;
    std::chrono::system_clock::time_point changed;
    std::chrono::system_clock::time_point accessed;
    std::optional<std::chrono::system_clock::time_point> born; // absent where the file system keeps none
};

// `name` is relative to `dirFd`; an empty name reads `dirFd` itself. The error is the errno.
std::expected<EntryStatus, int> statusOf(int dirFd, const char* name);

} // namespace vantle
