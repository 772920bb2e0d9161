#include "Platform/EntryStatus.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace vantle {

namespace {
std::chrono::system_clock::time_point timeOf(const statx_timestamp& t) {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::seconds(t.tv_sec) +
                                                                        std::chrono::nanoseconds(t.tv_nsec)));
}

EntryStatus::Type typeOf(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return EntryStatus::Type::file;
    case S_IFDIR:
        return EntryStatus::Type::folder;
    case S_IFLNK:
        return EntryStatus::Type::link;
    case S_IFSOCK:
        return EntryStatus::Type::socket;
    default:
        return EntryStatus::Type::other;
    }
}
} // namespace

std::expected<EntryStatus, int> statusOf(int dirFd, const char* name) {
    struct statx sx {};
    constexpr unsigned mask = STATX_TYPE | STATX_MODE | STATX_NLINK | STATX_UID | STATX_INO | STATX_SIZE |
                              STATX_BLOCKS | STATX_MTIME | STATX_CTIME | STATX_ATIME | STATX_BTIME;
    int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (name[0] == 0 ? AT_EMPTY_PATH : 0);
    if (::statx(dirFd, name, flags, mask, &sx) != 0) return std::unexpected(errno);
    EntryStatus out;
    out.type = typeOf(sx.stx_mode);
    out.device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    out.inode = sx.stx_ino;
    out.links = sx.stx_nlink;
    out.owner = sx.stx_uid;
    out.sizeBytes = sx.stx_size;
    out.allocatedBytes = sx.stx_blocks * 512;
    out.modified = timeOf(sx.stx_mtime);
    out.changed = timeOf(sx.stx_ctime);
    out.accessed = timeOf(sx.stx_atime);
    if (sx.stx_mask & STATX_BTIME) out.born = timeOf(sx.stx_btime);
    return out;
}

} // namespace vantle
