// What was read from each photo, song and video, kept beside the catalog's index so that a file is
// read once: an entry stands while the file keeps its size, modification time and inode. Filling
// runs after a walk, never inside it. Not thread-safe: the catalog's walking call owns it.
#pragma once
#include "VantleLibrary/Facts.h"
#include "VantleLibrary/MediaFacts.h"
#include "VantleSpec/CancelFlag.h"

#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace vantle {

class MediaIndex {
  public:
    struct Key {
        std::int64_t size = 0;
        std::int64_t modified = 0; // nanoseconds since the epoch
        std::uint64_t inode = 0;
        bool operator==(const Key&) const = default;
    };
    struct Entry {
        Key key;
        MediaFacts facts;
    };
    struct Filled {
        std::size_t kept = 0; // files answered from the kept entries
        std::size_t read = 0; // files opened and read
    };

    // `file` is where the entries are kept between runs; none keeps them in memory only.
    explicit MediaIndex(std::optional<std::filesystem::path> file) : file_(std::move(file)) {}

    // Sets the media facts of every file in `facts` whose kind can carry them: from a kept entry when
    // the file is unchanged, else read now (opened with O_NOATIME, in `workers` threads). Entries of
    // files no longer in `facts` are dropped. A cancelled fill leaves the rest unread.
    Filled fill(std::vector<Facts>& facts, const CancelFlag& cancel, unsigned workers = 4);
    static constexpr std::string_view keepFailedSentence =
        "What was read from photos, songs and videos could not be saved, so it is read again next time: "
        "{reason}.";

    // Writes the entries atomically when they changed; the error is keepFailedSentence filled in.
    std::expected<void, std::string> keep();

    std::size_t size() const { return entries_.size(); }

    static std::string encode(const std::unordered_map<std::string, Entry>& entries);
    static std::optional<std::unordered_map<std::string, Entry>> decode(std::string_view bytes);

  private:
    void load();

    std::optional<std::filesystem::path> file_;
    std::unordered_map<std::string, Entry> entries_;
    bool loaded_ = false;
    bool changed_ = false;
};

} // namespace vantle
