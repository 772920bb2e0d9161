#include "Platform/SharedExtents.h"

#include <cerrno>
#include <cstdlib>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/vfs.h>

namespace vantle {

namespace {
// Not every file system's magic is in the installed headers.
constexpr long bcachefsMagic = 0xca451a4e;
constexpr long ocfs2Magic = 0x7461636f;
constexpr unsigned extentsPerCall = 64;
} // namespace

bool fileSystemSharesBlocks(int fd) {
    struct statfs fs {};
    if (::fstatfs(fd, &fs) != 0) return false;
    switch (static_cast<long>(fs.f_type)) {
    case BTRFS_SUPER_MAGIC:
    case XFS_SUPER_MAGIC:
    case bcachefsMagic:
    case ocfs2Magic:
        return true;
    default:
        return false;
    }
}

std::expected<std::vector<SharedExtent>, int> sharedExtents(int fd) {
    std::vector<SharedExtent> out;
    size_t bytes = sizeof(fiemap) + extentsPerCall * sizeof(fiemap_extent);
    std::unique_ptr<char[]> buffer(new char[bytes]);
    std::uint64_t start = 0;
    for (;;) {
        auto* map = new (buffer.get()) fiemap{};
        map->fm_start = start;
        map->fm_length = FIEMAP_MAX_OFFSET - start;
        // No FIEMAP_FLAG_SYNC: data not yet written out cannot be shared, and syncing every file
        // would make the scan write.
        map->fm_extent_count = extentsPerCall;
        if (::ioctl(fd, FS_IOC_FIEMAP, map) != 0) return std::unexpected(errno);
        if (map->fm_mapped_extents == 0) break;
        bool last = false;
        for (unsigned i = 0; i < map->fm_mapped_extents; ++i) {
            const fiemap_extent& e = map->fm_extents[i];
            if ((e.fe_flags & FIEMAP_EXTENT_SHARED) && !(e.fe_flags & FIEMAP_EXTENT_UNKNOWN))
                out.push_back({e.fe_physical, e.fe_length});
            start = e.fe_logical + e.fe_length;
            if (e.fe_flags & FIEMAP_EXTENT_LAST) last = true;
        }
        if (last || map->fm_mapped_extents < extentsPerCall) break;
    }
    return out;
}

} // namespace vantle
