// A SQLite connection with its prepared statements, as small owning handles over the C API. The
// connection owns the statements it caches and finalises them before it closes. Not thread-safe: the
// owner runs one operation at a time (connections are opened without SQLite's own mutex).
#pragma once
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace vantle {

class SqliteStatement {
  public:
    enum class Step { row, done, failed };

    SqliteStatement() = default;
    explicit SqliteStatement(sqlite3_stmt* statement) : statement_(statement) {}
    ~SqliteStatement();
    SqliteStatement(SqliteStatement&& other) noexcept;
    SqliteStatement& operator=(SqliteStatement&& other) noexcept;
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    explicit operator bool() const { return statement_ != nullptr; }

    // Places are numbered from 1. A blob is copied by SQLite, so `bytes` may go away after the call.
    bool bindInt64(int place, std::int64_t value);
    bool bindDouble(int place, double value);
    bool bindBlob(int place, std::span<const std::byte> bytes);

    Step step();
    // Makes the statement ready to run again, with its bindings cleared.
    void reset();

    // Columns are numbered from 0 and read the row the last step stopped at. A NULL or non-integer
    // column reads as none; a column that is not a blob reads as none; the bytes last until the next
    // step or reset.
    std::optional<std::int64_t> int64At(int column) const;
    std::optional<std::span<const std::byte>> blobAt(int column) const;

  private:
    sqlite3_stmt* statement_ = nullptr;
};

// A cached statement lent for one use. Ending the lease resets it, so a query that stopped at its
// first row does not keep a read open (which would hold back the write-ahead log's checkpoints).
class SqliteLease {
  public:
    explicit SqliteLease(SqliteStatement* statement) : statement_(statement) {}
    ~SqliteLease() {
        if (statement_) statement_->reset();
    }
    SqliteLease(const SqliteLease&) = delete;
    SqliteLease& operator=(const SqliteLease&) = delete;

    explicit operator bool() const { return statement_ != nullptr; }
    SqliteStatement* operator->() const { return statement_; }

  private:
    SqliteStatement* statement_;
};

class SqliteDatabase {
  public:
    SqliteDatabase() = default;
    ~SqliteDatabase();
    SqliteDatabase(SqliteDatabase&& other) noexcept;
    SqliteDatabase& operator=(SqliteDatabase&& other) noexcept;
    SqliteDatabase(const SqliteDatabase&) = delete;
    SqliteDatabase& operator=(const SqliteDatabase&) = delete;

    // Opens with sqlite3_open_v2 and the given SQLITE_OPEN_* flags; none when it fails (the half-made
    // handle is closed).
    static std::optional<SqliteDatabase> open(const std::filesystem::path& file, int flags);

    explicit operator bool() const { return db_ != nullptr; }

    // Runs a batch of statements as it stands; false when any of them fails.
    bool exec(const char* sql);

    // A statement prepared once and kept for the life of the connection, lent ready to bind; an empty
    // lease when it does not prepare (tried again next time).
    SqliteLease cached(std::string_view sql);

    void close();

  private:
    sqlite3* db_ = nullptr;
    std::map<std::string, SqliteStatement, std::less<>> statements_;
};

} // namespace vantle
