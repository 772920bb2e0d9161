// Finds the items of the rules one scan measures: walks below an anchor folder by descriptors, one
// component at a time, only where some measured rule's pattern still reaches, and asks the rule
// matcher what each entry is. Places that could not be read become gaps; other disks met on the way
// are noted and not entered. Used by the scanner from one thread; owns what it found.
#pragma once
#include "Platform/EntryStatus.h"
#include "Platform/UniqueFd.h"
#include "VantleStorage/ItemFacts.h"
#include "VantleStorage/RuleTable.h"
#include "VantleStorage/StorageScan.h"

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

class CancelFlag;

// One entry a rule claims, as found: where it is and what it was when it was found.
struct FoundItem {
    std::size_t ruleIndex = 0;
    Anchor anchor = Anchor::home;
    std::vector<std::string> parts; // relative to the anchor
    std::string name;
    std::string path;
    EntryStatus status;
    std::shared_ptr<const UniqueFd> parent;   // the folder it was found in, kept open for the walk
    std::optional<RuleMatcher::Place> inside; // set where other rules' patterns reach inside it
};

class ItemSearch {
  public:
    // `skip` names a folder never searched or taken as an item (the holding folder).
    ItemSearch(const RuleMatcher& matcher, CancelFlag& cancel,
               std::optional<FileIdentity> skip = std::nullopt);

    // Searches below the anchor folder open as `anchorFd` (at `anchorPath`). False when the anchor
    // itself could not be listed; its error is in `rootError()`.
    bool run(std::shared_ptr<const UniqueFd> anchorFd, const std::filesystem::path& anchorPath);

    int rootError() const { return rootError_; }
    std::vector<FoundItem>& items() { return items_; }
    const std::vector<ScanGap>& gaps() const { return gaps_; }
    const std::vector<std::string>& mountPoints() const { return mountPoints_; }

  private:
    const RuleMatcher& matcher_;
    CancelFlag& cancel_;
    std::optional<FileIdentity> skip_;
    std::vector<FoundItem> items_;
    std::vector<ScanGap> gaps_;
    std::vector<std::string> mountPoints_;
    int rootError_ = 0;
};

} // namespace vantle
