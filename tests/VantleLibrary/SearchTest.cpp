#include "VantleLibrary/ContentTypes.h"
#include "VantleLibrary/FileQueryRunner.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;
using Sort = FileQuery::Sort;

namespace {

const TimePoint searchNow = sys_days{2026y / March / 15} + 12h;

Facts file(std::string path, std::int64_t size, TimePoint modified, std::vector<std::string> origins = {}) {
    Facts f;
    f.name = path.substr(path.rfind('/') + 1);
    f.path = std::move(path);
    f.size = size;
    f.created = f.added = f.lastUsed = f.modified = modified;
    f.whereFroms = std::move(origins);
    return f;
}

// A small home, typed the way the catalog reads it.
struct SearchHome {
    std::vector<Facts> facts;
    SearchHome() {
        facts.push_back(file("/home/u/Pictures/beach.jpg", 2'000'000, searchNow - days(3)));
        facts.push_back(
            file("/home/u/Pictures/Screenshot from 2026-03-01 10-00-00.png", 300'000, searchNow - days(14)));
        facts.back().isScreenshot = true;
        facts.push_back(file("/home/u/Movies/trip.mp4", 300'000'000, searchNow - days(20)));
        facts.push_back(file("/home/u/Movies/old trip.mp4", 400'000'000, searchNow - days(400)));
        facts.push_back(
            file("/home/u/Downloads/statement.pdf", 90'000, searchNow - days(200),
                 {"https://mail-attachment.googleusercontent.com/x", "https://mail.google.com/mail/u/0/"}));
        facts.push_back(
            file("/home/u/Downloads/flyer.pdf", 80'000, searchNow - days(200), {"https://www.google.com/x"}));
        facts.push_back(file("/home/u/Downloads2/elsewhere.pdf", 70'000, searchNow - days(200)));
        facts.push_back(file("/home/u/Documents/Tax_Return-2023.pdf", 50'000, searchNow - days(300)));
        facts.push_back(file("/home/u/Documents/returns.txt", 10, searchNow - days(1)));
        facts.push_back(file("/home/u/Documents/Taxes", 4096, searchNow - days(2)));
        facts.back().isFolder = true;
        facts.push_back(file("/home/u/Camera/IMG_1.heic", 3'000'000, searchNow - days(5)));
        facts.back().cameraMake = "Canon";
        facts.back().cameraModel = "EOS R6";
        for (auto& f : facts)
            f.contentType = f.isFolder ? folderContentType : contentTypeForName(f.name);
    }
    std::vector<std::string> names(const FileQuery& q) const {
        std::vector<std::string> out;
        for (const auto& item : runQuery(q, facts).items)
            out.push_back(item.name);
        return out;
    }
    std::vector<std::string> search(std::string_view words) const {
        SearchParser parser([] { return searchNow; }, Calendar::fixed(0s), "/home/u");
        return names(parser.parse(words).query);
    }
};

using Names = std::vector<std::string>;

} // namespace

TEST(FileQueryRunner, PlainWordSearchesFindTheFilesTheyDescribe) {
    SearchHome home;
    EXPECT_EQ(home.search("pdfs from gmail older than 6 months"), Names{"statement.pdf"});
    EXPECT_EQ(home.search("pdfs from google"), Names{"flyer.pdf"})
        << "Gmail's files are not generic Google's";
    EXPECT_EQ(home.search("big videos from last month"), Names{"trip.mp4"});
    EXPECT_EQ(home.search("screenshots"), Names{"Screenshot from 2026-03-01 10-00-00.png"});
    EXPECT_EQ(home.search("pdfs in downloads"), (Names{"flyer.pdf", "statement.pdf"}));
    EXPECT_EQ(home.search("photos camera canon"), Names{"IMG_1.heic"});
    EXPECT_EQ(home.search("photos camera eos"), Names{"IMG_1.heic"});
    EXPECT_TRUE(home.search("photos camera nikon").empty());
}

TEST(FileQueryRunner, EmptySetsMatchEveryFileAndKindsAndExtensionsAddUp) {
    SearchHome home;
    FileQuery all;
    all.limit = 1000;
    auto everything = runQuery(all, home.facts);
    EXPECT_EQ(everything.total, static_cast<int>(home.facts.size()) - 1) << "every file, but not the folder";

    FileQuery photosAndPdfs;
    photosAndPdfs.kinds = {LibraryKind::images};
    photosAndPdfs.extensions = {"pdf"};
    photosAndPdfs.limit = 1000;
    EXPECT_EQ(runQuery(photosAndPdfs, home.facts).total, 7);
}

TEST(FileQueryRunner, NamesMatchWhateverTheirSeparatorsAndFoldersOnlyByName) {
    SearchHome home;
    EXPECT_EQ(home.search("\"tax return\""), Names{"Tax_Return-2023.pdf"});
    EXPECT_EQ(home.search("TAX"), (Names{"Taxes", "Tax_Return-2023.pdf"}))
        << "a name search answers folders too";
    EXPECT_EQ(home.search("tax pdfs"), Names{"Tax_Return-2023.pdf"});
    // Relevance: a name that is the term, then one that starts with it, then a word inside.
    EXPECT_EQ(home.search("trip"), (Names{"trip.mp4", "old trip.mp4"}));
    EXPECT_EQ(home.search("return"), (Names{"returns.txt", "Tax_Return-2023.pdf"}));
}

TEST(FileQueryRunner, SortsAndCutsAtTheLimitButCountsEveryMatch) {
    SearchHome home;
    FileQuery q;
    q.extensions = {"pdf"};
    q.sort = Sort::largest;
    q.limit = 2;
    auto answer = runQuery(q, home.facts);
    EXPECT_EQ(answer.total, 4);
    ASSERT_EQ(answer.items.size(), 2u);
    EXPECT_EQ(answer.items[0].name, "statement.pdf");
    EXPECT_EQ(answer.items[1].name, "flyer.pdf");

    q.limit = 10;
    q.sort = Sort::name;
    EXPECT_EQ(home.names(q), (Names{"elsewhere.pdf", "flyer.pdf", "statement.pdf", "Tax_Return-2023.pdf"}));
    q.sort = Sort::nameDescending;
    EXPECT_EQ(home.names(q).front(), "Tax_Return-2023.pdf");
    q.sort = Sort::oldest;
    EXPECT_EQ(home.names(q).front(), "Tax_Return-2023.pdf");
    q.sort = Sort::smallest;
    EXPECT_EQ(home.names(q).front(), "Tax_Return-2023.pdf");
    q.limit = 0;
    EXPECT_TRUE(runQuery(q, home.facts).items.empty());
    EXPECT_EQ(runQuery(q, home.facts).total, 4);
}

TEST(FileQueryRunner, DatesTestTheChosenFieldOrAnyOfThem) {
    SearchHome home;
    auto& photo = home.facts[0];
    photo.lastUsed = searchNow - days(400); // changed lately, not opened for long
    FileQuery q;
    q.kinds = {LibraryKind::images};
    q.before = searchNow - days(365);
    q.dateField = FileQuery::DateField::opened;
    EXPECT_EQ(home.names(q), Names{"beach.jpg"});
    q.dateField = FileQuery::DateField::modified;
    EXPECT_TRUE(home.names(q).empty());
    q.dateField = FileQuery::DateField::any;
    EXPECT_EQ(home.names(q), Names{"beach.jpg"});

    // After is inclusive, before exclusive.
    FileQuery exact;
    exact.after = searchNow - days(3);
    exact.before = searchNow - days(1);
    exact.dateField = FileQuery::DateField::modified;
    EXPECT_EQ(home.names(exact), (Names{"beach.jpg"}));
}

TEST(FileQueryRunner, SearchTimesItselfAndCarriesAPartialReadingsNote) {
    SearchHome home;
    Snapshot snapshot{home.facts, false, searchNow};
    Reading reading;
    reading.isComplete = false;
    reading.stop = Reading::Stop::entryLimit;
    reading.entries = 300'000;
    SearchParser parser([] { return searchNow; }, Calendar::fixed(0s), "/home/u");
    auto result = searchFiles(parser, "pdfs", snapshot, reading, 1);
    EXPECT_EQ(result.total, 4);
    EXPECT_EQ(result.items.size(), 1u);
    EXPECT_EQ(result.parsed.chips, Names{"PDFs"});
    ASSERT_TRUE(result.note);
    EXPECT_EQ(result.note, reading.note());
    EXPECT_GE(result.parsed.milliseconds, 0);
    EXPECT_FALSE(searchFiles(parser, "pdfs", snapshot, Reading{}, 1).note);
}
