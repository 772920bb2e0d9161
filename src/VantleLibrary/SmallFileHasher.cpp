#include "VantleLibrary/SmallFileHasher.h"

#include "Platform/UserEntryOpen.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace vantle {

namespace {
// What is read of a file of `size` bytes: all of it when the slices cover it, else its three slices,
// which go side by side in its room and hash there as its sample.
std::vector<ByteRange> slicesOf(std::int64_t size) {
    return size <= wholeInOneReadBytes ? std::vector<ByteRange>{{0, size}} : sampleRanges(size);
}

constexpr std::size_t batchBytes = 256 * 1024; // a half of the batch buffer: sixteen files of 16 KiB
} // namespace

SmallFileHasher::SmallFileHasher()
    : buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(2 * wholeInOneReadBytes)) {}

SmallFileHasher::~SmallFileHasher() = default;

std::expected<SmallFileDigests, FingerprintReader::Miss>
SmallFileHasher::hash(int dirFd, const char* name, const FingerprintReader::Expected& expected) {
    std::optional<FingerprintReader::Job> one = FingerprintReader::Job{0, {dirFd, name, expected}};
    std::expected<SmallFileDigests, FingerprintReader::Miss> out;
    hashEach([&] { return std::exchange(one, std::nullopt); },
             [&](size_t, std::expected<SmallFileDigests, FingerprintReader::Miss> result) {
                 out = std::move(result);
             });
    return out;
}

std::expected<std::span<const std::uint8_t>, FingerprintReader::Miss>
SmallFileHasher::read(const FingerprintReader::Target& target, std::uint8_t* into) {
    using Miss = FingerprintReader::Miss;
    const auto& expected = target.expected;
    if (expected.size < 0) return std::unexpected(Miss::changedBefore);
    auto opened = FingerprintReader::openExpected(target.dirFd, target.name, expected);
    if (!opened) return std::unexpected(opened.error());
    const auto& fd = opened->fd;

    // A file that grows or shrinks under the read is caught by the status taken after it.
    size_t at = 0;
    for (auto [offset, length] : slicesOf(expected.size)) {
        auto got = FingerprintReader::readAt(fd.get(), into + at, length, offset);
        bytesRead_ += got;
        if (got < length) return std::unexpected(Miss::shortRead);
        at += static_cast<size_t>(length);
    }
    if (!FingerprintReader::unchangedSinceOpened(*opened)) return std::unexpected(Miss::changedDuring);
    return std::span<const std::uint8_t>(into, at);
}

bool SmallFileHasher::readBatch(const FingerprintReader::Next& next, const Done& done,
                                const std::uint8_t* busy, std::vector<Read>& ready) {
    using Miss = FingerprintReader::Miss;
    auto* base = batchBuffer_.get();
    if (busy >= base && busy < base + batchBytes) base += batchBytes;
    struct Slot {
        size_t id;
        int dirFd;
        std::string name;
        FingerprintReader::Expected expected;
        std::uint8_t* into;
        int fd = -1;
        FingerprintReader::Checked before{};
        bool reading = false; // its reads are in the batch, and its answer comes after them
    };
    std::vector<Slot> slots;
    std::size_t used = 0;
    bool more = true;
    // Room is kept for the largest file a batch may take.
    while (slots.size() < batch_->capacity() && used + wholeInOneReadBytes <= batchBytes) {
        auto job = next();
        if (!job) {
            more = false;
            break;
        }
        const auto& target = job->target;
        if (target.expected.size < 0) {
            done(job->id, std::unexpected(Miss::changedBefore));
            continue;
        }
        // The name is good only until the next job is asked for; the folder's handle stays open
        // for a batch.
        slots.push_back({job->id, target.dirFd, target.name, target.expected, base + used});
        used += static_cast<std::size_t>(std::min(target.expected.size, wholeInOneReadBytes));
    }
    if (slots.empty()) return more;

    std::vector<FileBatch::Open> opens;
    for (const auto& slot : slots)
        opens.push_back({slot.dirFd, slot.name.c_str(), userEntryFlags(O_RDONLY | O_NONBLOCK)});
    std::vector<int> fds(slots.size());
    batch_->open(opens, fds);
    std::vector<FileBatch::Read> reads;
    std::vector<size_t> reading; // the slots of `reads`
    for (size_t k = 0; k < slots.size(); ++k) {
        auto& slot = slots[k];
        if (fds[k] == -EPERM || (fds[k] < 0 && !batch_->working())) {
            // Not ours to open without moving its access time, or the batch stopped working: the
            // careful single way, which puts the time back.
            auto got = read({slot.dirFd, slot.name.c_str(), slot.expected}, slot.into);
            if (got)
                ready.push_back({slot.id, *got, slot.expected.size > wholeInOneReadBytes});
            else
                done(slot.id, std::unexpected(got.error()));
            continue;
        }
        if (fds[k] < 0) {
            done(slot.id, std::unexpected(Miss::unopenable));
            continue;
        }
        slot.fd = fds[k];
        auto before = FingerprintReader::checkOpened(slot.fd, slot.expected);
        if (!before) {
            done(slot.id, std::unexpected(before.error()));
            continue;
        }
        slot.before = *before;
        slot.reading = true;
        std::int64_t at = 0;
        for (auto [offset, length] : slicesOf(slot.expected.size)) {
            reads.push_back({slot.fd, slot.into + at, static_cast<std::uint32_t>(length), offset});
            reading.push_back(k);
            at += length;
        }
    }
    std::vector<std::int64_t> got(reads.size());
    batch_->read(reads, got);
    std::vector<std::int64_t> slotBytes(slots.size()), slotWanted(slots.size());
    for (size_t r = 0; r < reads.size(); ++r) {
        const auto& read = reads[r];
        // A read of a regular file comes back short only at its end, or when interrupted: the rest,
        // if any, the ordinary way.
        if (got[r] < 0 && !batch_->working()) got[r] = 0;
        std::int64_t have = std::max<std::int64_t>(0, got[r]);
        if (got[r] >= 0 && have < read.length)
            have +=
                FingerprintReader::readAt(read.fd, read.into + have, read.length - have, read.offset + have);
        slotBytes[reading[r]] += have;
        slotWanted[reading[r]] += read.length;
    }
    for (size_t k = 0; k < slots.size(); ++k) {
        const auto& slot = slots[k];
        if (!slot.reading) continue; // answered already
        bytesRead_ += slotBytes[k];
        if (slotBytes[k] < slotWanted[k])
            done(slot.id, std::unexpected(Miss::shortRead));
        else if (!FingerprintReader::unchangedSince(slot.fd, slot.before))
            done(slot.id, std::unexpected(Miss::changedDuring));
        else
            ready.push_back({slot.id,
                             std::span<const std::uint8_t>(slot.into, static_cast<size_t>(slotWanted[k])),
                             slot.expected.size > wholeInOneReadBytes});
    }
    std::vector<int> opened;
    for (const auto& slot : slots)
        if (slot.fd >= 0) opened.push_back(slot.fd);
    batch_->close(opened);
    return more;
}

