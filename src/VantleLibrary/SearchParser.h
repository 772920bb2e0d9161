// Reads what a person types to find files ("big videos from last month", "pdfs from gmail") into a
// FileQuery and the chips that show what was understood, by words alone: no network, no model. Each
// understood word or phrase fills one part of the query; the words left over are name terms. A
// plain value: parse() is const and may be called from several threads at once.
#pragma once
#include "VantleLibrary/Calendar.h"
#include "VantleSpec/LibraryRecords.h"
#include "VantleSpec/Time.h"

#include <filesystem>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class SearchParser {
  public:
    // One row of the kind vocabulary.
    struct KindWord {
        std::vector<std::string_view> words;
        std::set<LibraryKind> kinds;
        std::vector<std::string_view> extensions;
        bool screenshots = false;
        std::string label; // the chip
    };

    // The parse in progress.
    struct State;

    // `home` is where the place words (desktop, downloads, documents, iCloud Drive) point.
    SearchParser(Clock now, Calendar calendar, std::filesystem::path home);

    // The rows, in the order they are tried.
    static std::span<const KindWord> kindWords();

    // A query for `words`; its sort and limit are the defaults unless the words give a sort.
    // `milliseconds` is left 0 for the search to fill in.
    ParsedSearch parse(std::string_view words, int limit = 100) const;

    // The folder the words "icloud" and "icloud drive" name, under the home.
    static constexpr std::string_view iCloudDriveFolder = "Library/Mobile Documents/com~apple~CloudDocs";

  private:
    Clock now_;
    Calendar calendar_;
    std::filesystem::path home_;
};

} // namespace vantle
