// The functions of SQLite that the health record calls, bound the first time a database is opened:
// only the health record keeps one, and it opens lazily. Linked, SQLite cost every command about
// 0.5 ms of its start. The table lives as long as the program; it may be used from several threads.
#pragma once
#include <expected>
#include <sqlite3.h>
#include <string>

namespace vantle {

struct SqliteCalls {
    decltype(&::sqlite3_open_v2) open_v2;
    decltype(&::sqlite3_close) close;
    decltype(&::sqlite3_busy_timeout) busy_timeout;
    decltype(&::sqlite3_exec) exec;
    decltype(&::sqlite3_prepare_v3) prepare_v3;
    decltype(&::sqlite3_finalize) finalize;
    decltype(&::sqlite3_bind_int64) bind_int64;
    decltype(&::sqlite3_bind_double) bind_double;
    decltype(&::sqlite3_bind_blob64) bind_blob64;
    decltype(&::sqlite3_step) step;
    decltype(&::sqlite3_reset) reset;
    decltype(&::sqlite3_clear_bindings) clear_bindings;
    decltype(&::sqlite3_column_type) column_type;
    decltype(&::sqlite3_column_int64) column_int64;
    decltype(&::sqlite3_column_blob) column_blob;
    decltype(&::sqlite3_column_bytes) column_bytes;
};

// The loader's sentence when SQLite cannot be loaded; loaded once, on the first call.
std::expected<const SqliteCalls*, std::string> sqliteCalls();

} // namespace vantle
