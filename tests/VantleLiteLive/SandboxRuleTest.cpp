#include "VantleLiteLive/SandboxRule.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

struct SandboxMachine {
    TempDir dir;
    fs::path home = dir.mkdir("Users/ada");
    SandboxRule rule{{home}};

    std::string refusal(const fs::path& folder) const {
        auto checked = rule.check(folder);
        return checked ? "accepted" : checked.error().sentence;
    }
};

std::string sentence(const fs::path& path, const std::string& reason) {
    return path.string() + " is not a sandbox: " + reason +
           ". A sandbox is a folder of its own that stands in for the home folder.";
}

} // namespace

TEST(SandboxRule, RefusesHomesTheirHoldersAndTheirLibraries) {
    SandboxMachine m;
    EXPECT_EQ(m.refusal(m.home), sentence(m.home, "it is a home folder on this Mac"));
    EXPECT_EQ(m.refusal(m.home.string() + "/./"), sentence(m.home, "it is a home folder on this Mac"))
        << "compared in standardized form";
    EXPECT_EQ(m.refusal(m.dir / "Users"),
              sentence(m.dir / "Users", "it holds the home folder " + m.home.string()));
    EXPECT_EQ(m.refusal(m.dir.path()), sentence(m.dir.path(), "it holds the home folder " + m.home.string()));
    auto inLibrary = m.dir.mkdir("Users/ada/Library/Sandbox");
    EXPECT_EQ(m.refusal(inLibrary), sentence(inLibrary, "it is inside " + m.home.string() +
                                                            "/Library, where apps keep their own data"));
    EXPECT_EQ(m.refusal(m.home / "Library/Not/Made/Yet"),
              sentence(m.home / "Library/Not/Made/Yet",
                       "it is inside " + m.home.string() + "/Library, where apps keep their own data"));
}

TEST(SandboxRule, SecondPathToAHomeIsCaughtByIdentityNotSpelling) {
    SandboxMachine m;
    fs::create_directory_symlink(m.home, m.dir / "alias");
    EXPECT_EQ(m.refusal(m.dir / "alias"), sentence(m.dir / "alias", "it is a home folder on this Mac"));

    fs::create_directory_symlink(m.dir / "Users", m.dir / "people");
    EXPECT_EQ(m.refusal(m.dir / "people"),
              sentence(m.dir / "people", "it holds the home folder " + m.home.string()));

    fs::create_directory_symlink(m.home / "Library", m.dir / "lib");
    fs::create_directories(m.home / "Library/Box");
    EXPECT_NE(m.refusal(m.dir / "lib/Box").find("it is inside " + m.home.string() + "/Library"),
              std::string::npos);
}

TEST(SandboxRule, EntriesThatLeadOutAreRefusedAndOnesThatStayInAreFine) {
    SandboxMachine m;
    auto box = m.dir.mkdir("box");
    EXPECT_EQ(m.rule.check(box), box);

    fs::create_directory_symlink(m.home / "Documents", box / "Documents");
    EXPECT_EQ(m.refusal(box),
              sentence(box, "its Documents leads to " + (m.home / "Documents").string() + ", outside it"))
        << "a link that dangles still leads out";
    fs::create_directories(m.home / "Documents");
    EXPECT_EQ(m.refusal(box),
              sentence(box, "its Documents leads to " + (m.home / "Documents").string() + ", outside it"));
    fs::remove(box / "Documents");

    m.dir.mkdir("box/Stuff");
    fs::create_directory_symlink(box / "Stuff", box / "Downloads");
    fs::create_directory_symlink(".", box / "Desktop"); // the folder itself is allowed
    EXPECT_EQ(m.rule.check(box), box);

    fs::create_symlink("../elsewhere", box / ".vantle");
    EXPECT_EQ(m.refusal(box),
              sentence(box, "its .vantle leads to " + (m.dir / "elsewhere").string() + ", outside it"));
}

TEST(SandboxRule, AFolderNotMadeYetIsAcceptedUnlessItIsInAForbiddenPlace) {
    SandboxMachine m;
    EXPECT_EQ(m.rule.check(m.dir / "new/box"), m.dir / "new/box");
    EXPECT_FALSE(fs::exists(m.dir / "new")) << "checking creates nothing";
}

TEST(SandboxRule, LinuxDataAndSettingsFoldersOfEveryHomeAreRefusedAsLibraryIs) {
    TempDir dir;
    auto ada = dir.mkdir("home/ada");
    auto bob = dir.mkdir("home/bob");
    SandboxRule rule{{ada, bob}, {"Library", ".local/share", ".config"}};
    auto refusal = [&](const fs::path& folder) {
        auto checked = rule.check(folder);
        return checked ? "accepted" : checked.error().sentence;
    };
    auto shared = dir.mkdir("home/bob/.local/share/Box");
    EXPECT_EQ(refusal(shared), sentence(shared, "it is inside " + bob.string() +
                                                    "/.local/share, where apps keep their own data"));
    EXPECT_EQ(refusal(ada / ".config/app/box"),
              sentence(ada / ".config/app/box",
                       "it is inside " + ada.string() + "/.config, where apps keep their own data"))
        << "a folder not made yet inside it is refused too";
    EXPECT_EQ(refusal(ada / ".config"),
              sentence(ada / ".config",
                       "it is inside " + ada.string() + "/.config, where apps keep their own data"));

    // Reached through a link of its own: caught by identity, not spelling.
    fs::create_directory_symlink(bob / ".local/share", dir.path() / "data");
    EXPECT_NE(refusal(dir.path() / "data/Box").find("it is inside " + bob.string() + "/.local/share"),
              std::string::npos);

    // Beside them, a home's other hidden folders are not private.
    auto local = dir.mkdir("home/ada/.local/box");
    EXPECT_EQ(rule.check(local), local);
}

TEST(SandboxRule, ThisMachinesRuleRefusesTheCurrentHomesLinuxPrivateFolders) {
    auto rule = SandboxRule::forThisMachine();
    auto home = standardizedPath(rule.realHomes.front());
    for (const char* folder : {".config", ".local/share"}) {
        auto checked = rule.check(home / folder / "vantle-sandbox-never-made");
        ASSERT_FALSE(checked) << folder;
        EXPECT_EQ(checked.error().reason,
                  "it is inside " + (home / folder).string() + ", where apps keep their own data");
    }
}
