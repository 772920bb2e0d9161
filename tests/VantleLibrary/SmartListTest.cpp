#include "VantleLibrary/Catalog.h"
#include "VantleLibrary/ContentTypes.h"
#include "VantleLibrary/LibrarySummaryStore.h"
#include "VantleLibrary/SmartLists.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;

namespace {

const TimePoint listNow = sys_days{2026y / June / 15} + 12h;
const std::string home = "/home/ada";

// A file last touched `daysAgo` (opened, changed and added all then).
Facts file(std::string relative, std::int64_t size, int daysAgo) {
    Facts f;
    f.path = home + "/" + relative;
    f.name = std::filesystem::path(relative).filename().string();
    f.contentType = std::string(contentTypeForName(f.name));
    f.isPackage = isAppBundleName(f.name);
    f.isFolder = f.isPackage;
    f.size = size;
    f.modified = f.added = f.lastUsed = listNow - days(daysAgo);
    f.isScreenshot = isScreenshotName(f.name, f.contentType);
    return f;
}

std::vector<std::string> names(const std::vector<FileItem>& items) {
    std::vector<std::string> out;
    for (const auto& item : items)
        out.push_back(item.name);
    return out;
}

Snapshot snapshotOf(std::vector<Facts> facts) {
    return Snapshot{std::move(facts), true, listNow};
}

} // namespace

TEST(SmartLists, EachListTakesWhatItsRuleSays) {
    SmartLists lists{home};
    const auto& rules = lists.rules();
    auto in = [&](SmartList list, const Facts& f) { return lists.contains(list, f, listNow); };

    EXPECT_TRUE(in(SmartList::recents, file("Documents/a.txt", 1, 29)));
    EXPECT_FALSE(in(SmartList::recents, file("Documents/a.txt", 1, 30)));

    EXPECT_TRUE(in(SmartList::largeFiles, file("Movies/a.bin", rules.largeFileBytes, 1)));
    EXPECT_FALSE(in(SmartList::largeFiles, file("Movies/a.bin", rules.largeFileBytes - 1, 1)));

    auto shot = file("Desktop/Screenshot_20260101_100000.png", 10, 31);
    EXPECT_TRUE(in(SmartList::screenshots, shot));
    EXPECT_TRUE(in(SmartList::oldScreenshots, shot));
    EXPECT_FALSE(in(SmartList::oldScreenshots, file("Desktop/Screenshot_20260101_100000.png", 10, 29)));
    EXPECT_FALSE(in(SmartList::oldScreenshots, file("Desktop/holiday.png", 10, 400)));

    EXPECT_TRUE(in(SmartList::forgottenDownloads, file("Downloads/sub/report.pdf", 10, 30)));
    EXPECT_FALSE(in(SmartList::forgottenDownloads, file("Downloads/report.pdf", 10, 29)));
    EXPECT_FALSE(in(SmartList::forgottenDownloads, file("Documents/report.pdf", 10, 300)));
    EXPECT_FALSE(
        in(SmartList::forgottenDownloads, file("Downloads2/report.pdf", 10, 300))); // not a prefix match

    EXPECT_TRUE(in(SmartList::oldInstallers, file("Downloads/Tool-1.2.DMG", 10, 14)));
    EXPECT_TRUE(in(SmartList::oldInstallers, file("Downloads/tool_1.2_amd64.deb", 10, 20)));
    EXPECT_FALSE(in(SmartList::oldInstallers, file("Downloads/tool.dmg", 10, 13)));
    EXPECT_FALSE(in(SmartList::oldInstallers, file("Downloads/tool.zip", 10, 100)));

    EXPECT_TRUE(in(SmartList::bigOldVideos, file("Movies/trip.mov", rules.bigVideoBytes, 180)));
    EXPECT_FALSE(in(SmartList::bigOldVideos, file("Movies/trip.mov", rules.bigVideoBytes - 1, 400)));
    EXPECT_FALSE(in(SmartList::bigOldVideos, file("Movies/trip.mov", rules.bigVideoBytes, 179)));
    EXPECT_FALSE(in(SmartList::bigOldVideos, file("Movies/trip.zip", rules.bigVideoBytes, 400)));

    EXPECT_TRUE(in(SmartList::unusedApps, file("Applications/Old.app", 5000, 90)));
    EXPECT_TRUE(in(SmartList::unusedApps, file("Applications/old.desktop", 50, 200)));
    EXPECT_FALSE(in(SmartList::unusedApps, file("Applications/New.app", 5000, 89)));
    EXPECT_FALSE(in(SmartList::duplicates, file("a.txt", 5, 5)));
}

