#include "VantleSpec/LedgerEntry.h"

#include "VantleSpec/Sentence.h"
#include "VantleSpec/Uuid.h"

#include <algorithm>
#include <cctype>

namespace vantle {

std::expected<LedgerEntry, std::string> decodeLedgerLine(std::string_view line) {
    auto read = readJson(line);
    if (!read) return std::unexpected(std::move(read.error()));
    const Json& j = *read;
    if (!j.is_object()) return std::unexpected(std::string("not a JSON object"));
    if (auto at = j.find("at"); at != j.end()) {
        std::string text = at->is_string() ? at->get<std::string>() : at->dump();
        if (!at->is_string() || !parseIsoDate(text))
            return std::unexpected(fillIn("not a ledger time: {text}", {{"text", text}}));
    }
    auto entry = decodeJsonValue<LedgerEntry>(j);
    if (!entry) return entry;
    // Pairing a result with its request goes by id, so an id that is not one cannot be trusted.
    if (!isUuid(entry->id)) return std::unexpected(fillIn("not a ledger id: {text}", {{"text", entry->id}}));
    if (entry->run && !isUuid(*entry->run))
        return std::unexpected(fillIn("not a run id: {text}", {{"text", *entry->run}}));
    return entry;
}

std::string hostOfUrl(std::string_view url) {
    auto scheme = url.find("://");
    if (scheme == std::string_view::npos) return {};
    auto rest = url.substr(scheme + 3);
    rest = rest.substr(0, rest.find_first_of("/?#"));
    if (auto at = rest.rfind('@'); at != std::string_view::npos) rest = rest.substr(at + 1);
    if (!rest.empty() && rest.front() == '[') {
        auto close = rest.find(']');
        rest = close == std::string_view::npos ? rest.substr(1) : rest.substr(1, close - 1);
    } else if (auto colon = rest.find(':'); colon != std::string_view::npos) {
        rest = rest.substr(0, colon);
    }
    std::string host(rest);
    std::transform(host.begin(), host.end(), host.begin(), [](unsigned char c) { return std::tolower(c); });
    return host;
}

} // namespace vantle
