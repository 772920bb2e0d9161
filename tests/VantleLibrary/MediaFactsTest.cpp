#include "VantleLibrary/MediaFacts.h"
#include "VantleLibrary/Catalog.h"
#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/Library.h"
#include "VantleLibrary/MediaIndex.h"
#include "VantleLibrary/SearchParser.h"

#include "support/TempDir.h"

#include <exiv2/exiv2.hpp>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

// A JPEG whose EXIF says a camera took it on 14 July 2025 at 18:30:05, two hours east of UTC.
void writePhoto(const fs::path& file, const std::string& make, const std::string& model) {
    auto image = Exiv2::ImageFactory::create(Exiv2::ImageType::jpeg, file.string());
    auto& exif = image->exifData();
    exif["Exif.Image.Make"] = make;
    exif["Exif.Image.Model"] = model;
    exif["Exif.Photo.DateTimeOriginal"] = "2025:07:14 18:30:05";
    exif["Exif.Photo.OffsetTimeOriginal"] = "+02:00";
    image->writeMetadata();
}

// A mono 16-bit PCM WAV of `samples` silent samples at `rate` per second.
void writeWav(const fs::path& file, std::uint32_t rate, std::uint32_t samples) {
    std::ofstream out(file, std::ios::binary);
    auto u32 = [&](std::uint32_t v) { out.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&](std::uint16_t v) { out.write(reinterpret_cast<const char*>(&v), 2); };
    const std::uint32_t data = samples * 2;
    out.write("RIFF", 4), u32(36 + data), out.write("WAVE", 4);
    out.write("fmt ", 4), u32(16), u16(1), u16(1), u32(rate), u32(rate * 2), u16(2), u16(16);
    out.write("data", 4), u32(data);
    std::string silence(data, '\0');
    out.write(silence.data(), static_cast<std::streamsize>(silence.size()));
}

// Sets a file's access time far in the past and gives it back, so a test can see it was not moved.
timespec ageAccessTime(const fs::path& file) {
    timespec times[2] = {{1'000'000'000, 0}, {0, UTIME_OMIT}};
    ::utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW);
    struct stat st {};
    ::stat(file.c_str(), &st);
    return st.st_atim;
}

long accessSeconds(const fs::path& file) {
    struct stat st {};
    ::stat(file.c_str(), &st);
    return st.st_atim.tv_sec;
}

const Facts* factsFor(const Snapshot& snapshot, const fs::path& file) {
    for (const auto& f : snapshot.facts)
        if (f.path == file.string()) return &f;
    return nullptr;
}

std::vector<std::string> namesFound(const SearchResult& result) {
    std::vector<std::string> out;
    for (const auto& item : result.items)
        out.push_back(item.name);
    return out;
}

} // namespace

TEST(MediaFacts,
     APhotosCameraAndCaptureDateArriveAfterTheWalkAndAreFoundByTheirWordsWithoutMovingItsAccessTime) {
    TempDir home, data;
    auto photo = home.mkdir("Pictures") / "IMG_0001.jpg";
    writePhoto(photo, "Canon", "Canon EOS R6");
    home.write("Pictures/plain.jpg", "not a jpeg at all");
    auto before = ageAccessTime(photo);

    Catalog::Options options{LibraryScope{home.path(), {}}};
    options.indexFile = data / "catalog.index";
    Catalog catalog(options);
    CancelFlag cancel;
    SearchParser parser(systemClock(), Calendar::fixed(0s), home.path());

    // The walk's own snapshot comes first, without the facts, and a search by camera says so.
    auto walked = catalog.read(cancel);
    EXPECT_TRUE(walked.reading.mediaPending);
    ASSERT_NE(factsFor(*walked.snapshot, photo), nullptr);
    EXPECT_FALSE(factsFor(*walked.snapshot, photo)->cameraMake);
    EXPECT_EQ(searchFiles(parser, "camera canon", *walked.snapshot, walked.reading).note,
              std::string(Reading::mediaPendingSentence));
    EXPECT_FALSE(searchFiles(parser, "pictures", *walked.snapshot, walked.reading).note)
        << "a search that asks nothing of them is whole";

    auto read = catalog.readWithMediaFacts(cancel);
    EXPECT_FALSE(read.reading.mediaPending);
    const Facts* f = factsFor(*read.snapshot, photo);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->cameraMake, "Canon");
    EXPECT_EQ(f->cameraModel, "Canon EOS R6");
    EXPECT_EQ(f->contentCreated, sys_days{2025y / July / 14} + 16h + 30min + 5s)
        << "the offset the camera wrote";
    EXPECT_EQ(accessSeconds(photo), before.tv_sec) << "reading the EXIF is not opening the photo";
    const Facts* plain = factsFor(*read.snapshot, home / "Pictures/plain.jpg");
    ASSERT_NE(plain, nullptr);
    EXPECT_FALSE(plain->cameraMake) << "a damaged file carries nothing";
    EXPECT_EQ(catalog.latest()->snapshot, read.snapshot) << "the filled snapshot is the one in hand";

    // The words find it: the files' own dates are all of today, so only the capture date is old.
    auto names = [&](std::string_view words) {
        auto result = searchFiles(parser, words, *read.snapshot, read.reading);
        EXPECT_FALSE(result.note) << words;
        return namesFound(result);
    };
    EXPECT_EQ(names("camera canon"), std::vector<std::string>{"IMG_0001.jpg"});
    EXPECT_EQ(names("photos taken with a canon"), std::vector<std::string>{"IMG_0001.jpg"});
    EXPECT_TRUE(names("camera nikon").empty());
    EXPECT_EQ(names("photos older than 3 months"), std::vector<std::string>{"IMG_0001.jpg"});
}

