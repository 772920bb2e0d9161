#include "Platform/KeptFile.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

TEST(KeptFile, AFifoInPlaceOfAKeptFileIsRefusedWithoutBlocking) {
    TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "egress-ledger.jsonl").c_str(), 0600), 0);
    auto read = readKeptFile(dir / "egress-ledger.jsonl");
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error().what, KeptFileFailure::Case::notAFile);
    EXPECT_EQ(read.error().sentence,
              (dir / "egress-ledger.jsonl").string() + " is not a regular file, so it was not read.");
}

TEST(KeptFile, ALinkToADeviceIsNotFollowed) {
    TempDir dir;
    fs::create_symlink("/dev/zero", dir / "summary.json");
    auto read = readKeptFile(dir / "summary.json");
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error().what, KeptFileFailure::Case::notAFile);
}

TEST(KeptFile, AFileOverItsBoundIsNotReadAndOneAtItsBoundIs) {
    TempDir dir;
    dir.write("big.json", std::string(1001, 'x'));
    dir.write("fits.json", std::string(1000, 'x'));
    auto big = readKeptFile(dir / "big.json", 1000);
    ASSERT_FALSE(big);
    EXPECT_EQ(big.error().what, KeptFileFailure::Case::tooLarge);
    EXPECT_NE(big.error().sentence.find("larger than 1000 bytes"), std::string::npos);
    auto fits = readKeptFile(dir / "fits.json", 1000);
    ASSERT_TRUE(fits);
    EXPECT_EQ(fits->size(), 1000u);
}

TEST(KeptFile, AMissingFileIsToldApartFromAnUnreadableOne) {
    TempDir dir;
    auto missing = readKeptFile(dir / "none.json");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().what, KeptFileFailure::Case::missing);
    dir.mkdir("folder.json");
    auto folder = readKeptFile(dir / "folder.json");
    ASSERT_FALSE(folder);
    EXPECT_EQ(folder.error().what, KeptFileFailure::Case::notAFile);
}

TEST(KeptFile, TheLargeReaderRefusesWhatTheOrdinaryOneRefusesAndReadsTheRestWhole) {
    TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "catalog.index").c_str(), 0600), 0);
    auto fifo = readLargeKeptFile(dir / "catalog.index", 1000);
    ASSERT_FALSE(fifo); // and did not block
    EXPECT_EQ(fifo.error().what, KeptFileFailure::Case::notAFile);
    fs::create_symlink("/dev/zero", dir / "linked.index");
    EXPECT_EQ(readLargeKeptFile(dir / "linked.index", 1000).error().what, KeptFileFailure::Case::notAFile);
    dir.write("big.index", std::string(1001, 'x'));
    EXPECT_EQ(readLargeKeptFile(dir / "big.index", 1000).error().what, KeptFileFailure::Case::tooLarge);
    EXPECT_EQ(readLargeKeptFile(dir / "none.index", 1000).error().what, KeptFileFailure::Case::missing);

    std::string bytes(3 << 20, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7 % 251);
    dir.write("whole.index", bytes);
    auto whole = readLargeKeptFile(dir / "whole.index", 4 << 20);
    ASSERT_TRUE(whole);
    EXPECT_TRUE(whole->view() == bytes);
    auto moved = std::move(*whole);
    EXPECT_EQ(moved.view().size(), bytes.size());
    dir.write("empty.index", "");
    auto empty = readLargeKeptFile(dir / "empty.index", 1000);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->view().empty());
}
