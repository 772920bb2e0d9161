// Fills the {name} places of a user-facing sentence. Sentences are kept verbatim, braces and all,
// beside the enumeration they belong to, so a reader can find them by their words.
#pragma once
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace vantle {

inline std::string fillIn(std::string_view sentence,
                          std::initializer_list<std::pair<std::string_view, std::string_view>> values) {
    std::string out;
    out.reserve(sentence.size() + 32);
    for (size_t i = 0; i < sentence.size();) {
        if (sentence[i] == '{') {
            auto close = sentence.find('}', i);
            if (close != std::string_view::npos) {
                auto name = sentence.substr(i + 1, close - i - 1);
                bool found = false;
                for (auto& [key, value] : values)
                    if (key == name) {
                        out += value;
                        found = true;
                        break;
                    }
                if (found) {
                    i = close + 1;
                    continue;
                }
            }
        }
        out += sentence[i++];
    }
    return out;
}

} // namespace vantle