TEST(MediaFacts, ASongsLengthIsReadAndFoundByALengthWord) {
    TempDir home;
    auto song = home.mkdir("Music") / "tone.wav";
    writeWav(song, 8000, 20'000); // 2.5 seconds
    home.write("Music/notes.txt", "words");

    Catalog catalog(Catalog::Options{LibraryScope{home.path(), {}}});
    CancelFlag cancel;
    auto read = catalog.readWithMediaFacts(cancel);
    const Facts* f = factsFor(*read.snapshot, song);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(toFileItem(*f).length, 2.5);
    SearchParser parser(systemClock(), Calendar::fixed(0s), home.path());
    EXPECT_EQ(namesFound(searchFiles(parser, "songs shorter than 3 seconds", *read.snapshot, read.reading)),
              std::vector<std::string>{"tone.wav"});
    EXPECT_TRUE(
        namesFound(searchFiles(parser, "longer than 3 seconds", *read.snapshot, read.reading)).empty());
}

// Changing a photo's bytes in place while putting its time back leaves size, time and inode as
// they were: only a file opened again would show the new camera.
TEST(MediaFacts, ASecondWalkOfAnUnchangedHomeOpensNoFileAgain) {
    TempDir home, data;
    auto photo = home.mkdir("Pictures") / "a.jpg";
    writePhoto(photo, "Canon", "EOS");
    auto song = home.mkdir("Music") / "b.wav";
    writeWav(song, 8000, 8000);
    Catalog::Options options{LibraryScope{home.path(), {}}};
    options.indexFile = data / "catalog.index";
    options.walkFreshness = 0s; // every read walks again
    auto cameraAfterARun = [&] {
        Catalog catalog(options);
        CancelFlag cancel;
        auto read = catalog.readWithMediaFacts(cancel);
        EXPECT_EQ(factsFor(*read.snapshot, song)->duration, 1.0);
        return factsFor(*read.snapshot, photo)->cameraMake.value_or("none");
    };
    ASSERT_EQ(cameraAfterARun(), "Canon");

    struct stat st {};
    ASSERT_EQ(::stat(photo.c_str(), &st), 0);
    auto bytes = vantle::testing::readFile(photo);
    auto at = bytes.find("Canon");
    ASSERT_NE(at, std::string::npos);
    {
        std::fstream out(photo, std::ios::in | std::ios::out | std::ios::binary);
        out.seekp(static_cast<std::streamoff>(at));
        out.write("Nikon", 5);
    }
    timespec times[2] = {{0, UTIME_OMIT}, st.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, photo.c_str(), times, 0), 0);
    EXPECT_EQ(cameraAfterARun(), "Canon") << "the kept entry answered, the photo was not opened";

    timespec later[2] = {{0, UTIME_OMIT}, {st.st_mtim.tv_sec + 1, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, photo.c_str(), later, 0), 0);
    EXPECT_EQ(cameraAfterARun(), "Nikon") << "a new time reads it again";

    // Replaced by another file of the same size and time: a new inode, so it is read again.
    auto other = home.path() / "c.wav";
    writeWav(other, 8000, 8000);
    ASSERT_EQ(::stat(song.c_str(), &st), 0);
    ::utimensat(AT_FDCWD, other.c_str(), std::array{timespec{0, UTIME_OMIT}, st.st_mtim}.data(), 0);
    CancelFlag cancel;
    MediaIndex index(data / "media.index");
    std::vector<Facts> facts(1);
    facts[0].path = song.string(), facts[0].name = "b.wav", facts[0].contentType = "audio/x-wav";
    EXPECT_EQ(index.fill(facts, cancel).read, 0u);
    fs::rename(other, song);
    EXPECT_EQ(index.fill(facts, cancel).read, 1u);
}

