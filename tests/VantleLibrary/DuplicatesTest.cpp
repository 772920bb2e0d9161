#include "VantleLibrary/Duplicates.h"
#include "VantleLibrary/FingerprintReader.h"
#include "support/Patterned.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <fcntl.h>
#include <fstream>
#include <map>
#include <set>
#include <sys/stat.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::patterned;
using vantle::testing::TempDir;

namespace {

std::string sha256Hex(std::string_view bytes) {
    Digest d{};
    EVP_Digest(bytes.data(), bytes.size(), d.data(), nullptr, EVP_sha256(), nullptr);
    return hexOf(d);
}

FileItem itemFor(const std::filesystem::path& file) {
    FileItem item;
    item.path = file;
    item.name = file.filename();
    item.size = static_cast<std::int64_t>(std::filesystem::file_size(file));
    return item;
}

std::vector<FileItem> itemsUnder(const TempDir& dir) {
    std::vector<FileItem> items;
    for (auto& entry : std::filesystem::recursive_directory_iterator(dir.path()))
        if (entry.is_regular_file() && !entry.path().string().contains("Library"))
            items.push_back(itemFor(entry));
    return items;
}

// Each group as the set of its items' names (or paths, or another text field).
std::set<std::set<std::string>> namesByGroup(const DuplicateScan& scan,
                                             std::string FileItem::*field = &FileItem::name) {
    std::set<std::set<std::string>> out;
    for (const auto& g : scan.groups) {
        std::set<std::string> names;
        for (const auto& item : g.items)
            names.insert(item.*field);
        out.insert(names);
    }
    return out;
}

struct Corpus {
    TempDir dir;
    std::string copy = patterned(100'000, 1);
    std::string small = "tiny same";
    Corpus() {
        for (auto name : {"a1", "a2", "a3"})
            dir.write(name, copy);
        // Same size as the copies; differ only in the last byte, which the tail slice sees.
        auto tail = copy;
        tail.back() ^= 1;
        dir.write("b1", tail);
        // Differ only at byte 30,000, which no slice covers: the samples agree, the whole files do not.
        auto inside = copy;
        inside[30'000] ^= 1;
        dir.write("c1", inside);
        dir.write("unique", patterned(77, 3));
        dir.write("e1", small);
        dir.write("e2", small);
        dir.write("empty1", "");
        dir.write("empty2", "");
    }
    Duplicates finder(Clock clock = systemClock()) {
        return Duplicates({dir / "Library/fingerprints.json", 45s, 1, clock});
    }
    void setModified(const char* name, std::int64_t nanoseconds) {
        timespec times[2] = {{0, UTIME_OMIT}, {nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000}};
        ASSERT_EQ(::utimensat(AT_FDCWD, (dir / name).c_str(), times, 0), 0);
    }
};

constexpr std::int64_t sample = 3 * 16'384;

} // namespace

TEST(DuplicateScan, GroupsOnlyWholeFileCopiesAndReadsOnlyWhatItMust) {
    Corpus lib;
    CancelFlag cancel;
    auto scan = lib.finder().scan(itemsUnder(lib.dir), cancel);
    EXPECT_TRUE(scan.isComplete);
    EXPECT_EQ(namesByGroup(scan), (std::set<std::set<std::string>>{{"a1", "a2", "a3"}, {"e1", "e2"}}));
    EXPECT_EQ(scan.candidates, 7); // a1-a3, b1, c1, e1, e2; empty files are too small to matter
    // Samples for everything sharing a size; whole reads only for what shared a sample too (not b1).
    // The 9-byte files are read once each: their sample and whole hashes come from the same read.
    EXPECT_EQ(scan.bytesRead, 5 * sample + 4 * 100'000 + 2 * 9);

    ASSERT_EQ(scan.groups.size(), 2u);
    const auto& biggest = scan.groups.front(); // most space first
    EXPECT_EQ(biggest.fingerprint, sha256Hex(lib.copy));
    EXPECT_EQ(biggest.size, 100'000);
    EXPECT_EQ(scan.sharing.front().freeable, 200'000);
    EXPECT_EQ(scan.freeableBytes(), 200'000 + 9);
    EXPECT_EQ(scan.groups.back().fingerprint, sha256Hex(lib.small))
        << "a small file's group names the hash of its contents, not of its sample";
    EXPECT_TRUE(std::ranges::is_sorted(biggest.items, {}, &FileItem::path));
    EXPECT_EQ(scan.look(), (DuplicateLook{scan.groups, true}));
}

TEST(DuplicateScan, AnUnchangedLibraryIsNotReadAgainEvenAfterARestart) {
    Corpus lib;
    CancelFlag cancel;
    auto items = itemsUnder(lib.dir);
    auto first = lib.finder().scan(items, cancel);
    ASSERT_GT(first.bytesRead, 0);
    ASSERT_TRUE(std::filesystem::exists(lib.dir / "Library/fingerprints.json"));

    auto written = std::filesystem::last_write_time(lib.dir / "Library/fingerprints.json");
    auto finder = lib.finder(); // a fresh finder reads the cache file, here on a thread of its own
    finder.readCacheAhead();
    finder.readCacheAhead();
    auto second = finder.scan(items, cancel);
    EXPECT_EQ(second.bytesRead, 0);
    EXPECT_EQ(std::filesystem::last_write_time(lib.dir / "Library/fingerprints.json"), written)
        << "nothing changed, so the cache is not written again";
    EXPECT_EQ(second.groups, first.groups);
    EXPECT_EQ(finder.scan(items, cancel).bytesRead, 0);
    lib.finder().readCacheAhead(); // a finder that goes before any scan waits for its reading first
}

TEST(DuplicateScan, AChangedFileIsHashedAgainAndOnlyIt) {
    Corpus lib;
    CancelFlag cancel;
    auto items = itemsUnder(lib.dir);
    auto finder = lib.finder();
    finder.scan(items, cancel);

    // Touched by one nanosecond: only a1 is read again, sample and whole.
    auto modified = fileStatus(lib.dir / "a1")->modified;
    lib.setModified("a1", modified + 1);
    auto touched = finder.scan(items, cancel);
    EXPECT_EQ(touched.bytesRead, sample + 100'000);
    EXPECT_EQ(touched.groups.size(), 2u);

    // Same bytes and same time under a new inode: the kept hashes no longer count.
    auto a2Time = fileStatus(lib.dir / "a2")->modified;
    lib.dir.write("a2.new", lib.copy);
    std::filesystem::rename(lib.dir / "a2.new", lib.dir / "a2");
    lib.setModified("a2", a2Time);
    EXPECT_EQ(finder.scan(items, cancel).bytesRead, sample + 100'000);

    // A copy that became different drops out of its group.
    lib.dir.write("a3", patterned(100'000, 9));
    auto changed = finder.scan(items, cancel);
    EXPECT_EQ(namesByGroup(changed), (std::set<std::set<std::string>>{{"a1", "a2"}, {"e1", "e2"}}));
}

TEST(DuplicateScan, HardLinksAreOneFileAndFreeNothing) {
    TempDir dir;
    auto content = patterned(40'000, 5);
    dir.write("original", content);
    std::filesystem::create_hard_link(dir / "original", dir / "link");
    CancelFlag cancel;
    Duplicates finder({{}, 45s, 1, systemClock()});

    auto linksAlone = finder.scan(itemsUnder(dir), cancel);
    EXPECT_TRUE(linksAlone.groups.empty()) << "two names of one file are not duplicates";
    EXPECT_EQ(linksAlone.candidates, 0);
    EXPECT_EQ(linksAlone.bytesRead, 0);

    dir.write("copy", content);
    auto scan = finder.scan(itemsUnder(dir), cancel);
    ASSERT_EQ(scan.groups.size(), 1u);
    EXPECT_EQ(scan.groups[0].items.size(), 3u);
    // Slices of a 40,000-byte file cover all of it, so its sample is one read of 40,000 bytes.
    EXPECT_EQ(scan.bytesRead, 2 * (40'000 + 40'000)) << "the linked file is read once";
    const auto& sharing = scan.sharing[0];
    EXPECT_EQ(sharing.hardLinks, (std::vector<std::vector<std::string>>{
                                     {(dir / "link").string(), (dir / "original").string()}}));
    EXPECT_EQ(sharing.freeable, 40'000) << "only the separate copy takes space of its own";
}

TEST(DuplicateScan, ClonesFreeOnlyTheirOwnBlocksUnlessTheirWholeFamilyGoes) {
    auto record = [](std::string path, std::uint64_t inode, std::uint64_t cloneID, std::int64_t privateSize) {
        Duplicates::Record r;
        r.path = std::move(path);
        r.number = {1, inode};
        r.size = 1000;
        r.allocated = 1024;
        r.cloneID = cloneID;
        r.isShared = r.sharesAllBlocks = cloneID != 0;
        r.privateSize = privateSize;
        return r;
    };
    // Two clones of one family and one separate copy: keeping a clone, the copy frees its size and
    // the other clone its 24 private bytes.
    std::vector<Duplicates::Record> mixed{record("/a", 1, 77, 0), record("/b", 2, 77, 24),
                                          record("/c", 3, 0, 1024)};
    auto sharing = Duplicates::sharingOf("f", 1000, mixed);
    EXPECT_EQ(sharing.clones, (std::vector<std::string>{"/a", "/b"}));
    EXPECT_EQ(sharing.freeable, 1000 + 24);
    EXPECT_TRUE(sharing.hardLinks.empty());

    std::vector<Duplicates::Record> clonesOnly{record("/a", 1, 77, 0), record("/b", 2, 77, 0)};
    EXPECT_EQ(Duplicates::sharingOf("f", 1000, clonesOnly).freeable, 0);

    std::vector<Duplicates::Record> twoFamilies{record("/a", 1, 77, 0), record("/b", 2, 88, 0)};
    EXPECT_EQ(Duplicates::sharingOf("f", 1000, twoFamilies).freeable, 1000);
}

TEST(DuplicateScan, StopsAtItsDeadlineOrWhenCancelledWithWhatItHas) {
    Corpus lib;
    auto items = itemsUnder(lib.dir);
    // Each look at the clock moves it on by ten seconds: the 45-second limit passes mid-scan.
    auto now = sys_days{2026y / 3 / 1} + 0s;
    Clock ticking = [&now] { return now += 10s; };
    CancelFlag cancel;
    auto late = lib.finder(ticking).scan(items, cancel);
    EXPECT_FALSE(late.isComplete);
    EXPECT_TRUE(late.groups.empty()) << "equal samples alone are never reported";
    EXPECT_GT(late.seconds, 45);

    cancel.cancel();
    auto cancelled = lib.finder().scan(items, cancel);
    EXPECT_FALSE(cancelled.isComplete);
    EXPECT_EQ(cancelled.bytesRead, 0);
}

TEST(DuplicateScan, VanishedOrUnsavableFilesDegradeWithoutFailing) {
    Corpus lib;
    auto items = itemsUnder(lib.dir);
    std::filesystem::remove(lib.dir / "a3");
    lib.dir.write("blocker", "a file where the cache folder should be");
    Duplicates finder({lib.dir / "blocker/fingerprints.json", 45s, 1, systemClock()});
    CancelFlag cancel;
    auto scan = finder.scan(items, cancel);
    EXPECT_TRUE(scan.isComplete);
    EXPECT_EQ(namesByGroup(scan), (std::set<std::set<std::string>>{{"a1", "a2"}, {"e1", "e2"}}));
    ASSERT_TRUE(scan.note);
    EXPECT_TRUE(scan.note->starts_with("The fingerprint cache could not be saved (")) << *scan.note;
    EXPECT_EQ(finder.latest(), scan);

    auto json = decodeJson<DuplicateScan>(encodeJson(scan));
    ASSERT_TRUE(json) << json.error();
    EXPECT_EQ(*json, scan);
}

TEST(DuplicateScan, OnlyFilesSharingASizeAreCandidates) {
    auto facts = [](std::string name, std::int64_t size) {
        Facts f;
        f.path = "/h/" + name;
        f.name = std::move(name);
        f.size = size;
        return f;
    };
    std::vector<Facts> reading{facts("a", 10), facts("b", 10),      facts("c", 11),       facts("d", 0),
                               facts("e", 0),  facts("folder", 10), facts("Tool.app", 10)};
    reading[5].isFolder = true;
    reading[6].isFolder = reading[6].isPackage = true;
    auto names = [](const std::vector<FileItem>& items) {
        std::vector<std::string> out;
        for (const auto& i : items)
            out.push_back(i.name);
        return out;
    };
    EXPECT_EQ(names(Duplicates::candidatesOf(reading)), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(names(Duplicates::candidatesOf(reading, 0)), (std::vector<std::string>{"a", "b", "d", "e"}));
}

TEST(DuplicateScan, AFileTouchedAfterItsRecordDropsOutOfItsGroupAndTheScanIsNotComplete) {
    TempDir dir;
    auto content = patterned(50'000, 4);
    dir.write("x1", content);
    dir.write("x2", content);
    auto items = itemsUnder(dir);
    Duplicates finder({{}, 45s, 1, systemClock(), 60s, 1}); // one thread: "the first file" is well defined
    CancelFlag cancel;
    // After the first file's sample, both files are touched: the other, read alongside it, is refused
    // by the check after its read, and the first is then alone in its size.
    bool touched = false;
    auto scan = finder.scan(items, cancel, [&](const DuplicateProgress& p) {
        if (p.phase != DuplicateProgress::Phase::sampling || touched) return;
        touched = true;
        for (auto name : {"x1", "x2"}) {
            auto modified = fileStatus(dir / name)->modified;
            timespec times[2] = {{0, UTIME_OMIT}, {modified / 1'000'000'000, modified % 1'000'000'000 + 1}};
            if (times[1].tv_nsec >= 1'000'000'000) times[1] = {times[1].tv_sec + 1, 0};
            ASSERT_EQ(::utimensat(AT_FDCWD, (dir / name).c_str(), times, 0), 0);
        }
    });
    ASSERT_TRUE(touched);
    EXPECT_FALSE(scan.isComplete) << "a candidate was left out";
    EXPECT_EQ(scan.missed, 1);
    ASSERT_TRUE(scan.note);
    EXPECT_TRUE(scan.note->starts_with("1 files that share a size")) << *scan.note;
    EXPECT_TRUE(scan.groups.empty());
    EXPECT_EQ(scan.bytesRead, 2 * sample) << "two samples read, and no whole file";
    // Read again, they are copies again.
    EXPECT_EQ(finder.scan(items, cancel).groups.size(), 1u);
}

TEST(DuplicateScan, ALatestScanStandsForANewOneOnlyWhileFreshAndUnchanged) {
    Corpus lib;
    auto now = sys_days{2026y / 3 / 1} + 0s;
    Duplicates finder({{}, 45s, 1, [&now] { return now; }, 60s});
    CancelFlag cancel;
    EXPECT_FALSE(finder.fresh());
    auto scan = finder.scan(itemsUnder(lib.dir), cancel);
    EXPECT_EQ(finder.fresh(), scan);
    now += 59s;
    EXPECT_TRUE(finder.fresh());
    finder.noteChanges();
    EXPECT_FALSE(finder.fresh()) << "a change was heard";
    finder.scan(itemsUnder(lib.dir), cancel);
    EXPECT_TRUE(finder.fresh());
    now += 60s;
    EXPECT_FALSE(finder.fresh()) << "too old";
    cancel.cancel();
    finder.scan(itemsUnder(lib.dir), cancel);
    EXPECT_FALSE(finder.fresh()) << "an incomplete scan stands for nothing";
    EXPECT_TRUE(finder.latest());
}

TEST(DuplicateScan, LeavesEveryAccessTimeAsItWas) {
    Corpus lib;
    // Ninety days back: on a relatime mount any read of such a file would move it to now.
    auto old = std::chrono::system_clock::now() - 90 * 24h;
    timespec times[2] = {{std::chrono::system_clock::to_time_t(old), 123}, {0, UTIME_OMIT}};
    std::map<std::string, std::int64_t> before;
    for (const auto& item : itemsUnder(lib.dir)) {
        ASSERT_EQ(::utimensat(AT_FDCWD, item.path.c_str(), times, 0), 0);
        struct stat st {};
        ASSERT_EQ(::stat(item.path.c_str(), &st), 0);
        before[item.path] = st.st_atim.tv_sec * 1'000'000'000 + st.st_atim.tv_nsec;
    }
    CancelFlag cancel;
    auto scan = lib.finder().scan(itemsUnder(lib.dir), cancel);
    ASSERT_GT(scan.bytesRead, 0);
    for (const auto& [path, atime] : before) {
        struct stat st {};
        ASSERT_EQ(::stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_atim.tv_sec * 1'000'000'000 + st.st_atim.tv_nsec, atime) << path;
    }
}

TEST(DuplicateScan, NamesThatAreNotUtf8AreKnownOnTheSecondScan) {
    TempDir dir;
    auto content = patterned(60'000, 9);
    dir.write("copy \xff", content);
    const std::string raw1 = (dir.path() / "copy \xff").string();
    const std::string raw2 =
        (dir.path() / "r\xe9sum\xe9 \xef\x9f\xbf").string(); // Latin-1, and the escape's own character
    { std::ofstream(raw2, std::ios::binary) << content; }
    std::vector<FileItem> items{itemFor(raw1), itemFor(raw2)};
    auto cacheFile = dir / "Library/fingerprints.json";
    CancelFlag cancel;
    auto first = Duplicates({cacheFile, 45s, 1, systemClock()}).scan(items, cancel);
    ASSERT_EQ(first.groups.size(), 1u);
    ASSERT_GT(first.bytesRead, 0);

    auto second = Duplicates({cacheFile, 45s, 1, systemClock()}).scan(items, cancel);
    EXPECT_EQ(second.bytesRead, 0);
    ASSERT_EQ(second.groups.size(), 1u);
    std::set<std::string> paths;
    for (const auto& item : second.groups[0].items)
        paths.insert(item.path);
    EXPECT_EQ(paths, (std::set<std::string>{raw1, raw2}));

    // And the scan's JSON gives the same bytes back.
    auto back = decodeJson<DuplicateScan>(encodeJson(second));
    ASSERT_TRUE(back) << back.error();
    EXPECT_EQ(back->groups, second.groups);
}

TEST(DuplicateScan, FilesOfOneNameInSeveralFoldersAreEachLookedAtInTheirOwnFolder) {
    // Listed interleaved, as a merged listing could give them: each run of one folder is read
    // through that folder, never through the folder of the run before it.
    TempDir dir;
    auto content = patterned(40'000, 11);
    auto other = patterned(40'000, 12);
    dir.write("one/same", other);
    dir.write("two/same", content);
    dir.write("one/caf\xc3\xa9", content); // valid UTF-8 beyond ASCII, as most homes hold
    std::vector<FileItem> items{itemFor(dir / "one/same"), itemFor(dir / "two/same"),
                                itemFor(dir / "one/caf\xc3\xa9")};
    auto cacheFile = dir / "Library/fingerprints.json";
    CancelFlag cancel;
    auto first = Duplicates({cacheFile, 45s, 1, systemClock()}).scan(items, cancel);
    EXPECT_TRUE(first.isComplete);
    EXPECT_EQ(first.missed, 0);
    EXPECT_EQ(namesByGroup(first), (std::set<std::set<std::string>>{{"same", "caf\xc3\xa9"}}));
    ASSERT_EQ(first.groups.size(), 1u);
    EXPECT_EQ(first.groups[0].fingerprint, sha256Hex(content));

    // A fresh finder reads every kept hash back, the accented name's too.
    auto second = Duplicates({cacheFile, 45s, 1, systemClock()}).scan(items, cancel);
    EXPECT_EQ(second.bytesRead, 0);
    EXPECT_EQ(second.groups, first.groups);
}

TEST(DuplicateScan, ManySmallFilesOnEveryThreadGroupExactlyAndTheLastProgressCountsEveryByte) {
    TempDir dir;
    // 70 pairs of copies and 70 files of the same sizes that differ in their last byte, from one byte
    // to a little past three slices: the one-read path, the whole read after it, and both at once.
    std::vector<std::set<std::string>> expected;
    for (int i = 0; i < 70; ++i) {
        auto size = static_cast<size_t>(1 + i * 711);
        auto content = patterned(size, i);
        auto a = "a" + std::to_string(i), b = "b" + std::to_string(i), c = "c" + std::to_string(i);
        dir.write(a, content);
        dir.write(b, content);
        content.back() = static_cast<char>(content.back() ^ 0x40);
        dir.write(c, content);
        expected.push_back({a, b});
    }
    Duplicates finder({{}, 45s, 1, systemClock(), 60s, 4});
    CancelFlag cancel;
    DuplicateProgress last;
    int reports = 0;
    auto scan = finder.scan(itemsUnder(dir), cancel, [&](const DuplicateProgress& p) {
        last = p;
        ++reports;
    });
    EXPECT_TRUE(scan.isComplete);
    EXPECT_EQ(namesByGroup(scan), (std::set<std::set<std::string>>(expected.begin(), expected.end())));
    for (const auto& g : scan.groups)
        EXPECT_EQ(g.fingerprint,
                  sha256Hex(patterned(static_cast<size_t>(g.size), static_cast<int>((g.size - 1) / 711))));
    EXPECT_EQ(last.phase, DuplicateProgress::Phase::hashing);
    EXPECT_EQ(last.done, last.total) << "the last file is always shown";
    EXPECT_EQ(last.bytesRead, scan.bytesRead);
    EXPECT_LT(reports, 3 * 210) << "progress is not shown for every file";
}

// Files of one name written a folder after another, so that in inode order each folder's run is a
// single file: a thread that opened a name beneath the folder of the file before it would find
// another file there, miss it, and lose its group. Warm, small files are opened a batch at a time,
// after the batch's last folder is reached: the earlier folders must still be open then.
TEST(DuplicateScan, SmallFilesOfOneNameInManyFoldersAreEachOpenedBeneathTheirOwnFolder) {
    TempDir dir;
    std::set<std::set<std::string>> expected;
    for (int name = 0; name < 3; ++name) {
        std::set<std::string> evens, odds;
        for (int folder = 0; folder < 12; ++folder) {
            auto rel = "f" + std::to_string(folder) + "/n" + std::to_string(name);
            // Read in one go, past one slice (and read whole again), and slice by slice.
            auto size = static_cast<size_t>(1'000 + name * 30'000);
            dir.write(rel, patterned(size, name * 2 + folder % 2));
            (folder % 2 ? odds : evens).insert((dir / rel).string());
        }
        expected.insert(evens);
        expected.insert(odds);
    }
    CancelFlag cancel;
    auto scan = Duplicates({{}, 45s, 1, systemClock()}).scan(itemsUnder(dir), cancel);
    EXPECT_TRUE(scan.isComplete);
    EXPECT_EQ(scan.missed, 0);
    EXPECT_EQ(namesByGroup(scan, &FileItem::path), expected);
}
