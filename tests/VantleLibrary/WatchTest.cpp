#include "VantleLibrary/ChangeWatcher.h"
#include "VantleLibrary/FolderWatcher.h"
#include "VantleLibrary/Library.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <unistd.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;

// These tests run the real event queue with a tiny quiet time, and wait for the watcher's signal as
// an event (with a generous bound for a loaded machine), never for a length of time.
namespace {

constexpr auto bound = milliseconds(10'000);

ChangeWatcher::Options quick(const std::filesystem::path& home) {
    ChangeWatcher::Options o;
    o.home = home;
    o.latency = ChangeTiming::Seconds(0);
    o.quiet = ChangeTiming::Seconds(0.02);
    o.longestWait = ChangeTiming::Seconds(0.2);
    o.cooldown = ChangeTiming::Seconds(0); // no backoff between bursts in these tests
    return o;
}

// The next signal, whose changes are all that was heard since the previous one.
std::int64_t nextChanges(ChangeStream& stream) {
    auto signal = stream.next(bound);
    return signal ? signal->changes : -1;
}

} // namespace

TEST(ChangeWatcher, TopLevelPathsLeaveOutHiddenNamesAndLibraryButKeepCloudDocuments) {
    TempDir home;
    home.mkdir("Documents");
    home.mkdir("Library/Caches");
    home.mkdir(".config");
    home.write("todo.txt", "x");
    EXPECT_EQ(ChangeWatcher::topLevelPaths(home.path()),
              (std::vector<std::string>{(home / "Documents").string(), (home / "todo.txt").string()}));
    home.mkdir("Library/Mobile Documents");
    EXPECT_EQ(
        ChangeWatcher::topLevelPaths(home.path()),
        (std::vector<std::string>{(home / "Documents").string(), (home / "Library/Mobile Documents").string(),
                                  (home / "todo.txt").string()}));
    EXPECT_TRUE(ChangeWatcher::topLevelPaths(home / "missing").empty());
}

TEST(ChangeWatcher, HearsChangesInNewFoldersAndNewTopLevelFolders) {
    TempDir home;
    home.mkdir("Documents/Old");
    ChangeWatcher watcher(quick(home.path()));
    auto stream = watcher.subscribe();
    ASSERT_TRUE(watcher.start());
    EXPECT_EQ(watcher.status().folders, 3u); // home, Documents, Documents/Old (Library is absent)

    home.write("Documents/Old/a.txt", "x"); // a folder that was there at start
    EXPECT_GT(nextChanges(*stream), 0);

    // A folder made while watching is watched, with what was made inside it before the watch.
    std::filesystem::create_directories(home / "Documents/New/Deeper");
    EXPECT_GT(nextChanges(*stream), 0);
    home.write("Documents/New/Deeper/b.txt", "x");
    EXPECT_GT(nextChanges(*stream), 0);

    // A new top-level folder changes the list: the watcher starts afresh over it.
    home.mkdir("Projects");
    EXPECT_GT(nextChanges(*stream), 0);
    EXPECT_EQ(watcher.status().paths,
              (std::vector<std::string>{(home / "Documents").string(), (home / "Projects").string()}));
    home.write("Projects/c.txt", "x");
    EXPECT_GT(nextChanges(*stream), 0);
    EXPECT_GE(watcher.status().filesChanged, 3);

    watcher.stop();
    EXPECT_TRUE(stream->ended());
    EXPECT_FALSE(watcher.status().running);
}

TEST(ChangeWatcher, IgnoresHiddenNamesAndLibraryButNotCloudDocuments) {
    TempDir home;
    home.mkdir("Documents");
    home.mkdir(".cache");
    home.mkdir("Library/Caches");
    ChangeWatcher watcher(quick(home.path()));
    auto stream = watcher.subscribe();
    ASSERT_TRUE(watcher.start());

    home.write(".cache/x", "x");
    home.write("Documents/.swap", "x");
    home.write("Library/Caches/x", "x");
    home.write(".profile", "x");
    // Then one change that counts, a new folder (a single event). Events arrive in order, so by its
    // signal everything before it has been handled: had a hidden file counted, files would show.
    home.mkdir("Documents/Seen");
    ASSERT_GT(nextChanges(*stream), 0);
    EXPECT_EQ(watcher.status().heard, 1);
    EXPECT_EQ(watcher.status().filesChanged, 0);

    home.mkdir("Library/Mobile Documents");
    EXPECT_GT(nextChanges(*stream), 0);
    EXPECT_EQ(watcher.status().paths,
              (std::vector<std::string>{(home / "Documents").string(),
                                        (home / "Library/Mobile Documents").string()}));
    home.write("Library/Mobile Documents/cloud.txt", "x");
    EXPECT_GT(nextChanges(*stream), 0);
}

TEST(ChangeWatcher, AQueueOverflowCountsAsAChange) {
    TempDir home;
    home.mkdir("Documents");
    auto options = quick(home.path());
    // Read events only once a second while they keep coming, so the kernel queue fills meanwhile.
    options.latency = ChangeTiming::Seconds(1);
    ChangeWatcher watcher(options);
    auto stream = watcher.subscribe();
    ASSERT_TRUE(watcher.start());
    std::ifstream limitFile("/proc/sys/fs/inotify/max_queued_events");
    long limit = 16384;
    limitFile >> limit;
    auto a = home.write("Documents/a", "x"); // read at once; the next read waits a second
    auto b = home.write("Documents/b", "x");
    ASSERT_GT(nextChanges(*stream), 0);
    // A change of mode is one event; alternating between two files keeps the kernel from merging
    // them. Twice what the queue holds, made well within the second.
    for (long i = 0; i < 2 * limit; ++i)
        ::chmod((i % 2 ? a : b).c_str(), i % 4 < 2 ? 0600 : 0644);
    while (watcher.status().overflows == 0)
        ASSERT_GT(nextChanges(*stream), 0) << "no signal; heard " << watcher.status().heard;
    EXPECT_LT(watcher.status().heard, 2 * limit); // what overflowed counted once
    EXPECT_GT(watcher.status().folders, 0u);      // watching again after starting afresh
    home.mkdir("Documents/after");
    EXPECT_GT(nextChanges(*stream), 0);
}

TEST(FolderWatcher, HearsItsOwnEntriesOnly) {
    TempDir home;
    home.mkdir("Shown/Inner");
    FolderWatcher watcher(
        {home / "Shown", ChangeTiming::Seconds(0), ChangeTiming::Seconds(0.02), systemClock()});
    auto stream = watcher.subscribe();
    ASSERT_TRUE(watcher.start());
    home.write("Shown/Inner/deep.txt", "x"); // inside a sub-folder: not this folder's entries
    home.mkdir("Shown/New");                 // one event, after the one that must not count
    ASSERT_TRUE(stream->next(bound));
    EXPECT_EQ(watcher.status().heard, 1);
    EXPECT_EQ(watcher.status().folders, 1u);
}

TEST(Library, AChangeSignalMakesTheCatalogStale) {
    TempDir home;
    home.write("Documents/a.txt", "x");
    Library::Options options;
    options.changeLatency = ChangeTiming::Seconds(0);
    options.changeQuiet = ChangeTiming::Seconds(0.02);
    options.changeCooldown = ChangeTiming::Seconds(0);
    Library library(LibraryScope{home.path(), {}}, options);
    CancelFlag cancel;
    EXPECT_EQ(library.summary(cancel).totalFiles, 1);
    ASSERT_TRUE(library.startWatching());
    auto stream = library.changes();
    EXPECT_EQ(library.catalog().next(), Catalog::Next::use);
    home.write("Documents/b.txt", "x");
    ASSERT_TRUE(stream->next(bound));
    // The library was told before the listeners' streams.
    EXPECT_EQ(library.catalog().next(), Catalog::Next::walk);
    EXPECT_EQ(library.summary(cancel).totalFiles, 2);
}
