#include "VantleLibrary/SmallFileHasher.h"
#include "VantleLibrary/FingerprintReader.h"
#include "support/HashingSupport.h"
#include "support/Patterned.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::expectedOf;
using vantle::testing::farFuture;
using vantle::testing::patterned;
using vantle::testing::sha256;
using vantle::testing::TempDir;

namespace {

using Reads = SmallFileHasher::Reads;
using Result = std::expected<SmallFileDigests, FingerprintReader::Miss>;

// Each target hashed through hashEach, read `reads`, by its place in the list.
std::vector<Result> hashEach(SmallFileHasher& small, const std::vector<FingerprintReader::Target>& targets,
                             Reads reads) {
    std::vector<std::optional<Result>> out(targets.size());
    size_t next = 0;
    small.hashEach(
        [&]() -> std::optional<FingerprintReader::Job> {
            if (next == targets.size()) return std::nullopt;
            auto k = next++;
            return FingerprintReader::Job{k, targets[k]};
        },
        [&](size_t k, Result both) {
            EXPECT_FALSE(out[k]) << "answered twice: " << k;
            out[k] = std::move(both);
        },
        reads);
    std::vector<Result> answered;
    for (size_t k = 0; k < out.size(); ++k) {
        EXPECT_TRUE(out[k]) << "never answered: " << k;
        answered.push_back(out[k].value_or(std::unexpected(FingerprintReader::Miss::cancelled)));
    }
    return answered;
}

} // namespace

