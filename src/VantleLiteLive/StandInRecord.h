// The JSON record file a stand-in keeps in a sandbox's data folder. Every request made of a stand-in
// is appended to its record and the whole record is written atomically at once, so a sandbox run
// leaves a full account of what the program asked. A missing file reads as a fresh record; a torn,
// foreign or hostile one is kept beside it under a new name (with a note saying so) before the
// stand-in starts afresh, so the account is never silently lost. Not thread-safe by itself: the
// stand-in that owns it holds its mutex.
#pragma once
#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "VantleSpec/Json.h"

#include <filesystem>
#include <optional>
#include <string>

namespace vantle {

inline constexpr std::string_view standInKeptAsideNote =
    "The sandbox's {file} could not be read ({reason}), so it was kept as {kept} and a fresh record was "
    "started.";
inline constexpr std::string_view standInNotKeptAsideNote =
    "The sandbox's {file} could not be read ({reason}) nor kept aside ({error}), so a fresh record was "
    "started.";

// Renames the unreadable record to "<name>.torn", "<name>.torn-2", ... beside it, never replacing a
// file, and gives the note for the start-up record.
std::string keepStandInRecordAside(const std::filesystem::path& file, const std::string& reason);

// Pretty for the records a stand-in writes itself; compact once free-form values nest deeply, where
// indentation would make the file many times larger than what it holds.
std::string standInRecordText(const Json& record);

template <class Record> struct LoadedStandIn {
    std::optional<Record> record; // none: start afresh
    std::optional<std::string> note;
};

template <class Record> LoadedStandIn<Record> loadStandInRecord(const std::filesystem::path& file) {
    auto text = readKeptFile(file);
    if (!text) {
        if (text.error().what == KeptFileFailure::Case::missing) return {};
        return {std::nullopt, keepStandInRecordAside(file, text.error().sentence)};
    }
    auto record = decodeJson<Record>(*text);
    if (!record) return {std::nullopt, keepStandInRecordAside(file, record.error())};
    return {std::move(*record), std::nullopt};
}

// Failures are swallowed on purpose: a stand-in's record is an account for the developer, and a
// full disk must not make a sandbox run act differently from a real one.
template <class Record> void saveStandInRecord(const std::filesystem::path& file, const Record& record) {
    (void)writeFileAtomicallyMakingFolder(file, standInRecordText(Json(record)));
}

} // namespace vantle
