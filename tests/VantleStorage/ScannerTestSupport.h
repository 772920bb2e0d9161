// Fixtures the scanner and tree sizer tests share: a folder mounted from another disk, reading as
// an unprivileged user, and the space a file really takes. Test-only; one per test.
#pragma once
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace vantle::testing {

// Space on disk, as the scan counts it.
inline std::int64_t allocatedBytesOf(const std::filesystem::path& file) {
    struct stat st {};
    if (::lstat(file.c_str(), &st) != 0) return -1;
    return static_cast<std::int64_t>(st.st_blocks) * 512;
}

// Contents that take their whole length on disk (no holes), so sizes can be checked exactly.
inline std::string filled(std::size_t n) {
    return std::string(n, 'x');
}

// A tmpfs mounted at `where` until the value ends; mounted() is false without the right to mount.
class TmpfsMount {
  public:
    explicit TmpfsMount(const std::filesystem::path& where) : where_(where) {
        std::filesystem::create_directories(where);
        mounted_ = ::mount("vantle-test", where.c_str(), "tmpfs", 0, "size=4m") == 0;
    }
    ~TmpfsMount() {
        if (mounted_) ::umount2(where_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }

  private:
    std::filesystem::path where_;
    bool mounted_ = false;
};

// A small btrfs file system, which can clone files, made in an image file and mounted at `where`
// until the value ends. Needs root and mkfs.btrfs; why() says what was missing when it is not there.
class CloningDisk {
  public:
    CloningDisk(const std::filesystem::path& image, const std::filesystem::path& where) : where_(where) {
        if (::geteuid() != 0) {
            why_ = "mounting a disk image needs root";
            return;
        }
        std::filesystem::create_directories(where);
        std::filesystem::resize_file((std::ofstream(image), image), 128 << 20);
        auto quiet = " >/dev/null 2>&1";
        if (std::system(("mkfs.btrfs -q '" + image.string() + "'" + quiet).c_str()) != 0) {
            why_ = "mkfs.btrfs (package btrfs-progs) is not installed";
            return;
        }
        if (std::system(
                ("mount -o loop '" + image.string() + "' '" + where.string() + "'" + quiet).c_str()) != 0) {
            why_ = "this machine would not mount a loop device";
            return;
        }
        mounted_ = true;
    }
    ~CloningDisk() {
        if (mounted_) ::umount2(where_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }
    const std::string& why() const { return why_; }

  private:
    std::filesystem::path where_;
    bool mounted_ = false;
    std::string why_;
};

// Reads files as an ordinary user would, so permissions stop the reads even when the tests run as
// root. Changes the file-system ids of the calling thread only; threads it starts inherit them.
class AsOrdinaryUser {
  public:
    explicit AsOrdinaryUser(const std::filesystem::path& openUp) {
        if (::geteuid() != 0) return;
        // The test's own folder must stay reachable for the ordinary user.
        std::filesystem::permissions(
            openUp, std::filesystem::perms::owner_all | std::filesystem::perms::group_read |
                        std::filesystem::perms::group_exec | std::filesystem::perms::others_read |
                        std::filesystem::perms::others_exec);
        ::setfsgid(65534);
        ::setfsuid(65534);
        dropped_ = true;
    }
    ~AsOrdinaryUser() {
        if (!dropped_) return;
        ::setfsuid(0);
        ::setfsgid(0);
    }

  private:
    bool dropped_ = false;
};

// A listening socket bound at `where`, as a running program leaves one.
inline bool bindSocket(const std::filesystem::path& where) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    auto text = where.string();
    if (text.size() >= sizeof address.sun_path) return false;
    text.copy(address.sun_path, text.size());
    bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

} // namespace vantle::testing
