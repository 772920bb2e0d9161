#include "Platform/KeptFile.h"

#include "Platform/SystemError.h"
#include "Platform/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace {
std::string fill(std::string_view sentence, const std::filesystem::path& file, std::string_view key,
                 std::string_view value) {
    std::string out(sentence);
    auto replace = [&](std::string_view name, std::string_view with) {
        if (auto at = out.find(name); at != std::string::npos) out.replace(at, name.size(), with);
    };
    replace("{path}", file.string());
    if (!key.empty()) replace(key, value);
    return out;
}

std::unexpected<KeptFileFailure> failed(KeptFileFailure::Case what, int error, std::string sentence) {
    return std::unexpected(KeptFileFailure{what, error, std::move(sentence)});
}

std::unexpected<KeptFileFailure> unreadable(const std::filesystem::path& file, int error) {
    return failed(KeptFileFailure::Case::unreadable, error,
                  fill(KeptFileFailure::unreadableSentence, file, "{reason}", systemErrorText(error)));
}
} // namespace

std::expected<std::string, KeptFileFailure> readKeptFd(int fd, const std::filesystem::path& file,
                                                       std::size_t boundBytes) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return unreadable(file, errno);
    if (!S_ISREG(st.st_mode))
        return failed(KeptFileFailure::Case::notAFile, 0,
                      fill(KeptFileFailure::notAFileSentence, file, {}, {}));
    auto tooLarge = [&] {
        return failed(KeptFileFailure::Case::tooLarge, 0,
                      fill(KeptFileFailure::tooLargeSentence, file, "{bound}", std::to_string(boundBytes)));
    };
    if (static_cast<std::size_t>(st.st_size) > boundBytes) return tooLarge();

    // The size seen by fstat is only a hint: the file may grow while it is read, so the bound is
    // enforced on the bytes actually read.
    std::string out;
    out.resize(static_cast<std::size_t>(st.st_size) + 1);
    std::size_t have = 0;
    for (;;) {
        if (have == out.size()) {
            if (have > boundBytes) return tooLarge();
            out.resize(std::min(out.size() * 2 + 4096, boundBytes + 1));
        }
        ssize_t n = ::pread(fd, out.data() + have, out.size() - have, static_cast<off_t>(have));
        if (n < 0) {
            if (errno == EINTR) continue;
            return unreadable(file, errno);
        }
        if (n == 0) break;
        have += static_cast<std::size_t>(n);
        if (have > boundBytes) return tooLarge();
    }
    out.resize(have);
    return out;
}

namespace {
std::expected<UniqueFd, KeptFileFailure> openKept(const std::filesystem::path& file) {
    UniqueFd fd(::open(file.c_str(), O_RDONLY | keptFileOpenFlags));
    if (!fd) {
        int err = errno;
        if (err == ENOENT)
            return failed(KeptFileFailure::Case::missing, err,
                          fill(KeptFileFailure::unreadableSentence, file, "{reason}", systemErrorText(err)));
        // O_NOFOLLOW on a link at the last component.
        if (err == ELOOP)
            return failed(KeptFileFailure::Case::notAFile, err,
                          fill(KeptFileFailure::notAFileSentence, file, {}, {}));
        return unreadable(file, err);
    }
    return fd;
}

// Anonymous memory of at least `size` bytes, faulted in with one call; large pages are asked for
// and used where the system allows them. Null when the system has no memory to give.
void* mapMemory(std::size_t size, std::size_t& mapped) {
    mapped = std::max<std::size_t>(size, 1);
    void* base = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return nullptr;
    ::madvise(base, mapped, MADV_HUGEPAGE);
#ifdef MADV_POPULATE_WRITE
    ::madvise(base, mapped, MADV_POPULATE_WRITE); // older kernels fault the pages in as they are read
#endif
    return base;
}
} // namespace

std::expected<std::string, KeptFileFailure> readKeptFile(const std::filesystem::path& file,
                                                         std::size_t boundBytes) {
    auto fd = openKept(file);
    if (!fd) return std::unexpected(std::move(fd.error()));
    return readKeptFd(fd->get(), file, boundBytes);
}

KeptBytes::~KeptBytes() {
    if (base_) ::munmap(base_, mapped_);
}

void KeptBytes::letGoBefore(std::size_t offset) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    auto whole = std::min(offset, size_) / page * page;
    if (base_ && whole > 0) ::madvise(base_, whole, MADV_DONTNEED);
}

KeptBytes::KeptBytes(KeptBytes&& other) noexcept
    : base_(std::exchange(other.base_, nullptr)), mapped_(std::exchange(other.mapped_, 0)),
      size_(std::exchange(other.size_, 0)) {}

KeptBytes& KeptBytes::operator=(KeptBytes&& other) noexcept {
    if (this != &other) {
        if (base_) ::munmap(base_, mapped_);
        base_ = std::exchange(other.base_, nullptr);
        mapped_ = std::exchange(other.mapped_, 0);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

std::expected<KeptBytes, KeptFileFailure> readLargeKeptFile(const std::filesystem::path& file,
                                                            std::size_t boundBytes) {
    auto fd = openKept(file);
    if (!fd) return std::unexpected(std::move(fd.error()));
    struct stat st {};
    if (::fstat(fd->get(), &st) != 0) return unreadable(file, errno);
    // Not a regular file, or larger than the bound: the ordinary reader gives the same answer.
    if (!S_ISREG(st.st_mode) || static_cast<std::size_t>(st.st_size) > boundBytes) {
        auto refused = readKeptFd(fd->get(), file, boundBytes);
        return std::unexpected(refused ? KeptFileFailure{KeptFileFailure::Case::unreadable, 0, {}}
                                       : std::move(refused.error()));
    }
    KeptBytes out;
    // Mapped where the file system allows: the pages are most often in memory already, and memory a
    // one-shot command takes fresh from the system costs far more than mapping what is there. Kept
    // files are only ever replaced by a rename, never cut short in place, so the mapping keeps its
    // bytes for as long as it lives.
    if (st.st_size == 0) return out;
    if (void* mapped = ::mmap(nullptr, static_cast<std::size_t>(st.st_size), PROT_READ,
                              MAP_PRIVATE | MAP_POPULATE, fd->get(), 0);
        mapped != MAP_FAILED) {
        out.base_ = mapped;
        out.mapped_ = out.size_ = static_cast<std::size_t>(st.st_size);
        return out;
    }
    // One byte more than fstat said, so that a file grown since shows itself by filling it.
    auto capacity = static_cast<std::size_t>(st.st_size) + 1;
    out.base_ = mapMemory(capacity, out.mapped_);
    if (!out.base_) return unreadable(file, ENOMEM);
    auto* into = static_cast<char*>(out.base_);
    while (out.size_ < capacity) {
        ssize_t n = ::pread(fd->get(), into + out.size_, capacity - out.size_, static_cast<off_t>(out.size_));
        if (n < 0) {
            if (errno == EINTR) continue;
            return unreadable(file, errno);
        }
        if (n == 0) return out;
        out.size_ += static_cast<std::size_t>(n);
    }
    // It grew while being read: the ordinary reader follows it up to the bound.
    auto whole = readKeptFd(fd->get(), file, boundBytes);
    if (!whole) return std::unexpected(std::move(whole.error()));
    KeptBytes grown;
    grown.base_ = mapMemory(whole->size(), grown.mapped_);
    if (!grown.base_) return unreadable(file, ENOMEM);
    std::memcpy(grown.base_, whole->data(), whole->size());
    grown.size_ = whole->size();
    return grown;
}

} // namespace vantle
