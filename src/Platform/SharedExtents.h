// Blocks a file shares with other files (reflinked clones, snapshots), read from the file system's
// extent map (FIEMAP, extents flagged shared). Only file systems that can share blocks are asked,
// which keeps the common case at no cost. Free functions; thread-safe.
#pragma once
#include <cstdint>
#include <expected>
#include <vector>

namespace vantle {

struct SharedExtent {
    std::uint64_t physical = 0; // where the shared blocks start on the device: the clone family's mark
    std::uint64_t lengthBytes = 0;
};

// Whether the file system holding `fd` can share blocks between files at all (btrfs, XFS, bcachefs,
// OCFS2); where it cannot, no file on it has shared extents.
bool fileSystemSharesBlocks(int fd);

// The shared extents of the open regular file `fd`. The error is the errno (EOPNOTSUPP where the file
// system keeps no extent map).
std::expected<std::vector<SharedExtent>, int> sharedExtents(int fd);

} // namespace vantle
