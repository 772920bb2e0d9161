// The update feed: an RSS appcast whose items name a version, its archive and the archive's
// signature. Read with an event-driven XML parser; a feed with a document type or entities is
// refused rather than expanded. Free functions over values; thread-safe.
#pragma once
#include <compare>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct UpdateItem {
    std::string build;
    std::string shortVersion;
    std::optional<std::string> minimumSystemVersion;
    std::string url; // the archive's address
    std::int64_t length = 0;
    std::string edSignature; // base64
    bool operator==(const UpdateItem&) const = default;
};

// The items of a feed, in feed order. An item without an enclosure address, a build or a signature
// is left out; the error is for a feed that is not well-formed XML or not an RSS document.
std::expected<std::vector<UpdateItem>, std::string> readAppcast(std::string_view xml);

// Compares dotted version numbers part by part as numbers ("1.10" after "1.9"; "2" equals "2.0").
// A part that is not a number compares by its leading digits, then by its text.
std::strong_ordering compareVersions(std::string_view a, std::string_view b);

// The item with the highest build above `running`, if any.
std::optional<UpdateItem> newestAbove(const std::vector<UpdateItem>& items, std::string_view running);

} // namespace vantle
