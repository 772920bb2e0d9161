#include "VantleLibrary/CatalogIndex.h"
#include "VantleLibrary/Catalog.h"
#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/Library.h"

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
    auto walked = s.catalog().readWithMediaFacts(cancel); // origins and tags too
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
    auto bytes = CatalogIndex::encode({s.home.path(), {}}, *walked.snapshot, walked.reading);

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
    EXPECT_EQ(CatalogIndex(s.index(), {s.home.path(), {}}).load().error(),
              CatalogIndex::Problem::notAFile); // does not hang
}

// A kept walk names the folders it walked; a home folder moved elsewhere (or a copy of the data
// folder beside another home) must be walked, not answered with the old paths.
TEST(CatalogIndex, AnIndexKeptForAHomeThatHasSinceMovedIsNotUsed) {
    TempDir root, data;
    root.write("old/Documents/report.pdf", "pdf");
    auto catalogOf = [&](const std::filesystem::path& home) {
        Catalog::Options options{LibraryScope{home, {}}};
        options.indexFile = data / "catalog.index";
        return Catalog(std::move(options));
    };
    CancelFlag cancel;
    catalogOf(root / "old").read(cancel);
    std::filesystem::rename(root / "old", root / "new");

    EXPECT_EQ(CatalogIndex(data / "catalog.index", {root / "new", {}}).load().error(),
              CatalogIndex::Problem::otherFolders);
    EXPECT_EQ(CatalogIndex(data / "catalog.index", {root / "old", {"/Applications"}}).load().error(),
              CatalogIndex::Problem::otherFolders);
    auto moved = catalogOf(root / "new");
    auto read = moved.read(cancel);
    EXPECT_TRUE(std::ranges::all_of(
        read.snapshot->facts, [&](const Facts& f) { return f.path.starts_with((root / "new").string()); }));
    EXPECT_EQ(paths(*read.snapshot).size(), 2u); // Documents and the report, under the new home
    EXPECT_TRUE(CatalogIndex(data / "catalog.index", {root / "new", {}}).load())
        << "kept again for the new home";
}

// The index is written in pieces as it is encoded; its checksum runs across them, so a piece cut
// off or a byte changed far past the first piece must still read as damage, and an intact file of
// many pieces (entries of uneven lengths, so pieces end mid-word) must read back entry for entry.
TEST(CatalogIndex, AnIndexOfManyPiecesReadsBackWholeAndADamagedLaterPieceIsNoticed) {
    TempDir data;
    Snapshot snapshot;
    snapshot.at = sys_days{2026y / May / 1} + 12h;
    for (int i = 0; i < 30000; ++i) {
        Facts f;
        f.name = "file-" + std::string(static_cast<size_t>(i % 37), 'x') + std::to_string(i) +
                 (i % 3 ? ".jpg" : ".zzq");
        f.path = "/home/u/Pictures/" + f.name;
        f.contentType = i % 3 ? "image/jpeg" : "application/octet-stream";
        f.size = i;
        if (i % 2) f.modified = snapshot.at - seconds(i);
        if (i % 5 == 0) f.cameraMake = "Canon";
        if (i % 7 == 0) f.whereFroms = {"https://example.org/" + std::to_string(i)};
        snapshot.facts.push_back(std::move(f));
    }
    Reading reading;
    CatalogIndex index(data / "Library" / "catalog.index", {"/home/u", {}});
    ASSERT_TRUE(index.keep(snapshot, reading));
    auto bytes = CatalogIndex::encode({"/h", {}}, snapshot, reading);
    ASSERT_GT(bytes.size(), std::size_t{2} << 20); // several pieces

    // load() gives the file's memory back as it decodes: only what was decoded may go.
    auto kept = index.load();
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->snapshot.facts, snapshot.facts);
    EXPECT_EQ(kept->snapshot.at, snapshot.at);

    auto flipped = bytes;
    flipped[bytes.size() - 100] ^= 0x01;
    EXPECT_EQ(CatalogIndex::decode(flipped).error(), CatalogIndex::Problem::unreadable);
    auto cut = bytes.substr(0, std::size_t{1} << 20) + bytes.substr((std::size_t{2} << 20));
    EXPECT_EQ(CatalogIndex::decode(cut).error(), CatalogIndex::Problem::unreadable);
}

TEST(CatalogIndex, AStoppedWalkIsNotKept) {
    IndexedHome s;
    s.home.write("Documents/a.txt", "x");
    CancelFlag stop;
    stop.cancel();
    s.catalog().read(stop);
    EXPECT_FALSE(std::filesystem::exists(s.index()));
}

TEST(CatalogIndex, StreamedEntriesDoNotCarryFactsFromTheEntryBefore) {
    // One Facts carries every streamed entry: a field the next entry lacks must read as absent.
    Snapshot snapshot;
    snapshot.at = sys_days{2026y / May / 1};
    Facts rich;
    rich.path = "/h/Downloads/a.pdf";
    rich.name = "a.pdf";
    rich.contentType = "com.adobe.pdf";
    rich.size = 10;
    rich.created = rich.modified = rich.added = rich.lastUsed = snapshot.at;
    rich.cameraMake = "Canon";
    rich.duration = 3.5;
    rich.whereFroms = {"https://example.org/a.pdf"};
    rich.tags = {"work"};
    rich.isScreenshot = true;
    Facts bare;
    bare.path = "/h/Documents";
    bare.name = "Documents";
    bare.contentType = "public.folder";
    bare.isFolder = true;
    snapshot.facts = {rich, bare, rich};
    Reading reading;
    auto bytes = CatalogIndex::encode({"/h", {}}, snapshot, reading);

    std::vector<Facts> seen;
    std::size_t announced = 0;
    auto kept = CatalogIndex::decodeEach(
        bytes,
        [&](const CatalogIndex::Kept& walk, std::size_t entries) {
            announced = entries;
            return walk.snapshot.at == snapshot.at;
        },
        [&](const Facts& f) { seen.push_back(f); });
    ASSERT_TRUE(kept);
    EXPECT_EQ(announced, 3u);
    EXPECT_TRUE(kept->snapshot.facts.empty());
    EXPECT_EQ(seen, snapshot.facts);

    seen.clear();
    EXPECT_TRUE(CatalogIndex::decodeEach(
        bytes, [](auto&, auto) { return false; }, [&](const Facts& f) { seen.push_back(f); }));
    EXPECT_TRUE(seen.empty()) << "an index not wanted is not read past its header";
}

