#include "VantleStorage/ScanLedger.h"

#include <algorithm>

namespace vantle {

bool ScanLedger::noteHardLink(FileIdentity file, std::size_t item, std::uint32_t links, std::int64_t bytes) {
    std::lock_guard lock(hardLinksMutex_);
    auto [at, first] = hardLinks_.try_emplace(file);
    Names& names = at->second;
    ++names.met;
    if (first) {
        names.item = item;
        names.links = links;
        names.bytes = bytes;
    } else if (item != names.item && std::ranges::find(names.others, item) == names.others.end()) {
        names.others.push_back(item);
    }
    return first;
}

std::vector<std::pair<std::size_t, std::int64_t>>
ScanLedger::wholeHardLinks(const std::function<bool(std::size_t, std::size_t)>& freedTogether) const {
    std::lock_guard lock(hardLinksMutex_);
    std::vector<std::pair<std::size_t, std::int64_t>> out;
    for (const auto& [file, names] : hardLinks_) {
        if (names.met < names.links) continue; // a name outside keeps the file alive
        if (!std::ranges::all_of(names.others,
                                 [&](std::size_t other) { return freedTogether(names.item, other); }))
            continue;
        out.emplace_back(names.item, names.bytes);
    }
    return out;
}

bool ScanLedger::firstClone(std::uint64_t device, std::uint64_t physical) {
    std::lock_guard lock(cloneMutex_);
    return cloneFamilies_.insert({device, physical}).second;
}

} // namespace vantle
