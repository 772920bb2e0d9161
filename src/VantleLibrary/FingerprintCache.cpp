#include "VantleLibrary/FingerprintCache.h"

#include "Platform/AtomicFile.h"

#include <nlohmann/json.hpp>

namespace vantle {

void FingerprintCache::load() {
    if (loaded_) return;
    loaded_ = true;
    if (cacheFile_.empty()) return;
    auto text = readWholeFile(cacheFile_);
    if (!text) return;
    // Unordered on purpose: an ordered object looks keys up one by one and would make reading a large
    // cache quadratic.
    auto parsed = nlohmann::json::parse(*text, nullptr, false);
    if (!parsed.is_object()) return;
    for (auto& [path, value] : parsed.items()) {
        try {
            fingerprints_.emplace(path, value.get<Fingerprint>());
        } catch (const std::exception&) {
            changed_ = true; // an entry we cannot read is dropped, and the file rewritten without it
        }
    }
}

const Fingerprint* FingerprintCache::valid(const std::string& path, const FileStatus& status) {
    auto it = fingerprints_.find(path);
    if (it == fingerprints_.end()) return nullptr;
    if (it->second.holdsFor(status.size, status.modified, status.number.inode)) return &it->second;
    fingerprints_.erase(it);
    changed_ = true;
    return nullptr;
}

void FingerprintCache::store(const std::string& path, const FileStatus& status, HashMode mode,
                             const Digest& digest) {
    auto& entry = fingerprints_[path];
    if (!entry.holdsFor(status.size, status.modified, status.number.inode))
        entry = Fingerprint{status.size, status.modified, status.number.inode, std::nullopt, std::nullopt};
    (mode == HashMode::sample ? entry.sample : entry.full) = digest;
    changed_ = true;
}

void FingerprintCache::keepOnly(const std::unordered_set<std::string>& paths) {
    auto removed =
        std::erase_if(fingerprints_, [&](const auto& entry) { return !paths.contains(entry.first); });
    if (removed > 0) changed_ = true;
}

std::expected<void, std::string> FingerprintCache::save() {
    if (!changed_ || cacheFile_.empty()) return {};
    std::string text = "{";
    for (const auto& [path, fingerprint] : fingerprints_) {
        if (text.size() > 1) text += ",\n";
        text += Json(path).dump(-1, ' ', false, Json::error_handler_t::replace);
        text += ':';
        text += Json(fingerprint).dump();
    }
    text += "}\n";
    auto written = writeFileAtomicallyMakingFolder(cacheFile_, text, 0600);
    if (written) changed_ = false;
    return written;
}

} // namespace vantle