TEST(CatalogIndex, ASearchOfAFreshIndexAnswersAsTheLoadedWalkAndAStaleOneIsNotStreamed) {
    IndexedHome s;
    s.home.write("Downloads/Invoice 2026.pdf", "pdf");
    s.home.write("Documents/invoice-old.pdf", "pdf!");
    s.home.write("Documents/notes.txt", "x");
    CancelFlag cancel;
    auto walked = s.catalog().read(cancel);
    SearchParser parser([now = s.now] { return *now; }, Calendar{}, s.home.path());

    *s.now += minutes(4);
    auto later = s.catalog();
    std::vector<std::string> streamed;
    auto kept = later.readKept([&](const Facts& f) { streamed.push_back(f.path); });
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->snapshot.at, walked.snapshot->at);
    std::ranges::sort(streamed);
    EXPECT_EQ(streamed, paths(*walked.snapshot));

    auto fromIndex = searchFiles(parser, "invoice pdfs", 10, [&](const auto& each) {
        auto k = s.catalog().readKept(each);
        return k ? std::optional(k->reading) : std::nullopt;
    });
    ASSERT_TRUE(fromIndex);
    auto loaded = searchFiles(parser, "invoice pdfs", *walked.snapshot, walked.reading, 10);
    EXPECT_EQ(fromIndex->total, 2);
    EXPECT_EQ(fromIndex->items, loaded.items);

    auto heard = s.catalog();
    heard.noteChanges();
    EXPECT_FALSE(heard.readKept([](const Facts&) { FAIL() << "a stale index was streamed"; }));
    *s.now += minutes(2); // six minutes after the walk: past the freshness
    EXPECT_FALSE(s.catalog().readKept([](const Facts&) { FAIL() << "an old index was streamed"; }));
}

TEST(CatalogIndex, ASummaryFromAFreshIndexEqualsTheWalkedOneAndIsNotWrittenAgain) {
    IndexedHome s;
    for (int i = 0; i < 6; ++i)
        s.home.write("Pictures/p" + std::to_string(i) + ".jpg", std::string(i + 1, 'x'));
    s.home.write("Documents/report.pdf", "pdf");
    auto library = [&] {
        Library::Options o;
        o.useSpotlight = false;
        o.catalogFile = s.index();
        o.summaryFile = s.data / "Library" / "summary.json";
        o.now = [now = s.now] { return *now; };
        return std::make_unique<Library>(LibraryScope{s.home.path(), {}}, o);
    };
    CancelFlag cancel;
    auto walked = library()->summary(cancel);
    EXPECT_EQ(walked.totalFiles, 7);
    ASSERT_EQ(walked.categories.size(), 2u);
    struct stat before {};
    ASSERT_EQ(::stat((s.data / "Library" / "summary.json").c_str(), &before), 0);

    *s.now += minutes(3);
    auto fromIndex = library()->summary(cancel);
    EXPECT_EQ(fromIndex, walked);
    struct stat after {};
    ASSERT_EQ(::stat((s.data / "Library" / "summary.json").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "an unchanged summary was written again";
}

TEST(CatalogIndex, AnOpenedIndexFindsEachEntryAgainByItsPlaceEvenOnceTheFileIsReplaced) {
    IndexedHome s;
    s.home.write("Documents/a.txt", "a");
    s.home.write("Documents/b b.txt", "bb");
    s.home.write("Music/c.flac", "ccc");
    CancelFlag cancel;
    auto walked = s.catalog().read(cancel);
    const CatalogIndex index(s.index(), LibraryScope{s.home.path(), {}});
    auto opened = index.open();
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->walk().snapshot.at, walked.snapshot->at);

    std::vector<std::pair<CatalogIndex::Opened::Listed, std::size_t>> listed;
    ASSERT_TRUE(opened->forEachListed(
        [&](const auto& entry, std::size_t place) { listed.emplace_back(entry, place); }));
    ASSERT_EQ(listed.size(), walked.snapshot->facts.size());

    // Another run keeps a new walk meanwhile: the opened index still reads the one it opened.
    Snapshot other;
    other.at = walked.snapshot->at + hours(1);
    ASSERT_TRUE(index.keep(other, Reading{}));
    for (size_t i = 0; i < listed.size(); ++i) {
        const auto& [entry, place] = listed[i];
        const auto& facts = walked.snapshot->facts[i];
        EXPECT_EQ(entry.path, facts.path);
        EXPECT_EQ(entry.size, facts.size);
        EXPECT_EQ(entry.isFile, !facts.isFolder) << facts.path;
        EXPECT_EQ(opened->at(place), facts) << facts.path;
    }
    EXPECT_FALSE(opened->at(0)) << "the header is no entry";
    EXPECT_FALSE(opened->at(std::size_t{1} << 40));
    EXPECT_TRUE(index.open()->walk().snapshot.at == other.at);
}
