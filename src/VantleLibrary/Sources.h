// Where a file came from: the download origins the browser or mail program wrote on it, read into a
// host and matched against a fixed table of source families (web sites, mail services, apps). Pure
// functions over constant tables; safe from any thread. The family table lives for the whole program.
#pragma once
#include "VantleLibrary/Facts.h"
#include "VantleSpec/LibraryRecords.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class Sources {
  public:
    // One known source. Hosts match themselves and every subdomain ("mail.google.com" matches a host
    // "google.com"); words are lower-case and may be two words long ("google drive").
    struct Family {
        std::string_view key;
        std::string_view name;
        std::vector<std::string_view> hosts;
        std::vector<std::string_view> words;
        bool isGeneric = false;
    };

    // What one origin text says about where the file came from.
    enum class OriginKind {
        web,              // a web or file-transfer address: `host` is set
        local,            // a web address on this machine or the local network: names no family
        mail,             // a mail attachment ("message:" scheme)
        browserExtension, // saved by a browser extension
    };
    struct Origin {
        OriginKind kind = OriginKind::web;
        std::string host; // lower-case, without a leading "www."; empty unless web or local
        bool operator==(const Origin&) const = default;
    };

    // Files whose origins name no family but came by mail or from a browser extension are still
    // grouped, under these keys, after the families.
    static constexpr std::string_view mailKey = "mail";
    static constexpr std::string_view mailName = "Mail";
    static constexpr std::string_view extensionKey = "extension";
    static constexpr std::string_view extensionName = "Browser extension";

    // The families, specific ones first in their fixed order, the generic one last.
    static std::span<const Family> families();
    static const Family* family(std::string_view key);

    // Reads one origin text; nothing when it has no scheme, an empty host, or a scheme this program
    // does not read.
    static std::optional<Origin> readOrigin(std::string_view text);

    // The family a file's origins name: specific families are tried for every origin before the
    // generic one is tried for any. Null when no origin names a family.
    static const Family* familyOf(std::span<const std::string> origins);

    // The family key, else mailKey or extensionKey when an origin says so, else nothing.
    static std::optional<std::string> sourceKey(std::span<const std::string> origins);

    // The shown name of a family key, mailKey or extensionKey; empty for an unknown key.
    static std::string_view nameOf(std::string_view key);

    // A source word at the start of `tokens` (lower-case words), the longest one winning:
    // {"google", "drive", ...} names "gdrive" over two tokens, {"google"} "google" over one.
    struct WordMatch {
        std::string_view key;
        size_t tokens = 0;
    };
    static std::optional<WordMatch> matchWords(std::span<const std::string> tokens);

    // The files of a reading grouped by source: biggest groups first (ties in table order, mail and
    // extension groups after the families), each with its `samples` most recently changed files.
    // Files without a source are in no group.
    static std::vector<SourceGroup> groups(std::span<const Facts> facts, int samples);

  private:
    static bool hostMatches(std::string_view host, std::string_view familyHost);
};

} // namespace vantle
