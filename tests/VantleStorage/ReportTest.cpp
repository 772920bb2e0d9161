#include "support/TempDir.h"

#include "VantleStorage/ItemId.h"
#include "VantleStorage/StorageReport.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;

namespace {

const TimePoint reportNow = sys_days{2026y / November / 21} + 12h;
const RuleTable& table = RuleTable::shared();

ScannedItem item(const std::string& rule, const std::string& rel, std::int64_t bytes,
                 TimePoint lastWrite = reportNow - 90 * 24h) {
    ScannedItem out;
    out.category = rule;
    out.anchor = table.find(rule)->anchor;
    for (auto part : std::filesystem::path(rel))
        out.parts.push_back(part.string());
    out.id = itemId(rule, out.anchor, out.parts);
    out.name = out.parts.back();
    out.path = "/home/u/" + rel;
    out.facts.kind = EntryKind::folder;
    out.facts.wasInspected = true;
    out.facts.modified = lastWrite;
    out.facts.added = lastWrite;
    out.facts.opened = lastWrite;
    out.facts.tally.files = 1;
    out.facts.tally.folders = 1;
    out.facts.tally.allocatedBytes = bytes;
    out.facts.tally.reclaimableBytes = bytes;
    out.facts.tally.newestWrite = lastWrite;
    out.facts.tally.newestFolderChange = lastWrite;
    return out;
}

StorageScan scanOf(std::vector<ScannedItem> items, ScanDepth depth = ScanDepth::rules) {
    StorageScan scan;
    scan.home = "/home/u";
    scan.depth = depth;
    scan.startedAt = scan.finishedAt = reportNow;
    scan.items = std::move(items);
    return scan;
}

const StorageReport::Category* categoryOf(const StorageReport& report, std::string_view id) {
    for (const auto& c : report.categories)
        if (c.id == id) return &c;
    return nullptr;
}

} // namespace

