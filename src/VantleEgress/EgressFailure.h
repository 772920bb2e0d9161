// Why the egress broker did not deliver an answer: a refusal (the request broke a rule and nothing
// was written or sent) or an error (it was written to the ledger and then failed, or could not be
// written). Every case carries the sentence shown to the user. Plain values; safe to copy.
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vantle {

struct EgressRefusal {
    enum class Case { notHTTPS, localName, privateAddress, urlTooLong, bodyTooLarge, credentials, noHost };
    Case what;
    std::string sentence;

    static constexpr std::string_view notHTTPSSentence = "Only https addresses can be opened, not {url}";
    static constexpr std::string_view localNameSentence =
        "{host} is a name on this Mac or the local network, not a public site.";
    static constexpr std::string_view privateAddressSentence =
        "{host} is a private or local address, not a public site.";
    static constexpr std::string_view urlTooLongSentence =
        "The address is longer than {maximumURLLength} characters.";
    static constexpr std::string_view bodyTooLargeSentence =
        "The request is larger than {maximumRequestBytes} bytes.";
    static constexpr std::string_view credentialsSentence = "The address carries a user name or password.";
    static constexpr std::string_view noHostSentence = "The address has no usable site name.";
};

struct EgressError {
    enum class Case {
        ledgerNotWritten,
        notConnected,
        timedOut,
        hostNotFound,
        noSecureConnection,
        connectionFailed,
        answerTooLarge,
        tooManyRedirects,
        unreadableRedirect,
        resendElsewhere,
        status,
        notAllowed,
        redirectRefused, // a redirect led to an address that breaks a rule; the sentence is the rule's
    };
    Case what;
    std::string sentence;
    std::optional<int> status;

    static constexpr std::string_view ledgerNotWrittenSentence =
        "Nothing was sent because the network ledger cannot be written: {reason}";
    static constexpr std::string_view notConnectedSentence = "This Mac is not connected to the internet.";
    static constexpr std::string_view timedOutSentence = "The site took too long to answer.";
    static constexpr std::string_view hostNotFoundSentence = "No site was found at {host}";
    static constexpr std::string_view noSecureConnectionSentence =
        "A secure connection to {host} could not be made.";
    static constexpr std::string_view connectionFailedSentence = "The connection failed: {reason}";
    static constexpr std::string_view answerTooLargeSentence =
        "The answer is larger than {maximumResponseBytes} bytes.";
    static constexpr std::string_view tooManyRedirectsSentence =
        "The site redirected more than {maximumRedirects} times.";
    static constexpr std::string_view unreadableRedirectSentence =
        "The site redirected to an address that cannot be read.";
    static constexpr std::string_view resendElsewhereSentence =
        "The site asked for the request to be sent again somewhere else.";
    static constexpr std::string_view statusSentence = "The site answered with status {status}.";
    static constexpr std::string_view notAllowedSentence =
        "The site did not allow this page to be read (status {status}).";

    // The short notes a result line carries in its `failure` field.
    static constexpr std::string_view noSecureConnectionNote = "no secure connection";
    static constexpr std::string_view connectionFailedNote = "connection failed";
    static constexpr std::string_view answerTooLargeNote = "answer too large, abandoned";
    static constexpr std::string_view withheldNote =
        "answer withheld: the site resolved to a private address";
};

using EgressFailure = std::variant<EgressRefusal, EgressError>;

inline const std::string& sentenceOf(const EgressFailure& failure) {
    return std::visit([](const auto& f) -> const std::string& { return f.sentence; }, failure);
}

} // namespace vantle
