// Fixtures the cleaner and holding shelf tests share: a home whose files are old enough to free, a
// scan of it, and a listing of the whole home to compare before and after. Test-only.
#pragma once
#include "support/TempDir.h"

#include "VantleStorage/StorageCleaner.h"
#include "VantleStorage/StorageScanner.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>

namespace vantle::testing {

// Sets a file's or folder's access and change times `days` back, without following a link.
inline void ageBy(const std::filesystem::path& place, int days) {
    auto then = std::chrono::system_clock::now() - std::chrono::days(days);
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(then.time_since_epoch()).count();
    timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ::utimensat(AT_FDCWD, place.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

// Ages everything under `root` (and `root`), deepest first so a folder's own time is not moved by
// the files written into it afterwards.
inline void ageTree(const std::filesystem::path& root, int days) {
    std::vector<std::filesystem::path> all;
    for (auto& e : std::filesystem::recursive_directory_iterator(root))
        all.push_back(e.path());
    std::ranges::sort(all, std::greater<>{});
    for (auto& p : all)
        ageBy(p, days);
    ageBy(root, days);
}

// Every entry below `root`: type; for files, size, modification time and content; links by their
// target. What a clean may change shows up as a difference.
inline std::map<std::string, std::string> listing(const std::filesystem::path& root) {
    std::map<std::string, std::string> out;
    for (auto it = std::filesystem::recursive_directory_iterator(root);
         it != std::filesystem::recursive_directory_iterator(); ++it) {
        struct stat st {};
        ::lstat(it->path().c_str(), &st);
        std::ostringstream line;
        // A folder's own time moves whenever an entry comes or goes, so only its being there counts.
        line << (st.st_mode & S_IFMT);
        if (!S_ISDIR(st.st_mode)) line << " " << st.st_mtim.tv_sec;
        if (S_ISREG(st.st_mode)) {
            std::ifstream in(it->path(), std::ios::binary);
            line << " " << st.st_size << " " << std::string(std::istreambuf_iterator<char>(in), {});
        } else if (S_ISLNK(st.st_mode)) {
            line << " -> " << std::filesystem::read_symlink(it->path()).string();
        }
        out[std::filesystem::relative(it->path(), root).string()] = line.str();
    }
    return out;
}

// `before` without everything at or below the given places (relative to the home).
inline std::map<std::string, std::string> without(std::map<std::string, std::string> before,
                                                  std::initializer_list<std::string> places) {
    std::erase_if(before, [&](const auto& entry) {
        for (const auto& place : places)
            if (entry.first == place || entry.first.starts_with(place + "/")) return true;
        return false;
    });
    return before;
}

class CleanerTest : public ::testing::Test {
  protected:
    TempDir dir;
    std::filesystem::path home = dir.mkdir("home");
    CancelFlag cancel;
    TimePoint now = std::chrono::system_clock::now();
    RunningApps running; // nothing runs, and every open file is seen, unless a test says otherwise
    bool realProcesses = false;

    std::filesystem::path write(const std::string& rel, std::size_t bytes = 5000) {
        return dir.write("home/" + rel, std::string(bytes, 'x'));
    }

    StorageScan scan(std::optional<std::set<std::string>> only = std::nullopt, bool held = false) {
        StorageScanner::Options options;
        options.systemRoot.reset();
        options.workers = 2;
        options.now = [this] { return now; };
        if (held && shelfPtr) {
            options.formerPlace = [this](std::string_view slot) -> std::optional<std::vector<std::string>> {
                for (const auto& e : shelfPtr->entries())
                    if (e.slot == slot) return e.parts;
                return std::nullopt;
            };
        }
        StorageScanner scanner(options);
        auto result = scanner.scan(home, ScanDepth::rules, only, false, holding, cancel);
        EXPECT_TRUE(result.has_value());
        return result ? *result : StorageScan{};
    }

    StorageCleaner cleaner() {
        StorageCleaner::Options options;
        options.now = [this] { return now; };
        if (!realProcesses) options.running = [this] { return running; };
        return StorageCleaner(home, options);
    }

    std::filesystem::path holding = dir / "home/.vantle-lite/Holding";
    HoldingShelf* shelfPtr = nullptr;

    static const CleanReceipt::Outcome* outcomeFor(const CleanReceipt& receipt, std::string_view name) {
        for (const auto& o : receipt.outcomes)
            if (o.item.name == name) return &o;
        return nullptr;
    }
};

} // namespace vantle::testing
