#include "VantleVitals/HealthRecord.h"

#include "VantleSpec/Sentence.h"

#include "Platform/AtomicFile.h"
#include "Platform/BeneathOpen.h"
#include "VantleVitals/PlistHealthPoint.h"

#include <sqlite3.h>

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace vantle {

namespace {

constexpr const char* openingBatch = "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; "
                                     "PRAGMA temp_store = MEMORY; PRAGMA secure_delete = ON;";

// Backup tools that honour the cache-directory tag (tar, borg, restic and others) leave the folder
// out, which is the nearest Linux has to a per-folder "exclude from backups" flag.
constexpr std::string_view backupExclusionTagName = "CACHEDIR.TAG";
constexpr std::string_view backupExclusionTag =
    "Signature: 8a477f597d28d172789f06886806bc55\n"
    "# Vantle Lite keeps this machine's health record here; it stays on this machine and is left out\n"
    "# of backups.\n";

std::string tableName(HealthRecord::Table table) {
    return std::string(nameOf(table));
}

std::string createStatement(HealthRecord::Table table) {
    return " CREATE TABLE IF NOT EXISTS " + tableName(table) +
           "(start INTEGER PRIMARY KEY, point BLOB NOT NULL);";
}

std::int64_t floorTo(std::int64_t seconds, std::int64_t step) {
    auto q = seconds / step;
    if (seconds % step < 0) --q;
    return q * step;
}

// Makes the record's folder, owner-only, and marks it as left out of backups the first time. False
// when the folder cannot be made or is a link (the record then stays closed).
bool makeFolder(const std::filesystem::path& folder) {
    std::error_code ec;
    const auto parent = folder.parent_path();
    if (!parent.empty() && !std::filesystem::exists(parent, ec))
        std::filesystem::create_directories(parent, ec);
    auto parentFd = openFolder(parent.empty() ? "." : parent);
    if (!parentFd) return false;
    const auto name = folder.filename();
    bool made = ::mkdirat(parentFd->get(), name.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) return false;
    auto folderFd = openBeneath(parentFd->get(), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (!folderFd) return false;
    if (made) (void)writeFileAtomically(folder / backupExclusionTagName, backupExclusionTag);
    return true;
}

} // namespace

HealthRecord::SeedRefusal HealthRecord::SeedRefusal::of(Kind kind) {
    switch (kind) {
    case Kind::notASandbox:
        return {kind, std::string(notASandboxSentence)};
    case Kind::alreadyHeld:
        return {kind, std::string(alreadyHeldSentence)};
    case Kind::notWritten:
        break;
    }
    return {kind, std::string(notWrittenSentence)};
}

std::int64_t recordSeconds(TimePoint at) {
    using namespace std::chrono;
    return std::llround(duration<double>(at.time_since_epoch()).count());
}

TimePoint fromRecordSeconds(std::int64_t seconds) {
    return TimePoint(std::chrono::seconds(seconds));
}

HealthRecord::HealthRecord(std::filesystem::path folder) : folder_(std::move(folder)) {}

HealthRecord::~HealthRecord() = default;

std::optional<std::string> HealthRecord::problem() {
    std::lock_guard lock(mutex_);
    database();
    return problem_;
}

SqliteDatabase* HealthRecord::database() {
    if (!triedOpening_) {
        triedOpening_ = true;
        if (!makeFolder(folder_)) return nullptr;
        auto opened =
            SqliteDatabase::open(folder_ / fileName, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                                         SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW);
        auto unreadable = [&](std::string_view reason) {
            problem_ =
                fillIn(unreadableSentence, {{"file", (folder_ / fileName).string()}, {"reason", reason}});
            return nullptr;
        };
        if (!opened) return unreadable("it could not be opened");
        std::string batch = openingBatch;
        for (auto table : allCases<Table>())
            batch += createStatement(table);
        if (!opened->exec(batch.c_str()))
            return unreadable("it is damaged or is not a record"); // `opened` closes as it goes
        db_ = std::move(*opened);
    }
    return db_ ? &db_ : nullptr;
}

bool HealthRecord::insert(Table table, const HealthPoint& point) {
    auto statement =
        db_.cached("INSERT OR REPLACE INTO " + tableName(table) + "(start, point) VALUES (?, ?)");
    if (!statement) return false;
    const auto bytes = encodeHealthPointPlist(point);
    return statement->bindInt64(1, recordSeconds(point.start)) && statement->bindBlob(2, bytes) &&
           statement->step() == SqliteStatement::Step::done;
}

std::vector<HealthPoint> HealthRecord::pointsBetween(Table table, double fromSeconds, double toSeconds) {
    std::vector<HealthPoint> out;
    auto statement = db_.cached("SELECT point FROM " + tableName(table) +
                                " WHERE start >= ? AND start < ? ORDER BY start");
    if (!statement || !statement->bindDouble(1, fromSeconds) || !statement->bindDouble(2, toSeconds))
        return out;
    while (statement->step() == SqliteStatement::Step::row) {
        auto blob = statement->blobAt(0);
        if (!blob) continue;
        if (auto point = decodeHealthPointPlist(*blob)) out.push_back(std::move(*point));
    }
    return out;
}

std::optional<std::int64_t> HealthRecord::bound(const char* aggregate, Table table) {
    auto statement = db_.cached(std::string("SELECT ") + aggregate + "(start) FROM " + tableName(table));
    if (!statement || statement->step() != SqliteStatement::Step::row) return std::nullopt;
    return statement->int64At(0);
}

void HealthRecord::rollUp(Table from, Table into, std::int64_t bucketStart) {
    const auto parts = pointsBetween(from, double(bucketStart), double(bucketStart + stepSeconds(into)));
    if (auto combined = combineHealthPoints(fromRecordSeconds(bucketStart), parts)) insert(into, *combined);
}

void HealthRecord::append(const HealthPoint& point) {
    std::lock_guard lock(mutex_);
    if (!database()) return;
    const auto previous = bound("MAX", Table::minutes);
    insert(Table::minutes, point);

    const std::int64_t now = recordSeconds(point.start);
    if (previous) {
        // Only the bucket the previous minute belonged to can have just completed; buckets in a gap
        // between two minutes are empty and make no point.
        const auto q0 = floorTo(*previous, stepSeconds(Table::quarters));
        const auto q1 = floorTo(now, stepSeconds(Table::quarters));
        if (q1 > q0) rollUp(Table::minutes, Table::quarters, q0);
        const auto h0 = floorTo(q0, stepSeconds(Table::hours));
        const auto h1 = floorTo(now, stepSeconds(Table::hours));
        if (h1 > h0) rollUp(Table::quarters, Table::hours, h0);
    }

    for (auto table : allCases<Table>()) {
        auto statement = db_.cached("DELETE FROM " + tableName(table) + " WHERE start <= ?");
        if (statement && statement->bindDouble(1, double(now - keepSeconds(table)))) statement->step();
    }
}

std::vector<HealthPoint> HealthRecord::points(Table table, TimePoint from, TimePoint to) {
    std::lock_guard lock(mutex_);
    if (!database()) return {};
    using namespace std::chrono;
    return pointsBetween(table, duration<double>(from.time_since_epoch()).count(),
                         duration<double>(to.time_since_epoch()).count());
}

std::optional<TimePoint> HealthRecord::earliest(Table table) {
    return boundTime("MIN", table);
}

std::optional<TimePoint> HealthRecord::latest(Table table) {
    return boundTime("MAX", table);
}

std::optional<TimePoint> HealthRecord::boundTime(const char* aggregate, Table table) {
    std::lock_guard lock(mutex_);
    if (!database()) return std::nullopt;
    auto seconds = bound(aggregate, table);
    return seconds ? std::optional(fromRecordSeconds(*seconds)) : std::nullopt;
}

bool HealthRecord::holdsRecord() {
    std::lock_guard lock(mutex_);
    if (!database()) return false;
    for (auto table : allCases<Table>())
        if (bound("MIN", table)) return true;
    return false;
}

std::expected<void, HealthRecord::SeedRefusal> HealthRecord::seed(const std::vector<HealthPoint>& hours,
                                                                  const std::vector<HealthPoint>& quarters,
                                                                  const std::vector<HealthPoint>& minutes) {
    std::lock_guard lock(mutex_);
    if (!database()) return std::unexpected(SeedRefusal::of(SeedRefusal::Kind::notWritten));
    // The write lock is taken before the record is looked at, so a second process seeding at the
    // same moment waits (on the busy handler) and then finds the week already there.
    if (!db_.exec("BEGIN IMMEDIATE")) return std::unexpected(SeedRefusal::of(SeedRefusal::Kind::notWritten));
    for (auto table : allCases<Table>())
        if (bound("MIN", table)) {
            db_.exec("ROLLBACK");
            return std::unexpected(SeedRefusal::of(SeedRefusal::Kind::alreadyHeld));
        }

    bool ok = true;
    for (const auto& [table, list] : {std::pair{Table::hours, &hours}, std::pair{Table::quarters, &quarters},
                                      std::pair{Table::minutes, &minutes}})
        for (const auto& point : *list)
            if (ok) ok = insert(table, point);
    if (!ok || !db_.exec("COMMIT")) {
        db_.exec("ROLLBACK");
        return std::unexpected(SeedRefusal::of(SeedRefusal::Kind::notWritten));
    }
    return {};
}

void HealthRecord::erase() {
    std::lock_guard lock(mutex_);
    if (!database()) return;
    for (auto table : allCases<Table>())
        db_.exec(("DELETE FROM " + tableName(table) + ";").c_str());
    db_.exec("PRAGMA wal_checkpoint(TRUNCATE);");
}

} // namespace vantle
