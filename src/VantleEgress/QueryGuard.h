// The check every web search's words pass before they are handed to the egress broker: a search
// that would carry a secret, a long number, this machine's user name, an email address or a file
// path is refused with a sentence naming what was found. A value type; check() is const and may be
// called from several threads at once.
#pragma once
#include <expected>
#include <string>
#include <string_view>

namespace vantle {

class QueryGuard {
  public:
    struct Refusal {
        enum class Case { noWords, tooLong, secret, longNumber, userName, email, filePath };
        Case what;
        std::string sentence;
        // What was found, as quoted in the sentence (empty for the first three cases).
        std::string found;

        static constexpr std::string_view noWordsSentence = "The search has no words.";
        static constexpr std::string_view tooLongSentence = "The search is longer than 64 characters.";
        static constexpr std::string_view secretSentence =
            "The search contains what looks like a password or key.";
        static constexpr std::string_view longNumberSentence =
            "The search contains a long number ({number}) that could be a phone, card or account number.";
        static constexpr std::string_view userNameSentence =
            "The search contains the user name of this Mac ({name})";
        static constexpr std::string_view emailSentence = "The search contains an email address ({address})";
        static constexpr std::string_view filePathSentence = "The search contains a file path ({path})";
    };

    // Longest search in characters (Unicode code points, not bytes).
    static constexpr std::size_t maximumCharacters = 64;
    // A run of digits counts as a long number from this many digits on, separators not counted: nine
    // catches phone numbers with their area code and every card and account number, while a date
    // written 2026-11-22 (eight digits) or a year with a model number still passes.
    static constexpr std::size_t longNumberDigits = 9;

    // `userName` is this machine's login name; an empty name is never matched.
    explicit QueryGuard(std::string userName) : userName_(std::move(userName)) {}
    // The guard for the user running this process.
    static QueryGuard forThisUser();

    // The checks run in this order, and the first that matches gives the refusal: no words, too long,
    // a secret, an email address, a file path, the user name, a long number. The address and the path
    // come before the number so that digits inside them are named as what they are part of.
    // On success gives the words with surrounding white space taken off.
    std::expected<std::string, Refusal> check(std::string_view words) const;

  private:
    std::string userName_;
};

} // namespace vantle
