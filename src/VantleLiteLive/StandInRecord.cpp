#include "VantleLiteLive/StandInRecord.h"

#include "Platform/SystemError.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace vantle {

namespace {
// Containers nested in `j`, counting `j` itself; stops counting past `limit`.
int depthOf(const Json& j, int limit) {
    if (!j.is_structured() || limit <= 0) return 0;
    int deepest = 0;
    for (const auto& child : j)
        deepest = std::max(deepest, depthOf(child, limit - 1));
    return deepest + 1;
}
} // namespace

std::string keepStandInRecordAside(const std::filesystem::path& file, const std::string& reason) {
    auto folder = file.parent_path();
    std::string kept;
    for (int n = 1; n < 1000; ++n) {
        kept = file.filename().string() + (n == 1 ? ".torn" : ".torn-" + std::to_string(n));
        if (::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, (folder / kept).c_str(), RENAME_NOREPLACE) == 0)
            break;
        if (errno != EEXIST)
            return fillIn(
                standInNotKeptAsideNote,
                {{"file", file.filename().string()}, {"reason", reason}, {"error", systemErrorText(errno)}});
    }
    return fillIn(standInKeptAsideNote,
                  {{"file", file.filename().string()}, {"reason", reason}, {"kept", kept}});
}

std::string standInRecordText(const Json& record) {
    constexpr int shallow = 6;
    int indent = depthOf(record, shallow + 1) <= shallow ? 2 : -1;
    return record.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace vantle