// The sample must be the very hash the reader's slice-by-slice read makes, for a file read whole or by
// its slices, alone or in a batch, or a file and its copy hashed by two paths (one kept in the cache,
// one read afresh) would never meet.
TEST(SmallFileHasher, GivesTheSameSampleAsReadingSliceBySliceAndTheWholeHashOfOneSliceFiles) {
    TempDir dir;
    SmallFileHasher small;
    FingerprintReader reader(systemClock(), farFuture);
    std::int64_t expectedBytes = 0;
    std::vector<std::filesystem::path> files;
    std::vector<SmallFileDigests> alone;
    for (std::int64_t size :
         {1, 9, 16'383, 16'384, 16'385, 20'001, 32'768, 49'151, 49'152, 49'153, 300'001}) {
        auto content = patterned(static_cast<size_t>(size), static_cast<int>(size % 97));
        auto file = dir.write("f" + std::to_string(size), content);
        auto both = small.hash(AT_FDCWD, file.c_str(), expectedOf(file));
        ASSERT_TRUE(both) << size;
        files.push_back(file);
        alone.push_back(*both);
        EXPECT_EQ(both->sample, reader.hash(file, expectedOf(file), HashMode::sample)) << size;
        if (size <= sampleSliceBytes) {
            EXPECT_EQ(both->sample, sha256(content + content + content)) << size;
            EXPECT_EQ(both->full, sha256(content)) << size;
        } else {
            EXPECT_FALSE(both->full) << "past one slice only the few sharing a sample are hashed whole";
        }
        expectedBytes += std::min<std::int64_t>(size, 3 * sampleSliceBytes);
    }
    EXPECT_EQ(small.bytesRead(), expectedBytes) << "a small file is read once, a larger one slice by slice";

    // Two at a time, in both lanes, one by one or a batch at a time (more files than a batch holds,
    // so that one lane goes on with a file of the last batch while the other reads the next), each
    // file's digests are the ones it has alone.
    std::vector<FingerprintReader::Target> targets;
    for (int round = 0; round < 3; ++round)
        for (const auto& file : files)
            targets.push_back({AT_FDCWD, file.c_str(), expectedOf(file)});
    for (auto reads : {Reads::oneByOne, Reads::inBatches}) {
        auto before = small.bytesRead();
        auto results = hashEach(small, targets, reads);
        for (size_t k = 0; k < targets.size(); ++k) {
            ASSERT_TRUE(results[k]) << k;
            EXPECT_EQ(results[k]->sample, alone[k % files.size()].sample) << k;
            EXPECT_EQ(results[k]->full, alone[k % files.size()].full) << k;
        }
        EXPECT_EQ(small.bytesRead() - before, 3 * expectedBytes);
    }
}

TEST(SmallFileHasher, RefusesWhatIsNotTheRecordedFileAndNeverFollowsALink) {
    TempDir dir;
    auto file = dir.write("a.txt", patterned(5'000));
    auto recorded = expectedOf(file);
    SmallFileHasher small;

    auto touched = recorded;
    touched.modified += 1;
    EXPECT_EQ(small.hash(AT_FDCWD, file.c_str(), touched).error(), FingerprintReader::Miss::changedBefore);
    auto otherInode = recorded;
    otherInode.number.inode += 1;
    EXPECT_EQ(small.hash(AT_FDCWD, file.c_str(), otherInode).error(), FingerprintReader::Miss::changedBefore);
    auto longer = recorded;
    longer.size += 1;
    EXPECT_EQ(small.hash(AT_FDCWD, file.c_str(), longer).error(), FingerprintReader::Miss::changedBefore);

    std::filesystem::create_symlink(file, dir / "link");
    EXPECT_EQ(small.hash(AT_FDCWD, (dir / "link").c_str(), recorded).error(),
              FingerprintReader::Miss::unopenable);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(small.hash(AT_FDCWD, (dir / "fifo").c_str(), recorded).error(),
              FingerprintReader::Miss::notRegular)
        << "a fifo under the name neither blocks nor counts";
    EXPECT_EQ(small.hash(AT_FDCWD, (dir / "gone").c_str(), recorded).error(),
              FingerprintReader::Miss::unopenable);
    EXPECT_EQ(small.bytesRead(), 0);

    // Beneath an open folder, by name alone.
    auto folder = ::open(dir.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    EXPECT_TRUE(small.hash(folder, "a.txt", recorded));

    // A batch gives each file the answer it has alone, whatever stands beside it.
    std::vector<FingerprintReader::Target> mixed = {
        {folder, "a.txt", recorded}, {AT_FDCWD, file.c_str(), touched}, {folder, "link", recorded},
        {folder, "fifo", recorded},  {folder, "gone", recorded},        {AT_FDCWD, file.c_str(), otherInode},
        {folder, "a.txt", longer},   {folder, "a.txt", recorded}};
    auto openFds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    hashEach(small, {}, Reads::inBatches); // the batch's own descriptor comes with its first use
    auto fdsBefore = openFds();
    auto results = hashEach(small, mixed, Reads::inBatches);
    EXPECT_EQ(openFds(), fdsBefore) << "every file the batch opened is closed, refused or not";
    using Miss = FingerprintReader::Miss;
    std::vector<std::optional<Miss>> expected = {
        std::nullopt,     Miss::changedBefore, Miss::unopenable,    Miss::notRegular,
        Miss::unopenable, Miss::changedBefore, Miss::changedBefore, std::nullopt};
    for (size_t k = 0; k < mixed.size(); ++k) {
        auto miss = results[k] ? std::nullopt : std::optional(results[k].error());
        EXPECT_EQ(miss, expected[k]) << k;
    }
    ::close(folder);
}

TEST(SmallFileHasher, DoesNotMoveTheAccessTime) {
    TempDir dir;
    auto file = dir.write("old.txt", patterned(3'000));
    timespec times[2] = {{1'000'000, 0}, {1'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    SmallFileHasher small;
    ASSERT_TRUE(small.hash(AT_FDCWD, file.c_str(), expectedOf(file)));
    auto batched = hashEach(small, {{AT_FDCWD, file.c_str(), expectedOf(file)}}, Reads::inBatches);
    ASSERT_TRUE(batched[0]);
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_atim.tv_sec, 1'000'000);
}
