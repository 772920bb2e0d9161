#include "VantleLibrary/Fingerprint.h"

namespace vantle {

std::string hexOf(const Digest& digest) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out(digest.size() * 2, '0');
    for (size_t i = 0; i < digest.size(); ++i) {
        out[2 * i] = digits[digest[i] >> 4];
        out[2 * i + 1] = digits[digest[i] & 0xf];
    }
    return out;
}

std::optional<Digest> digestFromHex(std::string_view hex) {
    if (hex.size() != 64) return std::nullopt;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    Digest out{};
    for (size_t i = 0; i < out.size(); ++i) {
        int high = nibble(hex[2 * i]), low = nibble(hex[2 * i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        out[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return out;
}

void to_json(Json& j, const Fingerprint& f) {
    j = Json::object();
    j["size"] = f.size;
    j["modified"] = f.modified;
    j["inode"] = f.inode;
    if (f.sample) j["sample"] = hexOf(*f.sample);
    if (f.full) j["full"] = hexOf(*f.full);
}

} // namespace vantle
