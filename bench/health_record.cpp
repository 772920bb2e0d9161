// The health record's two costs that a user could feel: appending the minute point (with the roll-ups
// and trims that come with it) while the app runs, and reading a year of hours back for the History
// card. Each stands beside the bare SQLite floor on the same data in the same run: a plain prepared
// INSERT OR REPLACE of the same bytes, and a plain scan of the same rows without decoding, so the
// ratio says what the record's own work costs. Run with --benchmark_repetitions=5 for medians.
#include "VantleVitals/HealthHistory.h"
#include "VantleVitals/HealthRecord.h"
#include "VantleVitals/PlistHealthPoint.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <stdlib.h>

using namespace vantle;
using namespace std::chrono;
namespace fs = std::filesystem;

namespace {

const TimePoint start = sys_days{2026y / January / 5};

class ScratchFolder {
  public:
    ScratchFolder() {
        std::string pattern = (fs::temp_directory_path() / "vantle-health-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("no scratch folder");
        path_ = pattern;
    }
    ~ScratchFolder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

// A realistic minute: five apps, a battery, every figure set.
HealthPoint minuteAt(TimePoint at, int i) {
    HealthPoint p;
    p.start = at;
    p.seconds = 60;
    p.cpu = 0.1 + 0.5 * ((i * 37) % 100) / 100.0;
    p.cpuPeak = std::min(1.0, p.cpu + 0.2);
    p.memory = 0.55;
    p.memoryPeak = 0.6;
    p.pressureShare = 0;
    p.swapBytes = 200'000'000;
    p.networkIn = 30'000;
    p.networkOut = 4'000;
    p.diskRead = 120'000;
    p.diskWritten = 40'000;
    p.charge = 0.8;
    for (auto name : {"Browser", "Mail", "Editor", "Music", "Terminal"})
        p.apps.push_back({name, 10.0 + i % 7, 500'000'000, std::nullopt});
    return p;
}

// A year of hours (367 days, as many as the record keeps), ending at `end`.
std::vector<HealthPoint> yearOfHours(TimePoint end) {
    auto week = HealthHistory::madeUpWeek(end);
    std::vector<HealthPoint> hours;
    const auto keep = seconds(HealthRecord::keepSeconds(HealthRecord::Table::hours));
    for (TimePoint at = end - keep + 1h; at < end; at += 1h) {
        auto p = week.hours[hours.size() % week.hours.size()];
        p.start = at;
        hours.push_back(std::move(p));
    }
    return hours;
}

struct BareDatabase {
    sqlite3* db = nullptr;
    explicit BareDatabase(const fs::path& file) {
        sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr);
        sqlite3_exec(
            db,
            "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA temp_store = MEMORY; "
            "PRAGMA secure_delete = ON; CREATE TABLE IF NOT EXISTS minutes(start INTEGER PRIMARY KEY, "
            "point BLOB NOT NULL);",
            nullptr, nullptr, nullptr);
    }
    ~BareDatabase() { sqlite3_close(db); }
};

void appendMinute(benchmark::State& state) {
    ScratchFolder scratch;
    HealthRecord record(scratch.path() / "Health");
    // A full day and a bit already kept, so every append also trims and the roll-ups read real rows.
    int i = 0;
    TimePoint at = start;
    for (; i < 26 * 60; ++i, at += 1min)
        record.append(minuteAt(at, i));
    for (auto _ : state) {
        record.append(minuteAt(at, i));
        ++i;
        at += 1min;
    }
    state.SetItemsProcessed(state.iterations());
}

void bareInsertMinute(benchmark::State& state) {
    ScratchFolder scratch;
    BareDatabase bare(scratch.path() / "bare.sqlite");
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(bare.db, "INSERT OR REPLACE INTO minutes(start, point) VALUES (?, ?)", -1, &insert,
                       nullptr);
    int i = 0;
    TimePoint at = start;
    for (auto _ : state) {
        const auto bytes = encodeHealthPointPlist(minuteAt(at, i));
        sqlite3_bind_int64(insert, 1, recordSeconds(at));
        sqlite3_bind_blob(insert, 2, bytes.data(), int(bytes.size()), SQLITE_TRANSIENT);
        sqlite3_step(insert);
        sqlite3_reset(insert);
        ++i;
        at += 1min;
    }
    sqlite3_finalize(insert);
    state.SetItemsProcessed(state.iterations());
}

void readYearOfHours(benchmark::State& state) {
    ScratchFolder scratch;
    const TimePoint end = start + days(400);
    auto record = std::make_shared<HealthRecord>(scratch.path() / "Health");
    if (!record->seed(yearOfHours(end), {}, {})) state.SkipWithError("seed failed");
    HealthHistory history(record, [end] { return end; });
    std::size_t points = 0;
    for (auto _ : state) {
        auto reading = history.read(HealthHistory::Span::year);
        points = reading.points.size();
        benchmark::DoNotOptimize(reading);
    }
    state.counters["points"] = double(points);
    state.SetItemsProcessed(state.iterations() * std::int64_t(points));
}

void bareScanYearOfHours(benchmark::State& state) {
    ScratchFolder scratch;
    const TimePoint end = start + days(400);
    {
        HealthRecord record(scratch.path() / "Health");
        if (!record.seed(yearOfHours(end), {}, {})) state.SkipWithError("seed failed");
    }
    BareDatabase bare(scratch.path() / "Health" / "record.sqlite");
    sqlite3_stmt* scan = nullptr;
    sqlite3_prepare_v2(bare.db, "SELECT point FROM hours WHERE start >= ? AND start < ? ORDER BY start", -1,
                       &scan, nullptr);
    // The same bounds the year's reading uses: a year back from now, and now itself.
    const double from = double(recordSeconds(end - days(365)));
    const double to = double(recordSeconds(end)) + 1;
    std::size_t points = 0;
    for (auto _ : state) {
        sqlite3_bind_double(scan, 1, from);
        sqlite3_bind_double(scan, 2, to);
        std::size_t bytes = 0;
        points = 0;
        while (sqlite3_step(scan) == SQLITE_ROW) {
            sqlite3_column_blob(scan, 0);
            bytes += std::size_t(sqlite3_column_bytes(scan, 0));
            ++points;
        }
        sqlite3_reset(scan);
        benchmark::DoNotOptimize(bytes);
    }
    sqlite3_finalize(scan);
    state.counters["points"] = double(points);
    state.SetItemsProcessed(state.iterations() * std::int64_t(points));
}

} // namespace

BENCHMARK(appendMinute)->Unit(benchmark::kMicrosecond);
BENCHMARK(bareInsertMinute)->Unit(benchmark::kMicrosecond);
BENCHMARK(readYearOfHours)->Unit(benchmark::kMillisecond);
BENCHMARK(bareScanYearOfHours)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
