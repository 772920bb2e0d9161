#include "VantleVitals/SqliteCalls.h"

#include "Platform/SharedLibrary.h"

namespace vantle {

std::expected<const SqliteCalls*, std::string> sqliteCalls() {
    static const auto loaded =
        SharedLibrary::table<SqliteCalls>(VANTLE_SQLITE_SONAME, [](const SharedLibrary& lib, SqliteCalls& c) {
            return lib.bind(c.open_v2, "sqlite3_open_v2") && lib.bind(c.close, "sqlite3_close") &&
                   lib.bind(c.busy_timeout, "sqlite3_busy_timeout") && lib.bind(c.exec, "sqlite3_exec") &&
                   lib.bind(c.prepare_v3, "sqlite3_prepare_v3") && lib.bind(c.finalize, "sqlite3_finalize") &&
                   lib.bind(c.bind_int64, "sqlite3_bind_int64") &&
                   lib.bind(c.bind_double, "sqlite3_bind_double") &&
                   lib.bind(c.bind_blob64, "sqlite3_bind_blob64") && lib.bind(c.step, "sqlite3_step") &&
                   lib.bind(c.reset, "sqlite3_reset") &&
                   lib.bind(c.clear_bindings, "sqlite3_clear_bindings") &&
                   lib.bind(c.column_type, "sqlite3_column_type") &&
                   lib.bind(c.column_int64, "sqlite3_column_int64") &&
                   lib.bind(c.column_blob, "sqlite3_column_blob") &&
                   lib.bind(c.column_bytes, "sqlite3_column_bytes");
        });
    return SharedLibrary::kept(loaded);
}

} // namespace vantle
