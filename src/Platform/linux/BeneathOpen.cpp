#include "Platform/BeneathOpen.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace vantle {

namespace {

std::expected<UniqueFd, int> walkComponents(int rootFd, const std::filesystem::path& relative, int flags,
                                            mode_t mode) {
    std::vector<std::string> parts;
    for (const auto& part : relative) {
        auto s = part.string();
        if (s.empty() || s == "." || s == "/") continue;
        if (s == "..") return std::unexpected(EXDEV);
        parts.push_back(std::move(s));
    }
    if (parts.empty()) {
        int fd = ::openat(rootFd, ".", flags | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd < 0) return std::unexpected(errno);
        return UniqueFd(fd);
    }
    UniqueFd current;
    int at = rootFd;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        int fd = ::openat(at, parts[i].c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            int err = errno;
            struct stat st{};
            if (err == ENOTDIR && ::fstatat(at, parts[i].c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
                err = ELOOP;
            return std::unexpected(err);
        }
        current.reset(fd);
        at = fd;
    }
    int fd = ::openat(at, parts.back().c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) return std::unexpected(errno);
    return UniqueFd(fd);
}

} // namespace

std::expected<UniqueFd, int> openBeneath(int rootFd, const std::filesystem::path& relative, int flags,
                                         mode_t mode) {
    static bool haveOpenat2 = true;
    if (relative.is_absolute()) return std::unexpected(EXDEV);
    if (haveOpenat2) {
        open_how how{};
        how.flags = static_cast<unsigned long long>(flags | O_NOFOLLOW | O_CLOEXEC);
        how.mode = (flags & (O_CREAT | O_TMPFILE)) ? mode : 0;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        auto rel = relative.empty() ? std::string(".") : relative.string();
        long fd = ::syscall(SYS_openat2, rootFd, rel.c_str(), &how, sizeof how);
        if (fd >= 0) return UniqueFd(static_cast<int>(fd));
        if (errno != ENOSYS && errno != EPERM) return std::unexpected(errno);
        // Old kernels and some seccomp filters (containers) lack openat2; walk by hand from now on.
        if (errno == ENOSYS) haveOpenat2 = false;
    }
    return walkComponents(rootFd, relative, flags, mode);
}

std::expected<UniqueFd, int> openFolder(const std::filesystem::path& folder) {
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return std::unexpected(errno);
    return UniqueFd(fd);
}

} // namespace vantle

namespace vantle {

std::expected<void, int> makeFoldersBeneath(int rootFd, const std::filesystem::path& relative, mode_t mode) {
    UniqueFd current;
    int at = rootFd;
    for (const auto& part : relative) {
        auto name = part.string();
        if (name.empty() || name == "." || name == "/") continue;
        if (name == "..") return std::unexpected(EXDEV);
        if (::mkdirat(at, name.c_str(), mode) != 0 && errno != EEXIST) return std::unexpected(errno);
        int fd = ::openat(at, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            int err = errno;
            // O_DIRECTORY|O_NOFOLLOW says ENOTDIR for a link too; tell the two apart for the sentence.
            struct stat st{};
            if (err == ENOTDIR && ::fstatat(at, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
                err = ELOOP;
            return std::unexpected(err);
        }
        current.reset(fd);
        at = fd;
    }
    return {};
}

} // namespace vantle
