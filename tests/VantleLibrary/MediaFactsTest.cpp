#include "VantleLibrary/MediaFacts.h"
#include "VantleLibrary/Catalog.h"
#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/MediaIndex.h"
#include "VantleLibrary/SearchParser.h"

#include "support/TempDir.h"

#include <exiv2/exiv2.hpp>
#include <gtest/gtest.h>

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

} // namespace

TEST(MediaFacts, APhotosCameraAndCaptureDateAreFoundByTheirWordsWithoutMovingItsAccessTime) {
    TempDir home, data;
    auto photo = home.mkdir("Pictures") / "IMG_0001.jpg";
    writePhoto(photo, "Canon", "Canon EOS R6");
    home.write("Pictures/plain.jpg", "not a jpeg at all");
    auto before = ageAccessTime(photo);

    Catalog::Options options{LibraryScope{home.path(), {}}};
    options.indexFile = data / "catalog.index";
    Catalog catalog(options);
    CancelFlag cancel;
    auto read = catalog.read(cancel);
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

    // The words find it: the files' own dates are all of today, so only the capture date is old.
    SearchParser parser(systemClock(), Calendar::fixed(0s), home.path());
    auto names = [&](std::string_view words) {
        std::vector<std::string> out;
        for (const auto& item : runQuery(parser.parse(words).query, read.snapshot->facts).items)
            out.push_back(item.name);
        return out;
    };
    EXPECT_EQ(names("camera canon"), std::vector<std::string>{"IMG_0001.jpg"});
    EXPECT_EQ(names("photos taken with a canon"), std::vector<std::string>{"IMG_0001.jpg"});
    EXPECT_TRUE(names("camera nikon").empty());
    EXPECT_EQ(names("photos older than 3 months"), std::vector<std::string>{"IMG_0001.jpg"});
}

TEST(MediaFacts, ASongsLengthIsRead) {
    TempDir home;
    auto song = home.mkdir("Music") / "tone.wav";
    writeWav(song, 8000, 20'000); // 2.5 seconds
    auto fd = ::open(song.c_str(), O_RDONLY | O_NOATIME);
    ASSERT_GE(fd, 0);
    auto facts = readMediaFacts(fd, "tone.wav", "audio/x-wav");
    EXPECT_EQ(facts.duration, 2.5);
    ::close(fd);

    Catalog catalog(Catalog::Options{LibraryScope{home.path(), {}}});
    CancelFlag cancel;
    auto read = catalog.read(cancel);
    const Facts* f = factsFor(*read.snapshot, song);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(toFileItem(*f).length, 2.5);
}

TEST(MediaFacts, AFileIsReadOnceUntilItsSizeTimeOrInodeChangesAndTheEntriesOutliveTheRun) {
    TempDir home, data;
    auto photo = home.mkdir("Pictures") / "a.jpg";
    writePhoto(photo, "FUJIFILM", "X-T5");
    auto song = home.path() / "b.wav";
    writeWav(song, 8000, 8000);
    auto walk = [&] {
        std::vector<Facts> facts(2);
        facts[0].path = photo.string(), facts[0].name = "a.jpg", facts[0].contentType = "image/jpeg";
        facts[1].path = song.string(), facts[1].name = "b.wav", facts[1].contentType = "audio/x-wav";
        return facts;
    };
    CancelFlag cancel;
    MediaIndex index(data / "media.index");
    auto facts = walk();
    auto first = index.fill(facts, cancel);
    EXPECT_EQ(first.read, 2u);
    ASSERT_TRUE(index.keep());

    MediaIndex nextRun(data / "media.index");
    facts = walk();
    auto second = nextRun.fill(facts, cancel);
    EXPECT_EQ(second.read, 0u);
    EXPECT_EQ(second.kept, 2u);
    EXPECT_EQ(facts[0].cameraModel, "X-T5");
    EXPECT_EQ(facts[1].duration, 1.0);

    // Replaced by another file of the same size and time: a new inode, so it is read again.
    auto moved = home.path() / "tmp.wav";
    writeWav(moved, 8000, 16'000);
    fs::rename(moved, song);
    facts = walk();
    auto third = nextRun.fill(facts, cancel);
    EXPECT_EQ(third.read, 1u);
    EXPECT_EQ(facts[1].duration, 2.0);

    EXPECT_FALSE(MediaIndex::decode("VLMEDIA1\x05")) << "a torn file reads as none";
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
