#include "VantleLiteLive/HomeTrash.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sys/mount.h>
#include <unistd.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

HomeTrash sandboxTrash(const TempDir& dir) {
    fs::create_directories(dir / "home/Downloads");
    fs::create_directories(dir / "home/Library/Caches");
    return HomeTrash({.home = dir / "home",
                      .appFolders = {dir / "Applications", dir / "home/Applications"},
                      .place = dir / "home/.Trash"});
}

std::string run(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        std::array<char, 512> buffer{};
        while (size_t n = std::fread(buffer.data(), 1, buffer.size(), pipe))
            out.append(buffer.data(), n);
        if (::pclose(pipe) != 0) out = "failed: " + out;
    }
    return out;
}

} // namespace

TEST(HomeTrash, DownloadsItselfIsRefusedButAFileInItIsMoved) {
    TempDir dir;
    auto trash = sandboxTrash(dir);
    auto file = fs::canonical(dir.write("home/Downloads/setup.run", "x"));
    auto receipt = trash.trash({dir / "home/Downloads", file});
    ASSERT_EQ(receipt.refused.size(), 1u);
    EXPECT_EQ(receipt.refused[0], "Downloads is one of your Mac's own folders.");
    ASSERT_EQ(receipt.moved.size(), 1u);
    EXPECT_EQ(receipt.moved[0].from, file);
    EXPECT_TRUE(fs::exists(dir / "home/.Trash/setup.run"));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(fs::is_directory(dir / "home/Downloads"));
}

TEST(HomeTrash, AppsAreAdmittedOnlyFromAnApplicationFolder) {
    TempDir dir;
    auto trash = sandboxTrash(dir);
    dir.write("Applications/Tools/Deep.app/Contents/Info.plist", "x");
    dir.write("Applications/Utilities/readme", "x");
    dir.write("Elsewhere/Stray.app/x", "x");
    EXPECT_EQ(trash.refusal(dir / "Applications/Tools/Deep.app"), std::nullopt);
    EXPECT_EQ(trash.refusal(dir / "Applications/Utilities"),
              "Utilities is not in your home folder, so Vantle Lite leaves it alone.");
    EXPECT_EQ(trash.refusal(dir / "Elsewhere/Stray.app"),
              "Stray.app is not in your home folder, so Vantle Lite leaves it alone.");
    auto receipt = trash.trash({dir / "Applications/Tools/Deep.app"});
    ASSERT_EQ(receipt.moved.size(), 1u) << (receipt.refused.empty() ? "" : receipt.refused[0]);
    EXPECT_TRUE(fs::exists(dir / "home/.Trash/Deep.app/Contents/Info.plist"));
}

TEST(HomeTrash, APathThroughALinkIntoLibraryIsRefusedAsInTheLibrary) {
    TempDir dir;
    auto trash = sandboxTrash(dir);
    auto kept = dir.write("home/Library/Caches/kept.db", "x");
    fs::create_directory_symlink(dir / "home/Library/Caches", dir / "home/Downloads/caches");
    auto receipt =
        trash.trash({dir / "home/Downloads/caches/kept.db", dir / "home/Downloads/./caches/../caches"});
    EXPECT_TRUE(receipt.moved.empty());
    ASSERT_EQ(receipt.refused.size(), 2u);
    EXPECT_EQ(receipt.refused[0], "kept.db is in your Library, where apps keep their own files.");
    EXPECT_EQ(receipt.refused[1], "Caches is in your Library, where apps keep their own files.");
    EXPECT_TRUE(fs::exists(kept));
    EXPECT_EQ(trash.refusal(dir / "elsewhere.txt"),
              "elsewhere.txt is not in your home folder, so Vantle Lite leaves it alone.");
}

TEST(HomeTrash, PuttingBackAfterTheTrashWasEmptiedPutsNothingBackAndDropsTheReceipt) {
    TempDir dir;
    auto trash = sandboxTrash(dir);
    auto a = dir.write("home/Downloads/a.txt", "a");
    auto b = dir.write("home/notes.txt", "b");
    auto receipt = trash.trash({a, b, dir / "home/missing.txt"});
    ASSERT_EQ(receipt.moved.size(), 2u);
    EXPECT_EQ(receipt.refused, std::vector<std::string>{"missing.txt is no longer there."});
    fs::remove(receipt.moved[0].to); // emptied from the Trash
    auto back = trash.putBack(receipt.id);
    ASSERT_EQ(back.size(), 1u) << "only the item still in the Trash comes back";
    EXPECT_EQ(back[0].from, fs::canonical(b));
    EXPECT_FALSE(fs::exists(a));
    EXPECT_TRUE(trash.undoable().empty());
}

