#include "VantleLibrary/FingerprintReader.h"

#include "Platform/PageCache.h"
#include "Platform/UserEntryOpen.h"

#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace vantle {

namespace {

std::int64_t nanoseconds(const struct statx_timestamp& t) {
    return static_cast<std::int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

std::optional<FileStatus> statusAt(int dirFd, const char* path, int flags) {
    struct statx sx {};
    if (::statx(dirFd, path, flags | AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT,
                STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
        return std::nullopt;
    FileStatus s;
    s.isRegular = S_ISREG(sx.stx_mode);
    s.number = {static_cast<std::int32_t>(makedev(sx.stx_dev_major, sx.stx_dev_minor)), sx.stx_ino};
    s.size = static_cast<std::int64_t>(sx.stx_size);
    s.allocated = static_cast<std::int64_t>(sx.stx_blocks) * 512;
    s.modified = nanoseconds(sx.stx_mtime);
    if (sx.stx_mask & STATX_BTIME) s.born = nanoseconds(sx.stx_btime);
    s.links = sx.stx_nlink;
    return s;
}

// Reads exactly `length` bytes at `offset`, or fails (a short read means the file shrank).
bool readFully(int fd, std::uint8_t* into, std::int64_t length, std::int64_t offset) {
    std::int64_t done = 0;
    while (done < length) {
        auto n = ::pread(fd, into + done, static_cast<size_t>(length - done), offset + done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += n;
    }
    return true;
}

} // namespace

std::optional<FileStatus> fileStatus(const std::filesystem::path& path) {
    return statusAt(AT_FDCWD, path.c_str(), 0);
}

std::optional<FileStatus> fileStatus(int fd) {
    return statusAt(fd, "", AT_EMPTY_PATH);
}

std::optional<FingerprintReader::Checked> FingerprintReader::checkedStatus(int fd) {
    // Only what the checks compare, and no path: since Linux 6.11 a null path with AT_EMPTY_PATH
    // skips copying and looking up a name, which a hash pays twice per file.
    constexpr unsigned wanted = STATX_TYPE | STATX_INO | STATX_SIZE | STATX_MTIME;
    static std::atomic<bool> nullPathRefused{false};
    struct statx sx {};
    int r = -1;
    if (!nullPathRefused.load(std::memory_order_relaxed)) {
        // Through syscall(): the C library's statx declares its path never null.
        r = static_cast<int>(
            ::syscall(SYS_statx, fd, nullptr, AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, wanted, &sx));
        if (r != 0 && errno == EFAULT) nullPathRefused.store(true, std::memory_order_relaxed);
    }
    if (r != 0) r = ::statx(fd, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, wanted, &sx);
    if (r != 0) return std::nullopt;
    return Checked{S_ISREG(sx.stx_mode),
                   {static_cast<std::int32_t>(makedev(sx.stx_dev_major, sx.stx_dev_minor)), sx.stx_ino},
                   static_cast<std::int64_t>(sx.stx_size),
                   nanoseconds(sx.stx_mtime)};
}

std::optional<FileStatus> fileStatusAt(int dirFd, const char* name) {
    return statusAt(dirFd, name, 0);
}

std::vector<ByteRange> sampleRanges(std::int64_t size) {
    auto slice = std::min(size, sampleSliceBytes);
    auto middle = std::max<std::int64_t>(0, size / 2 - sampleSliceBytes / 2);
    return {{0, slice},
            {middle, std::min(size - middle, sampleSliceBytes)},
            {std::max<std::int64_t>(0, size - sampleSliceBytes), slice}};
}

// One SHA-256 context and the fetched algorithm, kept for the reader's life so each file costs one
// initialisation rather than a fresh allocation and algorithm look-up.
struct FingerprintReader::Digester {
    EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ~Digester() {
        EVP_MD_CTX_free(context);
        EVP_MD_free(sha256);
    }
};

FingerprintReader::FingerprintReader(Clock clock, TimePoint deadline, const CancelFlag* cancel)
    : clock_(std::move(clock)), deadline_(deadline), cancel_(cancel),
      buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(fullChunkBytes)),
      digester_(std::make_unique<Digester>()) {}

FingerprintReader::~FingerprintReader() = default;

std::expected<FingerprintReader::Opened, FingerprintReader::Miss>
FingerprintReader::openExpected(int dirFd, const char* name, const Expected& expected) {
    auto fd = openUserEntry(dirFd, name, O_RDONLY | O_NONBLOCK);
    if (!fd) return std::unexpected(Miss::unopenable);
    auto before = checkedStatus(fd->get());
    if (!before || !before->isRegular) return std::unexpected(Miss::notRegular);
    if (before->number != expected.number || before->size != expected.size ||
        before->modified != expected.modified)
        return std::unexpected(Miss::changedBefore);
    return Opened{std::move(*fd), *before};
}

bool FingerprintReader::unchangedSinceOpened(const Opened& opened) {
    auto after = checkedStatus(opened.fd.get());
    return after && after->size == opened.before.size && after->modified == opened.before.modified;
}

std::expected<Digest, FingerprintReader::Miss>
FingerprintReader::hash(const std::filesystem::path& path, const Expected& expected, HashMode mode) {
    return hash(AT_FDCWD, path.c_str(), expected, mode);
}

std::expected<Digest, FingerprintReader::Miss>
FingerprintReader::hash(int dirFd, const char* name, const Expected& expected, HashMode mode) {
    // Linux has no cloud placeholder files, so there is no download to hold back while reading.
    auto opened = openExpected(dirFd, name, expected);
    if (!opened) return std::unexpected(opened.error());
    const auto& fd = opened->fd;

    std::vector<ByteRange> ranges;
    ResidentPages resident;
    if (mode == HashMode::sample) {
        ranges = sampleRanges(expected.size);
    } else {
        resident = ResidentPages::before(fd.get(), expected.size);
        // A longer readahead pays only for pages that must come from the disk.
        if (resident.state() != ResidentPages::State::all)
            ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
        for (std::int64_t at = 0; at < expected.size; at += fullChunkBytes)
            ranges.push_back({at, std::min(fullChunkBytes, expected.size - at)});
    }

    auto* context = digester_->context;
    EVP_DigestInit_ex(context, digester_->sha256 ? digester_->sha256 : EVP_sha256(), nullptr);
    std::optional<Miss> miss;
    for (size_t i = 0; i < ranges.size() && !miss; ++i) {
        if (mode == HashMode::full && (i + 1) % chunksBetweenDeadlineChecks == 0) {
            if (cancel_ && cancel_->isCancelled())
                miss = Miss::cancelled;
            else if (clock_() > deadline_)
                miss = Miss::pastDeadline;
            if (miss) break;
        }
        auto [offset, length] = ranges[i];
        if (!readFully(fd.get(), buffer_.get(), length, offset)) {
            miss = Miss::shortRead;
            break;
        }
        bytesRead_ += length;
        EVP_DigestUpdate(context, buffer_.get(), static_cast<size_t>(length));
        if (afterEachRead_) afterEachRead_(fd.get());
    }
    // What was read once for hashing is not worth keeping in memory at the cost of other files; what
    // was in memory before stays.
    if (mode == HashMode::full) resident.releaseNew(fd.get());
    Digest digest{};
    EVP_DigestFinal_ex(context, digest.data(), nullptr);
    if (miss) return std::unexpected(*miss);

    if (!unchangedSinceOpened(*opened)) return std::unexpected(Miss::changedDuring);
    return digest;
}

} // namespace vantle