TEST(SmartLists, UntouchedMeansNeitherOpenedNorChangedLately) {
    SmartLists lists{home};
    auto video = file("Movies/old.mkv", 300'000'000, 400);
    video.lastUsed = listNow - days(2); // watched last week: not old
    EXPECT_FALSE(lists.contains(SmartList::bigOldVideos, video, listNow));
    video.lastUsed.reset(); // a volume that keeps no access times: judged by the other dates
    EXPECT_TRUE(lists.contains(SmartList::bigOldVideos, video, listNow));
    video.added = listNow; // copied here today with its old dates kept: still old
    EXPECT_TRUE(lists.contains(SmartList::bigOldVideos, video, listNow));
    video.modified = video.added = std::nullopt; // no dates at all: never judged old
    EXPECT_FALSE(lists.contains(SmartList::bigOldVideos, video, listNow));
    Facts folder = file("Downloads/old", 0, 300);
    folder.isFolder = true;
    EXPECT_FALSE(lists.contains(SmartList::forgottenDownloads, folder, listNow));
}

TEST(SmartLists, ItemsComeInTheListsOrderUpToTheLimit) {
    SmartLists lists{home};
    auto snapshot =
        snapshotOf({file("Documents/old.txt", 5, 20), file("Documents/new.txt", 1, 1),
                    file("Documents/mid.txt", 900'000'000, 10), file("Movies/big.mov", 800'000'000, 50),
                    file("Movies/huge.mov", 2'000'000'000, 50)});
    EXPECT_EQ(names(lists.items(SmartList::recents, snapshot, listNow, 10)),
              (std::vector<std::string>{"new.txt", "mid.txt", "old.txt"}));
    EXPECT_EQ(names(lists.items(SmartList::largeFiles, snapshot, listNow, 2)),
              (std::vector<std::string>{"huge.mov", "mid.txt"}));
    EXPECT_TRUE(lists.items(SmartList::screenshots, snapshot, listNow, 10).empty());
    // A card of any list counts all of it and keeps the first few in the list's own order.
    auto recents = lists.card(SmartList::recents, snapshot, Reading{}, listNow, 2);
    EXPECT_EQ(recents.count, 3);
    EXPECT_EQ(recents.bytes, 900'000'006);
    EXPECT_EQ(names(recents.samples), (std::vector<std::string>{"new.txt", "mid.txt"}));
    EXPECT_EQ(lists.card(SmartList::duplicates, snapshot, Reading{}, listNow, 2).count, 0); // no look given
}

TEST(SmartLists, CardsCountBytesAndShowTheLargestSamples) {
    SmartLists lists{home};
    auto snapshot = snapshotOf({file("Downloads/a.dmg", 300, 40), file("Downloads/b.pkg", 700, 40),
                                file("Downloads/c.iso", 500, 40), file("Documents/fresh.txt", 1, 1)});
    Reading whole;
    auto cards = lists.cards(snapshot, whole, listNow, 2);
    std::vector<SmartList> shown;
    for (const auto& c : cards)
        shown.push_back(c.list);
    // The three installers are also forgotten downloads; nothing else qualifies.
    EXPECT_EQ(shown, (std::vector<SmartList>{SmartList::forgottenDownloads, SmartList::oldInstallers}));
    const auto& installers = cards[1];
    EXPECT_EQ(installers.count, 3);
    EXPECT_EQ(installers.bytes, 1500);
    EXPECT_EQ(names(installers.samples), (std::vector<std::string>{"b.pkg", "c.iso"}));
    EXPECT_EQ(installers.detail, "Installers left untouched for 14 days");
    EXPECT_FALSE(installers.isPartial);

    Reading partial;
    partial.isComplete = false;
    EXPECT_TRUE(lists.cards(snapshot, partial, listNow, 2)[0].isPartial);
    EXPECT_TRUE(lists.cards(snapshotOf({}), whole, listNow, 4).empty());
}

TEST(SmartLists, TheDuplicatesCardCountsExtraCopiesOnly) {
    SmartLists lists{home};
    FileItem a{.path = "/a", .name = "a"}, b{.path = "/b", .name = "b"}, c{.path = "/c", .name = "c"};
    FileItem d{.path = "/d", .name = "d"}, e{.path = "/e", .name = "e"};
    DuplicateLook look{{DuplicateGroup{"f1", 100, {a, b, c}}, DuplicateGroup{"f2", 1000, {d, e}}}, false};
    Reading whole;
    auto cards = lists.cards(snapshotOf({}), whole, listNow, 4, &look);
    ASSERT_EQ(cards.size(), 1u);
    EXPECT_EQ(cards[0].list, SmartList::duplicates);
    EXPECT_EQ(cards[0].count, 3);
    EXPECT_EQ(cards[0].bytes, 1200);
    EXPECT_EQ(names(cards[0].samples),
              (std::vector<std::string>{"e", "b"})); // a copy that would go, largest first
    EXPECT_TRUE(cards[0].isPartial);                 // the look stopped at its time limit
    EXPECT_EQ(names(lists.items(SmartList::duplicates, snapshotOf({}), listNow, 3, &look)),
              (std::vector<std::string>{"d", "e", "a"}));
}

TEST(SmartLists, DetailsNameTheirThresholds) {
    SmartLists lists{home};
    EXPECT_EQ(lists.detail(SmartList::largeFiles), "Files of 100 MB or more");
    EXPECT_EQ(lists.detail(SmartList::bigOldVideos), "Videos of 200 MB or more left untouched for 180 days");
    for (auto list : allCases<SmartList>())
        EXPECT_EQ(lists.detail(list).find('{'), std::string::npos);
    EXPECT_FALSE(SmartLists::isCleanUpList(SmartList::recents));
    EXPECT_TRUE(SmartLists::isCleanUpList(SmartList::unusedApps));
}

TEST(SummaryOf, CountsAndBytesPerKindWithTheNewestSamples) {
    auto snapshot = snapshotOf({file("Pictures/a.jpg", 10, 3), file("Pictures/b.png", 20, 1),
                                file("Pictures/c.heic", 30, 2), file("Music/s.mp3", 5, 9),
                                file("notes", 7, 1), file("Applications/Tool.app", 100, 5)});
    Facts folder = file("Pictures", 0, 1);
    folder.isFolder = true;
    folder.contentType = std::string(folderContentType);
    snapshot.facts.push_back(folder);
    Reading reading;
    auto summary = summaryOf(snapshot, reading, 2);
    EXPECT_EQ(summary.totalFiles, 6); // the folder is not a file; the bundle is one
    EXPECT_EQ(summary.totalBytes, 172);
    ASSERT_EQ(summary.categories.size(), 3u);
    EXPECT_EQ(summary.categories[0].kind, LibraryKind::images);
    EXPECT_EQ(summary.categories[0].count, 3);
    EXPECT_EQ(summary.categories[0].bytes, 60);
    EXPECT_EQ(names(summary.categories[0].samples), (std::vector<std::string>{"b.png", "c.heic"}));
    EXPECT_EQ(summary.categories[1].kind, LibraryKind::music);
    EXPECT_EQ(summary.categories[2].kind, LibraryKind::apps);
    EXPECT_EQ(summary.readAt, listNow);
    EXPECT_FALSE(summary.isPartial);
    EXPECT_FALSE(summary.note);

    reading.stop = Reading::Stop::entryLimit;
    reading.isComplete = false;
    reading.entries = 7;
    auto partial = summaryOf(snapshot, reading, 2);
    EXPECT_TRUE(partial.isPartial);
    EXPECT_EQ(partial.note, reading.note());
}

TEST(KeptSummary, RoundTripsThroughItsFileAndSurvivesABadOne) {
    TempDir data;
    auto stored = data / "Library/summary.json"; // Library/ does not exist yet
    {
        KeptSummary kept{stored};
        EXPECT_TRUE(kept.loaded());
        EXPECT_FALSE(kept.summary());
        LibrarySummary empty{0, 0, {}, toMilliseconds(listNow), false, std::nullopt};
        ASSERT_TRUE(kept.keep(empty));
    }
    KeptSummary again{stored};
    ASSERT_TRUE(again.summary());
    EXPECT_EQ(again.summary()->totalFiles, 0);
    EXPECT_TRUE(again.summary()->categories.empty());

    auto full = summaryOf(snapshotOf({file("Pictures/a.jpg", 10, 3)}), Reading{}, 4);
    ASSERT_TRUE(again.keep(full));
    EXPECT_EQ(KeptSummary{stored}.summary(), full);

    data.write("Library/summary.json", R"({"totalFiles": 3, "totalBytes": )"); // torn
    EXPECT_FALSE(KeptSummary{stored}.summary());
    data.write("Library/summary.json", R"({"something": "else"})");
    EXPECT_FALSE(KeptSummary{stored}.summary());

    // Regression: the summary was read through a link, which could lead to a FIFO or /dev/zero.
    KeptSummary{data / "elsewhere.json"}.keep(full);
    std::filesystem::remove(stored);
    std::filesystem::create_symlink(data / "elsewhere.json", stored);
    EXPECT_FALSE(KeptSummary{stored}.summary()) << "a link in the summary's place is not followed";
}

TEST(KeptSummary, AFailedSaveSaysWhyAndKeepsTheSummaryInMemory) {
    TempDir data;
    data.write("Library", "a file where the folder should be");
    KeptSummary kept{data / "Library/summary.json"};
    LibrarySummary summary{1, 2, {}, toMilliseconds(listNow), false, std::nullopt};
    auto saved = kept.keep(summary);
    ASSERT_FALSE(saved);
    EXPECT_TRUE(saved.error().starts_with("The library's summary could not be saved: ")) << saved.error();
    EXPECT_EQ(kept.summary(), summary);
    EXPECT_FALSE(KeptSummary{std::nullopt}.loaded());
}
