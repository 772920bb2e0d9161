#include "VantleVitals/HealthRecord.h"

#include "VantleVitals/PlistHealthPoint.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <sys/stat.h>

using namespace vantle;
using namespace std::chrono;
using Table = HealthRecord::Table;
namespace fs = std::filesystem;

namespace {

// 2026-03-03 10:00:00 UTC: a whole hour, so quarter and hour arithmetic reads plainly below.
const TimePoint recordTen = sys_days{2026y / March / 3} + 10h;

HealthPoint minute(TimePoint start, double cpu = 0.1, double seconds = 60) {
    HealthPoint p;
    p.start = start;
    p.seconds = seconds;
    p.cpu = cpu;
    p.cpuPeak = cpu;
    return p;
}

std::vector<TimePoint> startsOf(const std::vector<HealthPoint>& points) {
    std::vector<TimePoint> out;
    for (const auto& p : points)
        out.push_back(p.start);
    return out;
}

// A second connection, as another program would open the file, to look at what the store wrote.
class Peek {
  public:
    explicit Peek(const fs::path& file) {
        sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr);
    }
    ~Peek() { sqlite3_close(db_); }
    std::string text(const std::string& sql) {
        sqlite3_stmt* s = nullptr;
        std::string out;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &s, nullptr) == SQLITE_OK &&
            sqlite3_step(s) == SQLITE_ROW && sqlite3_column_text(s, 0))
            out = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        sqlite3_finalize(s);
        return out;
    }
    bool exec(const std::string& sql) {
        return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    }

  private:
    sqlite3* db_ = nullptr;
};

class HealthRecordTest : public ::testing::Test {
  protected:
    vantle::testing::TempDir temp;
    fs::path folder = temp / "Health";
    HealthRecord record{folder};
    std::vector<HealthPoint> all(Table table) {
        return record.points(table, TimePoint{}, recordTen + days(400));
    }
};

} // namespace

