#include "VantleStorage/ItemId.h"

#include <cstdint>
#include <cstdio>

namespace vantle {

namespace {
// FNV-1a over the place: small, stable across builds and machines, and six hex digits need no more.
struct Fnv {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    void add(std::string_view s) {
        for (unsigned char c : s) {
            h ^= c;
            h *= 0x100000001b3ULL;
        }
    }
    void separator() { add(std::string_view("\0", 1)); }
};

std::string digits(std::string_view prefix, std::string_view anchor, std::span<const std::string> parts,
                   int salt) {
    Fnv fnv;
    fnv.add(anchor);
    for (const auto& part : parts) {
        fnv.separator();
        fnv.add(part);
    }
    if (salt > 0) {
        fnv.separator();
        fnv.add(std::to_string(salt));
    }
    // Fold all 64 bits into 24 so every input bit moves the digits.
    std::uint64_t folded = (fnv.h ^ (fnv.h >> 24) ^ (fnv.h >> 48)) & 0xFFFFFF;
    char hex[8];
    std::snprintf(hex, sizeof hex, "%06llx", static_cast<unsigned long long>(folded));
    std::string out(prefix);
    out += ':';
    out += hex;
    return out;
}
} // namespace

std::string itemId(std::string_view ruleId, Anchor anchor, std::span<const std::string> parts, int salt) {
    return digits(ruleId, nameOf(anchor), parts, salt);
}

std::string heldItemId(std::span<const std::string> formerParts, int salt) {
    return digits(heldPrefix, nameOf(Anchor::home), formerParts, salt);
}

} // namespace vantle
