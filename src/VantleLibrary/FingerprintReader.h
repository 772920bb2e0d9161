// Hashes one file's contents with SHA-256, either a sample of three small slices or the whole file,
// and only while the file is still the one a candidate record described (same identity, size and
// modification time before and after the read). Two files may be hashed together, for the speed of
// hashing two messages at once. Owns one reused 1 MiB buffer a file and two digest states: use one
// reader per thread. Results are values; nothing is kept beyond the reader.
#pragma once
#include "Platform/UserEntryOpen.h"
#include "VantleLibrary/Fingerprint.h"
#include "VantleLibrary/Sha256.h"
#include "VantleSpec/CancelFlag.h"
#include "VantleSpec/Time.h"

#include <array>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace vantle {

enum class HashMode { sample, full };

struct ByteRange {
    std::int64_t offset = 0;
    std::int64_t length = 0;
    bool operator==(const ByteRange&) const = default;
};

inline constexpr std::int64_t sampleSliceBytes = 16'384;
inline constexpr std::int64_t fullChunkBytes = 1'048'576;
// A whole-file read looks at the clock before every this-many-th chunk.
inline constexpr std::int64_t chunksBetweenDeadlineChecks = 64;

// What a candidate record and the checks around each read are both made from (statx, never
// following a final link), so that they compare like with like.
struct FileStatus {
    bool isRegular = false;
    FileNumber number;
    std::int64_t size = 0;
    std::int64_t allocated = 0;
    std::int64_t modified = 0;        // nanoseconds since the epoch
    std::optional<std::int64_t> born; // nanoseconds since the epoch, where the file system keeps it
    std::uint32_t links = 0;
};
std::optional<FileStatus> fileStatus(const std::filesystem::path& path);
std::optional<FileStatus> fileStatus(int fd);
// `name` beneath the open folder `dirFd`: one statx with no walk down the whole path.
std::optional<FileStatus> fileStatusAt(int dirFd, const char* name);

// Head, middle and tail slices, always three, overlapping (even identical) for small files so that
// every size has one well-defined sample.
std::vector<ByteRange> sampleRanges(std::int64_t size);

class FingerprintReader {
  public:
    // What the file must still be for its hash to count.
    struct Expected {
        FileNumber number;
        std::int64_t size = 0;
        std::int64_t modified = 0; // nanoseconds since the epoch
    };

    // Why there is no hash. Only pastDeadline and cancelled stop a scan; the others drop the file.
    enum class Miss {
        unopenable,
        notRegular,
        changedBefore,
        shortRead,
        changedDuring,
        pastDeadline,
        cancelled
    };

    // What the checks around a read compare: the file's kind, identity, size and modification time.
    struct Checked {
        bool isRegular = false;
        FileNumber number;
        std::int64_t size = 0;
        std::int64_t modified = 0; // nanoseconds since the epoch
    };
    static std::optional<Checked> checkedStatus(int fd);

    // A file opened to be hashed, with its status as the open found it.
    struct Opened {
        UserEntryFd fd;
        Checked before;
    };
    // Opens `name` beneath `dirFd` (AT_FDCWD for a path) the way every hash does: no final link
    // followed, no blocking on a fifo swapped in under the name, no access time moved. Then checks that it
    // is still the regular file the scan recorded.
    static std::expected<Opened, Miss> openExpected(int dirFd, const char* name, const Expected& expected);
    // After the read: the file kept the size and modification time it had when opened.
    static bool unchangedSinceOpened(const Opened& opened);
    // Reads up to `length` bytes at `offset`, going on after a short read or an interruption: the
    // bytes read, fewer only at the file's end (it shrank) or on an error.
    static std::int64_t readAt(int fd, std::uint8_t* into, std::int64_t length, std::int64_t offset);
    // The two checks above on a file opened some other way (several at once, say).
    static std::expected<Checked, Miss> checkOpened(int fd, const Expected& expected);
    static bool unchangedSince(int fd, const Checked& before);

    // `cancel` may be null; it must outlive the reader.
    FingerprintReader(Clock clock, TimePoint deadline, const CancelFlag* cancel = nullptr);
    ~FingerprintReader();
    FingerprintReader(const FingerprintReader&) = delete;
    FingerprintReader& operator=(const FingerprintReader&) = delete;

    std::expected<Digest, Miss> hash(const std::filesystem::path& path, const Expected& expected,
                                     HashMode mode);
    // `name` beneath the open folder `dirFd` (AT_FDCWD for a path).
    std::expected<Digest, Miss> hash(int dirFd, const char* name, const Expected& expected, HashMode mode);

    // One file to hash: `name` beneath the open folder `dirFd`, and what it must still be.
    struct Target {
        int dirFd;
        const char* name;
        Expected expected;
    };
    // A file to hash and the caller's number for it.
    struct Job {
        size_t id;
        Target target; // its name need only last until `next` is called again
    };
    // Gives the file to hash next, or nothing when there are no more.
    using Next = std::function<std::optional<Job>()>;
    using Done = std::function<void(size_t id, std::expected<Digest, Miss> result)>;
    // Hashes the files `next` gives, two at a time, each exactly as hash() would hash it alone, until
    // it gives nothing; `done` hears of each file as it is finished, in no set order.
    void hashEach(HashMode mode, const Next& next, const Done& done);

    // Bytes read by every hash so far.
    std::int64_t bytesRead() const { return bytesRead_; }

    // Called after each range is read, with the open descriptor: lets a test change the file in the
    // middle of a read.
    void setAfterEachRead(std::function<void(int fd)> hook) { afterEachRead_ = std::move(hook); }

  private:
    Clock clock_;
    TimePoint deadline_;
    const CancelFlag* cancel_;
    std::unique_ptr<std::uint8_t[]> buffer_; // one chunk a file
    std::array<Sha256, 2> shas_;
    std::int64_t bytesRead_ = 0;
    std::function<void(int)> afterEachRead_;
};

} // namespace vantle
