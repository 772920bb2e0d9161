#include "ScannerTestSupport.h"
#include "support/TempDir.h"

#include "Platform/BeneathOpen.h"
#include "VantleStorage/TreeSizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>

using namespace vantle;
using vantle::testing::allocatedBytesOf;
using vantle::testing::filled;
using vantle::testing::TempDir;

namespace {

// Sizes `rel` inside the temporary folder, as a scan sizes one item.
Tally measure(const TempDir& dir, const std::string& rel, ScanLedger& ledger) {
    auto parent = openFolder((dir / rel).parent_path());
    EXPECT_TRUE(parent.has_value());
    auto name = std::filesystem::path(rel).filename().string();
    return TreeSizer::measureFolder(ledger, parent->get(), name, (dir / rel).string());
}

Tally measure(const TempDir& dir, const std::string& rel) {
    CancelFlag cancel;
    ScanLedger ledger(cancel);
    return measure(dir, rel, ledger);
}

} // namespace

TEST(TreeSizer, CountsFilesFoldersAndTheSpaceTheyTake) {
    TempDir dir;
    auto a = dir.write("cache/a.bin", filled(10'000));
    auto b = dir.write("cache/deep/er/b.bin", filled(30'000));
    dir.mkdir("cache/empty");

    Tally t = measure(dir, "cache");
    EXPECT_EQ(t.files, 2);
    EXPECT_EQ(t.folders, 4); // cache, deep, er, empty
    EXPECT_EQ(t.links, 0);
    EXPECT_EQ(t.logicalBytes, 40'000);
    EXPECT_EQ(t.allocatedBytes, allocatedBytesOf(a) + allocatedBytesOf(b) + allocatedBytesOf(dir / "cache") +
                                    allocatedBytesOf(dir / "cache/deep") +
                                    allocatedBytesOf(dir / "cache/deep/er") +
                                    allocatedBytesOf(dir / "cache/empty"));
    EXPECT_EQ(t.reclaimableBytes, t.allocatedBytes);
    EXPECT_EQ(t.pinnedBytes, 0);
    EXPECT_FALSE(t.isPartial());
}

TEST(TreeSizer, ALinkCountsAsALinkWithNoSizeAndIsNeverFollowed) {
    TempDir dir;
    auto outside = dir.write("outside/huge.bin", filled(200'000));
    dir.mkdir("outside/folder");
    dir.write("outside/folder/more.bin", filled(100'000));
    auto own = dir.write("cache/own.bin", filled(5'000));
    std::filesystem::create_symlink(outside, dir / "cache/to-file");
    std::filesystem::create_directory_symlink(dir / "outside/folder", dir / "cache/to-folder");

    Tally t = measure(dir, "cache");
    EXPECT_EQ(t.links, 2);
    EXPECT_EQ(t.files, 1);
    EXPECT_EQ(t.folders, 1);
    EXPECT_EQ(t.logicalBytes, 5'000);
    EXPECT_EQ(t.allocatedBytes, allocatedBytesOf(own) + allocatedBytesOf(dir / "cache"));
}

TEST(TreeSizer, AHardLinkedFileIsCountedOnceAcrossItemsOfOneScan) {
    TempDir dir;
    auto shared = dir.write("first/shared.bin", filled(50'000));
    std::filesystem::create_directories(dir / "second");
    std::filesystem::create_hard_link(shared, dir / "second/shared-again.bin");
    auto blocks = allocatedBytesOf(shared);

    CancelFlag cancel;
    ScanLedger ledger(cancel);
    Tally first = measure(dir, "first", ledger);
    Tally second = measure(dir, "second", ledger);
    EXPECT_EQ(first.files + second.files, 2); // both names are seen...
    auto folders = allocatedBytesOf(dir / "first") + allocatedBytesOf(dir / "second");
    EXPECT_EQ(first.allocatedBytes + second.allocatedBytes, blocks + folders); // ...the blocks once
    EXPECT_EQ(first.logicalBytes + second.logicalBytes, 50'000);
    // Deleting one name would not free what the other name keeps.
    EXPECT_EQ(first.pinnedBytes + second.pinnedBytes, blocks);
    EXPECT_EQ(first.reclaimableBytes + second.reclaimableBytes, folders);

    // A new scan has its own ledger and counts the file again.
    Tally again = measure(dir, "second");
    EXPECT_EQ(again.allocatedBytes, blocks + allocatedBytesOf(dir / "second"));
}

TEST(TreeSizer, NotesSocketsLoginsAndTheNewestWrite) {
    TempDir dir;
    dir.write("tool/.cargo/credentials.toml", "token = 1");
    dir.write("tool/nested/credentials.json", "{}");
    dir.write("tool/token", "not under huggingface, so an ordinary name");
    dir.write("tool/nested/new.txt", "new");
    ASSERT_TRUE(vantle::testing::bindSocket(dir / "tool/agent.sock"));
    auto setTime = [&](const char* rel, time_t at) {
        timespec times[2] = {{at, 0}, {at, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, (dir / rel).c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << rel;
    };
    for (auto rel : {"tool/.cargo/credentials.toml", "tool/nested/credentials.json", "tool/token"})
        setTime(rel, 1'000'000'000);
    setTime("tool/nested/new.txt", 1'600'000'000);
    // A folder's change is not a write to a file.
    setTime("tool/nested", 1'700'000'000);

    Tally t = measure(dir, "tool");
    EXPECT_EQ(t.meetingPoints, 1);
    std::ranges::sort(t.keepsakes);
    EXPECT_EQ(t.keepsakes,
              (std::vector<std::string>{"tool/.cargo/credentials.toml", "tool/nested/credentials.json"}));
    EXPECT_EQ(t.newestWrite, std::chrono::system_clock::from_time_t(1'600'000'000));
    ASSERT_TRUE(t.newestFolderChange);
    EXPECT_GE(*t.newestFolderChange, std::chrono::system_clock::from_time_t(1'700'000'000));
}

TEST(TreeSizer, AClonesSharedBlocksArePinnedAndCountedOnce) {
    TempDir dir;
    vantle::testing::CloningDisk disk(dir / "disk.img", dir / "disk");
    if (!disk.mounted()) GTEST_SKIP() << "clones need a file system that shares blocks: " << disk.why();
    auto original = dir.write("disk/one/original.bin", filled(300'000));
    std::filesystem::create_directories(dir / "disk/two");
    {
        UniqueFd from(::open(original.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::fsync(from.get()), 0);
        UniqueFd to(::open((dir / "disk/two/clone.bin").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        ASSERT_EQ(::ioctl(to.get(), FICLONE, from.get()), 0) << "the clone itself failed";
    }
    auto blocks = allocatedBytesOf(original);
    ASSERT_GT(blocks, 0);

    CancelFlag cancel;
    ScanLedger ledger(cancel);
    Tally one = measure(dir, "disk/one", ledger);
    Tally two = measure(dir, "disk/two", ledger);
    auto folders = allocatedBytesOf(dir / "disk/one") + allocatedBytesOf(dir / "disk/two");
    // The shared blocks are on disk once; deleting either copy would give none of them back.
    EXPECT_EQ(one.allocatedBytes + two.allocatedBytes, blocks + folders);
    EXPECT_EQ(one.pinnedBytes + two.pinnedBytes, blocks);
    EXPECT_EQ(one.reclaimableBytes + two.reclaimableBytes, folders);
    EXPECT_EQ(one.logicalBytes + two.logicalBytes, 600'000);
}

TEST(TreeSizer, StopsBetweenFoldersOnceCancelled) {
    TempDir dir;
    for (int i = 0; i < 50; ++i)
        dir.write("cache/f" + std::to_string(i) + "/x.bin", "x");
    CancelFlag cancel;
    cancel.cancel();
    ScanLedger ledger(cancel);
    Tally t = measure(dir, "cache", ledger);
    EXPECT_EQ(t.files, 0);
    EXPECT_EQ(ledger.entriesSeen(), 0);
}
