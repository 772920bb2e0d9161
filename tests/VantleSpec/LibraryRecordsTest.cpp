#include "VantleSpec/LibraryRecords.h"

#include <gtest/gtest.h>

#include <unordered_set>

using namespace vantle;
using namespace std::chrono;

namespace {

TimePoint marchDay(int d) {
    return sys_days{2026y / March / d} + 9h + 30min + 15s + 250ms;
}

FileItem fullItem(std::string path) {
    FileItem item;
    item.path = std::move(path);
    item.name = "Holiday.mov";
    item.contentType = "video/quicktime";
    item.kind = LibraryKind::videos;
    item.size = 5'000'000'000; // beyond 32 bits on purpose
    item.created = marchDay(1);
    item.modified = marchDay(2);
    item.lastOpened = marchDay(3);
    item.added = marchDay(4);
    item.sources = {"https://mail.google.com/x", "message:%3Cabc%3E"};
    item.isScreenshot = true;
    item.length = 93.5;
    return item;
}

} // namespace

TEST(LibraryRecords, KindsAndListsKeepTheirOrderTitlesAndSymbols) {
    std::vector<std::string> kinds;
    for (auto k : allCases<LibraryKind>())
        kinds.push_back(std::string(nameOf(k)) + "|" + std::string(title(k)) + "|" + std::string(symbol(k)));
    EXPECT_EQ(kinds, (std::vector<std::string>{"images|Images|photo.on.rectangle", "videos|Videos|film",
                                               "music|Music|music.note", "documents|Documents|doc.text",
                                               "archives|Archives|archivebox", "apps|Apps|square.grid.2x2"}));

    std::vector<std::string> lists;
    for (auto l : allCases<SmartList>())
        lists.push_back(std::string(nameOf(l)) + "|" + std::string(title(l)) + "|" + std::string(symbol(l)));
    EXPECT_EQ(
        lists,
        (std::vector<std::string>{
            "recents|Recents|clock", "largeFiles|Large Files|externaldrive",
            "screenshots|Screenshots|camera.viewfinder", "duplicates|Duplicates|plus.square.on.square",
            "forgottenDownloads|Forgotten Downloads|arrow.down.circle",
            "oldScreenshots|Old Screenshots|camera.viewfinder", "oldInstallers|Old Installers|shippingbox",
            "bigOldVideos|Big Old Videos|film.stack", "unusedApps|Unused Apps|hourglass"}));

    EXPECT_EQ(allCases<FileQuery::Sort>().size(), 9u);
    EXPECT_EQ(nameOf(FileQuery::Sort::kindDescending), "kindDescending");
    EXPECT_EQ(nameOf(FileQuery::DateField::opened), "opened");
    EXPECT_EQ(enumFromName<FileQuery::DateField>("added"), FileQuery::DateField::added);
}

TEST(LibraryRecords, FileItemUsesTheFieldNamesAsKeysInOrder) {
    Json j = fullItem("/home/a/Movies/Holiday.mov");
    std::vector<std::string> keys;
    for (auto& [key, _] : j.items())
        keys.push_back(key);
    EXPECT_EQ(keys,
              (std::vector<std::string>{"path", "name", "contentType", "kind", "size", "created", "modified",
                                        "lastOpened", "added", "sources", "isScreenshot", "length"}));
    EXPECT_EQ(j["kind"], "videos");
    EXPECT_EQ(j["size"].get<std::int64_t>(), 5'000'000'000);
    EXPECT_EQ(j["added"], "2026-03-04T09:30:15.250Z");

    FileItem bare;
    bare.path = "/home/a/notes";
    Json b = bare;
    EXPECT_FALSE(b.contains("kind"));
    EXPECT_FALSE(b.contains("length"));
    EXPECT_FALSE(b.contains("created"));
    EXPECT_TRUE(b["sources"].is_array());
}

TEST(LibraryRecords, AnEmptySummaryStaysEmptyThroughJson) {
    LibrarySummary empty;
    empty.readAt = marchDay(6);
    auto back = decodeJson<LibrarySummary>(encodeJson(empty, 2));
    ASSERT_TRUE(back) << back.error();
    EXPECT_EQ(back->totalFiles, 0);
    EXPECT_EQ(back->totalBytes, 0);
    EXPECT_TRUE(back->categories.empty());
    EXPECT_FALSE(back->note);
    EXPECT_EQ(*back, empty);
}

TEST(LibraryRecords, DecodingRefusesWrongKindsAndMissingFields) {
    EXPECT_FALSE(decodeJson<FileItem>(R"({"path":"/a","name":"a","contentType":"x","kind":"movies","size":1,
        "sources":[],"isScreenshot":false})"));
    EXPECT_FALSE(
        decodeJson<LibrarySummary>(R"({"totalFiles":0,"totalBytes":0,"categories":[],"isPartial":false})"));
    EXPECT_FALSE(decodeJson<FileQuery>(R"({"kinds":["images"],"sort":"sideways"})"));
    EXPECT_FALSE(decodeJson<DuplicateLook>(R"({"groups":{},"isComplete":true})"));
}

TEST(LibraryRecords, DuplicateGroupFreesAllButOneCopy) {
    FileItem a{.path = "/a"}, b{.path = "/b"}, c{.path = "/c"};
    EXPECT_EQ((DuplicateGroup{"f", 4096, {a, b}}.freedBytes()), 4096);
    EXPECT_EQ((DuplicateGroup{"f", 3'000'000'000, {a, b, c}}.freedBytes()), 6'000'000'000);
    EXPECT_EQ((DuplicateGroup{"f", 4096, {}}.freedBytes()), 0);
}

TEST(LibraryRecords, ItemsHashByTheirPath) {
    std::unordered_set<FileItem> items{fullItem("/a"), fullItem("/b"), fullItem("/a")};
    EXPECT_EQ(items.size(), 2u);
    EXPECT_TRUE(items.contains(fullItem("/b")));
}
