#include "VantleLiteLive/Opener.h"

#include "Platform/UserEntryOpen.h"
#include "VantleLibrary/ContentTypes.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

std::unexpected<Opener::Refusal> refuse(std::string_view sentence) {
    return std::unexpected(Opener::Refusal{std::string(sentence)});
}

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string schemeOf(std::string_view address) {
    auto colon = address.find(':');
    if (colon == std::string_view::npos || colon == 0) return {};
    auto scheme = address.substr(0, colon);
    if (scheme.find_first_of("/?#") != std::string_view::npos) return {};
    return lowered(scheme);
}

std::string coordinates(double latitude, double longitude) {
    char text[64];
    std::snprintf(text, sizeof text, "%.6f,%.6f", latitude, longitude);
    return text;
}

} // namespace

std::string percentEncoded(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

bool Opener::isNeverOpened(const fs::path& file) {
    static constexpr std::string_view runnable[] = {".sh",       ".bash",    ".zsh",     ".csh",
                                                    ".ksh",      ".fish",    ".command", ".tool",
                                                    ".terminal", ".desktop", ".jar"};
    auto extension = lowerExtension(file.filename().string());
    if (!extension.empty() &&
        std::find(std::begin(runnable), std::end(runnable), "." + extension) != std::end(runnable))
        return true;
    // A script is a script whatever its name: its first two bytes say so.
    auto fd = openUserEntry(AT_FDCWD, file.c_str(), O_RDONLY | O_NONBLOCK);
    if (!fd) return false;
    struct stat facts {};
    if (::fstat(fd->get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    char start[2] = {};
    return ::read(fd->get(), start, 2) == 2 && start[0] == '#' && start[1] == '!';
}

bool Opener::isShown(const fs::path& item) const {
    if (!item.is_absolute()) return false;
    auto normal = item.lexically_normal();
    std::error_code ec;
    // A link anywhere on the way could lead out of the shown places, so the path must already be
    // the item's own.
    auto real = fs::weakly_canonical(normal, ec);
    if (ec || real != normal || !fs::exists(fs::symlink_status(real, ec))) return false;
    for (const auto& place : options_.places) {
        auto relative = real.lexically_relative(place.lexically_normal());
        if (!relative.empty() && *relative.begin() != "..") return true;
    }
    return false;
}

std::expected<Opener::Opened, Opener::Refusal> Opener::handOver(const std::string& target,
                                                                std::string_view label) const {
    auto opened = options_.workspace
                      ? options_.workspace->open(target)
                      : std::expected<void, std::string>(std::unexpected("there is no desktop"));
    if (!opened)
        return refuse(fillIn(Refusal::handOverFailed, {{"target", label}, {"reason", opened.error()}}));
    return Opened::inApp;
}

std::expected<Opener::Opened, Opener::Refusal> Opener::openFile(const fs::path& file,
                                                                const std::optional<fs::path>& app) const {
    if (options_.fence) {
        options_.fence->openFile(file, app ? std::optional(app->string()) : std::nullopt);
        return refuse(Refusal::sandbox);
    }
    if (!isShown(file)) return refuse(Refusal::notShown);
    if (isNeverOpened(file))
        return refuse(fillIn(Refusal::neverOpened, {{"name", file.filename().string()}}));
    if (app) {
        auto offered = options_.workspace
                           ? options_.workspace->appsFor(contentTypeForName(file.filename().string()))
                           : std::vector<fs::path>{};
        if (std::find(offered.begin(), offered.end(), *app) == offered.end())
            return refuse(Refusal::appNotOffered);
        auto opened = options_.workspace->openWith(file, *app);
        if (!opened)
            return refuse(fillIn(Refusal::handOverFailed,
                                 {{"target", file.filename().string()}, {"reason", opened.error()}}));
        return Opened::inApp;
    }
    return handOver(file.string(), file.filename().string());
}

std::expected<Opener::Opened, Opener::Refusal> Opener::reveal(const fs::path& item) const {
    if (options_.fence) {
        options_.fence->reveal(item);
        return Opened::inFinder;
    }
    if (!isShown(item)) return refuse(Refusal::notShown);
    auto shown = options_.workspace
                     ? options_.workspace->reveal(item)
                     : std::expected<void, std::string>(std::unexpected("there is no desktop"));
    if (!shown)
        return refuse(fillIn(Refusal::handOverFailed,
                             {{"target", item.filename().string()}, {"reason", shown.error()}}));
    return Opened::inFinder;
}

std::expected<Opener::Opened, Opener::Refusal> Opener::handOverRecorded(const std::string& address,
                                                                        LedgerEntry::Purpose purpose,
                                                                        std::optional<std::string> query,
                                                                        std::string_view notRecorded) const {
    if (options_.fence) {
        options_.fence->openLink(address);
        return refuse(Refusal::sandbox);
    }
    EgressLedger::Leaving leaving{
        .purpose = purpose, .url = address, .method = "GET", .query = std::move(query)};
    leaving.framework = "xdg-open";
    auto id = options_.ledger->recordLeaving(leaving);
    if (!id) return refuse(notRecorded);
    auto opened = handOver(address, address);
    // The other app's own traffic is not ours to see; the result line says where the request went.
    EgressLedger::Result result;
    result.failure = opened ? std::string("handed to another app, which made the request itself")
                            : std::string("not handed over: ") + opened.error().reason;
    (void)options_.ledger->recordResult(*id, result);
    return opened;
}

std::expected<Opener::Opened, Opener::Refusal> Opener::showInMaps(const std::optional<Place>& place) const {
    if (!options_.ledger) return refuse(Refusal::mapsOffline);
    if (!place) return refuse(Refusal::noPlace);
    std::string address =
        "maps:?q=" + percentEncoded(place->name) + "&ll=" + coordinates(place->latitude, place->longitude);
    return handOverRecorded(address, LedgerEntry::Purpose::places, std::nullopt, Refusal::mapsNotRecorded);
}

std::expected<Opener::Opened, Opener::Refusal> Opener::searchInMaps(const std::string& words, double latitude,
                                                                    double longitude) const {
    if (!options_.ledger) return refuse(Refusal::mapsOffline);
    if (words.find_first_not_of(" \t\n") == std::string::npos) return refuse(Refusal::noPlace);
    std::string address = "maps:?q=" + percentEncoded(words) + "&sll=" + coordinates(latitude, longitude);
    return handOverRecorded(address, LedgerEntry::Purpose::places, words, Refusal::mapsNotRecorded);
}

std::expected<Opener::Opened, Opener::Refusal> Opener::openPage(const std::string& address) const {
    if (!options_.ledger) return refuse(Refusal::pageOffline);
    if (schemeOf(address) != "https") return refuse(Refusal::notSecurePage);
    return handOverRecorded(address, LedgerEntry::Purpose::page, std::nullopt, Refusal::pageNotRecorded);
}

std::expected<Opener::Opened, Opener::Refusal> Opener::openSearch(const std::string& words) const {
    if (!options_.ledger) return refuse(Refusal::searchOffline);
    if (words.find_first_not_of(" \t\n") == std::string::npos) return refuse(Refusal::nothingToSearch);
    return handOverRecorded("x-web-search://?" + percentEncoded(words), LedgerEntry::Purpose::search, words,
                            Refusal::searchNotRecorded);
}

std::expected<Opener::Opened, Opener::Refusal> Opener::writeEmail(const std::string& subject,
                                                                  const std::string& body) const {
    if (options_.supportAddress.find('@') == std::string::npos) return refuse(Refusal::emailNotMade);
    std::string address = "mailto:" + options_.supportAddress + "?subject=" + percentEncoded(subject) +
                          "&body=" + percentEncoded(body);
    if (options_.fence) {
        options_.fence->openLink(address);
        return refuse(Refusal::sandbox);
    }
    return handOver(address, "The email");
}

std::expected<Opener::Opened, Opener::Refusal> Opener::openSettings(const std::string& address) const {
    if (schemeOf(address) != settingsScheme) return refuse(Refusal::onlySettings);
    if (options_.fence) {
        options_.fence->openLink(address);
        return refuse(Refusal::sandbox);
    }
    return handOver(address, address);
}

} // namespace vantle