void SmallFileHasher::hashEach(const FingerprintReader::Next& next, const Done& done, Reads reads) {
    // One file a lane at a time, read whole when it is taken; its slices are hashed from that read.
    struct Lane {
        std::optional<size_t> id;
        std::span<const std::uint8_t> contents;
        std::vector<ByteRange> slices;
        size_t slice = 0;
        SmallFileDigests digests;
    };
    std::array<Lane, 2> lanes;
    if (reads == Reads::inBatches && !batch_ && !batchRefused_) {
        batch_ = FileBatch::make(filesABatch);
        batchRefused_ = !batch_;
        if (batch_) batchBuffer_ = std::make_unique_for_overwrite<std::uint8_t[]>(2 * batchBytes);
    }
    const bool batched = reads == Reads::inBatches && batch_;
    std::vector<Read> ready;
    size_t taken = 0;
    bool moreJobs = true;
    // The next file for lane `i`, read whole: on its own into the lane's room, or from the last batch.
    auto nextRead = [&](size_t i) -> std::optional<Read> {
        while (true) {
            if (!batched) {
                auto job = next();
                if (!job) return std::nullopt;
                auto got = read(job->target, buffer_.get() + i * wholeInOneReadBytes);
                if (got) return Read{job->id, *got, job->target.expected.size > wholeInOneReadBytes};
                done(job->id, std::unexpected(got.error()));
                continue;
            }
            if (taken < ready.size()) return ready[taken++];
            if (!moreJobs) return std::nullopt;
            ready.clear();
            taken = 0;
            const auto& other = lanes[1 - i];
            moreJobs = readBatch(next, done, other.id ? other.contents.data() : nullptr, ready);
        }
    };
    auto more = [&](size_t i) -> std::span<const std::uint8_t> {
        auto& lane = lanes[i];
        while (true) {
            if (!lane.id) {
                auto got = nextRead(i);
                if (!got) return {};
                const auto size = static_cast<std::int64_t>(got->contents.size());
                lane = {got->id,
                        got->contents,
                        got->isSlices ? std::vector<ByteRange>{{0, size}} : sampleRanges(size),
                        0,
                        {}};
                shas_[i].restart();
                continue;
            }
            // The three slices of a one-slice file are the file three times over, so the sample's
            // digest holds the whole file's after its first slice: a copy of that state is the
            // whole-file hash for the price of a few hundred bytes. Past one slice a whole-file hash
            // would cost up to as much as the sample again for every file, while only the few that
            // share a sample need it.
            if (lane.slice == 1 && lane.contents.size() <= static_cast<size_t>(sampleSliceBytes))
                lane.digests.full = Sha256(shas_[i]).finish();
            if (lane.slice == lane.slices.size()) {
                lane.digests.sample = shas_[i].finish();
                done(*std::exchange(lane.id, std::nullopt), lane.digests);
                continue;
            }
            auto [offset, length] = lane.slices[lane.slice++];
            if (length > 0)
                return lane.contents.subspan(static_cast<size_t>(offset), static_cast<size_t>(length));
        }
    };
    Sha256::hashTwoStreams(shas_[0], shas_[1], more);
}

} // namespace vantle
