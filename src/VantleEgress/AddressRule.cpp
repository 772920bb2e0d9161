#include "VantleEgress/AddressRule.h"
#include "VantleEgress/CurlCalls.h"

#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <memory>
#include <netinet/in.h>

namespace vantle {

namespace {

// libcurl's own parse of the address, so the check sees the host it will reach. Without libcurl no
// request can be made at all, and every address reads as unreadable.
class ParsedUrl {
  public:
    explicit ParsedUrl(const std::string& text) {
        auto calls = curlCalls();
        if (!calls) return;
        curl_ = *calls;
        url_ = curl_->url();
        if (url_ &&
            curl_->url_set(url_, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
            curl_->url_cleanup(url_);
            url_ = nullptr;
        }
    }
    ~ParsedUrl() {
        if (url_) curl_->url_cleanup(url_);
    }
    ParsedUrl(const ParsedUrl&) = delete;
    ParsedUrl& operator=(const ParsedUrl&) = delete;

    bool readable() const { return url_ != nullptr; }

    std::optional<std::string> part(CURLUPart which) const {
        char* raw = nullptr;
        if (!url_ || curl_->url_get(url_, which, &raw, 0) != CURLUE_OK || !raw) return std::nullopt;
        std::string text(raw);
        curl_->free(raw);
        return text;
    }

  private:
    const CurlCalls* curl_ = nullptr;
    CURLU* url_ = nullptr;
};

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

EgressRefusal refuse(EgressRefusal::Case what, std::string_view sentence, std::string_view key = {},
                     std::string_view value = {}) {
    return EgressRefusal{what, key.empty() ? std::string(sentence) : fillIn(sentence, {{key, value}})};
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

bool isNonPublicV4(std::uint32_t a, bool* loopback) {
    auto in = [a](std::uint32_t net, int bits) {
        return bits == 0 || (a >> (32 - bits)) == (net >> (32 - bits));
    };
    if (in(0x7F000000, 8)) {
        if (loopback) *loopback = true;
        return true;
    }
    return in(0x00000000, 8) || in(0x0A000000, 8) || in(0x64400000, 10) || in(0xA9FE0000, 16) ||
           in(0xAC100000, 12) || in(0xC0000000, 24) || in(0xC0000200, 24) || in(0xC0A80000, 16) ||
           in(0xC6120000, 15) || in(0xC6336400, 24) || in(0xCB007100, 24) || in(0xE0000000, 4) ||
           in(0xF0000000, 4);
}

std::uint32_t v4At(const std::uint8_t* bytes) {
    return (std::uint32_t(bytes[0]) << 24) | (std::uint32_t(bytes[1]) << 16) |
           (std::uint32_t(bytes[2]) << 8) | std::uint32_t(bytes[3]);
}

bool isNonPublicV6(const std::uint8_t* b, bool* loopback) {
    static constexpr std::uint8_t zeros[16] = {};
    // ::ffff:a.b.c.d (mapped) and ::a.b.c.d (the old compatible form) carry an IPv4 address.
    bool mapped = std::memcmp(b, zeros, 10) == 0 && b[10] == 0xFF && b[11] == 0xFF;
    bool compatible = std::memcmp(b, zeros, 12) == 0;
    if (compatible) {
        if (std::memcmp(b, zeros, 15) == 0 && b[15] <= 1) { // :: and ::1
            if (b[15] == 1 && loopback) *loopback = true;
            return true;
        }
        return isNonPublicV4(v4At(b + 12), loopback);
    }
    if (mapped) return isNonPublicV4(v4At(b + 12), loopback);
    // 64:ff9b::/96 (NAT64) and 2002::/16 (6to4) reach an IPv4 address inside them.
    static constexpr std::uint8_t nat64[12] = {0x00, 0x64, 0xFF, 0x9B};
    if (std::memcmp(b, nat64, 12) == 0) return isNonPublicV4(v4At(b + 12), loopback);
    if (b[0] == 0x20 && b[1] == 0x02) return isNonPublicV4(v4At(b + 2), loopback);
    if ((b[0] & 0xFE) == 0xFC) return true;                                        // fc00::/7 unique local
    if (b[0] == 0xFE && (b[1] & 0xC0) == 0x80) return true;                        // fe80::/10 link-local
    if (b[0] == 0xFE && (b[1] & 0xC0) == 0xC0) return true;                        // fec0::/10 old site-local
    if (b[0] == 0xFF) return true;                                                 // multicast
    if (b[0] == 0x20 && b[1] == 0x01 && b[2] == 0x0D && b[3] == 0xB8) return true; // documentation
    if (b[0] == 0x01 && b[1] == 0x00 && std::memcmp(b + 2, zeros, 6) == 0) return true; // discard
    return false;
}

} // namespace

bool isNonPublicAddress(const sockaddr* address, bool* loopback) {
    if (loopback) *loopback = false;
    if (!address) return true;
    if (address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        return isNonPublicV4(ntohl(v4->sin_addr.s_addr), loopback);
    }
    if (address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        return isNonPublicV6(v6->sin6_addr.s6_addr, loopback);
    }
    return true; // anything else (a local socket) is this machine
}

std::optional<bool> isNonPublicAddressText(std::string_view text, bool* loopback) {
    if (loopback) *loopback = false;
    std::string host(text);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (auto zone = host.find('%'); zone != std::string::npos) host.resize(zone);
    sockaddr_in6 v6{};
    if (::inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        return isNonPublicAddress(reinterpret_cast<sockaddr*>(&v6), loopback);
    }
    // inet_aton also reads the short and numeric forms (127.1, 0x7f000001, 2130706433) that resolvers
    // accept, so none of them slips past as a "name".
    sockaddr_in v4{};
    if (!host.empty() && host.find_first_not_of("0123456789abcdefABCDEFxX.") == std::string::npos &&
        ::inet_aton(host.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        return isNonPublicAddress(reinterpret_cast<sockaddr*>(&v4), loopback);
    }
    return std::nullopt;
}

bool isLocalName(std::string_view host) {
    std::string name = lowered(host);
    while (!name.empty() && name.back() == '.')
        name.pop_back();
    if (name.empty() || name.find('.') == std::string::npos) return true;
    for (std::string_view suffix :
         {".local", ".localhost", ".internal", ".lan", ".home.arpa", ".localdomain", ".intranet"})
        if (endsWith(name, suffix)) return true;
    return false;
}

std::expected<std::string, EgressRefusal> AddressRule::check(std::string_view url) const {
    using Case = EgressRefusal::Case;
    const std::string text(url);
    const ParsedUrl parsed(text);
    bool readable = parsed.readable();

    std::string scheme;
    if (readable) {
        scheme = lowered(parsed.part(CURLUPART_SCHEME).value_or(""));
    } else if (auto colon = text.find(':'); colon != std::string::npos) {
        scheme = lowered(std::string_view(text).substr(0, colon));
    }
    if (scheme != "https")
        return std::unexpected(refuse(Case::notHTTPS, EgressRefusal::notHTTPSSentence, "url", url));

    auto rawHost = readable ? parsed.part(CURLUPART_HOST) : std::nullopt;
    if (!rawHost || rawHost->empty())
        return std::unexpected(refuse(Case::noHost, EgressRefusal::noHostSentence));
    if (parsed.part(CURLUPART_USER) || parsed.part(CURLUPART_PASSWORD))
        return std::unexpected(refuse(Case::credentials, EgressRefusal::credentialsSentence));

    auto characters = std::count_if(text.begin(), text.end(),
                                    [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
    if (static_cast<std::size_t>(characters) > maximumURLLength)
        return std::unexpected(refuse(Case::urlTooLong, EgressRefusal::urlTooLongSentence, "maximumURLLength",
                                      std::to_string(maximumURLLength)));

    std::string host = lowered(*rawHost);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    bool loopback = false;
    if (auto nonPublic = isNonPublicAddressText(host, &loopback)) {
        if (*nonPublic && !(loopback && allowsLoopback))
            return std::unexpected(
                refuse(Case::privateAddress, EgressRefusal::privateAddressSentence, "host", host));
        return host;
    }
    if (host.find_first_of("%/\\ ") != std::string::npos)
        return std::unexpected(refuse(Case::noHost, EgressRefusal::noHostSentence));
    if (isLocalName(host))
        return std::unexpected(refuse(Case::localName, EgressRefusal::localNameSentence, "host", host));
    return host;
}

} // namespace vantle
