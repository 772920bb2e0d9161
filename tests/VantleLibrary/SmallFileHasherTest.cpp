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

// The one-read sample must be the very hash a slice-by-slice read makes, or a small file and its copy
// hashed by the two paths (one kept in the cache, one read afresh) would never meet.
TEST(SmallFileHasher, GivesTheSameSampleAsReadingSliceBySliceAndTheWholeHashOfOneSliceFiles) {
    TempDir dir;
    SmallFileHasher small;
    FingerprintReader reader(systemClock(), farFuture);
    std::int64_t expectedBytes = 0;
    std::vector<std::filesystem::path> files;
    std::vector<SmallFileDigests> alone;
    for (std::int64_t size : {1, 9, 16'383, 16'384, 16'385, 20'001, 32'768, 49'151, 49'152}) {
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
        expectedBytes += size;
    }
    EXPECT_EQ(small.bytesRead(), expectedBytes) << "each file is read once, not once a slice";

    // Two at a time, in both lanes, each file's digests are the ones it has alone.
    size_t next = 0;
    small.hashEach(
        [&]() -> std::optional<FingerprintReader::Job> {
            if (next == files.size()) return std::nullopt;
            auto k = next++;
            return FingerprintReader::Job{k, {AT_FDCWD, files[k].c_str(), expectedOf(files[k])}};
        },
        [&](size_t k, std::expected<SmallFileDigests, FingerprintReader::Miss> both) {
            ASSERT_TRUE(both) << k;
            EXPECT_EQ(both->sample, alone[k].sample) << k;
            EXPECT_EQ(both->full, alone[k].full) << k;
        });
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
    ::close(folder);
}

TEST(SmallFileHasher, DoesNotMoveTheAccessTime) {
    TempDir dir;
    auto file = dir.write("old.txt", patterned(3'000));
    timespec times[2] = {{1'000'000, 0}, {1'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    SmallFileHasher small;
    ASSERT_TRUE(small.hash(AT_FDCWD, file.c_str(), expectedOf(file)));
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_atim.tv_sec, 1'000'000);
}
