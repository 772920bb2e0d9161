#include "Platform/PageCache.h"

#include "support/Patterned.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace vantle;
using vantle::testing::patterned;
using vantle::testing::TempDir;

namespace {

constexpr std::int64_t residentTestMiB = 1 << 20;

} // namespace

// The duplicate scan decides from these answers whether a read will wait on the disk; a range that
// reaches one page into the cold part must not count as in memory.
TEST(PageCache, ResidentShareCountsExactlyThePagesARangeTouches) {
    TempDir dir;
    auto file = dir.write("two.bin", patterned(2 * residentTestMiB, 3));
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ::fdatasync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    auto cold = residentShare(fd, 0, 2 * residentTestMiB);
    if (!cold) {
        ::close(fd);
        GTEST_SKIP() << "this kernel cannot say which pages are in memory";
    }
    if (*cold > 0) {
        ::close(fd);
        GTEST_SKIP() << "this file system keeps every page in memory (tmpfs?)";
    }

    // The first half read, without readahead bringing in any of the second.
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
    std::string half(residentTestMiB, '\0');
    ASSERT_EQ(::pread(fd, half.data(), half.size(), 0), static_cast<ssize_t>(half.size()));

    EXPECT_EQ(residentShare(fd, 0, residentTestMiB), 1.0);
    EXPECT_EQ(residentShare(fd, 4'000, 5'000), 1.0) << "a range inside warm pages, not on page bounds";
    EXPECT_EQ(residentShare(fd, 0, 2 * residentTestMiB), 0.5);
    EXPECT_EQ(residentShare(fd, residentTestMiB, residentTestMiB), 0.0);
    EXPECT_EQ(residentShare(fd, residentTestMiB - 10, 20), 0.5)
        << "twenty bytes across a page bound touch a warm page and a cold one";
    EXPECT_EQ(residentShare(fd, residentTestMiB - 4'096, 4'096), 1.0) << "the last warm page alone";
    EXPECT_EQ(residentShare(fd, 5, 0), 1.0) << "an empty range needs no page";
    ::close(fd);
}
