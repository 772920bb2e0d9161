#include "VantleLibrary/Library.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;

namespace {

struct DuplicatesHome {
    TempDir home, data;
    DuplicatesHome() {
        home.write("Documents/report.pdf", std::string(40'000, 'r'));
        home.write("Downloads/report (1).pdf", std::string(40'000, 'r'));
        home.write("Documents/other.pdf", std::string(40'000, 'o'));
    }
    Library::Options options(bool onDemand) const {
        Library::Options o;
        o.useSpotlight = false;
        o.duplicatesOnDemand = onDemand;
        o.fingerprintFile = data / "Library/fingerprints.json";
        return o;
    }
};

const CleanUpCard* duplicatesCard(const std::vector<CleanUpCard>& cards) {
    for (const auto& c : cards)
        if (c.list == SmartList::duplicates) return &c;
    return nullptr;
}

} // namespace

TEST(LibraryDuplicates, FindsCopiesAmongTheCatalogAndKeepsTheirFingerprints) {
    DuplicatesHome h;
    Library library(LibraryScope{h.home.path(), {}}, h.options(true));
    CancelFlag cancel;
    auto scan = library.findDuplicates(cancel);
    EXPECT_TRUE(scan.isComplete);
    ASSERT_EQ(scan.groups.size(), 1u);
    EXPECT_EQ(scan.groups[0].items.size(), 2u);
    EXPECT_EQ(scan.candidates, 3);
    EXPECT_TRUE(std::filesystem::exists(h.data / "Library/fingerprints.json"));

    // A new library (the next launch) knows every file from its fingerprints.
    Library next(LibraryScope{h.home.path(), {}}, h.options(true));
    auto again = next.findDuplicates(cancel);
    EXPECT_EQ(again.bytesRead, 0);
    EXPECT_EQ(again.groups, scan.groups);
}

TEST(LibraryDuplicates, OnDemandTheCardsReadNoFileUntilAsked) {
    DuplicatesHome h;
    CancelFlag cancel;
    Library onDemand(LibraryScope{h.home.path(), {}}, h.options(true));
    auto cards = onDemand.cleanUpCards(cancel);
    EXPECT_FALSE(duplicatesCard(cards));
    EXPECT_FALSE(onDemand.duplicates().latest()) << "no scan was made";
    EXPECT_FALSE(std::filesystem::exists(h.data / "Library/fingerprints.json"));
    // Once asked, the cards show what the scan found.
    onDemand.findDuplicates(cancel);
    auto askedCards = onDemand.cleanUpCards(cancel);
    auto* card = duplicatesCard(askedCards);
    ASSERT_TRUE(card);
    EXPECT_EQ(card->bytes, 40'000);

    Library always(LibraryScope{h.home.path(), {}}, h.options(false));
    auto alwaysCards = always.cleanUpCards(cancel);
    auto* scanned = duplicatesCard(alwaysCards);
    ASSERT_TRUE(scanned);
    EXPECT_EQ(scanned->count, 1);
    EXPECT_EQ(scanned->bytes, 40'000);
}

TEST(LibraryDuplicates, AHeardChangeMakesTheNextAskScanAgain) {
    DuplicatesHome h;
    Library library(LibraryScope{h.home.path(), {}}, h.options(true));
    CancelFlag cancel;
    auto first = library.findDuplicates(cancel);
    ASSERT_EQ(first.groups.size(), 1u);
    h.home.write("Desktop/report copy.pdf", std::string(40'000, 'r'));
    EXPECT_EQ(library.findDuplicates(cancel), first) << "nothing heard yet: the fresh scan answers";
    library.duplicates().noteChanges();
    library.catalog().noteChanges(1);
    auto second = library.findDuplicates(cancel);
    ASSERT_EQ(second.groups.size(), 1u);
    EXPECT_EQ(second.groups[0].items.size(), 3u);
}

TEST(LibraryDuplicates, AFreshKeptIndexAnswersAsTheWalkDidAndAStaleOneLeavesItToAReading) {
    DuplicatesHome h;
    h.home.write("Documents/same-size.txt", std::string(40'000, 's')); // shares a size, not contents
    auto now = std::make_shared<TimePoint>(std::chrono::sys_days{std::chrono::May / 1 / 2026});
    auto options = h.options(true);
    options.catalogFile = h.data / "Library/catalog.index";
    options.now = [now] { return *now; };
    const LibraryScope scope{h.home.path(), {}};
    CancelFlag cancel;
    EXPECT_FALSE(Library(scope, options).findDuplicatesInKeptIndex(cancel)) << "no index is kept yet";
    auto walked = Library(scope, options).findDuplicates(cancel); // walks and keeps the index

    Library next(scope, options);
    auto fromIndex = next.findDuplicatesInKeptIndex(cancel);
    ASSERT_TRUE(fromIndex);
    EXPECT_EQ(fromIndex->groups, walked.groups) << "the same copies, each item with all its facts";
    EXPECT_EQ(fromIndex->candidates, 4);
    EXPECT_EQ(fromIndex->bytesRead, 0);

    // The index only says which files to look at: a copy edited since is read again, not trusted.
    h.home.write("Downloads/report (1).pdf", std::string(40'000, 'R'));
    auto edited = Library(scope, options).findDuplicatesInKeptIndex(cancel);
    ASSERT_TRUE(edited);
    EXPECT_TRUE(edited->groups.empty());

    *now += std::chrono::minutes(6); // past the walk's freshness
    EXPECT_FALSE(Library(scope, options).findDuplicatesInKeptIndex(cancel));
}
