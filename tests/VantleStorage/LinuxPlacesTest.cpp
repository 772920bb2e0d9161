#include "ScannerTestSupport.h"
#include "support/TempDir.h"

#include "VantleStorage/LinuxPlaceRules.h"
#include "VantleStorage/RuleTable.h"
#include "VantleStorage/StorageReport.h"
#include "VantleStorage/StorageScanner.h"

#include <gtest/gtest.h>

#include <map>
#include <sys/stat.h>
#include <unordered_set>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

RuleTable linuxTable(const LinuxPlaces& places = {}) {
    auto table = RuleTable::compile(shippedRules(), linuxPlaceRules(places));
    EXPECT_TRUE(table.has_value()) << (table ? "" : table.error());
    return std::move(*table);
}

// Every block at and below `root` once: the independent count the scan's figures are held against.
std::int64_t diskUseOf(const fs::path& root) {
    std::int64_t total = vantle::testing::allocatedBytesOf(root);
    if (!fs::is_directory(fs::symlink_status(root))) return total;
    std::unordered_set<std::uint64_t> seen;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        struct stat st {};
        if (::lstat(it->path().c_str(), &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) continue;
        if (st.st_nlink > 1 && !seen.insert(st.st_ino).second) continue;
        total += static_cast<std::int64_t>(st.st_blocks) * 512;
    }
    return total;
}

struct LinuxHome {
    TempDir dir;
    fs::path home = dir.mkdir("home/ada");
    CancelFlag cancel;

    void write(const std::string& rel, std::size_t bytes) {
        dir.write("home/ada/" + rel, std::string(bytes, 'x'));
    }

