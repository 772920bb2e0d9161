// The hashes made by earlier duplicate scans, by absolute path, kept in one JSON file so that an
// unchanged file is never read twice. A plain value: not thread-safe; the duplicate finder owns one
// and uses it under its own lock.
#pragma once
#include "VantleLibrary/Fingerprint.h"
#include "VantleLibrary/FingerprintReader.h"

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace vantle {

class FingerprintCache {
  public:
    // An empty path keeps the cache in memory only.
    explicit FingerprintCache(std::filesystem::path cacheFile) : cacheFile_(std::move(cacheFile)) {}

    // Reads the file once; a missing, unreadable or malformed file (or entry) is an empty cache.
    void load();
    bool loaded() const { return loaded_; }

    // The kept hashes for `path` if they still hold for the file as `status` describes it; a stale
    // entry is dropped.
    const Fingerprint* valid(const std::string& path, const FileStatus& status);

    // Records a hash for `path` as of `status`, keeping the other hash where it still holds.
    void store(const std::string& path, const FileStatus& status, HashMode mode, const Digest& digest);

    // Drops every entry whose path is not in `paths`.
    void keepOnly(const std::unordered_set<std::string_view>& paths);

    // Writes the file atomically when something changed since it was read or last saved; the error is
    // the system's description.
    std::expected<void, std::string> save();

    size_t size() const { return fingerprints_.size(); }
    const std::filesystem::path& cacheFile() const { return cacheFile_; }

  private:
    std::unordered_map<std::string, Fingerprint> fingerprints_;
    std::filesystem::path cacheFile_;
    bool loaded_ = false;
    bool changed_ = false;
};

} // namespace vantle
