#include "Platform/UserEntryOpen.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace vantle {

void UserEntryFd::reset() {
    if (fd_ && putBack_) {
        // Same permission rule as O_NOATIME (owner or CAP_FOWNER), so this mostly helps on file
        // systems that ignore the flag's request rather than refusing it; a failure leaves the time
        // as the kernel set it, which docs/platform.md owns up to.
        timespec times[2] = {*putBack_, {0, UTIME_OMIT}};
        ::futimens(fd_.get(), times);
    }
    putBack_.reset();
    fd_.reset();
}

int openatNoAtime(int dirFd, const char* name, int flags) {
    int fd = ::openat(dirFd, name, userEntryFlags(flags));
    if (fd < 0 && errno == EPERM) fd = ::openat(dirFd, name, userEntryFlags(flags) & ~O_NOATIME);
    return fd;
}

std::expected<UserEntryFd, int> openUserEntry(int dirFd, const char* name, int flags) {
    int fd = ::openat(dirFd, name, userEntryFlags(flags));
    if (fd >= 0) return UserEntryFd(UniqueFd(fd));
    if (errno != EPERM) return std::unexpected(errno);
    fd = ::openat(dirFd, name, userEntryFlags(flags) & ~O_NOATIME);
    if (fd < 0) return std::unexpected(errno);
    struct stat st{};
    std::optional<timespec> seen;
    if (::fstat(fd, &st) == 0) seen = st.st_atim;
    return UserEntryFd(UniqueFd(fd), seen);
}

} // namespace vantle
