// A file's identity on disk and the content hashes kept for it between scans. Plain values with JSON
// coding (digests as lower-case hexadecimal); free functions are thread-safe.
#pragma once
#include "VantleSpec/Json.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vantle {

// Which file on which volume: two paths with equal numbers are hard links to one file.
struct FileNumber {
    std::int32_t device = 0;
    std::uint64_t inode = 0;
    auto operator<=>(const FileNumber&) const = default;
};

// A SHA-256 digest.
using Digest = std::array<std::uint8_t, 32>;

std::string hexOf(const Digest& digest);
std::optional<Digest> digestFromHex(std::string_view hex);

// The hashes made of one file, valid only while its size, modification time (to the nanosecond)
// and inode are still the ones it was hashed at.
struct Fingerprint {
    std::int64_t size = 0;
    std::int64_t modified = 0; // nanoseconds since the epoch
    std::uint64_t inode = 0;
    std::optional<Digest> sample; // of the head, middle and tail slices
    std::optional<Digest> full;   // of the whole contents

    bool holdsFor(std::int64_t sizeNow, std::int64_t modifiedNow, std::uint64_t inodeNow) const {
        return size == sizeNow && modified == modifiedNow && inode == inodeNow;
    }
    bool operator==(const Fingerprint&) const = default;
};

void to_json(Json& j, const Fingerprint& f);

// Reads from either JSON flavour: the cache file is parsed unordered, since it can hold many
// thousands of entries. A digest that is not 64 hexadecimal digits is a decoding error.
template <class BasicJson> void from_json(const BasicJson& j, Fingerprint& f) {
    f.size = j.at("size").template get<std::int64_t>();
    f.modified = j.at("modified").template get<std::int64_t>();
    f.inode = j.at("inode").template get<std::uint64_t>();
    auto digest = [&](const char* key) -> std::optional<Digest> {
        auto it = j.find(key);
        if (it == j.end() || it->is_null()) return std::nullopt;
        auto parsed = digestFromHex(it->template get<std::string>());
        if (!parsed) throw std::invalid_argument(std::string("not a digest: ") + key);
        return parsed;
    };
    f.sample = digest("sample");
    f.full = digest("full");
}

} // namespace vantle
