#include "Vantle_Lite/SettingsStore.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::readFile;
using vantle::testing::TempDir;

TEST(FileSettingsStore, WritesAnXmlPropertyListAndReadsItBack) {
    TempDir dir;
    auto file = dir / "data/Library/home.json"; // the Library folder does not exist yet
    {
        FileSettingsStore store(file);
        EXPECT_FALSE(store.boolean(SettingsKey::welcomed));
        store.setBoolean(SettingsKey::welcomed, true);
        store.setStrings(SettingsKey::pinnedFolders, {"Documents", "Projects/Ünïcode & <xml>"});
    }
    auto text = readFile(file);
    EXPECT_NE(text.find("<?xml"), std::string::npos);
    EXPECT_NE(text.find("<key>welcomed</key>"), std::string::npos);
    FileSettingsStore store(file);
    EXPECT_EQ(store.boolean(SettingsKey::welcomed), true);
    EXPECT_EQ(store.strings(SettingsKey::pinnedFolders),
              (std::vector<std::string>{"Documents", "Projects/Ünïcode & <xml>"}));
    EXPECT_FALSE(store.strings(SettingsKey::welcomed)) << "a value of another type is not set";
    EXPECT_FALSE(store.boolean(SettingsKey::pinnedFolders));
}

TEST(FileSettingsStore, JsonTextOrAStringWelcomedReadsAsNotSet) {
    TempDir dir;
    dir.write("a/home.json", R"({"welcomed": true, "pinnedFolders": ["Documents"]})");
    FileSettingsStore json(dir / "a/home.json");
    EXPECT_FALSE(json.boolean(SettingsKey::welcomed));
    EXPECT_FALSE(json.strings(SettingsKey::pinnedFolders));

    dir.write("b/home.json", R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>welcomed</key><string>true</string>
<key>savedSearches</key><array><string>{}</string><integer>3</integer></array></dict></plist>)");
    FileSettingsStore stringy(dir / "b/home.json");
    EXPECT_FALSE(stringy.boolean(SettingsKey::welcomed)) << "the welcome is shown again";
    EXPECT_FALSE(stringy.strings(SettingsKey::savedSearches))
        << "an array holding a non-string is not a list";
}

TEST(FileSettingsStore, FailedSaveKeepsTheValueForThisRunAndTheOldFile) {
    TempDir dir;
    dir.write("data/Library", "a file where the folder should be");
    FileSettingsStore store(dir / "data/Library/home.json");
    store.setBoolean(SettingsKey::welcomed, true);
    EXPECT_EQ(store.boolean(SettingsKey::welcomed), true);
    EXPECT_EQ(readFile(dir / "data/Library"), "a file where the folder should be");
}

TEST(SavedSearches, ABadElementDisappearsAtTheNextSave) {
    TempDir dir;
    FileSettingsStore store(dir / "home.json");
    SavedSearch a{"1", "Recent PDFs", "pdfs from last week"};
    store.setStrings(SettingsKey::savedSearches, {encodeJson(a), "{not json", R"({"id":"2"})"});
    ASSERT_EQ(savedSearches(store), std::vector<SavedSearch>{a});
    SavedSearch b{"3", "Big videos", "big videos"};
    saveSearches(store, {a, b});
    FileSettingsStore reread(dir / "home.json");
    EXPECT_EQ(reread.strings(SettingsKey::savedSearches)->size(), 2u);
    EXPECT_EQ(savedSearches(reread), (std::vector<SavedSearch>{a, b}));
}

TEST(PinnedFolders, HiddenAndLibraryFoldersAreNotOfferedAndPinsAreRelative) {
    TempDir dir;
    FileSettingsStore store(dir / "home.json");
    EXPECT_EQ(pinnedFolders(store), standardPins());
    EXPECT_EQ(pinnablePath("/home/ada", "/home/ada/Projects/x/"), "Projects/x");
    EXPECT_FALSE(pinnablePath("/home/ada", "/home/ada/.config"));
    EXPECT_FALSE(pinnablePath("/home/ada", "/home/ada/Library"));
    EXPECT_FALSE(pinnablePath("/home/ada", "/home/ada/Library/Caches"));
    EXPECT_TRUE(pinnablePath("/home/ada", "/home/ada/LibraryBooks"));
    EXPECT_FALSE(pinnablePath("/home/ada", "/etc"));
    EXPECT_FALSE(pinnablePath("/home/ada", "/home/ada"));

    EXPECT_TRUE(addPin(store, "/home/ada", "/home/ada/Projects"));
    EXPECT_FALSE(addPin(store, "/home/ada", "Projects")) << "already pinned";
    EXPECT_EQ(pinnedFolders(store).back(), "Projects");
    EXPECT_TRUE(removePin(store, "Desktop"));
    EXPECT_FALSE(removePin(store, "Desktop"));
    auto pins = FileSettingsStore(dir / "home.json").strings(SettingsKey::pinnedFolders);
    ASSERT_TRUE(pins);
    EXPECT_EQ(pins->front(), "Documents");
}

TEST(FileSettingsStore, KeysOfOtherTypesSurviveAWriteExactly) {
    TempDir dir;
    dir.write("home.json", R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
<key>windowWidth</key><integer>1320</integer>
<key>lastSeen</key><date>2026-11-21T19:13:05Z</date>
<key>welcomed</key><string>yes</string>
<key>pinnedFolders</key><array><string>Documents</string><integer>3</integer></array>
<key>nested</key><dict><key>a</key><array><real>2.5</real></array></dict>
</dict></plist>)");
    {
        FileSettingsStore store(dir / "home.json");
        EXPECT_FALSE(store.boolean(SettingsKey::welcomed))
            << "only the key that expected a Boolean reads as absent";
        EXPECT_FALSE(store.strings(SettingsKey::pinnedFolders));
        store.setStrings(SettingsKey::savedSearches, {"{}"});
    }
    auto text = readFile(dir / "home.json");
    EXPECT_NE(text.find("<key>windowWidth</key>"), std::string::npos) << text;
    EXPECT_NE(text.find("<integer>1320</integer>"), std::string::npos);
    EXPECT_NE(text.find("<date>2026-11-21T19:13:05Z</date>"), std::string::npos);
    EXPECT_NE(text.find("<string>yes</string>"), std::string::npos);
    EXPECT_NE(text.find("<integer>3</integer>"), std::string::npos) << "the mixed array is kept whole";
    EXPECT_NE(text.find("<real>2.5"), std::string::npos);
    FileSettingsStore reread(dir / "home.json");
    EXPECT_EQ(reread.strings(SettingsKey::savedSearches), std::vector<std::string>{"{}"});
}

TEST(FileSettingsStore, DeeplyNestedSettingsFileReadsAsEmptyNotACrash) {
    TempDir dir;
    std::string deep;
    for (int i = 0; i < 100'000; ++i)
        deep += "<array>";
    for (int i = 0; i < 100'000; ++i)
        deep += "</array>";
    dir.write("home.json", "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>welcomed</key><true/>"
                           "<key>x</key>" +
                               deep + "</dict></plist>");
    FileSettingsStore store(dir / "home.json");
    EXPECT_FALSE(store.boolean(SettingsKey::welcomed));
}
