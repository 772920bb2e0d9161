#include "VantleSpec/TerminalText.h"

#include <cstdint>

namespace vantle {

namespace {
// The length of the well-formed UTF-8 sequence at `at` and its code point; 0 when the byte does not
// begin one (overlong forms, surrogates and truncated sequences included).
std::size_t utf8Length(std::string_view s, std::size_t at, std::uint32_t& cp) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char c = byte(at);
    std::size_t n;
    if (c < 0x80) {
        cp = c;
        return 1;
    } else if (c >= 0xC2 && c <= 0xDF) {
        n = 2, cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3, cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4, cp = c & 0x07;
    } else {
        return 0;
    }
    if (at + n > s.size()) return 0;
    for (std::size_t i = 1; i < n; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (byte(at + i) & 0x3F);
    }
    if ((n == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
        (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)))
        return 0;
    return n;
}

bool isControl(std::uint32_t cp) {
    return cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp <= 0x9F);
}

void escapeByte(std::string& out, unsigned char c) {
    switch (c) {
    case '\a':
        out += "\\a";
        return;
    case '\b':
        out += "\\b";
        return;
    case '\t':
        out += "\\t";
        return;
    case '\n':
        out += "\\n";
        return;
    case '\v':
        out += "\\v";
        return;
    case '\f':
        out += "\\f";
        return;
    case '\r':
        out += "\\r";
        return;
    default:
        break;
    }
    const char* digits = "01234567";
    out += '\\';
    out += digits[(c >> 6) & 7];
    out += digits[(c >> 3) & 7];
    out += digits[c & 7];
}
} // namespace

std::string terminalSafe(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool inGroup = false;
    for (std::size_t i = 0; i < text.size();) {
        std::uint32_t cp = 0;
        std::size_t n = utf8Length(text, i, cp);
        bool unsafe = n == 0 || isControl(cp);
        if (unsafe && !inGroup) out += "$'";
        if (!unsafe && inGroup) out += '\'';
        inGroup = unsafe;
        if (!unsafe) {
            out.append(text.substr(i, n));
            i += n;
        } else if (n == 0) {
            escapeByte(out, static_cast<unsigned char>(text[i]));
            ++i;
        } else {
            // A C1 control written in UTF-8: every byte of it shown, so the name can be told apart.
            for (std::size_t k = 0; k < n; ++k)
                escapeByte(out, static_cast<unsigned char>(text[i + k]));
            i += n;
        }
    }
    if (inGroup) out += '\'';
    return out;
}

} // namespace vantle
