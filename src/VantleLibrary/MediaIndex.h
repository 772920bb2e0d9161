// The facts read behind a walk, never inside it: download origins and tags (read after every walk),
// and what was read from each photo, song and video, kept beside the catalog's index so that a file
// is read once: an entry stands while the file keeps its size, modification time and inode. Not thread-safe:
// the catalog's walking call owns it.
#pragma once
#include "VantleLibrary/Facts.h"
#include "VantleLibrary/MediaFacts.h"
#include "VantleSpec/CancelFlag.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
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
        bool whole = true;    // false when stopped before every file was looked at
        // What each file carries, by its place in the list filled.
        std::vector<std::pair<std::size_t, MediaFacts>> found;
        // Sets those facts in the same list (or a copy of it).
        void applyTo(std::vector<Facts>& facts) const;
        // Whether applying them would change anything.
        bool carries() const;
    };
    // How far a fill has come, for someone waiting on another thread.
    struct Progress {
        std::atomic<std::size_t> toRead{0}; // files to look at in this pass
        std::atomic<std::size_t> read{0};
    };

    // `file` is where the entries are kept between runs; none keeps them in memory only.
    explicit MediaIndex(std::optional<std::filesystem::path> file) : file_(std::move(file)) {}

    // The media facts of every file in `facts` whose kind can carry them: from a kept entry when the
    // file is unchanged, else read now (opened with O_NOATIME, in `workers` threads at idle disk
    // priority). `facts` is only looked at, so a shared
    // snapshot can be filled without a copy until the end. After a whole fill, entries of files no longer in
    // `facts` are dropped; a stopped one keeps every entry and adds what it read. `progress`, when given, is
    // updated as files are read.
    Filled fill(const std::vector<Facts>& facts, const CancelFlag& cancel, Progress* progress = nullptr,
                unsigned workers = 4);
    // The download origins and tags of every file in `facts` (by its place) that has any, read in
    // `workers` threads at idle disk priority; nullopt when stopped. Nothing of it is kept: a file's
    // attributes can change without its size or modification time, so they are read after every walk.
    static std::optional<std::vector<std::pair<std::size_t, AttributeFacts>>>
    attributes(const std::vector<Facts>& facts, const CancelFlag& cancel, Progress* progress = nullptr,
               unsigned workers = 4);

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
