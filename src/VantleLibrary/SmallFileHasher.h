// The sample hash of a file from one open: read whole in one read when its three slices cover it
// (and then, for a file no longer than one slice, its whole-file hash from the same read), slice by
// slice into one room otherwise, with the same identity checks around the reads as any other hash.
// Two files may be hashed together, for the speed of hashing two messages at once, and read in
// batches. Owns its buffers and two digest states: use one per thread.
#pragma once
#include "Platform/FileBatch.h"
#include "VantleLibrary/FingerprintReader.h"

#include <array>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace vantle {

// Up to this size the head, middle and tail slices together are the whole file.
inline constexpr std::int64_t wholeInOneReadBytes = 3 * sampleSliceBytes;
// Files read together in a batch. The folder handles that `next` gives must stay open this many
// files on, as the batch opens its files only once it has them all.
inline constexpr unsigned filesABatch = 16;

struct SmallFileDigests {
    Digest sample;              // of the head, middle and tail slices, as the sample of any file
    std::optional<Digest> full; // of the whole contents, made for a file of at most one slice
};

class SmallFileHasher {
  public:
    SmallFileHasher();
    ~SmallFileHasher();
    SmallFileHasher(const SmallFileHasher&) = delete;
    SmallFileHasher& operator=(const SmallFileHasher&) = delete;

    // The file is opened beneath `dirFd` (an open folder, or AT_FDCWD for an absolute `name`).
    std::expected<SmallFileDigests, FingerprintReader::Miss>
    hash(int dirFd, const char* name, const FingerprintReader::Expected& expected);
    // Hashes the files `next` gives, two at a time, each exactly as hash() would hash it alone, until
    // it gives nothing; `done` hears of each file as it is finished, in no set order.
    using Done = std::function<void(size_t id, std::expected<SmallFileDigests, FingerprintReader::Miss>)>;
    // With `inBatches`, up to filesABatch files are opened, read and closed together (FileBatch), with
    // each file's own checks between the steps: for files already in memory, where the calls are the
    // cost. From a disk a batch waits for its slowest file, so there one at a time serves better. A
    // system without the batch goes one at a time whatever is asked.
    enum class Reads { oneByOne, inBatches };
    void hashEach(const FingerprintReader::Next& next, const Done& done, Reads reads = Reads::oneByOne);

    // Bytes read by every hash so far (a small file once, not once per slice).
    std::int64_t bytesRead() const { return bytesRead_; }

  private:
    struct Read {
        size_t id;
        std::span<const std::uint8_t> contents; // the whole file, or its three slices side by side
        bool isSlices = false;
    };
    // The next files from `next`, read into the half of the batch buffer that does not hold `busy`
    // (what the other lane is hashing), in `ready`; false when `next` has no more. Files that cannot be
    // read go to `done`.
    bool readBatch(const FingerprintReader::Next& next, const Done& done, const std::uint8_t* busy,
                   std::vector<Read>& ready);
    // The whole file, read with the checks around it, into `into`.
    std::expected<std::span<const std::uint8_t>, FingerprintReader::Miss>
    read(const FingerprintReader::Target& target, std::uint8_t* into);

    std::unique_ptr<std::uint8_t[]> buffer_; // room for two files
    std::unique_ptr<FileBatch> batch_;       // made at the first batched call; null where refused
    bool batchRefused_ = false;
    std::unique_ptr<std::uint8_t[]> batchBuffer_; // two halves, each room for a batch
    std::array<Sha256, 2> shas_;
    std::int64_t bytesRead_ = 0;
};

} // namespace vantle
