// What the walkers of one scan share: the folders already claimed as items of their own (never
// counted inside another item), the hard-linked files and clone extents already counted (each counted
// once per scan), the cancel flag, and running totals for the progress line. Safe from every walker
// at once; claim() only before the walkers start.
#pragma once
#include "VantleSpec/CancelFlag.h"
#include "VantleStorage/ItemFacts.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace vantle {

class ScanLedger {
  public:
    explicit ScanLedger(CancelFlag& cancel) : cancel_(cancel) {}

    CancelFlag& cancel() const { return cancel_; }
    bool cancelled() const { return cancel_.isCancelled(); }

    void claim(FileIdentity folder) { claimed_.insert(folder); }
    bool isClaimed(FileIdentity folder) const { return !claimed_.empty() && claimed_.contains(folder); }

    // Records one name, met inside item `item`, of a file with `links` names taking `bytes` on disk.
    // True for the first name met: that meeting counts the file, later ones add nothing.
    bool noteHardLink(FileIdentity file, std::size_t item, std::uint32_t links, std::int64_t bytes);

    // After the walk: for each file whose every name was met, and all of them inside items that
    // `freedTogether` says go together, the item that counted it and its bytes. Deleting those items
    // frees the file, so its bytes are reclaimable rather than pinned.
    std::vector<std::pair<std::size_t, std::int64_t>>
    wholeHardLinks(const std::function<bool(std::size_t first, std::size_t other)>& freedTogether) const;
    // True the first time this shared extent (a clone family's blocks) is met in the scan.
    bool firstClone(std::uint64_t device, std::uint64_t physical);

    void noteProgress(std::int64_t entries, std::int64_t bytes) {
        entriesSeen_.fetch_add(entries, std::memory_order_relaxed);
        bytesSeen_.fetch_add(bytes, std::memory_order_relaxed);
    }
    std::int64_t entriesSeen() const { return entriesSeen_.load(std::memory_order_relaxed); }
    std::int64_t bytesSeen() const { return bytesSeen_.load(std::memory_order_relaxed); }

  private:
    struct PairHash {
        std::size_t operator()(const std::pair<std::uint64_t, std::uint64_t>& p) const noexcept {
            return std::hash<FileIdentity>{}({p.first, p.second});
        }
    };

    CancelFlag& cancel_;
    std::unordered_set<FileIdentity> claimed_; // written before the walk, only read during it
    struct Names {
        std::size_t item = 0; // the item that counted it
        std::uint32_t links = 0;
        std::uint32_t met = 0;
        std::int64_t bytes = 0;
        std::vector<std::size_t> others; // other items a name was met in
    };
    mutable std::mutex hardLinksMutex_;
    std::unordered_map<FileIdentity, Names> hardLinks_;
    std::mutex cloneMutex_;
    std::unordered_set<std::pair<std::uint64_t, std::uint64_t>, PairHash> cloneFamilies_;
    std::atomic<std::int64_t> entriesSeen_{0};
    std::atomic<std::int64_t> bytesSeen_{0};
};

} // namespace vantle
