#include "VantleEgress/QueryGuard.h"

#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <pwd.h>
#include <regex>
#include <unistd.h>
#include <vector>

namespace vantle {

namespace {

using Refusal = QueryGuard::Refusal;

Refusal refusal(Refusal::Case what, std::string_view sentence, std::string_view key = {},
                std::string_view found = {}) {
    std::string text = key.empty() ? std::string(sentence) : fillIn(sentence, {{key, found}});
    return Refusal{what, std::move(text), std::string(found)};
}

std::size_t codePoints(std::string_view text) {
    // Continuation bytes (10xxxxxx) do not start a character.
    return std::count_if(text.begin(), text.end(),
                         [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
}

std::string_view trimmed(std::string_view text) {
    auto space = [](char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
    };
    while (!text.empty() && space(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && space(text.back()))
        text.remove_suffix(1);
    return text;
}

// The patterns are compiled once; std::regex objects are safe to share for matching.
const std::regex& tokenPattern() {
    static const std::regex pattern(
        R"(\b(?:(?:sk|pk|rk)_(?:live|test)_[A-Za-z0-9]{10,}|gh[pousr]_[A-Za-z0-9]{20,})"
        R"(|github_pat_[A-Za-z0-9_]{20,}|xox[abprs]-[A-Za-z0-9\-]{10,}|AKIA[0-9A-Z]{16}))");
    return pattern;
}

const std::regex& longRunPattern() {
    static const std::regex pattern(R"([A-Za-z0-9_+=]{32,})");
    return pattern;
}

const std::regex& emailPattern() {
    static const std::regex pattern(R"([A-Za-z0-9._%+\-]+@[A-Za-z0-9.\-]+\.[A-Za-z]{2,})");
    return pattern;
}

const std::regex& numberPattern() {
    static const std::regex pattern(R"(\d(?:[ .\-()]{0,2}\d)*)");
    return pattern;
}

// A path starts at the beginning of the words or after white space, a quote or a bracket: under
// the home (~/, ~name/), under one of the top folders, a file: address, or a drive letter.
const std::vector<std::regex>& pathPatterns() {
    static const std::vector<std::regex> patterns = [] {
        constexpr auto icase = std::regex::ECMAScript | std::regex::icase;
        std::vector<std::regex> p;
        p.emplace_back(R"((?:^|[\s"'(\[])(~[A-Za-z0-9._\-]*(?:/[^\s"')\]]*)?))", icase);
        p.emplace_back(
            R"((?:^|[\s"'(\[])(/(?:Users|Volumes|home|private|var|tmp|etc|usr|opt|Library|Applications)"
            R"(|System|bin|sbin|cores|dev)(?:/[^\s"')\]]*)?)(?=$|[\s"')\]]))",
            icase);
        p.emplace_back(R"(\b(file:[^\s"')\]]*))", icase);
        p.emplace_back(R"((?:^|[^A-Za-z0-9])([A-Za-z]:[\\/][^\s"')\]]*))", icase);
        return p;
    }();
    return patterns;
}

bool isWordByte(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

// Case-insensitive whole-word search, so a short user name is not found inside a longer word.
std::optional<std::string> findWord(std::string_view text, std::string_view word) {
    if (word.empty() || word.size() > text.size()) return std::nullopt;
    auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    for (std::size_t at = 0; at + word.size() <= text.size(); ++at) {
        bool same = true;
        for (std::size_t i = 0; i < word.size() && same; ++i)
            same = lower(text[at + i]) == lower(word[i]);
        if (!same) continue;
        bool startsWord = at == 0 || !isWordByte(text[at - 1]);
        bool endsWord = at + word.size() == text.size() || !isWordByte(text[at + word.size()]);
        if (startsWord && endsWord) return std::string(text.substr(at, word.size()));
    }
    return std::nullopt;
}

} // namespace

QueryGuard QueryGuard::forThisUser() {
    if (const passwd* entry = ::getpwuid(::geteuid()); entry && entry->pw_name)
        return QueryGuard(entry->pw_name);
    return QueryGuard(std::string{});
}

std::expected<std::string, QueryGuard::Refusal> QueryGuard::check(std::string_view words) const {
    auto text = trimmed(words);
    if (text.empty()) return std::unexpected(refusal(Refusal::Case::noWords, Refusal::noWordsSentence));
    if (codePoints(text) > maximumCharacters)
        return std::unexpected(refusal(Refusal::Case::tooLong, Refusal::tooLongSentence));

    const std::string owned(text);
    if (std::regex_search(owned, tokenPattern()) || std::regex_search(owned, longRunPattern()))
        return std::unexpected(refusal(Refusal::Case::secret, Refusal::secretSentence));

    std::smatch match;
    if (std::regex_search(owned, match, emailPattern()))
        return std::unexpected(
            refusal(Refusal::Case::email, Refusal::emailSentence, "address", match.str(0)));

    for (const auto& pattern : pathPatterns())
        if (std::regex_search(owned, match, pattern))
            return std::unexpected(
                refusal(Refusal::Case::filePath, Refusal::filePathSentence, "path", match.str(1)));

    if (auto name = findWord(owned, userName_))
        return std::unexpected(refusal(Refusal::Case::userName, Refusal::userNameSentence, "name", *name));

    for (std::sregex_iterator it(owned.begin(), owned.end(), numberPattern()), end; it != end; ++it) {
        const std::string number = it->str(0);
        auto digits = static_cast<std::size_t>(
            std::count_if(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; }));
        if (digits >= longNumberDigits)
            return std::unexpected(
                refusal(Refusal::Case::longNumber, Refusal::longNumberSentence, "number", number));
    }
    return owned;
}

} // namespace vantle
