#include "Platform/RenameNoReplace.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantle {

std::expected<void, int> renameNoReplace(int fromDirFd, const char* fromName, int toDirFd,
                                         const char* toName) {
    if (::renameat2(fromDirFd, fromName, toDirFd, toName, RENAME_NOREPLACE) != 0)
        return std::unexpected(errno);
    return {};
}

std::expected<std::string, int> pathOfDescriptor(int fd) {
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    std::string out(4096, '\0');
    auto length = ::readlink(link.c_str(), out.data(), out.size());
    if (length < 0) return std::unexpected(errno);
    if (static_cast<std::size_t>(length) >= out.size()) return std::unexpected(ENAMETOOLONG);
    out.resize(static_cast<std::size_t>(length));
    return out;
}

} // namespace vantle
