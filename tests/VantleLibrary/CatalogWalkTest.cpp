#include "VantleLibrary/Catalog.h"
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/Library.h"
#include "VantleLibrary/SearchParser.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <linux/capability.h>
#include <map>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;

namespace {

std::map<std::string, Facts> byRelativePath(const Snapshot& snapshot, const std::filesystem::path& root) {
    std::map<std::string, Facts> out;
    for (const auto& facts : snapshot.facts)
        out[std::filesystem::path(facts.path).lexically_relative(root).string()] = facts;
    return out;
}

DiskWalk walkOf(const TempDir& home, std::int64_t limit = 300'000) {
    return DiskWalk{LibraryScope{home.path(), {}}, limit, systemNow() + hours(1), systemClock()};
}

void setAttribute(const std::filesystem::path& file, const char* name, std::string_view value) {
    ASSERT_EQ(::setxattr(file.c_str(), name, value.data(), value.size(), 0), 0) << name;
}

// Runs `work` on a thread that has given up the power to read past permissions, so a folder made
// unreadable stays unreadable even when the tests run as root. Capabilities are per thread.
template <class Work> void withoutOverride(Work work) {
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        ::syscall(SYS_capget, &header, data);
        for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH})
            data[0].effective &= ~(1u << cap);
        ::syscall(SYS_capset, &header, data);
        work();
    }).join();
}

} // namespace

