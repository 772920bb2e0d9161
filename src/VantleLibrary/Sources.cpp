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
    // Tolerate a missing "//" (or a single slash), as browsers do for these schemes; a third slash
    // begins the path, so "https:///gmail.com/x" has an empty host, not gmail.com.
    for (int slash = 0; slash < 2 && !rest.empty() && (rest.front() == '/' || rest.front() == '\\'); ++slash)
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

std::vector<SourceGroup> Sources::groups(std::span<const Facts> facts, int samples) {
    struct Gathered {
        SourceGroup group;
        size_t order = 0;
        std::vector<const Facts*> files;
    };
    std::vector<Gathered> gathered;
    auto orderOf = [](std::string_view key) {
        auto all = families();
        for (size_t i = 0; i < all.size(); ++i)
            if (all[i].key == key) return i;
        return all.size() + (key == mailKey ? 0 : 1);
    };
    for (const auto& f : facts) {
        if (f.whereFroms.empty() || f.isFolder) continue;
        auto key = sourceKey(f.whereFroms);
        if (!key) continue;
        auto it = std::ranges::find_if(gathered, [&](const Gathered& g) { return g.group.key == *key; });
        if (it == gathered.end()) {
            gathered.push_back({SourceGroup{*key, std::string(nameOf(*key)), 0, 0, {}}, orderOf(*key), {}});
            it = gathered.end() - 1;
        }
        it->group.count += 1;
        it->group.bytes += f.size;
        it->files.push_back(&f);
    }
    std::ranges::sort(gathered, {}, [](const Gathered& g) { return std::pair(-g.group.count, g.order); });
    std::vector<SourceGroup> out;
    for (auto& g : gathered) {
        auto keep = std::min(g.files.size(), static_cast<size_t>(std::max(samples, 0)));
        auto newest = [](const Facts* a, const Facts* b) {
            auto x = a->modified.value_or(TimePoint::min()), y = b->modified.value_or(TimePoint::min());
            return x != y ? x > y : a->path < b->path;
        };
        std::partial_sort(g.files.begin(), g.files.begin() + static_cast<std::ptrdiff_t>(keep), g.files.end(),
                          newest);
        for (size_t i = 0; i < keep; ++i)
            g.group.samples.push_back(toFileItem(*g.files[i]));
        out.push_back(std::move(g.group));
    }
    return out;
}

} // namespace vantle
