#include "VantleVitals/CheckupService.h"
#include "Platform/AtomicFile.h"
#include "VantleVitals/StandInCheckup.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace vantle;
using vantle::testing::TempDir;
using namespace std::chrono;
namespace fs = std::filesystem;

namespace {

// Facts that get worse by one failed service at each reading.
class Worsening : public CheckupFactsSource {
  public:
    CheckupFacts read() override {
        CheckupFacts f;
        f.failedUnits = std::vector<std::string>(size_t(n_++ % 4), "x.service");
        return f;
    }

  private:
    int n_ = 0;
};

struct SteppingClock {
    TimePoint at = sys_days{2026y / November / 1};
    Clock clock() {
        return [this] { return at += minutes(1); };
    }
};

} // namespace

TEST(CheckupService, KeepsABoundedTrendOldestDroppedFirstAndTheLastCheckup) {
    TempDir dir;
    SteppingClock time;
    auto file = dir / "Health/checkups.json";
    constexpr size_t bound = 12;
    CheckupService service(std::make_shared<Worsening>(), file, time.clock(), bound);
    MacCheckup last;
    for (size_t i = 0; i < bound + 5; ++i)
        last = service.run();

    CheckupService again(std::make_shared<Worsening>(), file, time.clock(), bound);
    auto kept = again.kept();
    EXPECT_FALSE(again.problem());
    ASSERT_EQ(kept.points.size(), bound);
    EXPECT_EQ(kept.points.front().date, sys_days{2026y / November / 1} + minutes(6))
        << "the five oldest went";
    EXPECT_EQ(kept.points.back().date, last.read);
    EXPECT_EQ(kept.points.back().value, last.score.value);
    EXPECT_EQ(kept.last, last);
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(CheckupService, AMalformedFileIsSaidAndTheTrendStartsAfresh) {
    TempDir dir;
    auto file = dir.write("Health/checkups.json", "{\"points\": [ {\"date\": \"yesterday\"");
    CheckupService service(std::make_shared<Worsening>(), file);
    ASSERT_TRUE(service.problem());
    EXPECT_TRUE(service.problem()->starts_with("The past checkups in " + file.string() +
                                               " could not be read, so the trend starts afresh: "));
    service.run();
    EXPECT_FALSE(service.problem());
    EXPECT_EQ(service.kept().points.size(), 1u);
}

TEST(StandInCheckup, ShowsItsRowsInTurnWithDatesThatDoNotGoStale) {
    TempDir dir;
    SteppingClock time;
    auto source = std::make_shared<StandInCheckup>(dir.path(), time.clock());
    CheckupService service(source, dir / "Health/checkups.json", time.clock());

    auto calm = service.run();
    EXPECT_EQ(checkupSummary(calm.findings), "Your Mac is in good shape.");
    EXPECT_EQ(calm.score.value, 100);
    EXPECT_TRUE(calm.sections[1].readings[0].source.starts_with("stand-in-checkup.json, standing in for "));
    auto look = service.run();
    EXPECT_TRUE(checkupSummary(look.findings).starts_with("Your Mac is fine. "))
        << checkupSummary(look.findings);
    auto trouble = service.run();
    EXPECT_TRUE(checkupSummary(trouble.findings).ends_with(" things need your attention."));
    EXPECT_LT(trouble.score.value, look.score.value);
    EXPECT_LT(look.score.value, calm.score.value);
    auto bare = service.run();
    EXPECT_TRUE(bare.findings.empty());
    EXPECT_EQ(service.run().score, calm.score) << "the table starts over";

    // Ten days on, the calm row's backup is still twenty hours old.
    time.at += hours(24 * 10);
    StandInCheckup reopened(dir.path(), time.clock());
    EXPECT_EQ(reopened.record().next, 1);
    auto record = reopened.record();
    record.next = 0;
    ASSERT_TRUE(writeFileAtomically(dir / StandInCheckup::fileName, encodeJson(record)));
    StandInCheckup edited(dir.path(), time.clock());
    auto facts = edited.read();
    EXPECT_NEAR(duration<double>(time.at - *facts.backups->front().lastRun).count() / 3600, 20, 0.1);
}

TEST(StandInCheckup, AnEditedTableShowsWhatItSaysAndAnUnreadableOneIsLeftAlone) {
    TempDir dir;
    dir.write("stand-in-checkup.json", R"({"datesFrom": "2026-11-01T00:00:00.000Z", "next": 0,
        "table": [{"hasBattery": false, "firewall": false, "firewallHow": "none running"}]})");
    StandInCheckup source(dir.path());
    auto f = source.read();
    EXPECT_EQ(f.hasBattery, false);
    EXPECT_EQ(f.firewall, false);
    EXPECT_FALSE(f.load1);
    EXPECT_FALSE(source.problem());

    TempDir other;
    auto file = other.write("stand-in-checkup.json", "not json");
    StandInCheckup broken(other.path());
    ASSERT_TRUE(broken.problem());
    broken.read();
    EXPECT_EQ(vantle::testing::readFile(file), "not json");
}

TEST(CheckupService, KeptCheckupFilesWereReadThroughLinksWithoutABound) {
    // A link in the data folder's place is followed by no kept-file reader: it could lead to a FIFO
    // or /dev/zero. Both checkup files are refused with a sentence instead of read.
    TempDir dir;
    SteppingClock time;
    auto elsewhere = dir / "elsewhere/checkups.json";
    { CheckupService(std::make_shared<Worsening>(), elsewhere, time.clock()).run(); }
    dir.mkdir("data/Health");
    fs::create_symlink(elsewhere, dir / "data/Health/checkups.json");
    CheckupService service(std::make_shared<Worsening>(), dir / "data/Health/checkups.json", time.clock());
    ASSERT_TRUE(service.problem());
    EXPECT_NE(service.problem()->find("is not a regular file"), std::string::npos) << *service.problem();
    EXPECT_TRUE(service.kept().points.empty());

    dir.write("table/stand-in-checkup.json", R"({"datesFrom": "2026-11-01T00:00:00.000Z", "next": 0,
        "table": [{"hasBattery": false}]})");
    fs::create_symlink(dir / "table/stand-in-checkup.json", dir / "data/stand-in-checkup.json");
    StandInCheckup standIn(dir / "data");
    ASSERT_TRUE(standIn.problem());
    EXPECT_NE(standIn.problem()->find("is not a regular file"), std::string::npos) << *standIn.problem();
}
