#include "VantleLibrary/FingerprintReader.h"

#include "Platform/PageCache.h"
#include "Platform/UserEntryOpen.h"

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

} // namespace

std::int64_t FingerprintReader::readAt(int fd, std::uint8_t* into, std::int64_t length, std::int64_t offset) {
    std::int64_t done = 0;
    while (done < length) {
        auto n = ::pread(fd, into + done, static_cast<size_t>(length - done), offset + done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += n;
    }
    return done;
}

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

FingerprintReader::FingerprintReader(Clock clock, TimePoint deadline, const CancelFlag* cancel)
    : clock_(std::move(clock)), deadline_(deadline), cancel_(cancel),
      buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(2 * fullChunkBytes)) {}

FingerprintReader::~FingerprintReader() = default;

std::expected<FingerprintReader::Opened, FingerprintReader::Miss>
FingerprintReader::openExpected(int dirFd, const char* name, const Expected& expected) {
    auto fd = openUserEntry(dirFd, name, O_RDONLY | O_NONBLOCK);
    if (!fd) return std::unexpected(Miss::unopenable);
    auto before = checkOpened(fd->get(), expected);
    if (!before) return std::unexpected(before.error());
    return Opened{std::move(*fd), *before};
}

std::expected<FingerprintReader::Checked, FingerprintReader::Miss>
FingerprintReader::checkOpened(int fd, const Expected& expected) {
    auto before = checkedStatus(fd);
    if (!before || !before->isRegular) return std::unexpected(Miss::notRegular);
    if (before->number != expected.number || before->size != expected.size ||
        before->modified != expected.modified)
        return std::unexpected(Miss::changedBefore);
    return *before;
}

bool FingerprintReader::unchangedSinceOpened(const Opened& opened) {
    return unchangedSince(opened.fd.get(), opened.before);
}

bool FingerprintReader::unchangedSince(int fd, const Checked& before) {
    auto after = checkedStatus(fd);
    return after && after->size == before.size && after->modified == before.modified;
}

std::expected<Digest, FingerprintReader::Miss>
FingerprintReader::hash(const std::filesystem::path& path, const Expected& expected, HashMode mode) {
    return hash(AT_FDCWD, path.c_str(), expected, mode);
}

std::expected<Digest, FingerprintReader::Miss>
FingerprintReader::hash(int dirFd, const char* name, const Expected& expected, HashMode mode) {
    std::optional<Job> one = Job{0, {dirFd, name, expected}};
    std::expected<Digest, Miss> out;
    hashEach(
        mode, [&] { return std::exchange(one, std::nullopt); },
        [&](size_t, std::expected<Digest, Miss> result) { out = std::move(result); });
    return out;
}

void FingerprintReader::hashEach(HashMode mode, const Next& next, const Done& done) {
    // One file a lane at a time; each lane takes its next file as soon as its last one is hashed.
    struct Lane {
        std::optional<size_t> id;
        std::optional<Opened> opened;
        std::vector<ByteRange> ranges;
        size_t step = 0;
        ResidentPages resident;
        std::uint8_t* buffer = nullptr;
    };
    std::array<Lane, 2> lanes;
    for (size_t i = 0; i < lanes.size(); ++i)
        lanes[i].buffer = buffer_.get() + i * fullChunkBytes;

    auto end = [&](size_t i, std::optional<Miss> miss) {
        auto& lane = lanes[i];
        // What was read once for hashing is not worth keeping in memory at the cost of other files;
        // what was in memory before stays.
        if (mode == HashMode::full) lane.resident.releaseNew(lane.opened->fd.get());
        if (!miss && !unchangedSinceOpened(*lane.opened)) miss = Miss::changedDuring;
        std::expected<Digest, Miss> result = shas_[i].finish();
        if (miss) result = std::unexpected(*miss);
        auto id = *std::exchange(lane.id, std::nullopt);
        lane.opened.reset();
        done(id, std::move(result));
    };
    auto start = [&](size_t i, const Job& job) {
        // Linux has no cloud placeholder files, so there is no download to hold back while reading.
        auto opened = openExpected(job.target.dirFd, job.target.name, job.target.expected);
        if (!opened) return done(job.id, std::unexpected(opened.error()));
        auto& lane = lanes[i];
        const auto size = job.target.expected.size;
        const int fd = opened->fd.get();
        lane.id = job.id;
        lane.opened = std::move(*opened);
        lane.step = 0;
        lane.ranges.clear();
        if (mode == HashMode::sample) {
            lane.ranges = sampleRanges(size);
        } else {
            lane.resident = ResidentPages::before(fd, size);
            // A longer readahead pays only for pages that must come from the disk.
            if (lane.resident.state() != ResidentPages::State::all)
                ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
            for (std::int64_t at = 0; at < size; at += fullChunkBytes)
                lane.ranges.push_back({at, std::min(fullChunkBytes, size - at)});
        }
        shas_[i].restart();
    };
    // A lane's next range, read; its file ended when its ranges are all hashed, and the next one
    // started.
    auto more = [&](size_t i) -> std::span<const std::uint8_t> {
        auto& lane = lanes[i];
        while (true) {
            if (!lane.id) {
                auto job = next();
                if (!job) return {};
                start(i, *job);
                continue;
            }
            if (lane.step == lane.ranges.size()) {
                end(i, std::nullopt);
                continue;
            }
            if (mode == HashMode::full && (lane.step + 1) % chunksBetweenDeadlineChecks == 0) {
                if (cancel_ && cancel_->isCancelled()) {
                    end(i, Miss::cancelled);
                    continue;
                }
                if (clock_() > deadline_) {
                    end(i, Miss::pastDeadline);
                    continue;
                }
            }
            auto [offset, length] = lane.ranges[lane.step++];
            if (readAt(lane.opened->fd.get(), lane.buffer, length, offset) != length) {
                end(i, Miss::shortRead);
                continue;
            }
            bytesRead_ += length;
            if (afterEachRead_) afterEachRead_(lane.opened->fd.get());
            if (length > 0) return {lane.buffer, static_cast<size_t>(length)};
        }
    };
    Sha256::hashTwoStreams(shas_[0], shas_[1], more);
}

} // namespace vantle
