#include "ScannerTestSupport.h"
#include "support/TempDir.h"

#include "Platform/IoPriority.h"
#include "VantleStorage/ItemId.h"
#include "VantleStorage/StorageScanner.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <unordered_set>

using namespace vantle;
using vantle::testing::allocatedBytesOf;
using vantle::testing::filled;
using vantle::testing::TempDir;

namespace {

class ScannerTest : public ::testing::Test {
  protected:
    TempDir dir;
    std::filesystem::path home = dir.mkdir("home");
    std::filesystem::path system = dir.mkdir("system");
    CancelFlag cancel;

    StorageScanner scanner() {
        StorageScanner::Options options;
        options.systemRoot = system;
        options.workers = 2;
        return StorageScanner(options);
    }

    StorageScan scan(ScanDepth depth, std::optional<std::set<std::string>> only = std::nullopt,
                     std::optional<std::filesystem::path> holding = std::nullopt) {
        auto s = scanner();
        auto result = s.scan(home, depth, only, false, holding, cancel);
        EXPECT_TRUE(result.has_value()) << (result ? "" : result.error().message);
        return result ? *result : StorageScan{};
    }

    std::filesystem::path write(const std::string& rel, std::size_t bytes) {
        return dir.write("home/" + rel, filled(bytes));
    }
};

const ScannedItem* itemAt(const StorageScan& scan, const std::string& path) {
    for (const auto& item : scan.items)
        if (item.path == path) return &item;
    return nullptr;
}

std::set<std::string> categoriesOf(const StorageScan& scan) {
    std::set<std::string> out;
    for (const auto& item : scan.items)
        out.insert(item.category);
    return out;
}

// Every block below `root` once, as an independent count to hold the scan's figures against.
std::int64_t diskUseBelow(const std::filesystem::path& root) {
    std::int64_t total = 0;
    std::unordered_set<std::uint64_t> seen;
    for (auto it = std::filesystem::recursive_directory_iterator(root);
         it != std::filesystem::recursive_directory_iterator(); ++it) {
        struct stat st {};
        if (::lstat(it->path().c_str(), &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) continue;
        if (st.st_nlink > 1 && !seen.insert(st.st_ino).second) continue;
        total += static_cast<std::int64_t>(st.st_blocks) * 512;
    }
    return total;
}

} // namespace

TEST_F(ScannerTest, FindsEachRulesItemsUnderTheirOwnRuleOnly) {
    auto pip = write("Library/Caches/pip/wheel.whl", 20'000);
    write("Library/Caches/com.apple.Safari/cache.db", 3'000);
    write("Library/Caches/SomeApp/blob", 7'000);
    write("Library/Caches/Google/AndroidStudio2024.1/index", 5'000);
    write(".cache/huggingface/hub/model.bin", 9'000);
    write(".cache/sometool/data", 1'000);

    auto result = scan(ScanDepth::rules);
    ASSERT_TRUE(result.complete);
    std::map<std::string, std::string> ruleOf;
    for (const auto& item : result.items)
        ruleOf[item.path.substr(home.string().size() + 1)] = item.category;
    EXPECT_EQ(ruleOf, (std::map<std::string, std::string>{
                          {".cache/huggingface", "huggingface_downloads"},
                          {".cache/sometool", "tool_caches"},
                          {"Library/Caches/Google/AndroidStudio2024.1", "ide_caches"},
                          {"Library/Caches/SomeApp", "app_caches"},
                          {"Library/Caches/com.apple.Safari", "apple_caches"},
                          {"Library/Caches/pip", "pip_cache"},
                      }));
    const ScannedItem* item = itemAt(result, (home / "Library/Caches/pip").string());
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->parts, (std::vector<std::string>{"Library", "Caches", "pip"}));
    EXPECT_EQ(item->facts.kind, EntryKind::folder);
    EXPECT_TRUE(item->facts.wasInspected);
    EXPECT_EQ(item->facts.tally.files, 1);
    EXPECT_EQ(item->facts.tally.allocatedBytes,
              allocatedBytesOf(pip) + allocatedBytesOf(home / "Library/Caches/pip"));
    struct stat st {};
    ::stat((home / "Library/Caches/pip").c_str(), &st);
    EXPECT_EQ(item->facts.identity, (FileIdentity{st.st_dev, st.st_ino}));
}

TEST_F(ScannerTest, ADepthRulesScanMeasuresNoFullRuleAndAFullScanMeasuresBoth) {
    write("Documents/report.txt", 4'000);
    write("Library/Caches/pip/wheel.whl", 2'000);
    write("projects/code.c", 1'000);
    dir.write("system/opt/tool/bin", filled(1'000));

    auto rules = scan(ScanDepth::rules);
    for (const auto& item : rules.items)
        EXPECT_EQ(RuleTable::shared().find(item.category)->depth, ScanDepth::rules) << item.id;
    EXPECT_TRUE(categoriesOf(rules).contains("pip_cache"));

    auto full = scan(ScanDepth::full);
    auto categories = categoriesOf(full);
    for (auto id : {"pip_cache", "documents", "home_other", "shared_tools"})
        EXPECT_TRUE(categories.contains(id)) << id;
}

TEST_F(ScannerTest, AFullScanCountsEveryBlockOfTheHomeExactlyOnce) {
    write("Documents/a.txt", 12'000);
    auto shared = write("Library/Caches/pip/shared.bin", 40'000);
    std::filesystem::create_directories(home / ".npm/_cacache");
    std::filesystem::create_hard_link(shared, home / ".npm/_cacache/same.bin");
    std::filesystem::create_hard_link(shared, home / "Documents/also.bin");
    write("Library/Preferences/app.plist", 3'000);
    write("Library/Caches/Tool/x", 6'000);
    write("Downloads/setup.dmg", 25'000);
    write("Downloads/notes.txt", 1'000);
    write(".hidden/deep/deeper/file", 2'000);

    auto result = scan(ScanDepth::full);
    std::int64_t total = 0;
    for (const auto& item : result.items)
        if (item.anchor == Anchor::home) total += item.facts.tally.allocatedBytes;
    // Library holds the caches' items, Downloads the installer: each is counted under one rule only.
    EXPECT_EQ(total, diskUseBelow(home));
    EXPECT_TRUE(itemAt(result, (home / "Downloads/setup.dmg").string()));
    EXPECT_EQ(itemAt(result, (home / "Downloads/setup.dmg").string())->category, "old_installers");
}

TEST_F(ScannerTest, AHardLinkSharedByTwoMatchedItemsIsCountedOnce) {
    auto file = write("Library/Caches/Yarn/pkg.tgz", 64'000);
    std::filesystem::create_directories(home / "Library/Caches/pip");
    std::filesystem::create_hard_link(file, home / "Library/Caches/pip/pkg.tgz");

    auto result = scan(ScanDepth::rules);
    auto yarn = itemAt(result, (home / "Library/Caches/Yarn").string());
    auto pip = itemAt(result, (home / "Library/Caches/pip").string());
    ASSERT_TRUE(yarn && pip);
    auto folders =
        allocatedBytesOf(home / "Library/Caches/Yarn") + allocatedBytesOf(home / "Library/Caches/pip");
    EXPECT_EQ(yarn->facts.tally.allocatedBytes + pip->facts.tally.allocatedBytes,
              allocatedBytesOf(file) + folders);
    EXPECT_EQ(yarn->facts.tally.reclaimableBytes + pip->facts.tally.reclaimableBytes, folders);
}

TEST_F(ScannerTest, HardLinksWhoseEveryNameIsInsideOneItemAreReclaimableNotPinned) {
    auto file = write("Library/Caches/pip/wheels/a.whl", 100'000);
    std::filesystem::create_directories(home / "Library/Caches/pip/http");
    std::filesystem::create_hard_link(file, home / "Library/Caches/pip/http/a.whl");
    // Two items of one category are freed together, so names split between them pin nothing either.
    auto split = write(".npm/_cacache/x.bin", 50'000);
    std::filesystem::create_directories(home / ".npm/_npx");
    std::filesystem::create_hard_link(split, home / ".npm/_npx/x.bin");
    // A name outside keeps the file alive.
    auto kept = write("Library/Caches/Yarn/k.tgz", 30'000);
    std::filesystem::create_hard_link(kept, home / "Documents-k.tgz");

    auto result = scan(ScanDepth::rules);
    auto pip = itemAt(result, (home / "Library/Caches/pip").string());
    auto cacache = itemAt(result, (home / ".npm/_cacache").string());
    auto npx = itemAt(result, (home / ".npm/_npx").string());
    auto yarn = itemAt(result, (home / "Library/Caches/Yarn").string());
    ASSERT_TRUE(pip && cacache && npx && yarn);
    EXPECT_EQ(pip->facts.tally.pinnedBytes, 0);
    EXPECT_EQ(pip->facts.tally.reclaimableBytes, pip->facts.tally.allocatedBytes);
    EXPECT_EQ(cacache->facts.tally.pinnedBytes + npx->facts.tally.pinnedBytes, 0);
    EXPECT_EQ(yarn->facts.tally.pinnedBytes, allocatedBytesOf(kept));
}

// Access times are what "last opened" and old installers are judged by; this mount is relatime, so
// any read of an entry whose access time is more than a day old rewrites it.
TEST_F(ScannerTest, AFullScanLeavesEveryAccessTimeExactlyAsItWas) {
    write("Downloads/setup.dmg", 20'000);
    write("Downloads/secret.sparseimage", 9'000);
    dir.write("home/Library/Developer/Xcode/DerivedData/App-abc/info.plist",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>LastAccessedDate</key>"
              "<date>2026-01-01T00:00:00Z</date></dict></plist>");
    write("Library/Caches/pip/http/x.whl", 3'000);
    write("Documents/letter.txt", 500);
    write("Applications/Tool/bin/tool", 800);
    auto old = std::chrono::system_clock::now() - std::chrono::days(90);
    timespec times[2] = {{std::chrono::system_clock::to_time_t(old), 0},
                         {std::chrono::system_clock::to_time_t(old), 0}};
    std::map<std::string, std::int64_t> before;
    std::vector<std::filesystem::path> all{home};
    for (auto& e : std::filesystem::recursive_directory_iterator(home))
        all.push_back(e.path());
    for (auto& p : all)
        ::utimensat(AT_FDCWD, p.c_str(), times, AT_SYMLINK_NOFOLLOW);
    auto accessed = [](const std::filesystem::path& p) {
        struct stat st {};
        ::lstat(p.c_str(), &st);
        return static_cast<std::int64_t>(st.st_atim.tv_sec);
    };
    for (auto& p : all)
        before[p.string()] = accessed(p);

    scan(ScanDepth::full);
    for (auto& p : all)
        EXPECT_EQ(accessed(p), before[p.string()]) << p;
}

TEST_F(ScannerTest, ALinkInsideACacheIsALinkWithNoSize) {
    auto target = dir.write("elsewhere/big.bin", filled(300'000));
    auto own = write("Library/Caches/Homebrew/bottle.tar", 1'000);
    std::filesystem::create_symlink(target, home / "Library/Caches/Homebrew/latest");
    std::filesystem::create_directory_symlink(dir / "elsewhere", home / "Library/Caches/SomeLink");

    auto result = scan(ScanDepth::rules);
    auto brew = itemAt(result, (home / "Library/Caches/Homebrew").string());
    ASSERT_TRUE(brew);
    EXPECT_EQ(brew->facts.tally.links, 1);
    EXPECT_EQ(brew->facts.tally.allocatedBytes,
              allocatedBytesOf(own) + allocatedBytesOf(home / "Library/Caches/Homebrew"));
    // A link taken as an item itself is never followed either.
    auto linked = itemAt(result, (home / "Library/Caches/SomeLink").string());
    ASSERT_TRUE(linked);
    EXPECT_EQ(linked->facts.kind, EntryKind::link);
    EXPECT_EQ(linked->facts.tally.links, 1);
    EXPECT_EQ(linked->facts.tally.allocatedBytes, 0);
    EXPECT_FALSE(linked->facts.wasInspected);
}

TEST_F(ScannerTest, AFolderOnAnotherDiskIsNotEntered) {
    write("Library/Caches/Yarn/own.tgz", 2'000);
    vantle::testing::TmpfsMount inCache(home / "Library/Caches/Yarn/attached");
    vantle::testing::TmpfsMount asItem(home / "Library/Caches/Mounted");
    if (!inCache.mounted() || !asItem.mounted())
        GTEST_SKIP() << "mounting a tmpfs needs root; the other-disk case is not exercised";
    write("Library/Caches/Yarn/attached/inside.bin", 400'000);
    write("Library/Caches/Mounted/inside.bin", 400'000);

    auto result = scan(ScanDepth::rules);
    auto yarn = itemAt(result, (home / "Library/Caches/Yarn").string());
    ASSERT_TRUE(yarn);
    EXPECT_EQ(yarn->facts.tally.mountPoints,
              std::vector<std::string>{(home / "Library/Caches/Yarn/attached").string()});
    EXPECT_LT(yarn->facts.tally.allocatedBytes, 400'000);
    auto mounted = itemAt(result, (home / "Library/Caches/Mounted").string());
    ASSERT_TRUE(mounted);
    EXPECT_FALSE(mounted->facts.wasInspected);
    EXPECT_EQ(mounted->facts.tally.allocatedBytes, 0);
    EXPECT_EQ(mounted->facts.tally.mountPoints,
              std::vector<std::string>{(home / "Library/Caches/Mounted").string()});
}

TEST_F(ScannerTest, UnreadablePlacesAreRecordedAndTheScanGoesOn) {
    write("Library/Caches/pip/locked/wheel.whl", 30'000);
    auto readable = write("Library/Caches/pip/open.whl", 1'000);
    write("Library/Logs/app/log.txt", 1'000);
    write("Library/Caches/Yarn/pkg.tgz", 1'000);
    std::filesystem::permissions(home / "Library/Caches/pip/locked", std::filesystem::perms::none);
    // A folder the search itself must read to find items below it.
    std::filesystem::permissions(home / "Library/Logs", std::filesystem::perms::none);

    std::expected<StorageScan, StorageScanError> result;
    {
        vantle::testing::AsOrdinaryUser user(dir.path());
        auto s = scanner();
        result = s.scan(home, ScanDepth::rules, std::nullopt, false, std::nullopt, cancel);
    }
    ASSERT_TRUE(result.has_value());
    auto pip = itemAt(*result, (home / "Library/Caches/pip").string());
    ASSERT_TRUE(pip);
    EXPECT_EQ(pip->facts.tally.ownershipRefusals, 1);
    EXPECT_EQ(pip->facts.tally.allocatedBytes, allocatedBytesOf(readable) +
                                                   allocatedBytesOf(home / "Library/Caches/pip") +
                                                   allocatedBytesOf(home / "Library/Caches/pip/locked"));
    EXPECT_TRUE(itemAt(*result, (home / "Library/Caches/Yarn").string()));
    ASSERT_EQ(result->gaps.size(), 1u);
    EXPECT_EQ(result->gaps[0].path, (home / "Library/Logs").string());
    EXPECT_EQ(result->gaps[0].reason, ScanGap::Reason::ownership);
}

TEST_F(ScannerTest, AnUnreadableHomeEndsTheScanWithItsSentence) {
    auto s = scanner();
    auto missing = home / "not-there";
    auto result = s.scan(missing, ScanDepth::rules, std::nullopt, false, std::nullopt, cancel);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().kind, StorageScanError::Kind::homeUnreadable);
    EXPECT_EQ(result.error().message,
              "The home folder " + missing.string() +
                  " could not be read, so storage was not measured. Tell the user; do not "
                  "estimate any size.");
    EXPECT_FALSE(s.latest());
}

TEST_F(ScannerTest, ItemIdsNameTheRuleAndStayTheSameFromScanToScan) {
    write("Library/Caches/pip/a", 100);
    write("Library/Caches/Yarn/b", 100);
    write("Downloads/one.dmg", 100);
    write("Downloads/two.dmg", 100);

    auto first = scan(ScanDepth::rules);
    write("Library/Caches/SomethingNew/c", 100);
    auto second = scan(ScanDepth::rules);

    std::map<std::string, std::string> idOf;
    std::set<std::string> ids;
    for (const auto& item : first.items) {
        EXPECT_TRUE(std::regex_match(item.id, std::regex(item.category + ":[0-9a-f]{6}"))) << item.id;
        idOf[item.path] = item.id;
        ids.insert(item.id);
    }
    EXPECT_EQ(ids.size(), first.items.size());
    for (const auto& item : second.items)
        if (idOf.contains(item.path)) EXPECT_EQ(item.id, idOf[item.path]) << item.path;
    EXPECT_EQ(second.items.size(), first.items.size() + 1);
}

TEST_F(ScannerTest, TheHoldingFolderIsListedAsHeldAndNeverCountedInACategory) {
    auto holding = home / ".vantle-lite/Holding";
    auto heldFile = dir.write("home/.vantle-lite/Holding/slot-1/old.dmg", filled(80'000));
    write(".vantle-lite/Library/storage.json", 500);

    StorageScanner::Options options;
    options.systemRoot = system;
    options.formerPlace = [](std::string_view slot) -> std::optional<std::vector<std::string>> {
        if (slot == "slot-1") return std::vector<std::string>{"Downloads", "old.dmg"};
        return std::nullopt;
    };
    StorageScanner s(options);
    auto result = s.scan(home, ScanDepth::full, std::nullopt, false, holding, cancel);
    ASSERT_TRUE(result.has_value());
    ASSERT_EQ(result->held.size(), 1u);
    const auto& held = result->held[0];
    EXPECT_EQ(held.category, "held");
    std::vector<std::string> former{"Downloads", "old.dmg"};
    EXPECT_EQ(held.id, heldItemId(former));
    EXPECT_EQ(held.path, (holding / "slot-1").string());
    EXPECT_EQ(held.facts.tally.allocatedBytes,
              allocatedBytesOf(heldFile) + allocatedBytesOf(holding / "slot-1"));

    auto data = itemAt(*result, (home / ".vantle-lite").string());
    ASSERT_TRUE(data);
    EXPECT_EQ(data->category, "home_other");
    EXPECT_LT(data->facts.tally.allocatedBytes, 80'000);
    for (const auto& item : result->items)
        EXPECT_EQ(item.path.find("/Holding"), std::string::npos) << item.path;
}

TEST_F(ScannerTest, ACancelledScanStopsEarlyAndIsNotKeptAsTheLatest) {
    for (int i = 0; i < 400; ++i)
        write("Documents/f" + std::to_string(i) + "/x", 10);
    auto s = scanner();
    std::int64_t lastEntries = 0;
    auto result = s.scan(home, ScanDepth::full, std::nullopt, false, std::nullopt, cancel,
                         [&](const ScanProgress& progress) {
                             if (progress.phase == ScanProgress::Phase::measuring) cancel.cancel();
                             lastEntries = progress.entries;
                         });
    ASSERT_TRUE(result.has_value());
    EXPECT_FALSE(result->complete);
    auto documents = itemAt(*result, (home / "Documents").string());
    ASSERT_TRUE(documents);
    EXPECT_LT(documents->facts.tally.files, 400);
    EXPECT_LT(lastEntries, 800);
    EXPECT_FALSE(s.latest());

    cancel.reset();
    auto again = s.scan(home, ScanDepth::full, std::nullopt, false, std::nullopt, cancel);
    ASSERT_TRUE(again && again->complete);
    EXPECT_EQ(itemAt(*again, (home / "Documents").string())->facts.tally.files, 400);
    EXPECT_EQ(s.latest(), *again);
}

TEST_F(ScannerTest, ABackgroundScanPutsTheDiskPriorityBack) {
    write("Library/Caches/pip/a", 100);
    int before = IdleIoPriority::current();
    int during = -2;
    auto s = scanner();
    auto result = s.scan(home, ScanDepth::rules, std::nullopt, true, std::nullopt, cancel,
                         [&](const ScanProgress&) { during = IdleIoPriority::current(); });
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(IdleIoPriority::current(), before);
    EXPECT_NE(during, before);
}

TEST_F(ScannerTest, ReadsXcodesOwnRecordOfWhenABuildFolderWasLastUsed) {
    write("Library/Developer/Xcode/DerivedData/App-abc/Build/x.o", 100);
    dir.write("home/Library/Developer/Xcode/DerivedData/App-abc/info.plist",
              R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
<key>LastAccessedDate</key><date>2026-01-02T03:04:05Z</date>
<key>WorkspacePath</key><string>/Users/u/App/App.xcodeproj</string>
</dict></plist>)");
    write("Library/Developer/Xcode/DerivedData/Other-def/Build/y.o", 100);
    dir.write("home/Library/Developer/Xcode/DerivedData/Other-def/info.plist", "not a property list");

    auto result = scan(ScanDepth::rules);
    auto app = itemAt(result, (home / "Library/Developer/Xcode/DerivedData/App-abc").string());
    auto other = itemAt(result, (home / "Library/Developer/Xcode/DerivedData/Other-def").string());
    ASSERT_TRUE(app && other);
    EXPECT_EQ(app->facts.ownersRecord, parseIsoDate("2026-01-02T03:04:05Z"));
    EXPECT_FALSE(other->facts.ownersRecord);
}

TEST_F(ScannerTest, AHugeSparseFileOrADeviceAsXcodesRecordWasReadWhole) {
    // A 20 GB sparse file (and a character device, a FIFO where the system lets us make them) in the
    // place of a build folder's info.plist used to be read whole before any size check.
    write("Library/Developer/Xcode/DerivedData/Huge-abc/Build/x.o", 100);
    auto huge = dir.write("home/Library/Developer/Xcode/DerivedData/Huge-abc/info.plist", "");
    ASSERT_EQ(::truncate(huge.c_str(), 20'000'000'000LL), 0);
    write("Library/Developer/Xcode/DerivedData/Fifo-def/Build/y.o", 100);
    auto fifo = home / "Library/Developer/Xcode/DerivedData/Fifo-def/info.plist";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    write("Library/Developer/Xcode/DerivedData/Zero-123/Build/z.o", 100);
    auto device = home / "Library/Developer/Xcode/DerivedData/Zero-123/info.plist";
    bool madeDevice = ::mknod(device.c_str(), S_IFCHR | 0600, ::makedev(1, 5)) == 0; // /dev/zero

    auto result = scan(ScanDepth::rules);
    for (std::string project : {"Huge-abc", "Fifo-def", "Zero-123"}) {
        if (project == "Zero-123" && !madeDevice) continue;
        auto item = itemAt(result, (home / "Library/Developer/Xcode/DerivedData" / project).string());
        ASSERT_TRUE(item) << project;
        EXPECT_FALSE(item->facts.ownersRecord) << project;
    }
    if (!madeDevice) GTEST_SKIP() << "the device case needs mknod, which this system refused";
}
