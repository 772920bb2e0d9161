// The library's summary kept between launches in Library/summary.json, so the Home has figures
// before the first fresh reading. Read once when made; every keep replaces the file atomically. An
// actor: safe from several threads; summaries are returned by value.
#pragma once
#include "VantleSpec/LibraryRecords.h"

#include <expected>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

namespace vantle {

class KeptSummary {
  public:
    // No file means nothing is kept: the summary lives only for this run.
    explicit KeptSummary(std::optional<std::filesystem::path> file);

    // What the file held at launch, or the latest kept since; none when the file was missing or did
    // not decode.
    std::optional<LibrarySummary> summary() const;
    // True once the file has been read (whether or not it held a summary).
    bool loaded() const;
    const std::optional<std::filesystem::path>& file() const { return file_; }

    // Keeps the summary in memory and writes it (making Library/ when missing). The error is the
    // sentence to show; the summary is still kept in memory for this run.
    std::expected<void, std::string> keep(const LibrarySummary& summary);

    static constexpr std::string_view keepFailedSentence =
        "The library's summary could not be saved: {reason}.";

  private:
    const std::optional<std::filesystem::path> file_;
    mutable std::mutex mutex_;
    std::optional<LibrarySummary> summary_;
    bool loaded_ = false;
};

} // namespace vantle
