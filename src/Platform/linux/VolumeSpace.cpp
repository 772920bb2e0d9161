#include "Platform/VolumeSpace.h"

#include <cerrno>
#include <sys/statvfs.h>

namespace vantle {

std::expected<std::uint64_t, int> freeBytesOn(int fd) {
    struct statvfs vfs {};
    if (::fstatvfs(fd, &vfs) != 0) return std::unexpected(errno);
    return static_cast<std::uint64_t>(vfs.f_bavail) * static_cast<std::uint64_t>(vfs.f_frsize);
}

} // namespace vantle
