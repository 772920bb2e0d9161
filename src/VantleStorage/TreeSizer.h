// Walks the trees of a scan's items and sums each into its Tally: folders opened relative to their
// parent without following a link, read in bulk, every entry's status read without following it.
// Links are counted and never followed, another disk is never entered, a hard-linked file or a
// clone's shared blocks are counted once per scan (through the ScanLedger), and entries that are
// items of their own are left out. One TreeSizer per walker thread; it owns the tallies it returns.
#pragma once
#include "Platform/EntryStatus.h"
#include "Platform/UniqueFd.h"
#include "VantleStorage/RuleTable.h"
#include "VantleStorage/ScanLedger.h"
#include "VantleStorage/Tally.h"
#include "VantleStorage/WorkQueue.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vantle {

// What a walker must know of an item while it walks it. Read-only during the walk.
struct SizingTarget {
    std::uint64_t device = 0;             // the item's disk; a folder on any other is not entered
    const RuleMatcher* matcher = nullptr; // set where rule patterns reach inside the item
    std::size_t anchorPathLength = 0;     // the anchor's path plus its "/", cut off keepsake paths
    bool sharesBlocks = false;            // its file system can clone, so extents are worth reading
    bool notesKeepsakes = false;          // record files named like a login
};

// One folder still to walk. The parent stays open while any of its sub-folders waits, so a walker
// holds about one descriptor per level it is inside, whatever the breadth.
struct SizingTask {
    std::size_t item = 0;
    std::shared_ptr<const UniqueFd> parent;
    std::string name;
    std::string path; // the folder's full path, for the report's samples and mount points
    std::optional<RuleMatcher::Place> place; // where rule matching stands, while patterns reach below
};

class TreeSizer {
  public:
    static constexpr std::size_t bufferBytes = 262'144;

    TreeSizer(ScanLedger& ledger, std::span<const SizingTarget> targets);

    // Walks tasks from `queue` until it ends, handing a waiting folder over whenever another walker
    // runs dry. Stops between folders once the ledger's cancel flag is set.
    void run(WorkQueue<SizingTask>& queue);

    // Counts one regular file, other file-like entry or socket of item `item`, read as `status` in
    // the folder `dirFd` under `name`.
    void countEntry(std::size_t item, int dirFd, const char* name, const EntryStatus& status,
                    const std::string& folderPath);

    // Counts a folder itself: its own blocks and its last change.
    static void countFolder(Tally& tally, const EntryStatus& status);

    std::vector<Tally>& tallies() { return tallies_; }

    // Sizes one folder on the calling thread: the folder `name` inside `parentFd`, found at `path`.
    // What a scan does for each item, without other walkers or rule matching.
    static Tally measureFolder(ScanLedger& ledger, int parentFd, const std::string& name,
                               const std::string& path, bool notesKeepsakes = true);

  private:
    void walkFolder(SizingTask& task, std::deque<SizingTask>& pending);

    ScanLedger& ledger_;
    std::span<const SizingTarget> targets_;
    std::vector<Tally> tallies_;
};

} // namespace vantle
