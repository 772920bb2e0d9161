#include "VantleVitals/SqliteDatabase.h"

#include "VantleVitals/SqliteCalls.h"

#include <utility>

namespace vantle {

namespace {

// Every call but the opening one goes through a handle SQLite made, so the library is loaded by then.
const SqliteCalls& sqlite() {
    return **sqliteCalls();
}

} // namespace

SqliteStatement::~SqliteStatement() {
    if (statement_) sqlite().finalize(statement_);
}

SqliteStatement::SqliteStatement(SqliteStatement&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)) {}

SqliteStatement& SqliteStatement::operator=(SqliteStatement&& other) noexcept {
    if (this != &other) {
        if (statement_) sqlite().finalize(statement_);
        statement_ = std::exchange(other.statement_, nullptr);
    }
    return *this;
}

bool SqliteStatement::bindInt64(int place, std::int64_t value) {
    return statement_ && sqlite().bind_int64(statement_, place, value) == SQLITE_OK;
}

bool SqliteStatement::bindDouble(int place, double value) {
    return statement_ && sqlite().bind_double(statement_, place, value) == SQLITE_OK;
}

bool SqliteStatement::bindBlob(int place, std::span<const std::byte> bytes) {
    return statement_ &&
           sqlite().bind_blob64(statement_, place, bytes.data(), bytes.size(), SQLITE_TRANSIENT) == SQLITE_OK;
}

SqliteStatement::Step SqliteStatement::step() {
    if (!statement_) return Step::failed;
    switch (sqlite().step(statement_)) {
    case SQLITE_ROW:
        return Step::row;
    case SQLITE_DONE:
        return Step::done;
    default:
        return Step::failed;
    }
}

void SqliteStatement::reset() {
    if (!statement_) return;
    sqlite().reset(statement_);
    sqlite().clear_bindings(statement_);
}

std::optional<std::int64_t> SqliteStatement::int64At(int column) const {
    if (!statement_ || sqlite().column_type(statement_, column) != SQLITE_INTEGER) return std::nullopt;
    return sqlite().column_int64(statement_, column);
}

std::optional<std::span<const std::byte>> SqliteStatement::blobAt(int column) const {
    if (!statement_ || sqlite().column_type(statement_, column) != SQLITE_BLOB) return std::nullopt;
    // sqlite3_column_blob before sqlite3_column_bytes, as SQLite asks, so no conversion moves the bytes.
    const auto* data = static_cast<const std::byte*>(sqlite().column_blob(statement_, column));
    const auto size = static_cast<std::size_t>(sqlite().column_bytes(statement_, column));
    if (!data) return std::span<const std::byte>{};
    return std::span<const std::byte>(data, size);
}

SqliteDatabase::~SqliteDatabase() {
    close();
}

SqliteDatabase::SqliteDatabase(SqliteDatabase&& other) noexcept
    : db_(std::exchange(other.db_, nullptr)), statements_(std::move(other.statements_)) {}

SqliteDatabase& SqliteDatabase::operator=(SqliteDatabase&& other) noexcept {
    if (this != &other) {
        close();
        db_ = std::exchange(other.db_, nullptr);
        statements_ = std::move(other.statements_);
    }
    return *this;
}

std::optional<SqliteDatabase> SqliteDatabase::open(const std::filesystem::path& file, int flags) {
    // A library that cannot be loaded is a database that cannot be opened, as the caller already knows it.
    auto calls = sqliteCalls();
    if (!calls) return std::nullopt;
    const SqliteCalls& c = **calls;
    sqlite3* handle = nullptr;
    if (c.open_v2(file.c_str(), &handle, flags, nullptr) != SQLITE_OK) {
        c.close(handle); // open_v2 may hand back a handle even when it fails
        return std::nullopt;
    }
    // Another process writing the same record (two runs at once) is waited for, not reported as a
    // failure: its writes are short.
    c.busy_timeout(handle, 10'000);
    SqliteDatabase db;
    db.db_ = handle;
    return db;
}

bool SqliteDatabase::exec(const char* sql) {
    return db_ && sqlite().exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

SqliteLease SqliteDatabase::cached(std::string_view sql) {
    if (!db_) return SqliteLease(nullptr);
    auto it = statements_.find(sql);
    if (it == statements_.end()) {
        sqlite3_stmt* raw = nullptr;
        if (sqlite().prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                                &raw, nullptr) != SQLITE_OK ||
            !raw) {
            sqlite().finalize(raw);
            return SqliteLease(nullptr);
        }
        it = statements_.emplace(std::string(sql), SqliteStatement(raw)).first;
    }
    return SqliteLease(&it->second);
}

void SqliteDatabase::close() {
    statements_.clear(); // statements first: a connection with live statements does not close
    if (db_) sqlite().close(std::exchange(db_, nullptr));
}

} // namespace vantle
