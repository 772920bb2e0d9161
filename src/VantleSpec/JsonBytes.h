// Keeping names that are not UTF-8 byte-exact in JSON. A file name on Linux is any bytes but "/" and
// NUL, while JSON text is Unicode; each byte that is not part of valid UTF-8 is written as the
// private-use character U+F700 + byte (U+F780..U+F7FF), and a name that really holds one of those
// characters has its own bytes written that way too, so reading back gives the exact bytes. Valid
// UTF-8 without those characters (every everyday name) is written unchanged. Free functions;
// thread-safe. docs/json-names.md describes the escape for readers of the files.
#pragma once
#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

namespace vantle {

// The escaped form of `bytes`: always valid UTF-8.
std::string escapeBytes(std::string_view bytes);
// The bytes an escaped text stands for; text that holds no escape comes back unchanged.
std::string unescapeBytes(std::string_view text);
// True when escapeBytes would change `bytes`.
bool needsEscape(std::string_view bytes);
// True when `text` is ASCII with nothing JSON escapes, so it goes between quotes as it is: nearly
// every name, and the one check made of each of a long listing's paths.
bool isPlainJsonText(std::string_view text);
// True when `text` may hold an escape (as UTF-8 or as a \u sequence), so decoding is worth a pass.
bool mayHoldEscapes(std::string_view text);

// Every string and key of `value` escaped, then dumped (compact when `indent` < 0). A value without
// anything to escape is dumped as it is, without a copy.
std::string dumpEscaped(const nlohmann::ordered_json& value, int indent = -1);
// Undoes the escape in every string and key of `value`, in place.
void unescapeStrings(nlohmann::ordered_json& value);

} // namespace vantle
