#include "VantleSpec/JsonBytes.h"

#include <cstdint>

namespace vantle {

namespace {

constexpr std::uint32_t escapeBase = 0xF700;
constexpr std::uint32_t firstEscape = escapeBase + 0x80, lastEscape = escapeBase + 0xFF;

// The length of the valid UTF-8 sequence at `at` and its code point, or 0 when the byte there does not
// begin one (overlong forms, surrogates and values past U+10FFFF are not valid).
size_t validSequence(std::string_view s, size_t at, std::uint32_t& cp) {
    auto b = [&](size_t i) { return static_cast<std::uint8_t>(s[i]); };
    std::uint8_t lead = b(at);
    if (lead < 0x80) {
        cp = lead;
        return 1;
    }
    size_t length;
    std::uint32_t least;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, cp = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, cp = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, cp = lead & 0x07, least = 0x10000;
    } else {
        return 0;
    }
    if (at + length > s.size()) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((b(at + i) & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (b(at + i) & 0x3F);
    }
    if (cp < least || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return length;
}

bool isEscape(std::uint32_t cp) {
    return cp >= firstEscape && cp <= lastEscape;
}

void appendEscaped(std::string& out, std::uint8_t byte) {
    std::uint32_t cp = escapeBase + byte;
    out += static_cast<char>(0xE0 | cp >> 12);
    out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
}

bool anyNeedsEscape(const nlohmann::ordered_json& value) {
    switch (value.type()) {
    case nlohmann::ordered_json::value_t::string:
        return needsEscape(value.get_ref<const std::string&>());
    case nlohmann::ordered_json::value_t::array:
        for (const auto& v : value)
            if (anyNeedsEscape(v)) return true;
        return false;
    case nlohmann::ordered_json::value_t::object:
        for (const auto& [key, v] : value.items())
            if (needsEscape(key) || anyNeedsEscape(v)) return true;
        return false;
    default:
        return false;
    }
}

template <class Transform> nlohmann::ordered_json mapped(const nlohmann::ordered_json& value, Transform f) {
    switch (value.type()) {
    case nlohmann::ordered_json::value_t::string:
        return f(value.get_ref<const std::string&>());
    case nlohmann::ordered_json::value_t::array: {
        auto out = nlohmann::ordered_json::array();
        for (const auto& v : value)
            out.push_back(mapped(v, f));
        return out;
    }
    case nlohmann::ordered_json::value_t::object: {
        auto out = nlohmann::ordered_json::object();
        for (const auto& [key, v] : value.items())
            out[f(key)] = mapped(v, f);
        return out;
    }
    default:
        return value;
    }
}

} // namespace

bool isPlainJsonText(std::string_view text) {
    // No early exit, so the compiler checks many bytes a step.
    unsigned char special = 0;
    for (unsigned char c : text)
        special |= static_cast<unsigned char>((c < 0x20) | (c == '"') | (c == '\\') | (c >= 0x80));
    return special == 0;
}

bool needsEscape(std::string_view bytes) {
    for (size_t i = 0; i < bytes.size();) {
        if (static_cast<std::uint8_t>(bytes[i]) < 0x80) {
            ++i;
            continue;
        }
        std::uint32_t cp;
        auto n = validSequence(bytes, i, cp);
        if (n == 0 || isEscape(cp)) return true;
        i += n;
    }
    return false;
}

std::string escapeBytes(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (size_t i = 0; i < bytes.size();) {
        std::uint32_t cp;
        auto n = validSequence(bytes, i, cp);
        if (n > 0 && !isEscape(cp)) {
            out.append(bytes.substr(i, n));
            i += n;
        } else {
            // A byte that begins nothing valid, or the bytes of a character the escape itself uses.
            size_t count = n > 0 ? n : 1;
            for (size_t k = 0; k < count; ++k)
                appendEscaped(out, static_cast<std::uint8_t>(bytes[i + k]));
            i += count;
        }
    }
    return out;
}

std::string unescapeBytes(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        std::uint32_t cp;
        auto n = validSequence(text, i, cp);
        if (n == 3 && isEscape(cp)) {
            out += static_cast<char>(cp - escapeBase);
            i += 3;
        } else {
            size_t count = n > 0 ? n : 1;
            out.append(text.substr(i, count));
            i += count;
        }
    }
    return out;
}

bool mayHoldEscapes(std::string_view text) {
    for (auto marker : {std::string_view("\xEF\x9E"), std::string_view("\xEF\x9F"), std::string_view("\\uf7"),
                        std::string_view("\\uF7")})
        if (text.find(marker) != std::string_view::npos) return true;
    return false;
}

std::string dumpEscaped(const nlohmann::ordered_json& value, int indent) {
    using Json = nlohmann::ordered_json;
    if (!anyNeedsEscape(value)) return value.dump(indent, ' ', false, Json::error_handler_t::strict);
    return mapped(value, [](const std::string& s) { return escapeBytes(s); })
        .dump(indent, ' ', false, Json::error_handler_t::strict);
}

void unescapeStrings(nlohmann::ordered_json& value) {
    value = mapped(value, [](const std::string& s) { return unescapeBytes(s); });
}

} // namespace vantle
