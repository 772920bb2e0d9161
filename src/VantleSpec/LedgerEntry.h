// One line of the network ledger: a request leaving this machine, or its result. A request's first
// line and its result line share `id`. Plain value; thread-safe to copy.
#pragma once
#include "VantleSpec/Json.h"

#include <cstdint>
#include <expected>
#include <optional>
#include <string>

namespace vantle {

struct LedgerEntry {
    enum class Purpose { search, page, download, update, weather, places, facts, picture, mail };

    std::string id;
    TimePoint at;
    Purpose purpose = Purpose::page;
    std::string host;
    std::string url;
    std::string method;
    std::optional<std::string> query;
    std::int64_t bytesSent = 0;
    std::int64_t bytesReceived = 0;
    std::optional<int> status;
    std::optional<std::string> run;
    std::optional<std::string> failure;
    std::optional<std::string> redirectedFrom;
    std::optional<std::string> framework;

    bool operator==(const LedgerEntry&) const = default;

    // The note every first line carries until its result is written.
    static constexpr std::string_view leavingNote = "leaving this Mac; the result is on a later line with this id";
    // Shown for a first line whose result line never came (the program ended mid-request).
    static constexpr std::string_view neverRecorded = "left this Mac; its result was never recorded";
};

VANTLE_ENUM_NAMES(LedgerEntry::Purpose, "search", "page", "download", "update", "weather", "places", "facts",
                  "picture", "mail")
VANTLE_RECORD_JSON(LedgerEntry, id, at, purpose, host, url, method, query, bytesSent, bytesReceived, status, run,
                   failure, redirectedFrom, framework)

// Decodes one ledger line. A time that cannot be read fails with "not a ledger time: {text}".
std::expected<LedgerEntry, std::string> decodeLedgerLine(std::string_view line);

// The host part of a URL ("https://user@Example.org:8443/x" gives "example.org"); empty when none.
std::string hostOfUrl(std::string_view url);

} // namespace vantle
