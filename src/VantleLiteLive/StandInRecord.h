// The JSON record file a stand-in keeps in a sandbox's data folder. Every request made of a stand-in
// is appended to its record and the whole record is written atomically at once, so a sandbox run
// leaves a full account of what the program asked. A file that is missing, torn or not a record
// reads as a fresh one. Not thread-safe by itself: the stand-in that owns it holds its mutex.
#pragma once
#include "Platform/AtomicFile.h"
#include "VantleSpec/Json.h"

#include <filesystem>
#include <optional>

namespace vantle {

template <class Record> std::optional<Record> loadStandInRecord(const std::filesystem::path& file) {
    auto text = readWholeFile(file);
    if (!text) return std::nullopt;
    auto record = decodeJson<Record>(*text);
    if (!record) return std::nullopt;
    return *record;
}

// Failures are swallowed on purpose: a stand-in's record is an account for the developer, and a
// full disk must not make a sandbox run act differently from a real one.
template <class Record> void saveStandInRecord(const std::filesystem::path& file, const Record& record) {
    (void)writeFileAtomicallyMakingFolder(file, encodeJson(record, 2) + "\n");
}

} // namespace vantle