TEST(HomeTrash, TheSameReceiptTwiceAndATakenPlaceAreNeverPutOver) {
    TempDir dir;
    auto trash = sandboxTrash(dir);
    auto a = dir.write("home/Documents/Work/a.txt", "old");
    auto b = dir.write("home/Documents/Work/b.txt", "old b");
    auto receipt = trash.trash({a, b});
    ASSERT_EQ(receipt.moved.size(), 2u);
    fs::remove_all(dir / "home/Documents/Work"); // its folder is gone: made again on the way back
    dir.write("home/Documents/Work/b.txt", "new b");
    auto back = trash.putBack(receipt.id);
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].from, fs::canonical(a));
    EXPECT_EQ(vantle::testing::readFile(a), "old");
    EXPECT_EQ(vantle::testing::readFile(b), "new b") << "a taken place is never put over";
    EXPECT_TRUE(fs::exists(receipt.moved[1].to)) << "the item that could not go back stays in the Trash";
    EXPECT_TRUE(trash.putBack(receipt.id).empty()) << "a batch goes back at most once";
}

TEST(HomeTrash, ASecondItemOfTheSameNameNeverReplacesTheFirstInTheTrash) {
    TempDir dir;
    auto trash = sandboxTrash(dir);
    auto first = trash.trash({dir.write("home/Desktop/report.pdf", "1")});
    auto second = trash.trash({dir.write("home/Desktop/report.pdf", "2")});
    ASSERT_EQ(first.moved.size(), 1u);
    ASSERT_EQ(second.moved.size(), 1u);
    EXPECT_NE(first.moved[0].to, second.moved[0].to);
    EXPECT_EQ(vantle::testing::readFile(first.moved[0].to), "1");
    EXPECT_EQ(trash.putBack(first.id).size(), 1u);
    EXPECT_TRUE(trash.putBack(second.id).empty()) << "the first batch's file is back in that place";
}

TEST(HomeTrash, TheFreedesktopLayoutWritesATrashInfoTheDesktopReadsBack) {
    TempDir dir;
    fs::create_directories(dir / "home/.local/share");
    HomeTrash trash({.home = dir / "home",
                     .place = dir / "home/.local/share/Trash",
                     .layout = HomeTrash::Layout::freedesktop,
                     .libraryFolders = {"Library", ".local", ".config", ".cache"}});
    auto file = dir.write("home/Music/my song #1.ogg", "tune");
    auto receipt = trash.trash({file});
    ASSERT_EQ(receipt.moved.size(), 1u) << (receipt.refused.empty() ? "" : receipt.refused[0]);
    auto info = vantle::testing::readFile(dir / "home/.local/share/Trash/info/my song #1.ogg.trashinfo");
    EXPECT_TRUE(info.starts_with("[Trash Info]\nPath=" + fs::canonical(dir / "home/Music").string() +
                                 "/my%20song%20%231.ogg\nDeletionDate="))
        << info;
    EXPECT_EQ(trash.refusal(dir / "home/.local/share/Trash/files/my song #1.ogg"),
              "my song #1.ogg is in your Library, where apps keep their own files.");

    auto listed = run("XDG_DATA_HOME='" + (dir / "home/.local/share").string() + "' gio trash --list 2>&1");
    bool gioLists = listed.find("not supported") == std::string::npos && listed.find("not found") == std::string::npos;
    if (gioLists) EXPECT_NE(listed.find(file.string()), std::string::npos) << listed;

    EXPECT_EQ(trash.putBack(receipt.id).size(), 1u);
    EXPECT_EQ(vantle::testing::readFile(file), "tune");
    EXPECT_FALSE(fs::exists(dir / "home/.local/share/Trash/info/my song #1.ogg.trashinfo"));
    if (!gioLists) GTEST_SKIP() << "gio cannot list the trash here (no desktop trash backend): " << listed;
}

TEST(HomeTrash, AnItemOnAnotherDiskGoesToThatDisksOwnTrash) {
    TempDir dir;
    fs::create_directories(dir / "home/External");
    if (::geteuid() != 0 || ::mount("tmpfs", (dir / "home/External").c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "mounting a second disk needs root and mount rights";
    struct Unmount {
        fs::path at;
        ~Unmount() { ::umount2(at.c_str(), MNT_DETACH); }
    } unmount{dir / "home/External"};
    HomeTrash trash({.home = dir / "home",
                     .place = dir / "home/.local/share/Trash",
                     .layout = HomeTrash::Layout::freedesktop});
    auto file = dir.write("home/External/photos/cat.jpg", "meow");
    auto receipt = trash.trash({file});
    ASSERT_EQ(receipt.moved.size(), 1u) << (receipt.refused.empty() ? "" : receipt.refused[0]);
    auto own = dir / "home/External" / (".Trash-" + std::to_string(::getuid()));
    EXPECT_EQ(receipt.moved[0].to, own / "files/cat.jpg");
    EXPECT_TRUE(vantle::testing::readFile(own / "info/cat.jpg.trashinfo")
                    .starts_with("[Trash Info]\nPath=photos/cat.jpg\nDeletionDate="));
    EXPECT_EQ(trash.putBack(receipt.id).size(), 1u);
    EXPECT_EQ(vantle::testing::readFile(file), "meow");
}