TEST(DiskWalk, ReadsFactsFromStatusAndLeavesAttributesForLater) {
    TempDir home;
    auto report = home.write("Documents/Report.PDF", std::string(1234, 'x'));
    home.write("Pictures/Screenshot from 2026-03-01 10-00-00.png", "png");
    home.write("Pictures/Screenshot notes.txt", "not an image");
    setAttribute(report, "user.xdg.tags", "work");
    timespec times[2] = {{1'700'000'000, 0}, {1'600'000'000, 500'000'000}}; // access, modification
    ASSERT_EQ(::utimensat(AT_FDCWD, report.c_str(), times, 0), 0);

    CancelFlag cancel;
    auto out = walkOf(home).run(cancel);
    EXPECT_TRUE(out.snapshot.isWhole);
    EXPECT_TRUE(out.reading.isComplete);
    EXPECT_TRUE(out.reading.readDisk);
    EXPECT_FALSE(out.reading.note());
    auto facts = byRelativePath(out.snapshot, home.path());

    const auto& pdf = facts.at("Documents/Report.PDF");
    EXPECT_EQ(pdf.path, report.string());
    EXPECT_EQ(pdf.name, "Report.PDF");
    EXPECT_EQ(pdf.contentType, "application/pdf");
    EXPECT_EQ(pdf.kind(), LibraryKind::documents);
    EXPECT_EQ(pdf.size, 1234);
    EXPECT_EQ(pdf.modified, TimePoint(seconds(1'600'000'000) + milliseconds(500)));
    EXPECT_EQ(pdf.lastUsed, TimePoint(seconds(1'700'000'000)));
    ASSERT_TRUE(pdf.added);
    EXPECT_GT(*pdf.added, TimePoint(seconds(1'700'000'000))); // made now: birth (or change) time
    EXPECT_TRUE(pdf.tags.empty()) << "a second system call per file: read behind the walk";
    EXPECT_FALSE(pdf.isScreenshot);

    EXPECT_TRUE(facts.at("Pictures/Screenshot from 2026-03-01 10-00-00.png").isScreenshot);
    EXPECT_FALSE(facts.at("Pictures/Screenshot notes.txt").isScreenshot);
    EXPECT_TRUE(facts.at("Pictures").isFolder);
    EXPECT_FALSE(facts.at("Pictures").kind());

    auto item = toFileItem(pdf);
    EXPECT_EQ(item.lastOpened, pdf.lastUsed);
    EXPECT_EQ(item.modified, TimePoint(seconds(1'600'000'000) + milliseconds(500)));
    EXPECT_EQ(item.kind, LibraryKind::documents);
}

TEST(Catalog, ReadsDownloadOriginsAndTagsBehindTheWalkAndFindsFilesByThem) {
    TempDir home, data;
    auto report = home.write("Documents/Report.PDF", "pdf");
    auto zip = home.write("Downloads/photos.zip", "zip");
    auto again = home.write("Downloads/again.zip", "zip");
    home.write("Downloads/plain.zip", "zip");
    setAttribute(zip, "user.xdg.origin.url", "https://mail.google.com/mail/u/0/");
    setAttribute(zip, "user.xdg.referrer.url", "https://www.google.com/");
    setAttribute(again, "user.xdg.origin.url", "https://mail.google.com/x");
    setAttribute(again, "user.xdg.referrer.url", "https://mail.google.com/x"); // said once
    setAttribute(report, "user.xdg.tags", "work, taxes ,");
    setAttribute(report, "user.other", "ignored");
    // Enough files in one folder that the readers split it, each opening the folder itself.
    for (int i = 0; i < 700; ++i)
        home.write("Downloads/many/" + std::to_string(i) + ".txt", "x");
    auto last = home / "Downloads/many/699.txt";
    setAttribute(last, "user.xdg.tags", "last");

    Catalog::Options options{LibraryScope{home.path(), {}}};
    options.indexFile = data / "catalog.index";
    options.lateFactsDelay = hours(1); // asked for below: the wait is cut short
    Catalog catalog(options);
    CancelFlag cancel;
    SearchParser parser(systemClock(), Calendar::fixed(0s), home.path());

    auto walked = catalog.read(cancel);
    EXPECT_TRUE(walked.reading.attributesPending);
    auto before = byRelativePath(*walked.snapshot, home.path());
    EXPECT_TRUE(before.at("Downloads/photos.zip").whereFroms.empty());
    EXPECT_EQ(searchFiles(parser, "zips from gmail", *walked.snapshot, walked.reading).note,
              std::string(Reading::attributesPendingSentence))
        << "a search by source says what it may be missing";
    EXPECT_FALSE(searchFiles(parser, "zips", *walked.snapshot, walked.reading).note);
    const Facts* walkedFacts = walked.snapshot->facts.data(); // only compared, never read
    walked = {};

    // The origins come first: who needs only them does not wait for the photos and songs.
    auto read = catalog.readWithAttributes(cancel);
    EXPECT_FALSE(read.reading.attributesPending);
    EXPECT_EQ(read.snapshot->facts.data(), walkedFacts)
        << "added to the walk's own list, which nobody else held, not to a copy of it";
    auto facts = byRelativePath(*read.snapshot, home.path());
    EXPECT_EQ(facts.at("Documents/Report.PDF").tags, (std::vector<std::string>{"work", "taxes"}));
    EXPECT_TRUE(facts.at("Documents/Report.PDF").whereFroms.empty());
    EXPECT_EQ(facts.at("Downloads/photos.zip").whereFroms,
              (std::vector<std::string>{"https://mail.google.com/mail/u/0/", "https://www.google.com/"}));
    EXPECT_EQ(facts.at("Downloads/again.zip").whereFroms,
              std::vector<std::string>{"https://mail.google.com/x"});
    EXPECT_TRUE(facts.at("Downloads/plain.zip").whereFroms.empty());
    EXPECT_EQ(facts.at("Downloads/many/699.txt").tags, std::vector<std::string>{"last"});
    EXPECT_TRUE(facts.at("Downloads/many/698.txt").tags.empty()) << "nothing leaks to a neighbour";

    auto found = searchFiles(parser, "zips from gmail", *read.snapshot, read.reading);
    EXPECT_FALSE(found.note);
    EXPECT_EQ(found.total, 2);

    // What was read behind the walk is kept with it: a later run has it without reading again.
    auto whole = catalog.readWithMediaFacts(cancel);
    EXPECT_FALSE(whole.reading.mediaPending);
    Catalog later(options);
    auto kept = later.read(cancel);
    EXPECT_FALSE(kept.reading.attributesPending);
    EXPECT_FALSE(kept.reading.mediaPending);
    EXPECT_EQ(kept.snapshot->facts, read.snapshot->facts);
}

TEST(Catalog, AReadingThatEndsBeforeTheDelayNeverReadsLateFactsAndKeepsThemOwed) {
    TempDir home, data;
    auto zip = home.write("Downloads/photos.zip", "zip");
    setAttribute(zip, "user.xdg.origin.url", "https://mail.google.com/mail/u/0/");
    home.write("Pictures/damaged.jpg", "a photo the media reader would open and keep an entry for");
    Catalog::Options options{LibraryScope{home.path(), {}}};
    options.indexFile = data / "catalog.index";
    options.lateFactsDelay = hours(1); // a wait that is not cut short hangs the test
    CancelFlag cancel;
    {
        Catalog oneShot(options);
        EXPECT_TRUE(oneShot.read(cancel).reading.attributesPending);
    } // ends at once, not an hour later
    EXPECT_FALSE(std::filesystem::exists(data / "media.index")) << "the media reader never started";
    auto owed = CatalogIndex(data / "catalog.index", options.scope).load()->reading;
    EXPECT_TRUE(owed.attributesPending && owed.mediaPending) << "kept as owed, for the next run";

    // The next run that needs them reads them; a reading someone still holds stays as it was.
    Catalog next(options);
    auto held = next.read(cancel);
    auto read = next.readWithMediaFacts(cancel);
    EXPECT_FALSE(read.reading.mediaPending || read.reading.attributesPending);
    EXPECT_EQ(held.snapshot->facts.size(), read.snapshot->facts.size());
    EXPECT_TRUE(byRelativePath(*held.snapshot, home.path()).at("Downloads/photos.zip").whereFroms.empty());
    EXPECT_EQ(byRelativePath(*read.snapshot, home.path()).at("Downloads/photos.zip").whereFroms.size(), 1u);
    EXPECT_TRUE(std::filesystem::exists(data / "media.index"));
}

TEST(DiskWalk, LeavesOutHiddenNamesLibraryAndLinksButReadsCloudDocuments) {
    TempDir home;
    home.write(".bashrc", "x");
    home.write(".cache/big.bin", "x");
    home.write("Documents/.hidden.txt", "x");
    home.write("Documents/seen.txt", "x");
    home.write("Library/Caches/cache.db", "x");
    home.write("Library/Mobile Documents/com~apple~CloudDocs/cloud.txt", "x");
    home.write("Elsewhere/target.txt", "x");
    std::filesystem::create_symlink(home / "Elsewhere", home / "Documents/linked-folder");
    std::filesystem::create_symlink(home / "Elsewhere/target.txt", home / "Documents/linked.txt");

    CancelFlag cancel;
    auto facts = byRelativePath(walkOf(home).run(cancel).snapshot, home.path());
    std::vector<std::string> paths;
    for (auto& [path, f] : facts)
        if (!f.isFolder) paths.push_back(path);
    EXPECT_EQ(paths, (std::vector<std::string>{"Documents/seen.txt", "Elsewhere/target.txt",
                                               "Library/Mobile Documents/com~apple~CloudDocs/cloud.txt"}));
}

TEST(DiskWalk, AnAppBundleIsOneItemOfItsContentsSize) {
    TempDir home;
    home.write("Applications/Editor.app/Contents/MacOS/editor", std::string(1000, 'a'));
    home.write("Applications/Editor.app/Contents/Resources/icon.png", std::string(500, 'b'));
    home.write("Applications/notes.desktop", "[Desktop Entry]");

    CancelFlag cancel;
    auto out = walkOf(home).run(cancel);
    auto facts = byRelativePath(out.snapshot, home.path());
    ASSERT_TRUE(facts.contains("Applications/Editor.app"));
    const auto& app = facts.at("Applications/Editor.app");
    EXPECT_TRUE(app.isPackage);
    EXPECT_EQ(app.size, 1500);
    EXPECT_EQ(app.kind(), LibraryKind::apps);
    EXPECT_FALSE(facts.contains("Applications/Editor.app/Contents/Resources/icon.png"));
    EXPECT_EQ(facts.at("Applications/notes.desktop").kind(), LibraryKind::apps);
    // The bundle's insides still count as visited entries.
    EXPECT_EQ(out.reading.entries, 8);
}

TEST(DiskWalk, SeveralThreadsReadExactlyWhatOneReads) {
    TempDir home;
    for (int a = 0; a < 12; ++a)
        for (int b = 0; b < 12; ++b)
            for (int f = 0; f < 3; ++f)
                home.write("Documents/" + std::to_string(a) + "/" + std::to_string(b) + "/f" +
                               std::to_string(f) + ".txt",
                           std::string(static_cast<size_t>(a * b + f), 'x'));
    home.write("Applications/Big.app/Contents/a/b/c/data", std::string(999, 'x'));
    auto paths = [](const Snapshot& snapshot) {
        std::vector<std::pair<std::string, std::int64_t>> out;
        for (const auto& f : snapshot.facts)
            out.emplace_back(f.path, f.size);
        std::ranges::sort(out);
        return out;
    };
    CancelFlag cancel;
    auto one = walkOf(home);
    one.threads = 1;
    auto four = walkOf(home);
    four.threads = 4;
    auto a = one.run(cancel), b = four.run(cancel);
    EXPECT_EQ(paths(a.snapshot), paths(b.snapshot));
    EXPECT_EQ(a.reading.entries, b.reading.entries);
    EXPECT_EQ(a.snapshot.facts.size(),
              1u + 12 + 144 + 432 + 2); // Documents, 12, 144, 432 files, Applications, Big.app
    four.entryLimit = 300;
    auto limited = four.run(cancel);
    EXPECT_EQ(limited.reading.entries, 300);
    EXPECT_EQ(limited.reading.stop, Reading::Stop::entryLimit);
}

TEST(DiskWalk, TakesOnlyAppsFromApplicationFoldersOutsideTheHome) {
    TempDir base;
    base.write("home/Applications/Mine.app/Contents/x", "12");
    base.write("system/apps/editor.desktop", "[Desktop Entry]");
    base.write("system/apps/vendor/Tool.AppImage", "elf");
    base.write("system/apps/vendor/lib/libtool.so", "elf");
    base.write("system/apps/README", "text");
    CancelFlag cancel;
    auto out = DiskWalk{LibraryScope{base / "home",
                                     {base / "system/apps", base / "home/Applications", base / "none"}},
                        1000, systemNow() + hours(1)}
                   .run(cancel);
    std::vector<std::string> paths;
    for (const auto& f : out.snapshot.facts)
        paths.push_back(std::filesystem::path(f.path).lexically_relative(base.path()));
    std::ranges::sort(paths);
    // Mine.app once (the home's Applications is not read twice); the system folder gives its apps only.
    EXPECT_EQ(paths,
              (std::vector<std::string>{"home/Applications", "home/Applications/Mine.app",
                                        "system/apps/editor.desktop", "system/apps/vendor/Tool.AppImage"}));
    EXPECT_TRUE(out.reading.isComplete); // an absent application folder is not a missed one
}

TEST(DiskWalk, StopsAtTheEntryLimitAndSaysSo) {
    TempDir home;
    for (int i = 0; i < 12; ++i)
        home.write("Documents/f" + std::to_string(i) + ".txt", "x");
    CancelFlag cancel;

    auto roomy = walkOf(home, 14).run(cancel); // Documents + 12 files, one entry to spare
    EXPECT_TRUE(roomy.snapshot.isWhole);
    EXPECT_TRUE(roomy.reading.isComplete);
    EXPECT_EQ(roomy.reading.entries, 13);

    auto partial = walkOf(home, 10).run(cancel);
    EXPECT_FALSE(partial.snapshot.isWhole);
    EXPECT_FALSE(partial.reading.isComplete);
    EXPECT_EQ(partial.reading.stop, Reading::Stop::entryLimit);
    EXPECT_EQ(partial.snapshot.facts.size(), 10u);
    EXPECT_EQ(partial.reading.note(),
              "Only the first 10 items were read; the rest of the home folder was not looked at.");

    Reading big;
    big.stop = Reading::Stop::entryLimit;
    big.entries = 300'000;
    EXPECT_EQ(big.note(),
              "Only the first 300,000 items were read; the rest of the home folder was not looked at.");
}

// The walk cannot tell a home of exactly `limit` entries from a bigger one cut at the limit.
TEST(DiskWalk, AWalkThatReachesExactlyItsEntryLimitIsPartialAndSaysSo) {
    TempDir home;
    for (int i = 0; i < 12; ++i)
        home.write("Documents/f" + std::to_string(i) + ".txt", "x");
    CancelFlag cancel;
    auto exact = walkOf(home, 13).run(cancel);
    EXPECT_EQ(exact.snapshot.facts.size(), 13u);
    EXPECT_FALSE(exact.snapshot.isWhole);
    EXPECT_FALSE(exact.reading.isComplete);
    EXPECT_EQ(exact.reading.note(),
              "Only the first 13 items were read; the rest of the home folder was not looked at.");
}

TEST(DiskWalk, StopsAtItsDeadlineAndWhenCancelled) {
    TempDir home;
    for (int i = 0; i < 600; ++i)
        home.write("Music/s" + std::to_string(i) + ".mp3", "x");
    // A clock that moves one second per reading: the walk looks at it every few hundred entries.
    auto fake = std::make_shared<std::atomic<int>>(0);
    auto base = sys_days{2026y / May / 1};
    DiskWalk walk{LibraryScope{home.path(), {}}, 300'000, base + seconds(2),
                  [fake, base] { return TimePoint(base + seconds(fake->fetch_add(1))); }};
    CancelFlag cancel;
    auto out = walk.run(cancel);
    EXPECT_EQ(out.reading.stop, Reading::Stop::timeLimit);
    EXPECT_FALSE(out.snapshot.isWhole);
    EXPECT_LT(out.snapshot.facts.size(), 601u);
    EXPECT_GT(out.snapshot.facts.size(), 0u);
    EXPECT_EQ(out.reading.note(),
              "Reading stopped after 3 seconds; the rest of the home folder was not looked at.");

    cancel.cancel();
    auto stopped = walkOf(home).run(cancel);
    EXPECT_EQ(stopped.reading.stop, Reading::Stop::cancelled);
    EXPECT_TRUE(stopped.snapshot.facts.empty());
    EXPECT_EQ(stopped.reading.note(), "Reading was stopped before it finished.");
}

TEST(DiskWalk, AnUnreadableFolderIsMissedAndTheRestIsRead) {
    TempDir home;
    home.write("Private/secret.txt", "x");
    home.write("Private2/secret.txt", "x");
    home.write("Documents/open.txt", "x");
    ::chmod((home / "Private").c_str(), 0);

    DiskWalk::Outcome out;
    withoutOverride([&] {
        CancelFlag cancel;
        out = walkOf(home).run(cancel);
    });
    EXPECT_EQ(out.reading.missedContents, (std::vector<std::string>{(home / "Private").string()}));
    EXPECT_FALSE(out.reading.isComplete);
    EXPECT_TRUE(out.snapshot.isWhole); // no limit stopped it; the reading says what is missing
    EXPECT_EQ(out.reading.note(), "The folder " + (home / "Private").string() + " could not be read.");
    auto facts = byRelativePath(out.snapshot, home.path());
    EXPECT_TRUE(facts.contains("Documents/open.txt"));
    EXPECT_TRUE(facts.contains("Private2/secret.txt"));
    EXPECT_TRUE(facts.contains("Private")); // the folder itself is listed, its contents are not

    Reading many;
    many.missedContents = {"/h/a", "/h/b", "/h/c"};
    many.stop = Reading::Stop::entryLimit;
    many.entries = 5;
    EXPECT_EQ(many.note(), "Only the first 5 items were read; the rest of the home folder was not looked at. "
                           "3 folders could not be read, among them /h/a.");
}

TEST(DiskWalk, AFolderThatCanBeListedButNotSearchedIsMissed) {
    TempDir home;
    home.write("Listed/a.txt", "x");
    home.write("Listed/b.txt", "x");
    home.write("Apps/Tool.app/Contents/Shut/binary", "x");
    home.write("Documents/open.txt", "x");
    ::chmod((home / "Listed").c_str(), 0444); // read without execute
    ::chmod((home / "Apps/Tool.app/Contents/Shut").c_str(), 0);

    DiskWalk::Outcome out;
    withoutOverride([&] {
        CancelFlag cancel;
        out = walkOf(home).run(cancel);
    });
    auto missed = out.reading.missedContents;
    std::ranges::sort(missed);
    EXPECT_EQ(missed, (std::vector<std::string>{(home / "Apps/Tool.app/Contents/Shut").string(),
                                                (home / "Listed").string()}));
    EXPECT_FALSE(out.reading.isComplete);
    EXPECT_TRUE(byRelativePath(out.snapshot, home.path()).contains("Documents/open.txt"));
    ::chmod((home / "Listed").c_str(), 0755);
    ::chmod((home / "Apps/Tool.app/Contents/Shut").c_str(), 0755);
}

// Listing a folder on a relatime mount moves its access time when that is more than a day old, and
// access time is what the lists of things left alone go by.
TEST(DiskWalk, AWalkLeavesEveryAccessTimeAsItWas) {
    TempDir home;
    home.write("Documents/old.pdf", "pdf");
    home.write("Documents/Deep/er/note.txt", "x");
    home.write("Applications/Old.app/Contents/Info.plist", "<plist/>");
    home.write("Library/Mobile Documents/com~apple~CloudDocs/cloud.txt", "x");
    auto longAgo = systemNow() - days(90);
    timespec old{std::chrono::system_clock::to_time_t(longAgo), 0};
    // Listed once before the times are set: listing a folder is exactly what would move its time.
    std::vector<std::filesystem::path> entries{home.path()};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home.path()))
        entries.push_back(entry.path());
    for (const auto& entry : entries) {
        timespec times[2] = {old, {0, UTIME_OMIT}};
        ASSERT_EQ(::utimensat(AT_FDCWD, entry.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
    auto accessed = [&] {
        std::map<std::string, std::int64_t> out;
        for (const auto& entry : entries) {
            struct stat st {};
            ::lstat(entry.c_str(), &st);
            out[entry.string()] = st.st_atim.tv_sec;
        }
        return out;
    };
    auto before = accessed();
    ASSERT_EQ(before.at(home.path().string()), old.tv_sec);

    CancelFlag cancel;
    auto out =
        DiskWalk{LibraryScope{home.path(), {home / "Applications"}}, 300'000, systemNow() + hours(1)}.run(
            cancel);
    ASSERT_TRUE(out.reading.isComplete);
    EXPECT_EQ(accessed(), before);
}

TEST(DiskWalk, AnAppBundleIsSizedWithoutCrossingIntoAnotherDisk) {
    TempDir home;
    home.write("Applications/Foo.app/Contents/MacOS/foo", std::string(4, 'x'));
    auto mountPoint = home / "Applications/Foo.app/Contents/Mounted";
    std::filesystem::create_directories(mountPoint);
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=8m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    home.write("Applications/Foo.app/Contents/Mounted/big.bin", std::string(5'000'000, 'x'));
    CancelFlag cancel;
    auto out = walkOf(home).run(cancel);
    ::umount2(mountPoint.c_str(), MNT_DETACH);
    EXPECT_EQ(byRelativePath(out.snapshot, home.path()).at("Applications/Foo.app").size, 4);
}

TEST(DiskWalk, AMissingHomeIsMissedNotFatal) {
    TempDir base;
    CancelFlag cancel;
    auto out =
        DiskWalk{LibraryScope{base / "nobody", {base / "no-apps"}}, 10, systemNow() + hours(1)}.run(cancel);
    EXPECT_EQ(out.reading.missedContents, (std::vector<std::string>{(base / "nobody").string()}));
    EXPECT_TRUE(out.snapshot.facts.empty());
}

TEST(Catalog, DecidesUseWaitOrWalk) {
    auto now = sys_days{2026y / May / 1} + 12h;
    auto fresh = minutes(5);
    using N = Catalog::Next;
    using W = Catalog::Walk;
    EXPECT_EQ(Catalog::decide(W::ready, std::nullopt, false, now, fresh), N::walk);
    EXPECT_EQ(Catalog::decide(W::ready, now - minutes(1), false, now, fresh), N::use);
    EXPECT_EQ(Catalog::decide(W::ready, now - minutes(5), false, now, fresh), N::walk);
    EXPECT_EQ(Catalog::decide(W::ready, now - minutes(1), true, now, fresh), N::walk);
    EXPECT_EQ(Catalog::decide(W::ready, now + minutes(1), false, now, fresh), N::walk); // clock went back
    EXPECT_EQ(Catalog::decide(W::running, now - minutes(1), false, now, fresh), N::wait);
    EXPECT_EQ(Catalog::decide(W::running, std::nullopt, true, now, fresh), N::wait);
}

TEST(Catalog, ReusesAFreshSnapshotUntilAChangeIsHeard) {
    TempDir home;
    home.write("Documents/a.txt", "x");
    auto now = std::make_shared<TimePoint>(sys_days{2026y / May / 1} + 12h);
    Catalog catalog({LibraryScope{home.path(), {}}, false, seconds(30), 1000, seconds(20), seconds(300),
                     [now] { return *now; }});
    CancelFlag cancel;
    EXPECT_EQ(catalog.next(), Catalog::Next::walk);
    auto first = catalog.read(cancel);
    EXPECT_EQ(first.snapshot->facts.size(), 2u);
    EXPECT_EQ(catalog.next(), Catalog::Next::use);

    home.write("Documents/b.txt", "x");
    EXPECT_EQ(catalog.read(cancel).snapshot, first.snapshot); // nothing heard: the same snapshot

    catalog.noteChanges();
    EXPECT_EQ(catalog.next(), Catalog::Next::walk);
    auto second = catalog.read(cancel);
    EXPECT_NE(second.snapshot, first.snapshot);
    EXPECT_EQ(second.snapshot->facts.size(), 3u);
    EXPECT_EQ(catalog.changes(), 0);

    *now += seconds(301); // too old
    EXPECT_EQ(catalog.next(), Catalog::Next::walk);

    CancelFlag stop;
    stop.cancel();
    auto cancelled = catalog.read(stop);
    EXPECT_EQ(cancelled.reading.stop, Reading::Stop::cancelled);
    EXPECT_EQ(catalog.next(), Catalog::Next::walk); // a stopped walk is never reused
}

TEST(Catalog, ARequestDuringAWalkWaitsForThatWalk) {
    TempDir home;
    for (int i = 0; i < 5000; ++i)
        home.write("Documents/f" + std::to_string(i), "x");
    Catalog catalog({LibraryScope{home.path(), {}}, false, seconds(30), 300'000, seconds(60), seconds(300),
                     systemClock()});
    CancelFlag cancel;
    std::atomic<bool> reachedProgress{false}, release{false};
    Catalog::Result walked, waited;
    std::thread walker([&] {
        walked = catalog.read(cancel, [&](const DiskWalk::Progress&) {
            reachedProgress = true;
            while (!release)
                std::this_thread::yield();
        });
    });
    while (!reachedProgress)
        std::this_thread::yield();
    EXPECT_EQ(catalog.next(), Catalog::Next::wait);
    // A change heard during the walk keeps its snapshot stale for later requests, but a request
    // that arrives now still takes the running walk's snapshot rather than starting a second one.
    catalog.noteChanges();
    std::thread waiter([&] { waited = catalog.read(cancel); });
    while (catalog.waiting() == 0)
        std::this_thread::yield();
    release = true;
    walker.join();
    waiter.join();
    EXPECT_EQ(waited.snapshot, walked.snapshot);
    EXPECT_EQ(walked.snapshot->facts.size(), 5001u);
    EXPECT_EQ(catalog.next(), Catalog::Next::walk);
}

TEST(Library, KeepsItsSummaryForTheNextLaunchButNotAStoppedOne) {
    TempDir home, data;
    home.write("Pictures/a.jpg", "jpg");
    home.write("Music/b.mp3", "mp3");
    Library::Options options;
    options.summaryFile = data / "Library/summary.json";
    CancelFlag cancel;
    LibrarySummary first;
    {
        Library library(LibraryScope{home.path(), {}}, options);
        EXPECT_FALSE(library.keptSummary());
        first = library.summary(cancel);
        EXPECT_EQ(first.totalFiles, 2);
    }
    Library next(LibraryScope{home.path(), {}}, options);
    EXPECT_EQ(next.keptSummary(), first); // there before any reading

    home.write("Pictures/c.jpg", "jpg");
    CancelFlag stopped;
    stopped.cancel();
    auto partial = next.summary(stopped);
    EXPECT_TRUE(partial.isPartial);
    EXPECT_EQ(partial.note, std::string(Reading::cancelledSentence));
    EXPECT_EQ(Library(LibraryScope{home.path(), {}}, options).keptSummary(), first);

    auto fresh = next.summary(cancel);
    EXPECT_EQ(fresh.totalFiles, 3);
    EXPECT_EQ(Library(LibraryScope{home.path(), {}}, options).keptSummary(), fresh);
}
