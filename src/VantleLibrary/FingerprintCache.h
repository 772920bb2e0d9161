// The hashes made by earlier duplicate scans, by absolute path, kept in one JSON file so that an
// unchanged file is never read twice. A plain value: not thread-safe; the duplicate finder owns one
// and uses it under its own lock.
#pragma once
#include "Platform/KeptFile.h"
#include "VantleLibrary/Fingerprint.h"
#include "VantleLibrary/FingerprintReader.h"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace vantle {

class FingerprintCache {
  public:
    // An empty path keeps the cache in memory only.
    explicit FingerprintCache(std::filesystem::path cacheFile) : cacheFile_(std::move(cacheFile)) {}

    // Reads the file once; a missing, unreadable or malformed file (or entry) is an empty cache.
    void load();
    bool loaded() const { return loaded_; }

    // Where a path's entry is kept, found without changing anything, so that many threads may look
    // up at once (while no one stores). Good until the file is read again.
    struct Place {
        std::uint32_t entry; // the entry's index + 1; 0 when the path had none
    };
    // The places of many paths at once, into `places` (as long as `paths`).
    void place(std::span<const std::string_view> paths, std::span<Place> places) const;

    // The kept hashes for `path` if they still hold for the file as `status` describes it; a stale
    // entry is dropped. The answer is good until the next store(). `known` is where place() found
    // the path, which spares looking it up again; a path placed nowhere is looked up, as it may have
    // been stored since.
    const Fingerprint* valid(std::string_view path, const FileStatus& status, Place known = {});

    // Records a hash for `path` as of `status`, keeping the other hash where it still holds. Storing
    // what is already kept changes nothing, and the file is not written again for it.
    void store(std::string_view path, const FileStatus& status, HashMode mode, const Digest& digest);
    // Room for `more` paths not kept yet, so that storing them grows nothing on the way.
    void reserve(std::size_t more);

    // Kept entries that neither valid() nor store() has been asked about since the file was read:
    // when every asked path is known to be wanted, these are the only ones keepOnly could drop.
    std::size_t unasked() const { return unasked_; }

    // Drops every entry whose path is not in `paths`.
    void keepOnly(const std::unordered_set<std::string_view>& paths);

    // Writes the file atomically when something changed since it was read or last saved; the error is
    // the system's description.
    std::expected<void, std::string> save();

    std::size_t size() const { return live_; }
    const std::filesystem::path& cacheFile() const { return cacheFile_; }

  private:
    // One path's entry. Most paths point into the file's own bytes, kept for the cache's life, so a
    // cache of tens of thousands of files is read with no allocation per entry. A dropped entry keeps
    // its place (and its key) and comes back to life if its path is stored again.
    struct Entry {
        std::string_view path;
        std::uint64_t hash = 0;
        Fingerprint value;
        bool live = true;
        bool asked = false;
    };

    Entry* find(std::string_view path, std::uint64_t hash);
    const Entry* find(std::string_view path, std::uint64_t hash) const;
    // A copy of `path` kept for the cache's life.
    std::string_view own(std::string_view path);
    // A new live entry; `path` must outlive the cache (the file's bytes or ownedPaths_).
    Entry& add(std::string_view path, std::uint64_t hash, const Fingerprint& value);
    // An entry read from the file; a path met twice keeps its last value, as a JSON reader would.
    void put(std::string_view path, const Fingerprint& value);
    void ask(Entry& entry);
    void makeRoom(std::size_t entries);
    void clear();
    // Reads the file as save() writes it; false for anything else.
    bool readOwnFormat(std::string_view text);

    std::filesystem::path cacheFile_;
    std::optional<KeptBytes> bytes_;
    // Paths that are not a plain slice of the file's bytes, one after another in blocks: a string
    // each was an allocation a file in a scan with no cache.
    std::pmr::monotonic_buffer_resource ownedPaths_;
    std::vector<Entry> entries_;
    // Open addressing with linear probes: each slot is an entry's index + 1, or 0 when empty. Never
    // more than half full.
    std::vector<std::uint32_t> slots_;
    std::size_t live_ = 0;
    std::size_t unasked_ = 0;
    bool loaded_ = false;
    bool changed_ = false;
};

} // namespace vantle