TEST_F(HealthRecordTest, OpensLazilyIntoAnOwnerOnlyFolderLeftOutOfBackups) {
    EXPECT_FALSE(fs::exists(folder)) << "nothing happens before first use";
    EXPECT_EQ(record.latest(Table::minutes), std::nullopt);
    ASSERT_TRUE(fs::exists(folder / "record.sqlite"));
    struct stat st {};
    ASSERT_EQ(::stat(folder.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(vantle::testing::readFile(folder / "CACHEDIR.TAG").substr(0, 43),
              "Signature: 8a477f597d28d172789f06886806bc55");

    Peek peek(folder / "record.sqlite");
    EXPECT_EQ(peek.text("PRAGMA journal_mode"), "wal");
    for (auto table : {"minutes", "quarters", "hours"})
        EXPECT_EQ(peek.text(std::string("SELECT sql FROM sqlite_master WHERE name = '") + table + "'"),
                  std::string("CREATE TABLE ") + table + "(start INTEGER PRIMARY KEY, point BLOB NOT NULL)");
}

TEST_F(HealthRecordTest, FirstPointAndPointsInTheSameQuarterRollNothingUp) {
    record.append(minute(recordTen + 1min));
    EXPECT_EQ(startsOf(all(Table::minutes)), std::vector{recordTen + 1min});
    EXPECT_TRUE(all(Table::quarters).empty());
    for (int m = 2; m < 15; ++m)
        record.append(minute(recordTen + minutes(m)));
    EXPECT_EQ(all(Table::minutes).size(), 14u);
    EXPECT_TRUE(all(Table::quarters).empty()) << "10:14 is still in the first quarter";
    EXPECT_EQ(record.earliest(Table::minutes), recordTen + 1min);
    EXPECT_EQ(record.latest(Table::minutes), recordTen + 14min);
}

TEST_F(HealthRecordTest, TheFirstMinuteOfANewQuarterRollsUpTheOneBefore) {
    for (int m = 0; m < 15; ++m)
        record.append(minute(recordTen + minutes(m), m < 10 ? 0.1 : 0.4));
    record.append(minute(recordTen + 15min, 0.9));

    auto quarters = all(Table::quarters);
    ASSERT_EQ(quarters.size(), 1u);
    EXPECT_EQ(quarters[0].start, recordTen);
    EXPECT_DOUBLE_EQ(quarters[0].seconds, 15 * 60);
    EXPECT_NEAR(quarters[0].cpu, (10 * 0.1 + 5 * 0.4) / 15, 1e-12) << "the new minute is not part of it";
    EXPECT_DOUBLE_EQ(quarters[0].cpuPeak, 0.4);
    EXPECT_TRUE(all(Table::hours).empty());
}

TEST_F(HealthRecordTest, TheFirstMinuteOfANewHourRollsUpItsQuarters) {
    for (int m = 0; m <= 60; ++m)
        record.append(minute(recordTen + minutes(m), m < 30 ? 0.2 : 0.6));
    EXPECT_EQ(startsOf(all(Table::quarters)),
              (std::vector{recordTen, recordTen + 15min, recordTen + 30min, recordTen + 45min}));
    auto hours = all(Table::hours);
    ASSERT_EQ(hours.size(), 1u);
    EXPECT_EQ(hours[0].start, recordTen);
    EXPECT_DOUBLE_EQ(hours[0].seconds, 3600);
    EXPECT_NEAR(hours[0].cpu, 0.4, 1e-12);
}

TEST_F(HealthRecordTest, AGapOfHoursRollsUpOnlyThePreviousMinutesQuarterAndHour) {
    for (int m = 50; m < 60; ++m)
        record.append(minute(recordTen + minutes(m)));
    record.append(minute(recordTen + 4h + 7min));

    EXPECT_EQ(startsOf(all(Table::quarters)), std::vector{recordTen + 45min});
    auto hours = all(Table::hours);
    EXPECT_EQ(startsOf(hours), std::vector{recordTen});
    EXPECT_DOUBLE_EQ(hours[0].seconds, 10 * 60) << "made of the one quarter that had minutes";
}

TEST_F(HealthRecordTest, ASecondPointWithTheSameRoundedStartReplacesTheFirst) {
    record.append(minute(recordTen + 5min + 200ms, 0.1));
    record.append(minute(recordTen + 5min - 300ms, 0.7));
    auto points = all(Table::minutes);
    ASSERT_EQ(points.size(), 1u);
    EXPECT_DOUBLE_EQ(points[0].cpu, 0.7);
    EXPECT_EQ(record.latest(Table::minutes), recordTen + 5min);
}

TEST_F(HealthRecordTest, TrimmingDeletesARowExactlyAsOldAsTheKeepSpan) {
    const auto keep = seconds(HealthRecord::keepSeconds(Table::minutes));
    ASSERT_EQ(keep, 26h);
    record.append(minute(recordTen));
    record.append(minute(recordTen + 1min));
    record.append(minute(recordTen + keep)); // recordTen is now exactly 93600 s old; recordTen + 1min is not
    EXPECT_EQ(record.earliest(Table::minutes), recordTen + 1min);
    EXPECT_EQ(HealthRecord::keepSeconds(Table::quarters), 32 * 86400);
    EXPECT_EQ(HealthRecord::keepSeconds(Table::hours), 367 * 86400);
}

TEST_F(HealthRecordTest, PointsReadFromInclusiveToExclusiveOldestFirst) {
    for (int m : {3, 1, 2, 0})
        record.append(minute(recordTen + minutes(m)));
    EXPECT_EQ(startsOf(record.points(Table::minutes, recordTen + 1min, recordTen + 3min)),
              (std::vector{recordTen + 1min, recordTen + 2min}));
    EXPECT_TRUE(record.points(Table::minutes, recordTen + 10min, recordTen + 20min).empty());
    EXPECT_EQ(record.earliest(Table::hours), std::nullopt);
}

TEST_F(HealthRecordTest, ReadingSkipsRowsThatAreNotPoints) {
    record.append(minute(recordTen));
    record.append(minute(recordTen + 3min));
    {
        Peek peek(folder / "record.sqlite");
        ASSERT_TRUE(peek.exec("INSERT INTO minutes(start, point) VALUES (" +
                              std::to_string(recordSeconds(recordTen + 1min)) + ", x'00010203')"));
        ASSERT_TRUE(peek.exec("INSERT INTO minutes(start, point) VALUES (" +
                              std::to_string(recordSeconds(recordTen + 2min)) + ", 'a point in words')"));
    }
    EXPECT_EQ(startsOf(all(Table::minutes)), (std::vector{recordTen, recordTen + 3min}));
    EXPECT_EQ(record.latest(Table::minutes), recordTen + 3min);
}

TEST_F(HealthRecordTest, SeedsAllThreeTablesOnlyWhereNoRecordIsHeld) {
    std::vector hours{minute(recordTen - 2h, 0.1, 3600), minute(recordTen - 1h, 0.2, 3600)};
    std::vector quarters{minute(recordTen - 15min, 0.3, 900)};
    std::vector minutes{minute(recordTen - 1min, 0.4)};
    ASSERT_FALSE(record.holdsRecord());
    ASSERT_TRUE(record.seed(hours, quarters, minutes));
    EXPECT_EQ(all(Table::hours), hours);
    EXPECT_EQ(all(Table::quarters), quarters);
    EXPECT_EQ(all(Table::minutes), minutes);

    auto again = record.seed(hours, {}, {});
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error().kind, HealthRecord::SeedRefusal::Kind::alreadyHeld);
    EXPECT_EQ(again.error().sentence, "A made-up week goes only into a folder with none.");
}

TEST_F(HealthRecordTest, EraseLeavesNoTraceInTheFileOrItsLogAndRecordingStartsAgain) {
    auto marked = minute(recordTen);
    marked.apps = {{"Unmistakable-App-Name", 50, 1 << 20, std::nullopt}};
    for (int m = 0; m < 20; ++m) {
        marked.start = recordTen + minutes(m);
        record.append(marked);
    }
    ASSERT_EQ(all(Table::quarters).size(), 1u);
    record.erase();

    EXPECT_FALSE(record.holdsRecord());
    for (auto name : {"record.sqlite", "record.sqlite-wal"}) {
        if (!fs::exists(folder / name)) continue;
        EXPECT_EQ(vantle::testing::readFile(folder / name).find("Unmistakable-App-Name"), std::string::npos)
            << name;
    }
    EXPECT_EQ(fs::file_size(folder / "record.sqlite-wal"), 0u) << "the log is truncated";

    record.append(minute(recordTen + 1h));
    EXPECT_EQ(startsOf(all(Table::minutes)), std::vector{recordTen + 1h});
    EXPECT_FALSE(record.seed({minute(recordTen - 1h, 0.5, 3600)}, {}, {}))
        << "one minute is already a record";
}

TEST(HealthRecordRefusal, ALinkInPlaceOfTheFileOrFolderLeavesTheStoreClosedAndTouchesNothing) {
    vantle::testing::TempDir temp;
    const auto elsewhere = temp.write("elsewhere.sqlite", "not a database of ours");
    temp.mkdir("Health");
    fs::create_symlink(elsewhere, temp / "Health" / "record.sqlite");
    HealthRecord linkedFile(temp / "Health");
    linkedFile.append(minute(recordTen));
    EXPECT_TRUE(linkedFile.points(Table::minutes, TimePoint{}, recordTen + 1h).empty());
    EXPECT_EQ(linkedFile.seed({minute(recordTen)}, {}, {}).error().kind,
              HealthRecord::SeedRefusal::Kind::notWritten);
    EXPECT_EQ(vantle::testing::readFile(elsewhere), "not a database of ours");

    temp.mkdir("Real");
    fs::create_symlink(temp / "Real", temp / "Linked");
    HealthRecord linkedFolder(temp / "Linked");
    linkedFolder.append(minute(recordTen));
    EXPECT_FALSE(linkedFolder.holdsRecord());
    EXPECT_TRUE(fs::is_empty(temp / "Real"));
}

TEST(HealthRecordRefusal, AFileThatIsNotADatabaseIsLeftAsItWas) {
    vantle::testing::TempDir temp;
    const auto file = temp.write("Health/record.sqlite", std::string(4096, 'x'));
    HealthRecord record(temp / "Health");
    record.append(minute(recordTen));
    EXPECT_EQ(record.latest(Table::minutes), std::nullopt);
    EXPECT_EQ(vantle::testing::readFile(file), std::string(4096, 'x'));
}
