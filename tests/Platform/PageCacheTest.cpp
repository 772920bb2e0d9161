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
TEST(PageCache, AllResidentAnswersForExactlyThePagesARangeTouches) {
    TempDir dir;
    auto file = dir.write("two.bin", patterned(2 * residentTestMiB, 3));
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ::fdatasync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    auto cold = allResident(fd, 0, 2 * residentTestMiB);
    if (!cold) {
        ::close(fd);
        GTEST_SKIP() << "this kernel cannot say which pages are in memory";
    }
    if (*cold) {
        ::close(fd);
        GTEST_SKIP() << "this file system keeps every page in memory (tmpfs?)";
    }

    // The first half read, without readahead bringing in any of the second.
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
    std::string half(residentTestMiB, '\0');
    ASSERT_EQ(::pread(fd, half.data(), half.size(), 0), static_cast<ssize_t>(half.size()));

    EXPECT_EQ(allResident(fd, 0, residentTestMiB), true);
    EXPECT_EQ(allResident(fd, 4'000, 5'000), true) << "a range inside warm pages, not on page bounds";
    EXPECT_EQ(allResident(fd, 0, 2 * residentTestMiB), false);
    EXPECT_EQ(allResident(fd, residentTestMiB, residentTestMiB), false);
    EXPECT_EQ(allResident(fd, residentTestMiB - 10, 20), false)
        << "twenty bytes across a page bound touch a cold page";
    EXPECT_EQ(allResident(fd, residentTestMiB - 4'096, 4'096), true) << "the last warm page alone";
    EXPECT_EQ(allResident(fd, 5, 0), true) << "an empty range needs no page";
    ::close(fd);
}
