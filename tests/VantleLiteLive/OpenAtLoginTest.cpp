#include "VantleLiteLive/OpenAtLogin.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::readFile;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

TEST(OpenAtLogin, TurningOnWritesTheEntryWithItsCommandQuotedAndTurningOffRemovesIt) {
    TempDir dir;
    dir.mkdir("home");
    auto entry = dir / "home/.config/autostart/vantle-lite.desktop";
    OpenAtLogin login(dir / "home", entry);
    EXPECT_FALSE(login.isOn());
    EXPECT_TRUE(login.turnOff()) << "nothing to remove is not a failure";

    ASSERT_TRUE(
        login.turnOn({"/opt/vantle lite/vantle-lite", "-sandbox", "/srv/box \"2\" 100%", "--at-login"}));
    EXPECT_TRUE(login.isOn());
    auto text = readFile(entry);
    EXPECT_NE(text.find("[Desktop Entry]\nType=Application\nName=Vantle Lite\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nExec=\"/opt/vantle lite/vantle-lite\" -sandbox \"/srv/box \\\\\"2\\\\\" 100%%\" "
                        "--at-login\n"),
              std::string::npos)
        << text;

    ASSERT_TRUE(login.turnOff());
    EXPECT_FALSE(fs::exists(entry));
    EXPECT_TRUE(fs::exists(entry.parent_path())) << "the desktop's folder stays";
}

TEST(OpenAtLogin, ALinkOnTheWayOrInTheEntrysPlaceIsNeverFollowedNorRemoved) {
    TempDir dir;
    dir.mkdir("home");
    dir.mkdir("elsewhere");
    fs::create_symlink(dir / "elsewhere", dir / "home/.config");
    OpenAtLogin login(dir / "home", dir / "home/.config/autostart/vantle-lite.desktop");
    auto refused = login.turnOn({"vantle-lite"});
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().sentence.starts_with("Vantle Lite could not be set to open at login: "))
        << refused.error().sentence;
    EXPECT_FALSE(fs::exists(dir / "elsewhere/autostart")) << "nothing was made through the link";

    fs::remove(dir / "home/.config");
    dir.mkdir("home/.config/autostart");
    auto theirs = dir.write("elsewhere/theirs.desktop", "[Desktop Entry]\n");
    fs::create_symlink(theirs, dir / "home/.config/autostart/vantle-lite.desktop");
    EXPECT_FALSE(login.isOn()) << "a link is not our entry";
    EXPECT_FALSE(login.turnOff());
    EXPECT_TRUE(fs::is_symlink(dir / "home/.config/autostart/vantle-lite.desktop"));
    EXPECT_TRUE(fs::exists(theirs));
}
