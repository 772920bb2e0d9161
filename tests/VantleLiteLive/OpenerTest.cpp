#include "VantleLiteLive/Opener.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

// The desktop stands in here: opening real apps would touch the machine. It notes, at each hand-over,
// how many ledger lines already existed, so a test can see the ledger was written first.
class RecordingWorkspace final : public Workspace {
  public:
    std::shared_ptr<EgressLedger> ledger;
    std::vector<std::string> opened;
    std::vector<size_t> ledgerLinesAtHandOver;
    std::vector<std::pair<fs::path, fs::path>> openedWith;
    std::vector<fs::path> revealed;
    std::vector<fs::path> offered;

    std::expected<void, std::string> open(std::string_view target) override {
        opened.emplace_back(target);
        ledgerLinesAtHandOver.push_back(ledger ? ledger->entries().size() : 0);
        return {};
    }
    std::expected<void, std::string> openWith(const fs::path& file, const fs::path& app) override {
        openedWith.emplace_back(file, app);
        return {};
    }
    std::expected<void, std::string> reveal(const fs::path& item) override {
        revealed.push_back(item);
        return {};
    }
    std::vector<fs::path> appsFor(std::string_view) const override { return offered; }
};

struct OpenerFixture {
    TempDir dir;
    fs::path home = dir.mkdir("home");
    std::shared_ptr<EgressLedger> ledger = *EgressLedger::open(dir / "data/egress-ledger.jsonl");
    std::shared_ptr<RecordingWorkspace> workspace = std::make_shared<RecordingWorkspace>();

    Opener opener(bool offline = false, std::shared_ptr<StandInApps> fence = nullptr) {
        workspace->ledger = ledger;
        return Opener(Opener::Options{.workspace = workspace,
                                      .places = {home},
                                      .ledger = offline ? nullptr : ledger,
                                      .fence = std::move(fence)});
    }
};

} // namespace

TEST(Opener, OpensOnlyShownFilesThatAreNotScriptsLaunchersOrArchives) {
    OpenerFixture f;
    auto opener = f.opener();
    auto letter = f.dir.write("home/letter.txt", "dear");
    ASSERT_TRUE(opener.openFile(letter).has_value());
    EXPECT_EQ(f.workspace->opened, std::vector<std::string>{letter.string()});

    auto outside = f.dir.write("elsewhere.txt", "x");
    EXPECT_EQ(opener.openFile(outside).error().reason, "Vantle opens only the files and apps it shows.");
    fs::create_symlink(f.dir.path(), f.home / "way-out");
    EXPECT_EQ(opener.openFile(f.home / "way-out/elsewhere.txt").error().reason,
              "Vantle opens only the files and apps it shows.");
    EXPECT_FALSE(opener.openFile(f.home / "../elsewhere.txt").has_value());

    EXPECT_EQ(
        opener.openFile(f.dir.write("home/setup.sh", "echo")).error().reason,
        "Vantle does not open setup.sh: scripts, launchers and Java archives run programs of their own.");
    EXPECT_FALSE(opener.openFile(f.dir.write("home/notes", "#!/bin/sh\nrm -rf ~\n")).has_value());
    EXPECT_FALSE(opener.openFile(f.dir.write("home/Game.desktop", "[Desktop Entry]")).has_value());
    EXPECT_FALSE(opener.openFile(f.dir.write("home/tool.JAR", "PK")).has_value());
    EXPECT_EQ(f.workspace->opened.size(), 1u) << "nothing refused reached the desktop";
}

TEST(Opener, OpensWithAChosenAppOnlyWhenTheSystemOffersIt) {
    OpenerFixture f;
    auto opener = f.opener();
    auto photo = f.dir.write("home/photo.jpg", "jpeg");
    f.workspace->offered = {"/usr/share/applications/viewer.desktop"};
    EXPECT_EQ(opener.openFile(photo, fs::path("/usr/share/applications/terminal.desktop")).error().reason,
              "That app is not one this Mac offers for the file.");
    ASSERT_TRUE(opener.openFile(photo, fs::path("/usr/share/applications/viewer.desktop")).has_value());
    ASSERT_EQ(f.workspace->openedWith.size(), 1u);
    EXPECT_EQ(f.workspace->openedWith[0].second, "/usr/share/applications/viewer.desktop");
}