// A run that ends before the facts are read keeps its walk marked as owing them; the next run's
// search, answered from that kept walk, must not go without them.
TEST(MediaFacts, AWalkKeptBeforeItsFactsWereReadGetsThemInTheNextRun) {
    TempDir home, data;
    auto photo = home.mkdir("Pictures") / "IMG_0002.jpg";
    writePhoto(photo, "FUJIFILM", "X-T5");
    CancelFlag cancel;
    auto walk = DiskWalk{LibraryScope{home.path(), {}}, 1000, systemClock()() + 60s}.run(cancel);
    walk.reading.mediaPending = true;
    ASSERT_TRUE(
        CatalogIndex(data / "Library/catalog.index", {home.path(), {}}).keep(walk.snapshot, walk.reading));

    Library::Options options;
    options.catalogFile = data / "Library/catalog.index";
    Library library(LibraryScope{home.path(), {}}, options);
    SearchParser parser(systemClock(), Calendar::fixed(0s), home.path());
    Catalog::MediaProgressFn quiet = [](std::size_t, std::size_t) {};
    auto result = library.search(parser, "camera fujifilm", 10, cancel, {}, &quiet);
    ASSERT_TRUE(result);
    EXPECT_EQ(namesFound(*result), std::vector<std::string>{"IMG_0002.jpg"});
    EXPECT_FALSE(result->note);
    EXPECT_EQ(library.catalog().latest()->snapshot->at, walk.snapshot.at) << "the kept walk, not a new one";
}

TEST(MediaFacts, LengthWordsFindSongsAndVideosByTheirPlayingTime) {
    std::vector<Facts> facts(4);
    const char* names[] = {"/h/Music/intro.mp3", "/h/Music/symphony.flac", "/h/Movies/film.mkv",
                           "/h/Music/unread.mp3"};
    std::optional<double> lengths[] = {45.0, 2400.0, 5400.0, std::nullopt};
    for (std::size_t i = 0; i < facts.size(); ++i) {
        facts[i].path = names[i];
        facts[i].name = facts[i].path.substr(facts[i].path.rfind('/') + 1);
        facts[i].contentType = facts[i].name.ends_with("mkv") ? "video/x-matroska" : "audio/mpeg";
        facts[i].duration = lengths[i];
    }
    SearchParser parser(systemClock(), Calendar::fixed(0s), "/h");
    auto found = [&](std::string_view words) {
        std::set<std::string> out;
        for (const auto& item : runQuery(parser.parse(words).query, facts).items)
            out.insert(item.name);
        return out;
    };
    EXPECT_EQ(found("songs longer than 10 minutes"), (std::set<std::string>{"symphony.flac"}));
    EXPECT_EQ(found("shorter than a minute"), (std::set<std::string>{"intro.mp3"}))
        << "a file whose length was never read is not shorter than anything";
    EXPECT_EQ(found("videos over an hour long"), (std::set<std::string>{"film.mkv"}));
    EXPECT_EQ(found("at most 45s long"), (std::set<std::string>{"intro.mp3"}));
    auto chips = parser.parse("music longer than 1.5 hours").chips;
    EXPECT_NE(std::ranges::find(chips, "Longer than 1.5 hours"), chips.end());
    EXPECT_FALSE(parser.parse("videos over 2 hours").query.minLength)
        << "without 'long' it is left to the date words";
}
