#include "VantleLibrary/Sources.h"

#include <algorithm>
#include <cctype>

namespace vantle {

namespace {

std::string lowerCased(std::string_view text) {
    std::string out(text);
    std::ranges::transform(out, out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

bool isSchemeCharacter(char c) {
    return (c >= 'a' && c <= 'z') || c == '-' || c == '+' || c == '.';
}

// The host of the part after "scheme:" of a web address, lower-cased text in; empty when it has none.
std::string_view hostOf(std::string_view rest) {
    // Tolerate a missing or doubled "//", as browsers do for these schemes.
    while (!rest.empty() && (rest.front() == '/' || rest.front() == '\\'))
        rest.remove_prefix(1);
    auto authority = rest.substr(0, rest.find_first_of("/?#\\"));
    if (auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
    if (authority.starts_with('[')) {
        auto close = authority.find(']');
        return close == std::string_view::npos ? std::string_view{} : authority.substr(1, close - 1);
    }
    auto host = authority.substr(0, authority.find(':'));
    if (host.starts_with("www.")) host.remove_prefix(4);
    while (host.ends_with('.'))
        host.remove_suffix(1);
    return host;
}

bool isLocalHost(std::string_view host) {
    return host == "localhost" || host == "127.0.0.1" || host == "::1" || host.ends_with(".local") ||
           host.ends_with(".test");
}

} // namespace

bool Sources::hostMatches(std::string_view host, std::string_view familyHost) {
    if (!host.ends_with(familyHost)) return false;
    return host.size() == familyHost.size() || host[host.size() - familyHost.size() - 1] == '.';
}

std::optional<Sources::Origin> Sources::readOrigin(std::string_view text) {
    auto lowered = lowerCased(text);
    std::string_view rest = lowered;
    while (!rest.empty() && std::isspace(static_cast<unsigned char>(rest.front())))
        rest.remove_prefix(1);
    while (!rest.empty() && std::isspace(static_cast<unsigned char>(rest.back())))
        rest.remove_suffix(1);
    // A blob address wraps the address of the page that made it.
    while (rest.starts_with("blob:"))
        rest.remove_prefix(5);

    auto colon = rest.find(':');
    if (colon == 0 || colon == std::string_view::npos) return std::nullopt;
    auto scheme = rest.substr(0, colon);
    if (!std::ranges::all_of(scheme, isSchemeCharacter)) return std::nullopt;
    rest.remove_prefix(colon + 1);

    if (scheme == "http" || scheme == "https" || scheme == "ftp") {
        auto host = hostOf(rest);
        if (host.empty()) return std::nullopt;
        return Origin{isLocalHost(host) ? OriginKind::local : OriginKind::web, std::string(host)};
    }
    if (scheme == "message") return Origin{OriginKind::mail, {}};
    if (scheme == "chrome-extension" || scheme == "safari-web-extension" || scheme == "moz-extension")
        return Origin{OriginKind::browserExtension, {}};
    return std::nullopt;
}

const Sources::Family* Sources::familyOf(std::span<const std::string> origins) {
    std::vector<std::string> hosts;
    for (const auto& text : origins)
        if (auto origin = readOrigin(text); origin && origin->kind == OriginKind::web)
            hosts.push_back(std::move(origin->host));
    if (hosts.empty()) return nullptr;
    for (bool generic : {false, true})
        for (const auto& host : hosts)
            for (const auto& f : families())
                if (f.isGeneric == generic)
                    for (auto familyHost : f.hosts)
                        if (hostMatches(host, familyHost)) return &f;
    return nullptr;
}

std::optional<std::string> Sources::sourceKey(std::span<const std::string> origins) {
    if (auto* f = familyOf(origins)) return std::string(f->key);
    bool mail = false, extension = false;
    for (const auto& text : origins)
        if (auto origin = readOrigin(text)) {
            mail = mail || origin->kind == OriginKind::mail;
            extension = extension || origin->kind == OriginKind::browserExtension;
        }
    if (mail) return std::string(mailKey);
    if (extension) return std::string(extensionKey);
    return std::nullopt;
}

} // namespace vantle