TEST(Opener, InASandboxOpensNothingAndRecordsEveryRequest) {
    OpenerFixture f;
    auto standIns = std::make_shared<StandInApps>(f.dir / "data");
    auto opener = f.opener(false, standIns);
    auto letter = f.dir.write("home/letter.txt", "dear");
    EXPECT_EQ(opener.openFile(letter).error().reason, "This is a sandbox, so Vantle opens no other app.");
    EXPECT_EQ(opener.openPage("https://example.org/help").error().reason,
              "This is a sandbox, so Vantle opens no other app.");
    EXPECT_EQ(opener.reveal(letter).value(), Opener::Opened::inFinder);
    EXPECT_TRUE(f.workspace->opened.empty());
    EXPECT_TRUE(f.workspace->revealed.empty());
    EXPECT_TRUE(f.ledger->entries().empty()) << "nothing left the machine";

    auto kept = StandInApps(f.dir / "data").record();
    ASSERT_EQ(kept.openedFiles.size(), 1u);
    EXPECT_EQ(kept.openedFiles[0].file, letter.string());
    ASSERT_EQ(kept.links.size(), 1u);
    EXPECT_EQ(kept.links[0].address, "https://example.org/help");
    ASSERT_EQ(kept.revealed.size(), 1u);
}

TEST(Opener, WritesTheLedgerBeforeHandingOverAPageASearchOrAPlace) {
    OpenerFixture f;
    auto opener = f.opener();
    EXPECT_EQ(opener.openPage("http://example.org/").error().reason,
              "Vantle opens only secure web pages (https).");
    EXPECT_TRUE(f.ledger->entries().empty());

    ASSERT_TRUE(opener.openPage("https://example.org/help").has_value());
    ASSERT_TRUE(opener.openSearch("café near me").has_value());
    ASSERT_TRUE(opener.showInMaps(Opener::Place{"Lisbon Oceanarium", 38.7635, -9.0937}).has_value());
    EXPECT_EQ(f.workspace->opened,
              (std::vector<std::string>{"https://example.org/help", "x-web-search://?caf%C3%A9%20near%20me",
                                        "maps:?q=Lisbon%20Oceanarium&ll=38.763500,-9.093700"}));
    EXPECT_EQ(f.workspace->ledgerLinesAtHandOver, (std::vector<size_t>{1, 3, 5}));
    auto entries = f.ledger->entries();
    ASSERT_EQ(entries.size(), 6u);
    EXPECT_EQ(entries[2].purpose, LedgerEntry::Purpose::search);
    EXPECT_EQ(entries[2].query, "café near me");
    EXPECT_EQ(entries[4].purpose, LedgerEntry::Purpose::places);

    EXPECT_EQ(opener.showInMaps(std::nullopt).error().reason, "There is no place to show in Maps.");
    EXPECT_EQ(opener.openSearch("  ").error().reason, "There is nothing to search for.");
    EXPECT_EQ(opener.openSettings("https://example.org/").error().reason,
              "Only System Settings opens from here.");
}

TEST(Opener, RefusesNetworkHandOversOfflineOrWhenTheLedgerCannotBeWritten) {
    OpenerFixture f;
    auto offline = f.opener(true);
    // Offline comes before any look at the address.
    EXPECT_EQ(offline.openPage("http://example.org/").error().reason,
              "Vantle is offline, so it does not open web pages.");
    EXPECT_EQ(offline.openSearch("").error().reason, "Vantle is offline, so it does not open a search.");
    EXPECT_EQ(offline.showInMaps(std::nullopt).error().reason,
              "Vantle is offline, so it does not open Maps.");

    auto opener = f.opener();
    std::expected<Opener::Opened, Opener::Refusal> page, search, place;
    {
        rlimit saved{};
        ::getrlimit(RLIMIT_FSIZE, &saved);
        auto previous = std::signal(SIGXFSZ, SIG_IGN);
        rlimit none = saved;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_FSIZE, &none);
        page = opener.openPage("https://example.org/");
        search = opener.openSearch("weather");
        place = opener.showInMaps(Opener::Place{"Home", 1, 2});
        ::setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previous);
    }
    EXPECT_EQ(page.error().reason, "The network ledger could not be written, so the page was not opened.");
    EXPECT_EQ(search.error().reason,
              "The network ledger could not be written, so the search was not opened.");
    EXPECT_EQ(place.error().reason, "The network ledger could not be written, so Maps was not opened.");
    EXPECT_TRUE(f.workspace->opened.empty());
}
