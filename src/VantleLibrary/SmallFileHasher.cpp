#include "VantleLibrary/SmallFileHasher.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace vantle {

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
    if (expected.size < 0 || expected.size > wholeInOneReadBytes) return std::unexpected(Miss::changedBefore);
    auto opened = FingerprintReader::openExpected(target.dirFd, target.name, expected);
    if (!opened) return std::unexpected(opened.error());
    const auto& fd = opened->fd;

    // A file that grows or shrinks under the read is caught by the status taken after it.
    const auto size = static_cast<size_t>(expected.size);
    size_t got = 0;
    while (got < size) {
        auto n = ::pread(fd.get(), into + got, size - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    bytesRead_ += static_cast<std::int64_t>(got);
    if (got < size) return std::unexpected(Miss::shortRead);
    if (!FingerprintReader::unchangedSinceOpened(*opened)) return std::unexpected(Miss::changedDuring);
    return std::span<const std::uint8_t>(into, size);
}

void SmallFileHasher::hashEach(const FingerprintReader::Next& next, const Done& done) {
    // One file a lane at a time, read whole when it is taken; its slices are hashed from that read.
    struct Lane {
        std::optional<size_t> id;
        std::span<const std::uint8_t> contents;
        std::vector<ByteRange> slices;
        size_t slice = 0;
        SmallFileDigests digests;
    };
    std::array<Lane, 2> lanes;
    auto more = [&](size_t i) -> std::span<const std::uint8_t> {
        auto& lane = lanes[i];
        while (true) {
            if (!lane.id) {
                auto job = next();
                if (!job) return {};
                auto got = read(job->target, buffer_.get() + i * wholeInOneReadBytes);
                if (!got) {
                    done(job->id, std::unexpected(got.error()));
                    continue;
                }
                lane = {job->id, *got, sampleRanges(static_cast<std::int64_t>(got->size())), 0, {}};
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
