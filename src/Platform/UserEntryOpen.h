// Opening the user's own files and folders for reading without moving their access time: access
// time is what "last opened", Forgotten Downloads, Old Installers and Unused Apps are judged by, so
// looking must not count as opening. Every read of a user's entry (folder listing, sample, hash,
// plist) goes through here. Free functions and a move-only holder; thread-safe.
#pragma once
#include "Platform/UniqueFd.h"

#include <ctime>
#include <expected>
#include <fcntl.h>
#include <optional>

namespace vantle {

// A descriptor onto a user's entry. When the kernel refused O_NOATIME (an entry another user owns),
// it remembers the access time seen at open and puts it back when let go, where futimens is allowed.
class UserEntryFd {
  public:
    UserEntryFd() = default;
    explicit UserEntryFd(UniqueFd fd, std::optional<timespec> putBack = std::nullopt)
        : fd_(std::move(fd)), putBack_(putBack) {}
    ~UserEntryFd() { reset(); }
    UserEntryFd(UserEntryFd&&) noexcept = default;
    UserEntryFd& operator=(UserEntryFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::move(other.fd_);
            putBack_ = std::exchange(other.putBack_, std::nullopt);
        }
        return *this;
    }

    int get() const { return fd_.get(); }
    explicit operator bool() const { return static_cast<bool>(fd_); }
    void reset();

  private:
    UniqueFd fd_;
    std::optional<timespec> putBack_;
};

// What every open of a user's entry adds to the caller's flags: no final link followed, no descriptor
// left to a child, no access time moved. For an open made some other way (several at once, say),
// which must then take EPERM as openUserEntry does.
constexpr int userEntryFlags(int flags) {
    return flags | O_NOFOLLOW | O_CLOEXEC | O_NOATIME;
}

// Opens `name` beneath `dirFd` (AT_FDCWD for a path) with userEntryFlags(flags). Where the kernel
// refuses O_NOATIME (EPERM), opens without it and puts the access time back when let go. The error is
// the errno of the open.
std::expected<UserEntryFd, int> openUserEntry(int dirFd, const char* name, int flags);

// The flags alone, for callers that keep a plain UniqueFd (folders they only list, where a refused
// O_NOATIME has nothing to put back that futimens would be allowed to): O_NOATIME is tried first
// and dropped on EPERM. Returns -1 with errno set on failure.
int openatNoAtime(int dirFd, const char* name, int flags);

} // namespace vantle