TEST(StorageReportFigures, GroupCategoriesByClassAndCountOnlyWhatTheSystemMayFree) {
    auto installer = item("old_installers", "Downloads/app.dmg", 5'000);
    installer.facts.kind = EntryKind::file;
    auto scan = scanOf({
        item("pip_cache", "Library/Caches/pip", 1'000),
        item("app_caches", "Library/Caches/Fresh", 2'000,
             reportNow - 2min),                // written just reportNow: not freeable reportNow
        item("uv_cache", ".cache/uv", 40'000), // the owner's tool only
        installer,
        item("documents", "Documents", 70'000),
        item("apple_caches", "Library/Caches/com.apple.Safari", 300),
    });
    scan.held.push_back(item("pip_cache", "Downloads/held.dmg", 9'999));
    scan.held.back().id = heldItemId(scan.held.back().parts);
    scan.held.back().category = "held";

    auto report = makeStorageReport(scan, table, {}, reportNow);
    std::vector<std::string> order;
    for (const auto& c : report.categories)
        order.push_back(c.id);
    EXPECT_EQ(order, (std::vector<std::string>{"pip_cache", "uv_cache", "app_caches", "old_installers",
                                               "documents", "apple_caches"}));
    EXPECT_EQ(report.reclaimableBytes, 1'000 + 2'000 + 5'000);
    EXPECT_EQ(report.freeableNowBytes, 1'000);
    EXPECT_EQ(report.preconditionHolds, 1);
    EXPECT_EQ(report.chosenItemByItem, 1);
    ASSERT_EQ(report.held.size(), 1u);
    EXPECT_EQ(report.held[0].bytes, 9'999);
    EXPECT_EQ(categoryOf(report, "pip_cache")->bytes, 1'000); // the held item is in no category

    auto pip = categoryOf(report, "pip_cache");
    EXPECT_EQ(pip->items, (std::vector<StorageReport::Item>{{scan.items[0].id, scan.items[0].path, 1'000}}));
    EXPECT_EQ(pip->precondition, table.find("pip_cache")->precondition.words());
}

TEST(StorageReportFigures, ThePreconditionFailsOnWhatTheDiskShowsUnsafe) {
    const Rule& pip = *table.find("pip_cache");
    EXPECT_TRUE(preconditionHoldsOnDisk(pip, item("pip_cache", "Library/Caches/pip", 1).facts, reportNow));

    auto recent = item("pip_cache", "Library/Caches/pip", 1);
    recent.facts.tally.newestFolderChange = reportNow - 9min;
    EXPECT_FALSE(preconditionHoldsOnDisk(pip, recent.facts, reportNow));

    auto withSocket = item("pip_cache", "Library/Caches/pip", 1);
    withSocket.facts.tally.meetingPoints = 1;
    EXPECT_FALSE(preconditionHoldsOnDisk(pip, withSocket.facts, reportNow));

    auto withLogin = item("pip_cache", "Library/Caches/pip", 1);
    withLogin.facts.tally.keepsakes = {"Library/Caches/pip/credentials.json"};
    EXPECT_FALSE(preconditionHoldsOnDisk(pip, withLogin.facts, reportNow));

    auto partlyRead = item("pip_cache", "Library/Caches/pip", 1);
    partlyRead.facts.tally.ownershipRefusals = 1;
    EXPECT_FALSE(preconditionHoldsOnDisk(pip, partlyRead.facts, reportNow));

    auto link = item("pip_cache", "Library/Caches/pip", 1);
    link.facts.kind = EntryKind::link;
    EXPECT_FALSE(preconditionHoldsOnDisk(pip, link.facts, reportNow));
}

TEST(StorageReportFigures, AgeIsReadFromTheRulesOwnSignal) {
    // Crash reports: 30 days since the last change.
    const Rule& crashes = *table.find("crash_reports");
    EXPECT_TRUE(preconditionHoldsOnDisk(crashes, item("crash_reports", "x", 1, reportNow - 31 * 24h).facts,
                                        reportNow));
    EXPECT_FALSE(preconditionHoldsOnDisk(crashes, item("crash_reports", "x", 1, reportNow - 29 * 24h).facts,
                                         reportNow));

    // Old installers: arrived long ago and not opened since.
    const Rule& installers = *table.find("old_installers");
    auto opened = item("old_installers", "Downloads/a.dmg", 1, reportNow - 60 * 24h);
    opened.facts.opened = reportNow - 2 * 24h;
    EXPECT_FALSE(preconditionHoldsOnDisk(installers, opened.facts, reportNow));
    opened.facts.opened = reportNow - 45 * 24h;
    EXPECT_TRUE(preconditionHoldsOnDisk(installers, opened.facts, reportNow));

    // A catch-all takes a folder nobody names only after a quiet day.
    const Rule& appCaches = *table.find("app_caches");
    EXPECT_FALSE(
        preconditionHoldsOnDisk(appCaches, item("app_caches", "x", 1, reportNow - 5h).facts, reportNow));
    EXPECT_TRUE(
        preconditionHoldsOnDisk(appCaches, item("app_caches", "x", 1, reportNow - 25h).facts, reportNow));

    // Xcode's own record of last use decides; without it the age is not known.
    const Rule& derived = *table.find("xcode_build_data");
    auto project =
        item("xcode_build_data", "Library/Developer/Xcode/DerivedData/App-abc", 1, reportNow - 90 * 24h);
    EXPECT_FALSE(preconditionHoldsOnDisk(derived, project.facts, reportNow));
    project.facts.ownersRecord = reportNow - 40 * 24h;
    EXPECT_TRUE(preconditionHoldsOnDisk(derived, project.facts, reportNow));
}

TEST(StorageReportText, ShowsHeadingsCostsPreconditionsAndTheIdsToChooseFrom) {
    auto installer = item("old_installers", "Downloads/app.dmg", 5'000'000);
    auto shared = item("gradle_caches", ".gradle/caches", 3'000'000);
    shared.facts.tally.reclaimableBytes = 1'000'000;
    shared.facts.tally.pinnedBytes = 2'000'000;
    auto scan = scanOf({item("pip_cache", "Library/Caches/pip", 1'500'000), shared, installer,
                        item("uv_cache", ".cache/uv", 1'000), item("documents", "Documents", 1)});
    scan.held.push_back(item("old_installers", "Downloads/older.dmg", 7'000'000));
    scan.held.back().id = "held:0a1b2c";
    scan.gaps.push_back({"/home/u/Library/Mail", ScanGap::Reason::privacy, "Operation not permitted"});

    auto text = storageReportText(makeStorageReport(scan, table, {}, reportNow));
    auto at = [&](std::string_view words) { return text.find(words); };
    // Class by class, A first; this copy frees nothing, and says so.
    const std::string measuresOnlyA =
        "Safe to delete, a whole category at a time; made again when needed unless "
        "its line says otherwise. This copy of Vantle measures it and deletes nothing "
        "(class A)\n";
    const std::string headingA =
        "Can be deleted for good, a whole category at a time; made again when needed "
        "unless its line says otherwise (class A)\n";
    const std::string headingB = "\nWorth a look; never taken as a category (class B)\n";
    const std::string headingC = "\nYours, shown only (class C)\n";
    ASSERT_NE(at(measuresOnlyA), std::string::npos) << text;
    EXPECT_EQ(at(headingA), std::string::npos);
    EXPECT_LT(at(measuresOnlyA), at(headingB));
    EXPECT_LT(at(headingB), at(headingC));
    EXPECT_NE(at("pip cache (pip_cache): 1.5 MB, 1 item\n"), std::string::npos) << text;
    EXPECT_NE(at("What freeing costs: pip downloads again on the next install. Vantle measures it and frees "
                 "nothing yet."),
              std::string::npos);
    EXPECT_NE(at("Freed only when " + table.find("pip_cache")->precondition.words() + "."),
              std::string::npos);
    EXPECT_NE(at("3 MB (1 MB would come back; the rest is shared with files that stay)"), std::string::npos)
        << text;
    EXPECT_NE(at(*table.find("uv_cache")->instruction), std::string::npos);
    // Class B: listed item by item, by id, and the held items apart.
    EXPECT_NE(
        at("Items worth a look one by one. This copy of Vantle lists them and does not set them aside:\n"),
        std::string::npos);
    EXPECT_NE(at("  " + installer.id + "  /home/u/Downloads/app.dmg  5 MB\n"), std::string::npos) << text;
    EXPECT_NE(
        at("Set aside earlier and still taking up space; Vantle never deletes these (put_back_storage takes "
           "these ids):\n  held:0a1b2c"),
        std::string::npos)
        << text;
    EXPECT_NE(
        at("/home/u/Library/Mail could not be read, so its size is not known. This Mac did not let Vantle "
           "read it. Full Disk Access in System Settings opens it."),
        std::string::npos);
    const std::string hint =
        "This scan measured only what Vantle can free or point at. Scan everything to see the "
        "user's own folders and the system too.";
    EXPECT_NE(at(hint), std::string::npos);

    StorageAbilities all{true, true, true};
    auto able =
        storageReportText(makeStorageReport(scanOf(scan.items, ScanDepth::full), table, all, reportNow));
    EXPECT_NE(able.find(headingA), std::string::npos);
    EXPECT_NE(
        able.find("Items that can be set aside, each only if the user chooses it by name (set_aside_storage "
                  "takes these ids):\n"),
        std::string::npos);
    EXPECT_EQ(able.find("Vantle measures it and frees nothing yet."), std::string::npos);
    EXPECT_EQ(able.find(hint), std::string::npos);
}

TEST(StorageReportText, SaysWhenCategoriesWereOnlyPartlyRead) {
    auto locked = item("pip_cache", "Library/Caches/pip", 1'000);
    locked.facts.tally.ownershipRefusals = 2;
    auto text = storageReportText(makeStorageReport(
        scanOf({locked, item("pip_cache", "Library/Caches/pip2", 1)}), table, {}, reportNow));
    EXPECT_NE(text.find(", 2 items (1 of them could not be read)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Part of it could not be read, so it may hold more."), std::string::npos);
    EXPECT_EQ(text.find("Full Disk Access"), std::string::npos);
}

TEST(StorageReportKept, RoundTripsThroughTheDataFolderAndRefusesABrokenFile) {
    TempDir data;
    auto scan = scanOf({item("pip_cache", "Library/Caches/pip", 1'000)});
    auto report = makeStorageReport(scan, table, {}, reportNow);
    EXPECT_FALSE(loadKeptStorageReport(data.path()).has_value());
    ASSERT_TRUE(keepStorageReport(data.path(), report, scan).has_value());

    auto kept = loadKeptStorageReport(data.path());
    ASSERT_TRUE(kept.has_value()) << kept.error();
    EXPECT_EQ(kept->report, report);
    EXPECT_EQ(kept->scan, scan);

    auto json = Json::parse(vantle::testing::readFile(data / "Library/storage.json"));
    const auto& category = json["report"]["categories"][0];
    EXPECT_EQ(category["items"][0]["id"], scan.items[0].id);
    EXPECT_EQ(category["items"][0]["bytes"], 1'000);
    for (auto key : {"freeableNowBytes", "reclaimableBytes", "preconditionHolds", "chosenItemByItem"})
        EXPECT_TRUE(json["report"].contains(key)) << key;

    data.write("Library/storage.json", "{\"report\": 12");
    auto broken = loadKeptStorageReport(data.path());
    ASSERT_FALSE(broken.has_value());
    EXPECT_NE(broken.error().find("could not be read"), std::string::npos);
}

TEST(StorageReportText, ANameHoldingANewlineWasSplitAcrossTwoLines) {
    auto report =
        makeStorageReport(scanOf({item("old_installers", "Downloads/two\nlines\x1b[2J.dmg", 5'000)}), table,
                          StorageAbilities{true, true, true}, reportNow);
    auto text = storageReportText(report);
    EXPECT_NE(text.find("/home/u/Downloads/two$'\\n'lines$'\\033'[2J.dmg  "), std::string::npos) << text;
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; ++at)
        EXPECT_FALSE(text.compare(at + 1, 6, "lines") == 0) << "no line begins with the name's second half";
}
