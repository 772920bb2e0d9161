#include "VantleLiteLive/StartupItems.h"
#include "VantleLiteLive/MachineControls.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {
StartupItems sandboxItems(const TempDir& dir) {
    fs::create_directories(dir / "home/Library/LaunchAgents");
    return StartupItems(
        {.agents = dir / "home/Library/LaunchAgents", .turnedOff = dir / "home/.vantle-lite/Turned Off"});
}
} // namespace

TEST(StartupItems, OnlyTheUsersOwnPlistsAreTurnedOffEvenThroughALinkOrDotSpelling) {
    TempDir dir;
    auto items = sandboxItems(dir);
    auto notes = dir.write("home/Library/LaunchAgents/notes.txt", "x");
    auto system = dir.write("Library/LaunchDaemons/com.example.plist", "x");
    auto refused = std::string(StartupItems::notOwnAgent);
    EXPECT_EQ(items.turnOff(notes).error(), refused);
    EXPECT_EQ(items.turnOff(system).error(), refused);
    EXPECT_EQ(items.turnOff(dir / "home/Library/LaunchAgents/.plist").error(), refused);
    EXPECT_EQ(items.turnOff(dir / "home/Library/LaunchAgents/gone.plist").error(),
              "gone.plist is no longer there.");
    EXPECT_TRUE(fs::exists(notes));
    EXPECT_TRUE(fs::exists(system));
    EXPECT_FALSE(fs::exists(dir / "home/.vantle-lite/Turned Off")) << "a refusal makes nothing";

    dir.write("home/Library/LaunchAgents/com.example.sync.plist", "sync");
    fs::create_directory_symlink(dir / "home/Library", dir / "lib");
    auto held = items.turnOff(dir / "lib/./LaunchAgents/../LaunchAgents/com.example.sync.plist");
    ASSERT_TRUE(held) << held.error();
    EXPECT_EQ(vantle::testing::readFile(*held), "sync");
    EXPECT_FALSE(fs::exists(dir / "home/Library/LaunchAgents/com.example.sync.plist"));
}

TEST(StartupItems, ASecondAgentOfTheSameNameIsHeldUnderAUuidAndNeverReplacesTheFirst) {
    TempDir dir;
    auto items = sandboxItems(dir);
    auto agent = dir / "home/Library/LaunchAgents/helper.plist";
    dir.write("home/Library/LaunchAgents/helper.plist", "first");
    auto first = items.turnOff(agent);
    dir.write("home/Library/LaunchAgents/helper.plist", "second");
    auto second = items.turnOff(agent);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->filename(), "helper.plist");
    auto name = second->filename().string();
    ASSERT_EQ(name.size(), 36 + 1 + std::string("helper.plist").size()) << name;
    EXPECT_TRUE(name.ends_with("-helper.plist"));
    EXPECT_EQ(vantle::testing::readFile(*first), "first");
    EXPECT_EQ(vantle::testing::readFile(*second), "second");
    EXPECT_EQ(items.turnedOff().size(), 2u);
}

TEST(StartupItems, TurningBackOnNeverPutsOverANewFileAndOnlyMovesHeldFilesHome) {
    TempDir dir;
    auto items = sandboxItems(dir);
    auto agent = dir.write("home/Library/LaunchAgents/helper.plist", "old");
    auto held = *items.turnOff(agent);
    dir.write("home/Library/LaunchAgents/helper.plist", "new");
    EXPECT_FALSE(items.turnBackOn(held, agent));
    EXPECT_EQ(vantle::testing::readFile(agent), "new");
    EXPECT_EQ(vantle::testing::readFile(held), "old");

    auto stray = dir.write("home/Documents/stray.plist", "s");
    EXPECT_FALSE(items.turnBackOn(stray, dir / "home/Library/LaunchAgents/stray.plist"))
        << "only a file this service holds goes back";
    EXPECT_FALSE(items.turnBackOn(held, dir / "home/Documents/helper.plist"))
        << "and only to the startup folder";
    fs::remove(agent);
    EXPECT_TRUE(items.turnBackOn(held, agent));
    EXPECT_EQ(vantle::testing::readFile(agent), "old");
    EXPECT_FALSE(items.turnBackOn(held, agent)) << "nothing left at the held path";
}

TEST(StartupItems, TheListShowsEntriesThenEnabledUserServicesReadOnly) {
    TempDir dir;
    StartupItems items({.agents = dir / "config/autostart",
                        .turnedOff = dir / "data/Turned Off",
                        .extension = ".desktop",
                        .serviceFolders = {dir / "config/systemd/user"}});
    dir.write("config/autostart/syncthing.desktop", "[Desktop Entry]");
    dir.write("config/autostart/readme.txt", "x");
    dir.write("config/systemd/user/default.target.wants/backup.service", "x");
    dir.write("config/systemd/user/timers.target.wants/backup.timer", "x");
    auto list = items.list();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].name, "syncthing.desktop");
    EXPECT_FALSE(list[0].service);
    EXPECT_EQ(list[1].name, "backup.service");
    EXPECT_TRUE(list[1].service);
    EXPECT_EQ(items.turnOff(list[1].path).error(), std::string(StartupItems::notOwnAgent));
}

TEST(SessionMachine, AsksTheSessionManagersBeforeLogindAndSaysWhenNoneAnswered) {
    std::vector<std::string> asked;
    auto runner = [&](const std::vector<std::string>& command) {
        asked.push_back(command.at(3));
        return command.at(3) == "--dest=org.kde.Shutdown" ? 0 : 1;
    };
    SessionMachine withSession({{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/x"}}, runner);
    EXPECT_TRUE(withSession.restart());
    EXPECT_EQ(asked,
              (std::vector<std::string>{"--dest=org.gnome.SessionManager", "--dest=org.kde.Shutdown"}));

    asked.clear();
    SessionMachine noSession({}, runner);
    EXPECT_EQ(noSession.restart().error(), std::string(SessionMachine::notAsked));
    EXPECT_EQ(asked, std::vector<std::string>{"--dest=org.freedesktop.login1"});
}
