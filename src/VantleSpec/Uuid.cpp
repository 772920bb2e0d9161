#include "VantleSpec/Uuid.h"

#include <cstdint>
#include <cstdio>
#include <random>
#include <sys/random.h>

namespace vantle {

std::string newUuid() {
    std::uint8_t b[16];
    if (::getrandom(b, sizeof b, 0) != static_cast<ssize_t>(sizeof b)) {
        std::random_device rd;
        for (auto& x : b) x = static_cast<std::uint8_t>(rd());
    }
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);
    char out[37];
    std::snprintf(out, sizeof out, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return out;
}

bool isUuid(std::string_view t) {
    if (t.size() != 36) return false;
    for (size_t i = 0; i < t.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        char c = t[i];
        if (dash ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')))
            return false;
    }
    return true;
}

} // namespace vantle