    // A home as a desktop Linux user's looks after a few months.
    void layOut() {
        write(".cache/pip/http-v2/a/b/entry", 20'000);
        write(".cache/pip/wheels/c/pkg.whl", 9'000);
        write(".cache/go-build/0a/0a12-d", 5'000);
        write(".cache/yarn/v6/npm-left-pad/index.js", 3'000);
        write(".cache/deno/deps/https/x", 2'000);
        write(".cache/Homebrew/downloads/wget.tar.gz", 7'000);
        write(".cache/pypoetry/virtualenvs/app-py3.12/pyvenv.cfg", 1'000);
        write(".cache/JetBrains/IntelliJIdea2024.1/index/i", 8'000);
        write(".cache/JetBrains/PyCharm2024.1/caches/c", 4'000);
        write(".cache/Google/AndroidStudio2024.1/caches/x", 4'500);
        write(".cache/mozilla/firefox/k3x.default-release/cache2/entries/E1", 30'000);
        write(".cache/google-chrome/Default/Cache/Cache_Data/f", 12'000);
        write(".cache/BraveSoftware/Brave-Browser/Default/Cache/f", 6'000);
        write(".cache/thumbnails/normal/0af.png", 3'000);
        write(".cache/huggingface/hub/model.bin", 9'000);
        write(".cache/fontconfig/cache-9", 1'200);
        write(".var/app/org.gnome.Maps/cache/tiles/t", 6'000);
        write(".var/app/org.gnome.Maps/data/places.db", 2'000);
        write(".local/state/myapp/logs/old.log", 2'500);
        write(".local/state/editor/editor.log", 1'100);
        write(".local/state/myapp/crashes/c1.dmp", 1'500);
        write(".local/state/nvim/shada/main.shada", 700);
        write(".local/share/Trash/files/old.txt", 4'000);
        write(".local/share/Trash/info/old.txt.trashinfo", 80);
        write(".local/share/recently-used.xbel", 500);
    }

    StorageScan scan(const RuleTable& table) {
        StorageScanner::Options options;
        options.table = &table;
        options.systemRoot.reset();
        options.workers = 2;
        StorageScanner scanner(options);
        auto result = scanner.scan(home, ScanDepth::rules, std::nullopt, false, std::nullopt, cancel);
        EXPECT_TRUE(result.has_value());
        return result ? *result : StorageScan{};
    }

    std::map<std::string, std::string> categories(const StorageScan& scan) const {
        std::map<std::string, std::string> out;
        for (const auto& item : scan.items)
            out[item.path.substr(home.string().size() + 1)] = item.category;
        return out;
    }
};

} // namespace

TEST(LinuxPlaces, ALinuxHomesPlacesGoToTheirOwnRulesAndTheirSizesMatchAnIndependentCount) {
    LinuxHome h;
    h.layOut();
    auto table = linuxTable();
    auto result = h.scan(table);
    ASSERT_TRUE(result.complete);
    EXPECT_EQ(h.categories(result), (std::map<std::string, std::string>{
                                        {".cache/BraveSoftware/Brave-Browser", "chromium_caches_linux"},
                                        {".cache/Google/AndroidStudio2024.1", "ide_caches_linux"},
                                        {".cache/Homebrew", "homebrew_downloads_linux"},
                                        {".cache/JetBrains/IntelliJIdea2024.1", "ide_caches_linux"},
                                        {".cache/JetBrains/PyCharm2024.1", "ide_caches_linux"},
                                        {".cache/deno", "deno_cache_linux"},
                                        {".cache/fontconfig", "tool_caches"},
                                        {".cache/go-build", "go_build_cache_linux"},
                                        {".cache/google-chrome", "chromium_caches_linux"},
                                        {".cache/huggingface", "huggingface_downloads"},
                                        {".cache/mozilla/firefox/k3x.default-release", "firefox_cache_linux"},
                                        {".cache/pip", "pip_cache_linux"},
                                        {".cache/pypoetry", "poetry_cache_linux"},
                                        {".cache/thumbnails", "thumbnails_linux"},
                                        {".cache/yarn", "yarn_cache_linux"},
                                        {".local/share/Trash", "trash_linux"},
                                        {".local/state/editor/editor.log", "app_logs_linux"},
                                        {".local/state/myapp/crashes/c1.dmp", "crash_reports_linux"},
                                        {".local/state/myapp/logs", "app_logs_linux"},
                                        {".var/app/org.gnome.Maps/cache", "flatpak_app_caches"},
                                    }))
        << "the folders holding an added rule's items (.cache/JetBrains, .cache/Google, .cache/mozilla, "
           ".cache/BraveSoftware) are no catch-all's item";

    std::map<std::string, std::int64_t> perCategory, expected;
    for (const auto& item : result.items) {
        EXPECT_EQ(item.facts.tally.allocatedBytes, diskUseOf(item.path)) << item.path;
        perCategory[item.category] += item.facts.tally.allocatedBytes;
    }
    expected["pip_cache_linux"] = diskUseOf(h.home / ".cache/pip");
    expected["ide_caches_linux"] = diskUseOf(h.home / ".cache/JetBrains") -
                                   vantle::testing::allocatedBytesOf(h.home / ".cache/JetBrains") +
                                   diskUseOf(h.home / ".cache/Google/AndroidStudio2024.1");
    expected["trash_linux"] = diskUseOf(h.home / ".local/share/Trash");
    for (const auto& [category, bytes] : expected)
        EXPECT_EQ(perCategory[category], bytes) << category;
}

TEST(LinuxPlaces, TheShippedTableAloneKeepsItsOwnLayoutAndTheAddedRowsChangeNoneOfIt) {
    LinuxHome h;
    h.write(".cache/pip/wheels/pkg.whl", 9'000);
    h.write(".cache/JetBrains/IntelliJIdea2024.1/index/i", 8'000);
    h.write("Library/Caches/pip/wheel.whl", 2'000);
    h.write("Library/Caches/JetBrains/IntelliJIdea2024.1/i", 2'000);
    h.write(".local/share/Trash/files/a", 100);
    h.write(".Trash/b", 100);

    auto shipped = h.categories(h.scan(RuleTable::shared()));
    EXPECT_EQ(shipped, (std::map<std::string, std::string>{
                           {".Trash", "trash"},
                           {".cache/JetBrains", "tool_caches"},
                           {".cache/pip", "tool_caches"},
                           {"Library/Caches/JetBrains/IntelliJIdea2024.1", "ide_caches"},
                           {"Library/Caches/pip", "pip_cache"},
                       }));
    auto table = linuxTable();
    auto withPlaces = h.categories(h.scan(table));
    EXPECT_EQ(withPlaces, (std::map<std::string, std::string>{
                              {".Trash", "trash"},
                              {".cache/JetBrains/IntelliJIdea2024.1", "ide_caches_linux"},
                              {".cache/pip", "pip_cache_linux"},
                              {".local/share/Trash", "trash_linux"},
                              {"Library/Caches/JetBrains/IntelliJIdea2024.1", "ide_caches"},
                              {"Library/Caches/pip", "pip_cache"},
                          }));

    // Every shipped row keeps its index and its words; the added rows follow them.
    ASSERT_EQ(table.size(), RuleTable::shared().size() + table.addedCount());
    for (std::size_t i = 0; i < RuleTable::shared().size(); ++i)
        EXPECT_EQ(table[i], RuleTable::shared()[i]);
}

TEST(LinuxPlaces, TheGuardAndTheWordsTreatTheAddedRowsAsTheShippedOnes) {
    auto table = linuxTable();
    auto tool = *table.indexOf("tool_caches");
    std::vector<std::string> jetbrains{".cache", "JetBrains"}, other{".cache", "fontconfig"};
    EXPECT_FALSE(table.matches(tool, jetbrains)) << "the catch-all would take the IDE's data with it";
    EXPECT_TRUE(table.matches(tool, other));
    EXPECT_TRUE(RuleTable::shared().matches(tool, jetbrains)) << "the shipped table alone is unchanged";

    const Rule* pip = table.find("pip_cache_linux");
    ASSERT_NE(pip, nullptr);
    EXPECT_TRUE(pip->letsSystemFree());
    EXPECT_EQ(pip->precondition.words(),
              "no pip process is found running; no program has a file open in it, "
              "runs from it or works in it; nothing in it changed in the last 10 minutes");
    EXPECT_FALSE(table.find("trash_linux")->letsSystemFree()) << "only the file manager empties the Trash";
    EXPECT_FALSE(table.find("ide_caches_linux")->letsSystemFree());

    // A cache folder set outside the home has no home-anchored rows; the state folder's app is
    // still the component just below it wherever that lies.
    auto moved = linuxPlaceRules({.cache = "", .data = ".local/share", .state = "st"});
    EXPECT_FALSE(std::ranges::any_of(moved, [](const Rule& r) { return r.id == "pip_cache_linux"; }));
    auto logs = std::ranges::find_if(moved, [](const Rule& r) { return r.id == "app_logs_linux"; });
    ASSERT_NE(logs, moved.end());
    EXPECT_EQ(logs->precondition.owner, Precondition::Owner::pathComponent(1));
}
