#include "Platform/AtomicFile.h"
#include "Platform/BeneathOpen.h"
#include "Platform/DirectoryReader.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>

using namespace vantle;
using vantle::testing::TempDir;
using vantle::testing::readFile;
namespace fs = std::filesystem;

TEST(BeneathOpen, NeverFollowsALinkNorLeavesTheRoot) {
    TempDir dir;
    dir.write("home/Documents/a.txt", "a");
    dir.write("outside/secret.txt", "s");
    fs::create_directory_symlink(dir / "outside", dir / "home/Documents/way-out");
    fs::create_symlink(dir / "outside/secret.txt", dir / "home/Documents/secret.txt");
    auto home = openFolder(dir / "home");
    ASSERT_TRUE(home);

    EXPECT_TRUE(openBeneath(home->get(), "Documents/a.txt", O_RDONLY));
    auto throughLink = openBeneath(home->get(), "Documents/way-out/secret.txt", O_RDONLY);
    ASSERT_FALSE(throughLink);
    EXPECT_EQ(throughLink.error(), ELOOP);
    EXPECT_FALSE(openBeneath(home->get(), "Documents/secret.txt", O_RDONLY)) << "a link as the last component";
    EXPECT_FALSE(openBeneath(home->get(), "../outside/secret.txt", O_RDONLY));
    EXPECT_FALSE(openBeneath(home->get(), dir / "outside/secret.txt", O_RDONLY)) << "absolute paths are refused";
    EXPECT_FALSE(openFolder(dir / "home/Documents/way-out"));
}

TEST(BeneathOpen, MakingFoldersStopsAtALinkOrAFileInTheWay) {
    TempDir dir;
    dir.mkdir("home");
    dir.mkdir("outside");
    fs::create_directory_symlink(dir / "outside", dir / "home/Linked");
    dir.write("home/File", "x");
    auto home = openFolder(dir / "home");

    ASSERT_TRUE(makeFoldersBeneath(home->get(), "A/B/C"));
    EXPECT_TRUE(fs::is_directory(dir / "home/A/B/C"));
    EXPECT_TRUE(makeFoldersBeneath(home->get(), "A/B")) << "existing folders are fine";

    auto viaLink = makeFoldersBeneath(home->get(), "Linked/New");
    ASSERT_FALSE(viaLink);
    EXPECT_EQ(viaLink.error(), ELOOP);
    EXPECT_FALSE(fs::exists(dir / "outside/New"));
    auto viaFile = makeFoldersBeneath(home->get(), "File/New");
    ASSERT_FALSE(viaFile);
    EXPECT_EQ(viaFile.error(), ENOTDIR);
}

TEST(AtomicFile, ReplacesWholeAndKeepsTheModeAndLeavesNoTemporaryFiles) {
    TempDir dir;
    auto file = dir / "data/settings.plist";
    ASSERT_TRUE(writeFileAtomicallyMakingFolder(file, "first", 0600));
    ASSERT_TRUE(writeFileAtomically(file, "second and longer", 0600));
    EXPECT_EQ(readFile(file), "second and longer");
    struct stat st{};
    ::stat(file.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / "data"), fs::directory_iterator()), 1);

    fs::create_directory_symlink(dir / "data", dir / "link");
    auto viaLink = writeFileAtomically(dir / "link/settings.plist", "x");
    ASSERT_FALSE(viaLink) << "the folder is opened without following a link";
    EXPECT_EQ(readFile(file), "second and longer");
    EXPECT_EQ(readWholeFile(dir / "missing").error(), ENOENT);
}

TEST(DirectoryReader, YieldsEveryEntryOnceWithoutDotsAcrossManyBuffers) {
    TempDir dir;
    std::set<std::string> made;
    for (int i = 0; i < 600; ++i) {
        auto name = "file-with-a-fairly-long-name-" + std::to_string(i);
        dir.write(name, "");
        made.insert(name);
    }
    dir.mkdir("sub");
    made.insert("sub");
    auto fd = openFolder(dir.path());
    DirectoryReader reader(fd->get(), 4096); // small buffer: many getdents64 calls
    std::set<std::string> seen;
    DirectoryReader::Entry entry;
    unsigned dirs = 0;
    while (reader.next(entry)) {
        EXPECT_TRUE(seen.insert(std::string(entry.name)).second) << entry.name;
        if (entry.type == DT_DIR) ++dirs;
    }
    EXPECT_EQ(reader.error(), 0);
    EXPECT_EQ(seen, made);
    EXPECT_LE(dirs, 1u);
}
