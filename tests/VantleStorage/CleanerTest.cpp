#include "CleanerTestSupport.h"

#include <csignal>
#include <fcntl.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vantle;
using namespace vantle::testing;
using namespace std::chrono_literals;

namespace {

std::int64_t allocatedOf(const std::filesystem::path& file) {
    struct stat st {};
    return ::lstat(file.c_str(), &st) == 0 ? static_cast<std::int64_t>(st.st_blocks) * 512 : 0;
}

// A pip cache and an app's cache, old enough to free, beside the user's own files.
class CleanerSafety : public CleanerTest {
  protected:
    void SetUp() override {
        write("Library/Caches/pip/http/a/one.whl", 40'000);
        write("Library/Caches/pip/http/b/two.whl", 30'000);
        write("Library/Caches/org.example.App/data.bin", 20'000);
        write("Documents/report.txt", 1000);
        write(".ssh/id_ed25519", 400);
        ::symlink("../Documents", (home / "Library/docs-link").c_str());
        ageTree(home, 40);
    }

    CleanReceipt clean(const StorageScan& s, std::vector<std::string> categories) {
        auto c = cleaner();
        auto plan = c.planRemoval(s, categories);
        EXPECT_TRUE(plan.has_value()) << (plan ? "" : plan.error().message);
        if (!plan) return {};
        auto receipt = c.carryOut(*plan, cancel);
        EXPECT_TRUE(receipt.has_value());
        return receipt ? *receipt : CleanReceipt{};
    }
};

TEST_F(CleanerSafety, CleaningACategoryDeletesItsItemsAndNothingElseInTheHome) {
    auto before = listing(home);
    auto s = scan();
    auto receipt = clean(s, {"pip_cache", "app_caches"});

    ASSERT_EQ(receipt.outcomes.size(), 2u);
    for (const auto& o : receipt.outcomes)
        EXPECT_EQ(o.result, CleanReceipt::ItemResult::removed) << o.item.name << ": " << o.words;
    EXPECT_FALSE(std::filesystem::exists(home / "Library/Caches/pip"));
    EXPECT_FALSE(std::filesystem::exists(home / "Library/Caches/org.example.App"));
    EXPECT_GE(receipt.freedBytes, 90'000);
    // Everything else, the folder that held them included, is exactly as it was.
    auto after = listing(home);
    auto expected =
        without(before, {"Library/Caches/pip", "Library/Caches/org.example.App", "Library/Caches"});
    EXPECT_EQ(without(after, {"Library/Caches"}), expected);
    EXPECT_TRUE(std::filesystem::is_directory(home / "Library/Caches"));
}

TEST_F(CleanerSafety, AnItemReplacedByALinkAfterTheScanIsRefusedAndNothingIsFollowed) {
    auto s = scan();
    auto c = cleaner();
    auto plan = c.planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(plan.has_value());
    // Between the preview and the yes, the cache becomes a link to the user's documents.
    std::filesystem::rename(home / "Library/Caches/pip", dir / "pip-elsewhere");
    std::filesystem::create_directory_symlink(home / "Documents", home / "Library/Caches/pip");
    auto before = listing(home);
    auto receipt = c.carryOut(*plan, cancel);
    ASSERT_TRUE(receipt.has_value());
    ASSERT_EQ(receipt->outcomes.size(), 1u);
    EXPECT_EQ(receipt->outcomes[0].result, CleanReceipt::ItemResult::leftAlone);
    EXPECT_EQ(receipt->outcomes[0].words,
              "It has become a link to somewhere else, and Vantle never follows a link.");
    EXPECT_EQ(listing(home), before);
    EXPECT_EQ(receipt->freedBytes, 0);
}

TEST_F(CleanerSafety, AFolderOnTheWaySwappedForALinkIsRefused) {
    auto s = scan();
    auto c = cleaner();
    auto plan = c.planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(plan.has_value());
    // Library/Caches now leads somewhere else that also has a "pip" in it.
    dir.write("decoy/pip/keep.txt", "mine");
    std::filesystem::rename(home / "Library/Caches", dir / "caches-moved");
    std::filesystem::create_directory_symlink(dir / "decoy", home / "Library/Caches");
    auto receipt = c.carryOut(*plan, cancel);
    ASSERT_TRUE(receipt.has_value());
    EXPECT_EQ(receipt->outcomes.at(0).words, "A folder on the way to it is missing or has become a link.");
    EXPECT_EQ(readFile(dir / "decoy/pip/keep.txt"), "mine");
}

TEST_F(CleanerSafety, TheSamePathWithANewInodeIsNotTheScannedItem) {
    auto s = scan();
    auto c = cleaner();
    auto plan = c.planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(plan.has_value());
    std::filesystem::remove_all(home / "Library/Caches/pip");
    write("Library/Caches/pip/new.whl", 100);
    ageTree(home / "Library/Caches/pip", 40);
    auto receipt = c.carryOut(*plan, cancel);
    ASSERT_TRUE(receipt.has_value());
    EXPECT_EQ(receipt->outcomes.at(0).words, "It is not the item that was scanned: something replaced it.");
    EXPECT_TRUE(std::filesystem::exists(home / "Library/Caches/pip/new.whl"));
}

TEST_F(CleanerSafety, AHardLinkToAFileOutsideLeavesThatFileWholeAndCountsNothingFreedForIt) {
    auto outside = write("Documents/big.bin", 200'000);
    std::filesystem::create_hard_link(outside, home / "Library/Caches/pip/http/a/big.bin");
    ageTree(home, 40);
    auto before = listing(home);
    auto s = scan(std::set<std::string>{"pip_cache"});
    auto receipt = clean(s, {"pip_cache"});
    ASSERT_EQ(receipt.outcomes.size(), 1u);
    EXPECT_EQ(receipt.outcomes[0].result, CleanReceipt::ItemResult::removed);
    EXPECT_EQ(readFile(outside), std::string(200'000, 'x'));
    // The shared blocks stay with the document, so they are never counted as freed.
    EXPECT_LT(receipt.freedBytes, 100'000);
    EXPECT_EQ(without(listing(home), {"Library/Caches"}), without(before, {"Library/Caches"}));
}

TEST_F(CleanerSafety, SomethingWrittenInTheLastTenMinutesIsLeftAlone) {
    auto s = scan();
    auto c = cleaner();
    auto plan = c.planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(plan.has_value());
    ASSERT_EQ(plan->items.size(), 1u);
    // pip writes into its cache after the preview.
    write("Library/Caches/pip/http/a/one.whl", 40'000);
    ageBy(home / "Library/Caches/pip/http/a/one.whl", 0);
    auto before = listing(home);
    auto receipt = c.carryOut(*plan, cancel);
    ASSERT_TRUE(receipt.has_value());
    EXPECT_EQ(receipt->outcomes.at(0).result, CleanReceipt::ItemResult::leftAlone);
    EXPECT_EQ(receipt->outcomes.at(0).words,
              "It was written to in the last few minutes, so something is using it.");
    EXPECT_EQ(listing(home), before);

    // Written a moment before the scan, it is not even planned.
    auto fresh = c.planRemoval(scan(), std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(fresh.has_value());
    EXPECT_TRUE(fresh->items.empty());
    ASSERT_EQ(fresh->leftAlone.size(), 1u);
    EXPECT_EQ(fresh->leftAlone[0].reason,
              "It was written to in the last few minutes, so something is using it.");
}

TEST_F(CleanerSafety, AChildProcessHoldingAFileOpenInsideAnItemKeepsItInPlace) {
    realProcesses = true;
    // The home of an ordinary person: the system's own services (which may keep their lists private
    // from root in a container) are not its owner's.
    if (::geteuid() == 0) ASSERT_EQ(::chown(home.c_str(), 4242, 4242), 0);
    auto held = home / "Library/Caches/pip/http/b/two.whl";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, held.c_str(), O_RDONLY, 0);
    pid_t child = 0;
    char sleepName[] = "sleep";
    char seconds[] = "60";
    char* argv[] = {sleepName, seconds, nullptr};
    ASSERT_EQ(posix_spawnp(&child, "sleep", &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    struct Reap {
        pid_t pid;
        ~Reap() {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
    } reap{child};
    // The child has its stdin open once its /proc entry shows it.
    for (int i = 0; i < 200; ++i) {
        std::error_code ec;
        if (std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/fd/0", ec) == held) break;
        ::usleep(10'000);
    }

    auto s = scan();
    auto plan = cleaner().planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(plan.has_value());
    ASSERT_EQ(plan->leftAlone.size(), 1u);
    EXPECT_EQ(plan->leftAlone[0].reason,
              "A running program has a file open in it, runs from it or works in it.");

    // Planned before the program opened it: carrying out checks again and leaves it.
    realProcesses = false;
    auto early = cleaner().planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(early.has_value());
    ASSERT_EQ(early->items.size(), 1u);
    realProcesses = true;
    auto receipt = cleaner().carryOut(*early, cancel);
    ASSERT_TRUE(receipt.has_value());
    EXPECT_EQ(receipt->outcomes.at(0).words,
              "A running program has a file open in it, runs from it or works in it.");
    EXPECT_TRUE(std::filesystem::exists(held));
}

TEST_F(CleanerSafety, AScanOlderThanFifteenMinutesCannotBePlannedAgainst) {
    auto s = scan();
    now += 15min + 1s;
    auto plan = cleaner().planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_FALSE(plan.has_value());
    EXPECT_EQ(plan.error().kind, CleanRefusal::Kind::staleScan);
    EXPECT_EQ(plan.error().message,
              "That scan is more than 15 minutes old. Scan again so the figures are current.");
}

TEST_F(CleanerSafety, APlanCarriedOutEightMinutesAndOneSecondLaterTouchesNothing) {
    auto s = scan();
    auto c = cleaner();
    auto plan = c.planRemoval(s, std::vector<std::string>{"pip_cache"});
    ASSERT_TRUE(plan.has_value());
    auto before = listing(home);
    now += 8min + 1s;
    auto receipt = c.carryOut(*plan, cancel);
    ASSERT_FALSE(receipt.has_value());
    EXPECT_EQ(receipt.error().kind, CleanRefusal::Kind::stalePlan);
    EXPECT_EQ(listing(home), before);
    // At exactly eight minutes it still goes ahead.
    now -= 1s;
    EXPECT_TRUE(c.carryOut(*plan, cancel).has_value());
}

TEST_F(CleanerSafety, ACategoryOfAnotherClassIsRefusedWithItsOwnWords) {
    write("Downloads/setup.dmg", 100);
    auto s = scan();
    auto c = cleaner();
    auto refusal = [&](std::string id) {
        auto plan = c.planRemoval(s, std::vector<std::string>{id});
        return plan ? std::string("planned") : plan.error().message;
    };
    EXPECT_EQ(refusal("old_installers"),
              "Old installers and disk images are never taken as a whole. The owner "
              "chooses each item by name, and only those are set aside.");
    EXPECT_EQ(refusal("uv_cache"),
              "Vantle does not delete uv cache itself: only the tool that owns it can do that "
              "safely. Run uv cache prune in Terminal.");
    EXPECT_EQ(refusal("apple_caches"), "Caches of macOS is looked after by macOS. Vantle never touches it.");
    EXPECT_EQ(refusal("documents"),
              "Documents is yours, so Vantle only shows its size and never deletes it.");
    EXPECT_EQ(refusal("applications"),
              "Applications is outside the home folder, and Vantle never deletes anything there.");
    EXPECT_TRUE(
        refusal("pip").starts_with("\"pip\" is not a storage category. The categories Vantle can clear are: "
                                   "xcode_build_data, xcode_caches, homebrew_downloads,"));
    EXPECT_TRUE(std::filesystem::exists(home / "Downloads/setup.dmg"));
}

TEST_F(CleanerSafety, AnItemPassedUnderARuleThatDoesNotMatchItIsRefused) {
    auto guard = ItemGuard(RuleTable::shared(), home);
    std::vector<std::string> parts{"Documents", "report.txt"};
    auto admitted = guard.admit("pip_cache", parts, {});
    ASSERT_FALSE(admitted.has_value());
    EXPECT_EQ(admitted.error().reason, "The rule for pip cache does not match it.");
    std::vector<std::string> dotted{"Library", "Caches", "..", "x"};
    EXPECT_EQ(guard.admit("app_caches", dotted, {}).error().reason,
              "Its location is not one a rule could have produced.");
    std::vector<std::string> keys{"Library", "Caches", ".ssh"};
    EXPECT_EQ(guard.admit("app_caches", keys, {}).error().reason, "It is in a place Vantle never changes.");
    EXPECT_EQ(guard.admit("documents", parts, {}).error().reason, "Vantle never deletes this kind of item.");
}

// Makes a file undeletable as the kernel's immutable flag does (root), or its folder read-only.
bool lock(const std::filesystem::path& file, bool on) {
    if (::geteuid() != 0) return ::chmod(file.parent_path().c_str(), on ? 0555 : 0755) == 0;
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;
    bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    ::close(fd);
    return ok;
}

TEST_F(CleanerSafety, APartlyRemovedTreeCountsOnlyWhatIsMeasuredGone) {
    auto locked = home / "Library/Caches/pip/http/b/two.whl";
    auto s = scan(std::set<std::string>{"pip_cache"});
    if (!lock(locked, true)) GTEST_SKIP() << "this file system cannot lock a file";
    auto receipt = clean(s, {"pip_cache"});
    lock(locked, false);
    ASSERT_EQ(receipt.outcomes.size(), 1u);
    EXPECT_EQ(receipt.outcomes[0].result, CleanReceipt::ItemResult::partlyRemoved);
    EXPECT_NE(receipt.outcomes[0].words.find("Deleted part of pip cache: "), std::string::npos)
        << receipt.outcomes[0].words;
    EXPECT_NE(receipt.outcomes[0].words.find(
                  "Part of it is locked or belongs to someone else, and was left in place."),
              std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(locked));
    EXPECT_FALSE(std::filesystem::exists(home / "Library/Caches/pip/http/a/one.whl"));
    // The locked file's space is not counted as freed.
    EXPECT_LE(receipt.freedBytes, receipt.outcomes[0].measuredBytes - allocatedOf(locked));
    EXPECT_GT(receipt.freedBytes, 0);
}

} // namespace
