#include "VantleLibrary/FingerprintCache.h"
#include "VantleLibrary/FingerprintReader.h"
#include "support/HashingSupport.h"
#include "support/Patterned.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/mman.h>
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

void setModified(const std::filesystem::path& file, std::int64_t nanoseconds) {
    timespec times[2] = {{0, UTIME_OMIT}, {nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

} // namespace

TEST(SampleRanges, ThreeSlicesWhateverTheSize) {
    EXPECT_EQ(sampleRanges(16'384), (std::vector<ByteRange>{{0, 16'384}, {0, 16'384}, {0, 16'384}}));
    EXPECT_EQ(sampleRanges(100), (std::vector<ByteRange>{{0, 100}, {0, 100}, {0, 100}}));
    EXPECT_EQ(sampleRanges(0), (std::vector<ByteRange>{{0, 0}, {0, 0}, {0, 0}}));
    // Middle starts half a slice before the middle, halves rounding down.
    EXPECT_EQ(sampleRanges(20'001), (std::vector<ByteRange>{{0, 16'384}, {1'808, 16'384}, {3'617, 16'384}}));
    EXPECT_EQ(sampleRanges(1'000'000),
              (std::vector<ByteRange>{{0, 16'384}, {491'808, 16'384}, {983'616, 16'384}}));
}

TEST(FingerprintReader, SampleAndFullHashesAreSha256OfTheirBytes) {
    TempDir dir;
    auto exact = patterned(16'384);
    auto file = dir.write("exact.bin", exact);
    FingerprintReader reader(systemClock(), farFuture);
    // A file of exactly one slice: head, middle and tail are all the whole file.
    EXPECT_EQ(reader.hash(file, expectedOf(file), HashMode::sample), sha256(exact + exact + exact));
    EXPECT_EQ(reader.bytesRead(), 3 * 16'384);
    EXPECT_EQ(reader.hash(file, expectedOf(file), HashMode::full), sha256(exact));
    EXPECT_EQ(reader.bytesRead(), 4 * 16'384);

    // Larger than one chunk, with a short last chunk, and slices that do not overlap.
    auto big = patterned(fullChunkBytes * 2 + 777, 7);
    auto bigFile = dir.write("big.bin", big);
    EXPECT_EQ(reader.hash(bigFile, expectedOf(bigFile), HashMode::full), sha256(big));
    std::string slices;
    for (auto [offset, length] : sampleRanges(static_cast<std::int64_t>(big.size())))
        slices += big.substr(static_cast<size_t>(offset), static_cast<size_t>(length));
    EXPECT_EQ(reader.hash(bigFile, expectedOf(bigFile), HashMode::sample), sha256(slices));

    auto emptyFile = dir.write("empty", "");
    EXPECT_EQ(reader.hash(emptyFile, expectedOf(emptyFile), HashMode::full), sha256(""));
}

// Files hashed two at a time: each lane moves on to its next file when its last one ends, so files
// of every length meet each other part-way, and a file refused in one lane must not disturb the
// file beside it.
TEST(FingerprintReader, FilesHashedTwoAtATimeHashAsEachAlone) {
    TempDir dir;
    std::vector<std::string> contents;
    std::vector<std::filesystem::path> files;
    for (size_t size :
         {size_t{0}, size_t{1}, size_t{65}, size_t{16'384}, size_t{50'000},
          static_cast<size_t>(fullChunkBytes) + 3, size_t{777}, static_cast<size_t>(2 * fullChunkBytes)}) {
        contents.push_back(patterned(size, static_cast<unsigned>(size % 13 + 1)));
        files.push_back(dir.write("f" + std::to_string(files.size()), contents.back()));
    }
    std::vector<FingerprintReader::Expected> expected;
    for (const auto& f : files)
        expected.push_back(expectedOf(f));
    expected[4].modified += 1; // no longer the file recorded
    auto gone = dir / "gone";

    for (auto mode : {HashMode::full, HashMode::sample}) {
        FingerprintReader reader(systemClock(), farFuture);
        std::map<size_t, std::expected<Digest, FingerprintReader::Miss>> heard;
        size_t next = 0;
        reader.hashEach(
            mode,
            [&]() -> std::optional<FingerprintReader::Job> {
                if (next > files.size()) return std::nullopt;
                auto k = next++;
                if (k == files.size())
                    return FingerprintReader::Job{k, {AT_FDCWD, gone.c_str(), expected[0]}};
                return FingerprintReader::Job{k, {AT_FDCWD, files[k].c_str(), expected[k]}};
            },
            [&](size_t id, std::expected<Digest, FingerprintReader::Miss> result) {
                EXPECT_TRUE(heard.emplace(id, result).second) << "heard twice of " << id;
            });
        ASSERT_EQ(heard.size(), files.size() + 1);
        for (size_t k = 0; k < files.size(); ++k) {
            if (k == 4) {
                EXPECT_EQ(heard[k].error(), FingerprintReader::Miss::changedBefore);
                continue;
            }
            std::string bytes = contents[k];
            if (mode == HashMode::sample) {
                bytes.clear();
                for (auto [offset, length] : sampleRanges(static_cast<std::int64_t>(contents[k].size())))
                    bytes += contents[k].substr(static_cast<size_t>(offset), static_cast<size_t>(length));
            }
            EXPECT_EQ(heard[k], sha256(bytes)) << "file " << k;
        }
        EXPECT_EQ(heard[files.size()].error(), FingerprintReader::Miss::unopenable);
    }
}

TEST(FingerprintReader, RefusesAFileThatIsNoLongerTheRecordedOne) {
    TempDir dir;
    auto file = dir.write("a.bin", patterned(50'000));
    auto recorded = expectedOf(file);
    FingerprintReader reader(systemClock(), farFuture);

    // Touched by a single nanosecond between the record and the hash.
    setModified(file, recorded.modified + 1);
    EXPECT_EQ(reader.hash(file, recorded, HashMode::sample).error(), FingerprintReader::Miss::changedBefore);
    setModified(file, recorded.modified);
    ASSERT_TRUE(reader.hash(file, recorded, HashMode::sample));

    // Same bytes and time, but another file put in its place.
    auto replacement = dir.write("b.bin", patterned(50'000));
    setModified(replacement, recorded.modified);
    std::filesystem::rename(replacement, file);
    EXPECT_EQ(reader.hash(file, recorded, HashMode::full).error(), FingerprintReader::Miss::changedBefore);

    auto grown = expectedOf(file);
    grown.size += 1;
    EXPECT_EQ(reader.hash(file, grown, HashMode::full).error(), FingerprintReader::Miss::changedBefore);
    EXPECT_EQ(reader.bytesRead(), 3 * 16'384) << "nothing is read from a refused file";

    std::filesystem::create_symlink(file, dir / "link");
    EXPECT_EQ(reader.hash(dir / "link", expectedOf(file), HashMode::full).error(),
              FingerprintReader::Miss::unopenable);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(reader.hash(dir / "fifo", recorded, HashMode::full).error(),
              FingerprintReader::Miss::notRegular);
    EXPECT_EQ(reader.hash(dir / "missing", recorded, HashMode::full).error(),
              FingerprintReader::Miss::unopenable);
}

TEST(FingerprintReader, AFileChangedWhileBeingReadHasNoHash) {
    TempDir dir;
    auto file = dir.write("a.bin", patterned(fullChunkBytes * 3));
    FingerprintReader reader(systemClock(), farFuture);
    auto recorded = expectedOf(file);
    int reads = 0;
    reader.setAfterEachRead([&](int) {
        if (++reads == 2) setModified(file, recorded.modified + 1);
    });
    EXPECT_EQ(reader.hash(file, recorded, HashMode::full).error(), FingerprintReader::Miss::changedDuring);

    auto appended = dir.write("c.bin", patterned(fullChunkBytes * 3));
    reads = 0;
    reader.setAfterEachRead([&](int) {
        if (++reads == 3) {
            auto f = ::open(appended.c_str(), O_WRONLY | O_APPEND);
            ASSERT_EQ(::write(f, "tail", 4), 4);
            ::close(f);
        }
    });
    EXPECT_EQ(reader.hash(appended, expectedOf(appended), HashMode::full).error(),
              FingerprintReader::Miss::changedDuring);

    // Shrunk under the reader: the next range comes up short.
    auto other = dir.write("b.bin", patterned(fullChunkBytes * 3));
    reads = 0;
    reader.setAfterEachRead([&](int) {
        if (++reads == 1) std::filesystem::resize_file(other, 10);
    });
    EXPECT_EQ(reader.hash(other, expectedOf(other), HashMode::full).error(),
              FingerprintReader::Miss::shortRead);
}

TEST(FingerprintReader, WholeFileReadsLookAtTheDeadlineBeforeEverySixtyFourthChunk) {
    TempDir dir;
    auto sparse = [&](const char* name, std::int64_t size) {
        auto file = dir.write(name, "");
        std::filesystem::resize_file(file, static_cast<std::uintmax_t>(size));
        return file;
    };
    int clockReads = 0;
    Clock late = [&] {
        ++clockReads;
        return sys_days{2030y / 1 / 1};
    };
    FingerprintReader reader(late, sys_days{2020y / 1 / 1});

    // 63 chunks never reach a check, so even a passed deadline does not stop them.
    auto justUnder = sparse("63", 63 * fullChunkBytes);
    EXPECT_TRUE(reader.hash(justUnder, expectedOf(justUnder), HashMode::full));
    EXPECT_EQ(clockReads, 0);

    auto over = sparse("65", 64 * fullChunkBytes + 1);
    auto before = reader.bytesRead();
    EXPECT_EQ(reader.hash(over, expectedOf(over), HashMode::full).error(),
              FingerprintReader::Miss::pastDeadline);
    EXPECT_EQ(reader.bytesRead() - before, 63 * fullChunkBytes);
    EXPECT_EQ(clockReads, 1);

    // Samples are three small reads and are never cut short.
    EXPECT_TRUE(reader.hash(over, expectedOf(over), HashMode::sample));

    CancelFlag cancel;
    cancel.cancel();
    FingerprintReader cancelled(systemClock(), farFuture, &cancel);
    EXPECT_EQ(cancelled.hash(over, expectedOf(over), HashMode::full).error(),
              FingerprintReader::Miss::cancelled);
}

TEST(FingerprintCache, KeepsHashesOnlyWhileSizeTimeAndInodeHold) {
    TempDir dir;
    auto file = dir.write("a.bin", "contents");
    auto status = *fileStatus(file);
    auto sample = sha256("s"), full = sha256("f");
    FingerprintCache cache(dir / "Library/fingerprints.json");
    cache.load();
    cache.store(file.native(), status, HashMode::sample, sample);
    cache.store(file.native(), status, HashMode::full, full);
    ASSERT_TRUE(cache.save());

    FingerprintCache reread(dir / "Library/fingerprints.json");
    reread.load();
    ASSERT_TRUE(reread.loaded());
    auto* kept = reread.valid(file.native(), status);
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->sample, sample);
    EXPECT_EQ(kept->full, full);

    for (auto change : {0, 1, 2}) {
        FingerprintCache c(dir / "Library/fingerprints.json");
        c.load();
        auto moved = status;
        if (change == 0) moved.number.inode += 1;
        if (change == 1) moved.modified += 1;
        if (change == 2) moved.size += 1;
        EXPECT_FALSE(c.valid(file.native(), moved)) << change;
        EXPECT_FALSE(c.valid(file.native(), status)) << "a stale entry is dropped, not kept for later";
    }

    // A new hash for a changed file starts a fresh entry rather than mixing in the old sample.
    auto changed = status;
    changed.modified += 5;
    reread.store(file.native(), changed, HashMode::full, sample);
    auto* fresh = reread.valid(file.native(), changed);
    ASSERT_TRUE(fresh);
    EXPECT_FALSE(fresh->sample);
}

TEST(FingerprintCache, AMissingOrDamagedFileIsAnEmptyCacheAndBadEntriesAreDropped) {
    TempDir dir;
    auto status = *fileStatus(dir.write("a", "x"));
    FingerprintCache missing(dir / "none.json");
    missing.load();
    EXPECT_TRUE(missing.loaded());
    EXPECT_EQ(missing.size(), 0u);

    dir.write("torn.json", R"({"/a":{"size":1,"modified":2,"inode":3,"sam)");
    FingerprintCache torn(dir / "torn.json");
    torn.load();
    EXPECT_EQ(torn.size(), 0u);

    // What a crash may leave of a save that did not wait for the disk.
    dir.write("empty.json", "");
    FingerprintCache empty(dir / "empty.json");
    empty.load();
    EXPECT_EQ(empty.size(), 0u);

    auto good = R"({"size":1,"modified":2,"inode":3,"full":")" + hexOf(sha256("x")) + "\"}";
    dir.write("mixed.json", R"({"/bad":{"size":1,"modified":2,"inode":3,"full":"zz"},"/good":)" + good + "}");
    FingerprintCache mixed(dir / "mixed.json");
    mixed.load();
    EXPECT_EQ(mixed.size(), 1u);
    ASSERT_TRUE(mixed.save());
    EXPECT_EQ(vantle::testing::readFile(dir / "mixed.json").find("/bad"), std::string::npos);

    // Nothing changed: the file is not rewritten.
    FingerprintCache unchanged(dir / "mixed.json");
    unchanged.load();
    auto mtime = std::filesystem::last_write_time(dir / "mixed.json");
    EXPECT_TRUE(unchanged.save());
    EXPECT_EQ(std::filesystem::last_write_time(dir / "mixed.json"), mtime);

    FingerprintCache blocked(dir / "a" / "fingerprints.json"); // "a" is a file, not a folder
    blocked.store("/x", status, HashMode::full, sha256("x"));
    EXPECT_FALSE(blocked.save());
}

TEST(FingerprintCache, HostileFilesReadAsWhatCanBeSavedFromThem) {
    TempDir dir;
    auto entry = [](int inode) {
        return R"({"size":1,"modified":2,"inode":)" + std::to_string(inode) + R"(,"full":")" +
               hexOf(sha256("x")) + "\"}";
    };
    // Torn after one whole entry: that entry is kept.
    dir.write("torn.json", R"({"/a":)" + entry(3) + R"(,"/b":{"size":1,"modif)");
    FingerprintCache torn(dir / "torn.json");
    torn.load();
    EXPECT_EQ(torn.size(), 1u);

    // Nested a hundred thousand deep inside one entry: no crash, nothing kept from it.
    std::string deep = R"({"/a":)" + entry(3) + R"(,"/deep":{"size":)" + std::string(100'000, '[') +
                       std::string(100'000, ']') + "}}";
    dir.write("deep.json", deep);
    FingerprintCache nested(dir / "deep.json");
    nested.load();
    EXPECT_EQ(nested.size(), 1u);

    // A field nested one level too far, and numbers that do not fit, drop their entry only.
    dir.write(
        "odd.json",
        R"({"/x":{"size":1,"modified":2,"inode":3,"full":{"a":1}},"/y":{"size":1.5,"modified":2,"inode":3},"/z":{"size":1,"modified":2,"inode":-4},"/a":)" +
            entry(3) + "}");
    FingerprintCache odd(dir / "odd.json");
    odd.load();
    EXPECT_EQ(odd.size(), 1u);

    dir.write("array.json", "[1,2,3]");
    FingerprintCache array(dir / "array.json");
    array.load();
    EXPECT_EQ(array.size(), 0u);
}

TEST(FingerprintCache, DigestsInEitherCaseOfHexReadAsTheirBytes) {
    TempDir dir;
    auto file = dir.write("a.bin", "contents");
    auto status = *fileStatus(file);
    auto lower = hexOf(sha256("x")), upper = lower;
    std::ranges::transform(upper, upper.begin(), [](char c) { return std::toupper(c); });
    ASSERT_NE(lower, upper);
    auto fields = R"({"size":)" + std::to_string(status.size) + R"(,"modified":)" +
                  std::to_string(status.modified) + R"(,"inode":)" + std::to_string(status.number.inode);
    for (const auto& [sample, full] : {std::pair{lower, upper}, std::pair{upper, lower}}) {
        dir.write("fingerprints.json", "{\"" + file.string() + "\":" + fields + R"(,"sample":")" + sample +
                                           R"(","full":")" + full + "\"}}\n");
        FingerprintCache cache(dir / "fingerprints.json");
        cache.load();
        auto* kept = cache.valid(file.native(), status);
        ASSERT_TRUE(kept) << sample;
        EXPECT_EQ(kept->sample, sha256("x"));
        EXPECT_EQ(kept->full, sha256("x"));
    }
}

TEST(FingerprintCache, ANameThatIsNotUtf8IsFoundUnderItsOwnBytes) {
    TempDir dir;
    auto file = dir.write("caf\xe9 \xff.bin", "contents");
    auto status = *fileStatus(file);
    FingerprintCache cache(dir / "fingerprints.json");
    cache.store(file.native(), status, HashMode::full, sha256("contents"));
    ASSERT_TRUE(cache.save());
    auto text = vantle::testing::readFile(dir / "fingerprints.json");
    EXPECT_FALSE(text.contains("\xef\xbf\xbd")) << "no replacement character: the name must survive";

    FingerprintCache reread(dir / "fingerprints.json");
    reread.load();
    EXPECT_TRUE(reread.valid(file.native(), status));
    EXPECT_FALSE(reread.valid((dir / "caf\xef\xbf\xbd \xef\xbf\xbd.bin").native(), status));
}

namespace {

// A file as statx would describe it, made up: the cache compares numbers, never opens the file.
FileStatus cacheStatusOf(std::uint64_t inode, std::int64_t size = 10, std::int64_t modified = 7) {
    FileStatus s;
    s.isRegular = true;
    s.number = {1, inode};
    s.size = size;
    s.modified = modified;
    return s;
}

} // namespace

TEST(FingerprintCache, ManyPathsStayApartThroughGrowthSavingAndReading) {
    TempDir dir;
    auto file = dir / "fingerprints.json";
    // Enough paths to grow the table several times over, many sharing long prefixes and differing
    // only at the end, so neighbouring slots hold keys that compare equal for most of their length.
    constexpr int count = 3000;
    auto pathOf = [](int i) { return "/home/u/Pictures/2024/a-long-common-folder/IMG_" + std::to_string(i); };
    {
        FingerprintCache cache(file);
        cache.load();
        for (int i = 0; i < count; ++i) {
            cache.store(pathOf(i), cacheStatusOf(i), HashMode::sample, sha256(std::to_string(i)));
            // Looked up at once after its store, and again after later stores have moved the table.
            auto* kept = cache.valid(pathOf(i), cacheStatusOf(i));
            ASSERT_TRUE(kept) << i;
            EXPECT_EQ(kept->sample, sha256(std::to_string(i)));
            if (i % 7 == 0) {
                auto* earlier = cache.valid(pathOf(i / 2), cacheStatusOf(i / 2));
                ASSERT_TRUE(earlier) << i / 2;
                EXPECT_EQ(earlier->sample, sha256(std::to_string(i / 2)));
            }
        }
        EXPECT_EQ(cache.size(), static_cast<size_t>(count));
        EXPECT_FALSE(cache.valid("/home/u/Pictures/2024/a-long-common-folder/IMG_", cacheStatusOf(0)));
        ASSERT_TRUE(cache.save());
    }
    FingerprintCache reread(file);
    reread.load();
    EXPECT_EQ(reread.size(), static_cast<size_t>(count));
    EXPECT_EQ(reread.unasked(), static_cast<size_t>(count));
    for (int i = count - 1; i >= 0; --i) {
        auto* kept = reread.valid(pathOf(i), cacheStatusOf(i));
        ASSERT_TRUE(kept) << i;
        EXPECT_EQ(kept->sample, sha256(std::to_string(i)));
        EXPECT_FALSE(kept->full);
    }
    EXPECT_EQ(reread.unasked(), 0u);
}

TEST(FingerprintCache, ADroppedEntryComesBackOnlyThroughAFreshStore) {
    TempDir dir;
    auto file = dir / "fingerprints.json";
    {
        FingerprintCache cache(file);
        cache.store("/a", cacheStatusOf(1), HashMode::sample, sha256("a-sample"));
        cache.store("/a", cacheStatusOf(1), HashMode::full, sha256("a-full"));
        cache.store("/b", cacheStatusOf(2), HashMode::full, sha256("b"));
        ASSERT_TRUE(cache.save());
    }
    FingerprintCache cache(file);
    cache.load();
    // Edited since: the entry goes, and asking again with the old facts does not bring it back.
    EXPECT_FALSE(cache.valid("/a", cacheStatusOf(1, 11)));
    EXPECT_FALSE(cache.valid("/a", cacheStatusOf(1)));
    EXPECT_EQ(cache.size(), 1u);
    // Stored again: only the new hash, none of the old entry's.
    cache.store("/a", cacheStatusOf(1, 11), HashMode::full, sha256("a-new"));
    auto* kept = cache.valid("/a", cacheStatusOf(1, 11));
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->full, sha256("a-new"));
    EXPECT_FALSE(kept->sample);
    EXPECT_EQ(cache.size(), 2u);
    ASSERT_TRUE(cache.save());

    FingerprintCache reread(file);
    reread.load();
    EXPECT_EQ(reread.size(), 2u);
    ASSERT_TRUE(reread.valid("/a", cacheStatusOf(1, 11)));
    EXPECT_EQ(reread.valid("/a", cacheStatusOf(1, 11))->full, sha256("a-new"));
    EXPECT_EQ(reread.valid("/b", cacheStatusOf(2))->full, sha256("b"));
}

TEST(FingerprintCache, StoringWhatIsKeptWritesNothingAndOnlyUnaskedEntriesCanBeDropped) {
    TempDir dir;
    auto file = dir / "fingerprints.json";
    {
        FingerprintCache cache(file);
        for (auto [path, inode] : {std::pair{"/a", 1}, std::pair{"/b", 2}, std::pair{"/c", 3}})
            cache.store(path, cacheStatusOf(inode), HashMode::full, sha256(path));
        ASSERT_TRUE(cache.save());
    }
    auto written = std::filesystem::last_write_time(file);
    auto before = vantle::testing::readFile(file);

    FingerprintCache cache(file);
    cache.load();
    EXPECT_EQ(cache.unasked(), 3u);
    ASSERT_TRUE(cache.valid("/a", cacheStatusOf(1)));
    cache.store("/b", cacheStatusOf(2), HashMode::full, sha256("/b")); // the same as kept
    EXPECT_EQ(cache.unasked(), 1u);
    cache.keepOnly({"/a", "/b", "/c"});
    ASSERT_TRUE(cache.save());
    EXPECT_EQ(std::filesystem::last_write_time(file), written) << "nothing changed";

    // "/c" was never asked about and is no longer wanted: it goes, and the file is written.
    cache.keepOnly({"/a", "/b"});
    EXPECT_EQ(cache.unasked(), 0u);
    EXPECT_EQ(cache.size(), 2u);
    ASSERT_TRUE(cache.save());
    auto after = vantle::testing::readFile(file);
    EXPECT_NE(after, before);
    EXPECT_EQ(after.find("\"/c\""), std::string::npos);
    EXPECT_NE(after.find("\"/b\""), std::string::npos);
}

TEST(FingerprintCache, AwkwardPathsKeepTheirExactBytesBesidePlainOnes) {
    TempDir dir;
    auto file = dir / "fingerprints.json";
    // A quote, a backslash, a tab and a newline; bytes that are not UTF-8; text that looks like an
    // escape but is plain; well-formed UTF-8 beyond ASCII.
    const std::vector<std::string> paths = {
        "/plain/a.txt",      "/q\"uote\\slash\tand\nline", "/caf\xe9/\xff\xfe",
        "/looks\\u00e9like", "/caf\xc3\xa9/na\xc3\xafve",  "/plain/b.txt"};
    {
        FingerprintCache cache(file);
        for (size_t i = 0; i < paths.size(); ++i)
            cache.store(paths[i], cacheStatusOf(i + 1), HashMode::full, sha256(paths[i]));
        ASSERT_TRUE(cache.save());
    }
    for (int round = 0; round < 2; ++round) {
        FingerprintCache cache(file);
        cache.load();
        ASSERT_EQ(cache.size(), paths.size()) << round;
        for (size_t i = 0; i < paths.size(); ++i) {
            auto* kept = cache.valid(paths[i], cacheStatusOf(i + 1));
            ASSERT_TRUE(kept) << round << " " << i;
            EXPECT_EQ(kept->full, sha256(paths[i]));
        }
        EXPECT_FALSE(cache.valid("/caf\xc3\xa9/\xef\xbf\xbd\xef\xbf\xbd", cacheStatusOf(3)));
        EXPECT_FALSE(cache.valid("/looks\xc3\xa9like", cacheStatusOf(4)));
        // A change makes the second round read a file written from entries read back, not stored.
        cache.store("/plain/c.txt", cacheStatusOf(99), HashMode::full, sha256("c"));
        ASSERT_TRUE(cache.save());
        cache.keepOnly({paths.begin(), paths.end()});
        ASSERT_TRUE(cache.save());
    }
}

TEST(FingerprintCache, APathWrittenTwiceKeepsItsLastEntryInEitherReader) {
    TempDir dir;
    auto entry = [](int inode, std::string_view of) {
        return R"({"size":10,"modified":7,"inode":)" + std::to_string(inode) + R"(,"full":")" +
               hexOf(sha256(of)) + "\"}";
    };
    // As save() writes it, and the same with a space the fast reader does not expect.
    for (std::string gap : {"", " "}) {
        dir.write("twice.json", "{\"/a\":" + entry(1, "old") + ",\n\"/b\":" + entry(2, "b") +
                                    ",\n\"/a\":" + gap + entry(1, "new") + "}\n");
        FingerprintCache cache(dir / "twice.json");
        cache.load();
        EXPECT_EQ(cache.size(), 2u) << "gap '" << gap << "'";
        auto* kept = cache.valid("/a", cacheStatusOf(1));
        ASSERT_TRUE(kept);
        EXPECT_EQ(kept->full, sha256("new")) << "gap '" << gap << "'";
    }
}

TEST(FingerprintReader, AWholeReadLetsGoOnlyOfThePagesItBroughtIn) {
    TempDir dir;
    auto file = dir.write("big.bin", patterned(4 << 20, 5));
    auto residentPages = [&] {
        int fd = ::open(file.c_str(), O_RDONLY);
        void* map = ::mmap(nullptr, 4 << 20, PROT_READ, MAP_SHARED, fd, 0);
        std::vector<unsigned char> pages((4 << 20) / ::sysconf(_SC_PAGESIZE));
        ::mincore(map, 4 << 20, pages.data());
        ::munmap(map, 4 << 20);
        ::close(fd);
        size_t n = 0;
        for (auto p : pages)
            n += p & 1;
        return n;
    };
    auto drop = [&] {
        int fd = ::open(file.c_str(), O_RDONLY);
        ::fdatasync(fd);
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ::close(fd);
    };
    drop();
    if (residentPages() != 0) GTEST_SKIP() << "this file system keeps every page in memory (tmpfs?)";

    FingerprintReader reader(systemClock(), farFuture);
    ASSERT_TRUE(reader.hash(file, expectedOf(file), HashMode::full));
    EXPECT_EQ(residentPages(), 0u) << "a cold file is read without being kept";

    // Half warm: another program read the first half; that half stays, the rest goes.
    {
        std::string half(2 << 20, '\0');
        int fd = ::open(file.c_str(), O_RDONLY);
        // No readahead: it would go on bringing in pages after the read returned, racing the check.
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
        ASSERT_EQ(::pread(fd, half.data(), half.size(), 0), static_cast<ssize_t>(half.size()));
        ::close(fd);
    }
    auto halfWarm = residentPages();
    ASSERT_GT(halfWarm, 0u);
    ASSERT_TRUE(reader.hash(file, expectedOf(file), HashMode::full));
    EXPECT_EQ(residentPages(), halfWarm);

    // Warm: all of it was read before; it stays in memory after the hash.
    ASSERT_GT(vantle::testing::readFile(file).size(), 0u);
    auto warm = residentPages();
    ASSERT_GT(warm, 0u);
    ASSERT_TRUE(reader.hash(file, expectedOf(file), HashMode::full));
    EXPECT_EQ(residentPages(), warm);
}
