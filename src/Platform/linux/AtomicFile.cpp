#include "Platform/AtomicFile.h"

#include "Platform/SystemError.h"
#include "Platform/UniqueFd.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace {
std::unexpected<std::string> failure(int err) {
    return std::unexpected(systemErrorText(err));
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}
} // namespace

namespace {
std::expected<void, std::string> writeAtomically(const std::filesystem::path& file,
                                                 const std::function<void(const PutPiece& put)>& produce,
                                                 mode_t mode, Durability durability) {
    auto folder = file.parent_path().empty() ? std::filesystem::path(".") : file.parent_path();
    UniqueFd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir) return failure(errno);

    static std::atomic<unsigned> counter{0};
    std::string name = file.filename().string();
    std::string temp = "." + name + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    UniqueFd out(
        ::openat(dir.get(), temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!out) return failure(errno);
    int writeError = 0;
    produce([&](std::string_view piece) {
        if (writeError == 0 && !writeAll(out.get(), piece)) writeError = errno != 0 ? errno : EIO;
        return writeError == 0;
    });
    if (writeError != 0 || (durability == Durability::synced && ::fsync(out.get()) != 0)) {
        int err = writeError != 0 ? writeError : errno;
        ::unlinkat(dir.get(), temp.c_str(), 0);
        return failure(err);
    }
    // The umask may have narrowed the mode; the caller's mode is what the file is meant to have.
    ::fchmod(out.get(), mode);
    out.reset();
    if (::renameat(dir.get(), temp.c_str(), dir.get(), name.c_str()) != 0) {
        int err = errno;
        ::unlinkat(dir.get(), temp.c_str(), 0);
        return failure(err);
    }
    return {};
}
} // namespace

std::expected<void, std::string> writeFileAtomically(const std::filesystem::path& file,
                                                     std::string_view bytes, mode_t mode) {
    return writeAtomically(
        file, [&](const PutPiece& put) { put(bytes); }, mode, Durability::synced);
}

std::expected<void, std::string>
writeFileAtomicallyInPieces(const std::filesystem::path& file,
                            const std::function<void(const PutPiece& put)>& produce, mode_t mode,
                            Durability durability) {
    std::error_code ec;
    if (!file.parent_path().empty()) std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) return std::unexpected(systemErrorText(ec.value()));
    return writeAtomically(file, produce, mode, durability);
}

std::expected<void, std::string> writeFileAtomicallyMakingFolder(const std::filesystem::path& file,
                                                                 std::string_view bytes, mode_t mode) {
    std::error_code ec;
    if (!file.parent_path().empty()) std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) return std::unexpected(systemErrorText(ec.value()));
    return writeFileAtomically(file, bytes, mode);
}

std::expected<std::string, int> readWholeFd(int fd) {
    std::string out;
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::unexpected(errno);
        }
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

std::expected<std::string, int> readWholeFile(const std::filesystem::path& file) {
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return std::unexpected(errno);
    return readWholeFd(fd.get());
}

} // namespace vantle
