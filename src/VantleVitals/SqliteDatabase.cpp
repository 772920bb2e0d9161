#include "VantleVitals/SqliteDatabase.h"

#include <sqlite3.h>

#include <utility>

namespace vantle {

SqliteStatement::~SqliteStatement() {
    sqlite3_finalize(statement_);
}

SqliteStatement::SqliteStatement(SqliteStatement&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)) {}

SqliteStatement& SqliteStatement::operator=(SqliteStatement&& other) noexcept {
    if (this != &other) {
        sqlite3_finalize(statement_);
        statement_ = std::exchange(other.statement_, nullptr);
    }
    return *this;
}

bool SqliteStatement::bindInt64(int place, std::int64_t value) {
    return sqlite3_bind_int64(statement_, place, value) == SQLITE_OK;
}

bool SqliteStatement::bindDouble(int place, double value) {
    return sqlite3_bind_double(statement_, place, value) == SQLITE_OK;
}

bool SqliteStatement::bindBlob(int place, std::span<const std::byte> bytes) {
    return sqlite3_bind_blob64(statement_, place, bytes.data(), bytes.size(), SQLITE_TRANSIENT) == SQLITE_OK;
}

SqliteStatement::Step SqliteStatement::step() {
    switch (sqlite3_step(statement_)) {
    case SQLITE_ROW:
        return Step::row;
    case SQLITE_DONE:
        return Step::done;
    default:
        return Step::failed;
    }
}

void SqliteStatement::reset() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

std::optional<std::int64_t> SqliteStatement::int64At(int column) const {
    if (sqlite3_column_type(statement_, column) != SQLITE_INTEGER) return std::nullopt;
    return sqlite3_column_int64(statement_, column);
}

std::optional<std::span<const std::byte>> SqliteStatement::blobAt(int column) const {
    if (sqlite3_column_type(statement_, column) != SQLITE_BLOB) return std::nullopt;
    // sqlite3_column_blob before sqlite3_column_bytes, as SQLite asks, so no conversion moves the bytes.
    const auto* data = static_cast<const std::byte*>(sqlite3_column_blob(statement_, column));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
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
    sqlite3* handle = nullptr;
    if (sqlite3_open_v2(file.c_str(), &handle, flags, nullptr) != SQLITE_OK) {
        sqlite3_close(handle); // open_v2 may hand back a handle even when it fails
        return std::nullopt;
    }
    // Another process writing the same record (two runs at once) is waited for, not reported as a
    // failure: its writes are short.
    sqlite3_busy_timeout(handle, 10'000);
    SqliteDatabase db;
    db.db_ = handle;
    return db;
}

bool SqliteDatabase::exec(const char* sql) {
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

SqliteLease SqliteDatabase::cached(std::string_view sql) {
    if (!db_) return SqliteLease(nullptr);
    auto it = statements_.find(sql);
    if (it == statements_.end()) {
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &raw,
                               nullptr) != SQLITE_OK ||
            !raw) {
            sqlite3_finalize(raw);
            return SqliteLease(nullptr);
        }
        it = statements_.emplace(std::string(sql), SqliteStatement(raw)).first;
    }
    return SqliteLease(&it->second);
}

void SqliteDatabase::close() {
    statements_.clear(); // statements first: a connection with live statements does not close
    if (db_) sqlite3_close(std::exchange(db_, nullptr));
}

} // namespace vantle
