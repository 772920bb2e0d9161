#include "VantleLibrary/CatalogIndex.h"
#include "VantleLibrary/Catalog.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>
#include <sys/xattr.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;

namespace {

struct IndexedHome {
    TempDir home;
    TempDir data;
    std::shared_ptr<TimePoint> now = std::make_shared<TimePoint>(sys_days{2026y / May / 1} + 12h);

    Catalog catalog(std::int64_t limit = 1000) const {
        Catalog::Options options{
            LibraryScope{home.path(), {}}, false, seconds(30), limit, seconds(20), seconds(300),
            [now = now] { return *now; }};
        options.indexFile = index();
        return Catalog(std::move(options));
    }
    std::filesystem::path index() const { return data / "Library" / "catalog.index"; }
};

std::vector<std::string> paths(const Snapshot& snapshot) {
    std::vector<std::string> out;
    for (const auto& f : snapshot.facts)
        out.push_back(f.path);
    std::ranges::sort(out);
    return out;
}

} // namespace

TEST(CatalogIndex, ALaterRunAnswersFromTheKeptWalkWhileItIsFreshThenWalksAgain) {
    IndexedHome s;
    auto pdf = s.home.write("Downloads/Invoice\xff \n2026.pdf", "pdf");
    const char origin[] = "https://mail.google.com/x";
    ASSERT_EQ(::setxattr(pdf.c_str(), "user.xdg.origin.url", origin, sizeof origin - 1, 0), 0);
    ASSERT_EQ(::setxattr(pdf.c_str(), "user.xdg.tags", "work,taxes", 10, 0), 0);
    s.home.write("Applications/Tool.app/Contents/MacOS/tool", "1234");
    CancelFlag cancel;
    auto walked = s.catalog().read(cancel);
    ASSERT_TRUE(std::filesystem::exists(s.index()));

    s.home.write("Documents/new.txt", "x"); // not heard by a later run: the kept walk still answers
    *s.now += minutes(4);
    auto later = s.catalog();
    EXPECT_EQ(later.next(), Catalog::Next::walk); // nothing in hand before the first request
    auto kept = later.read(cancel);
    EXPECT_EQ(kept.snapshot->facts, walked.snapshot->facts); // every fact, byte for byte
    EXPECT_EQ(kept.snapshot->at, walked.snapshot->at);
    EXPECT_TRUE(kept.snapshot->isWhole);
    EXPECT_TRUE(kept.reading.isComplete);
    EXPECT_EQ(later.next(), Catalog::Next::use);

    later.noteChanges(); // the watcher heard something: walk again and keep the new walk
    auto fresh = later.read(cancel);
    EXPECT_EQ(paths(*fresh.snapshot).size(), paths(*walked.snapshot).size() + 2); // Documents, new.txt
    *s.now += minutes(2);
    auto third = s.catalog().read(cancel);
    EXPECT_EQ(third.snapshot->facts, fresh.snapshot->facts);

    *s.now += minutes(6); // older than the freshness: a new run walks
    s.home.write("Documents/newer.txt", "x");
    EXPECT_EQ(paths(*s.catalog().read(cancel).snapshot).size(), paths(*fresh.snapshot).size() + 1);
}

TEST(CatalogIndex, AKeptPartialWalkStaysPartialWithItsNote) {
    IndexedHome s;
    for (int i = 0; i < 8; ++i)
        s.home.write("Music/s" + std::to_string(i) + ".mp3", "x");
    CancelFlag cancel;
    auto walked = s.catalog(5).read(cancel);
    ASSERT_FALSE(walked.snapshot->isWhole);
    auto kept = s.catalog(5).read(cancel);
    EXPECT_FALSE(kept.snapshot->isWhole);
    EXPECT_FALSE(kept.reading.isComplete);
    EXPECT_EQ(kept.reading.note(),
              "Only the first 5 items were read; the rest of the home folder was not looked at.");
    EXPECT_EQ(summaryOf(*kept.snapshot, kept.reading, 4).isPartial, true);
}

TEST(CatalogIndex, ADamagedOrForeignIndexReadsAsNoneAndTheHomeIsWalked) {
    IndexedHome s;
    s.home.write("Documents/a.txt", "x");
    CancelFlag cancel;
    auto walked = s.catalog().read(cancel);
    auto bytes = CatalogIndex::encode(*walked.snapshot, walked.reading);

    auto torn = bytes.substr(0, bytes.size() - 3);
    EXPECT_EQ(CatalogIndex::decode(torn).error(), CatalogIndex::Problem::unreadable);
    auto flipped = bytes;
    flipped[bytes.size() / 2] ^= 0x10;
    EXPECT_EQ(CatalogIndex::decode(flipped).error(), CatalogIndex::Problem::unreadable);
    EXPECT_EQ(CatalogIndex::decode("not an index at all, just text").error(),
              CatalogIndex::Problem::unreadable);

    std::ofstream(s.index(), std::ios::binary) << torn;
    s.home.write("Documents/b.txt", "x");
    EXPECT_EQ(paths(*s.catalog().read(cancel).snapshot).size(), 3u); // walked, not the torn file

    std::filesystem::remove(s.index());
    ASSERT_EQ(::mkfifo(s.index().c_str(), 0600), 0);
    EXPECT_EQ(CatalogIndex(s.index()).load().error(), CatalogIndex::Problem::notAFile); // does not hang
}

TEST(CatalogIndex, AStoppedWalkIsNotKept) {
    IndexedHome s;
    s.home.write("Documents/a.txt", "x");
    CancelFlag stop;
    stop.cancel();
    s.catalog().read(stop);
    EXPECT_FALSE(std::filesystem::exists(s.index()));
}
