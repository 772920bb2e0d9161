#include "Platform/PageCache.h"

#include <algorithm>

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantle {

namespace {

// Older C library headers lack cachestat (Linux 6.5); the call number is the same on every
// architecture.
constexpr long cachestatCall = 451;
struct CachestatRange {
    std::uint64_t offset;
    std::uint64_t length;
};
struct Cachestat {
    std::uint64_t cache, dirty, writeback, evicted, recentlyEvicted;
};

// Resident pages in `length` bytes from `offset`, or -1 when the kernel cannot say.
std::int64_t residentCount(int fd, std::int64_t length, std::int64_t offset = 0) {
    CachestatRange range{static_cast<std::uint64_t>(offset), static_cast<std::uint64_t>(length)};
    Cachestat stat{};
    if (::syscall(cachestatCall, fd, &range, &stat, 0) != 0) return -1;
    return static_cast<std::int64_t>(stat.cache);
}

// A partial picture of a file larger than this is not worth a map of its pages: such a file is left
// in memory as it is found after the read.
constexpr std::int64_t largestMapped = std::int64_t{64} << 30;

} // namespace

std::optional<double> residentShare(int fd, std::int64_t offset, std::int64_t length) {
    if (length <= 0) return 1.0;
    const std::int64_t page = ::sysconf(_SC_PAGESIZE);
    auto pages = (offset + length + page - 1) / page - offset / page;
    auto count = residentCount(fd, length, offset);
    if (count < 0) return std::nullopt;
    return static_cast<double>(std::min(count, pages)) / static_cast<double>(pages);
}

ResidentPages ResidentPages::before(int fd, std::int64_t size) {
    ResidentPages out;
    out.size_ = size;
    if (size <= 0) {
        out.state_ = State::all;
        return out;
    }
    const std::int64_t page = ::sysconf(_SC_PAGESIZE);
    const std::int64_t pages = (size + page - 1) / page;
    auto count = residentCount(fd, size);
    if (count == 0) {
        out.state_ = State::none;
        return out;
    }
    if (count >= pages) {
        out.state_ = State::all;
        return out;
    }
    if (size > largestMapped) return out;
    void* map = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) return out;
    out.resident_.resize(static_cast<size_t>(pages));
    bool known = ::mincore(map, static_cast<size_t>(size), out.resident_.data()) == 0;
    ::munmap(map, static_cast<size_t>(size));
    if (!known) {
        out.resident_.clear();
        return out;
    }
    size_t in = 0;
    for (auto r : out.resident_)
        in += r & 1;
    out.state_ = in == 0 ? State::none : in == out.resident_.size() ? State::all : State::some;
    if (out.state_ != State::some) out.resident_.clear();
    return out;
}

void ResidentPages::releaseNew(int fd) const {
    switch (state_) {
    case State::all:
    case State::unknown:
        return;
    case State::none:
        ::posix_fadvise(fd, 0, size_, POSIX_FADV_DONTNEED);
        return;
    case State::some:
        break;
    }
    const std::int64_t page = ::sysconf(_SC_PAGESIZE);
    for (size_t i = 0; i < resident_.size();) {
        if (resident_[i] & 1) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < resident_.size() && !(resident_[end] & 1))
            ++end;
        ::posix_fadvise(fd, static_cast<off_t>(i) * page, static_cast<off_t>(end - i) * page,
                        POSIX_FADV_DONTNEED);
        i = end;
    }
}

} // namespace vantle
