// The health record: one SQLite file ("record.sqlite") in the folder it is given, holding a point a
// minute for about a day, a quarter hour for about a month and an hour for about a year. An actor:
// every operation holds its mutex, so it may be called from several threads. Database failures are
// silent by design (the record is a convenience, never a reason to stop): a write that fails leaves
// the table as it was and a read that fails gives none or an empty list. Results are the caller's.
#pragma once
#include "VantleSpec/HealthPoint.h"
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleVitals/SqliteDatabase.h"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class HealthRecord {
  public:
    // The three grains, finest first. Each keeps its rows a little longer than the span it is shown
    // for, so the oldest bucket of a full span is still there.
    enum class Table { minutes, quarters, hours };

    static constexpr std::int64_t stepSeconds(Table table) {
        constexpr std::int64_t steps[] = {60, 900, 3600};
        return steps[static_cast<int>(table)];
    }
    static constexpr std::int64_t keepSeconds(Table table) {
        constexpr std::int64_t keeps[] = {93'600, 2'764'800, 31'708'800}; // 26 hours, 32 days, 367 days
        return keeps[static_cast<int>(table)];
    }

    static constexpr std::string_view fileName = "record.sqlite";

    // Why a made-up week was not written. The store itself gives alreadyHeld and notWritten; the
    // front ends give notASandbox before they ask, as only a sandbox's record may be made up.
    struct SeedRefusal {
        enum class Kind { notASandbox, alreadyHeld, notWritten };
        Kind kind;
        std::string sentence;
        bool operator==(const SeedRefusal&) const = default;

        static constexpr std::string_view notASandboxSentence =
            "A made-up week goes only into a sandbox, never into this machine's own record.";
        static constexpr std::string_view alreadyHeldSentence =
            "A made-up week goes only into a folder with none.";
        static constexpr std::string_view notWrittenSentence =
            "The made-up week could not be written to Health's record.";
        static SeedRefusal of(Kind kind);
    };

    // Nothing is opened here: the folder is made (if missing) and the database opened on first use.
    explicit HealthRecord(std::filesystem::path folder);
    ~HealthRecord();
    HealthRecord(const HealthRecord&) = delete;
    HealthRecord& operator=(const HealthRecord&) = delete;

    const std::filesystem::path& folder() const { return folder_; }

    // Stores one minute point, rolls up a quarter and an hour that it completes, and trims each table.
    void append(const HealthPoint& point);

    // Points with from <= start < to, oldest first; rows that do not decode are skipped.
    std::vector<HealthPoint> points(Table table, TimePoint from, TimePoint to);

    std::optional<TimePoint> earliest(Table table);
    std::optional<TimePoint> latest(Table table);

    // Set once opening the record failed (a damaged file, or one that is not a record): the sentence
    // the front ends show instead of an empty history.
    std::optional<std::string> problem();
    static constexpr std::string_view unreadableSentence =
        "Health's record {file} could not be read, so its history cannot be shown: {reason}.";

    // Whether any table holds a row.
    bool holdsRecord();

    // Writes whole lists into the three tables in one transaction, only where no table holds a row.
    std::expected<void, SeedRefusal> seed(const std::vector<HealthPoint>& hours,
                                          const std::vector<HealthPoint>& quarters,
                                          const std::vector<HealthPoint>& minutes);

    // Forgets every point and truncates the write-ahead log, so nothing of it lingers on the disk.
    void erase();

  private:
    SqliteDatabase* database();
    bool insert(Table table, const HealthPoint& point);
    std::vector<HealthPoint> pointsBetween(Table table, double fromSeconds, double toSeconds);
    std::optional<std::int64_t> bound(const char* aggregate, Table table);
    std::optional<TimePoint> boundTime(const char* aggregate, Table table); // locks
    void rollUp(Table from, Table into, std::int64_t bucketStart);

    std::mutex mutex_;
    std::filesystem::path folder_;
    bool triedOpening_ = false;
    std::optional<std::string> problem_;
    SqliteDatabase db_;
};

VANTLE_ENUM_NAMES(HealthRecord::Table, "minutes", "quarters", "hours")

// Whole seconds since 1970 (rounded), as the record keys its rows.
std::int64_t recordSeconds(TimePoint at);
TimePoint fromRecordSeconds(std::int64_t seconds);

} // namespace vantle
