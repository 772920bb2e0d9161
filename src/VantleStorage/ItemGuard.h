// The item guard: admits one scanned item for freeing only after re-checking it from the home
// folder down, by descriptors, one component at a time, never following a link. What it admits
// carries the descriptors it opened (home, every folder on the way, the item itself), so the freeing
// that follows works on exactly what was checked even if a folder is swapped for a link meanwhile.
// A guard is an immutable value; admit() may be called from several threads. The caller owns the
// Admitted it returns and must keep it for the whole of the freeing.
#pragma once
#include "Platform/EntryStatus.h"
#include "Platform/UniqueFd.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/ItemFacts.h"
#include "VantleStorage/RuleTable.h"

#include <expected>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// An open folder descriptor, closed when the value is dropped.
struct Folder {
    UniqueFd descriptor;
    int get() const { return descriptor.get(); }
};

class ItemGuard {
  public:
    struct Admitted {
        std::size_t ruleIndex = 0;
        const Rule* rule = nullptr;
        Folder home;
        std::vector<Folder> way;      // every folder below the home down to the item's parent, in order
        std::string name;             // the item's last path component
        std::optional<Folder> folder; // the item itself, where it is a folder
        EntryStatus status;           // read through the parent, without following a link
        std::string realPath;         // where the item really is, read back from the descriptors
        std::uint64_t homeDevice = 0;

        int parent() const { return way.empty() ? home.get() : way.back().get(); }
    };

    struct Refusal {
        std::string reason;
        bool isLasting = false; // no later attempt can succeed
        bool operator==(const Refusal&) const = default;
    };

    static constexpr std::string_view neverDeletesWords = "Vantle never deletes this kind of item.";
    static constexpr std::string_view badLocationWords =
        "Its location is not one a rule could have produced.";
    static constexpr std::string_view ruleMismatchWords = "The rule for {rule} does not match it.";
    static constexpr std::string_view neverChangedPlaceWords = "It is in a place Vantle never changes.";
    static constexpr std::string_view isLinkWords = "It is a link, and Vantle never follows a link.";
    static constexpr std::string_view homeUnopenedWords = "The home folder could not be opened.";
    static constexpr std::string_view wayBrokenWords =
        "A folder on the way to it is missing or has become a link.";
    static constexpr std::string_view goneWords = "It is no longer there.";
    static constexpr std::string_view becameLinkWords =
        "It has become a link to somewhere else, and Vantle never follows a link.";
    static constexpr std::string_view otherDiskWords = "It is on another disk than the home folder, and "
                                                       "Vantle only frees what is on the home folder's disk.";
    static constexpr std::string_view notAFolderNowWords =
        "It could not be opened as a folder: it may have been replaced.";
    static constexpr std::string_view notOrdinaryWords = "It is not an ordinary file or folder.";
    static constexpr std::string_view replacedWhileCheckingWords =
        "It was replaced while Vantle was checking it.";
    static constexpr std::string_view outsideRuleWords =
        "Its real location is outside what the rule for {rule} allows.";
    static constexpr std::string_view notScannedItemWords =
        "It is not the item that was scanned: something replaced it.";

    ItemGuard(const RuleTable& table, std::filesystem::path home);

    // Runs the checks in their order for the item `parts` (relative to the home) of rule `ruleId`,
    // which the scan saw as `scanned`; the first check that fails gives the refusal. `scannedBirth`
    // is when the scanned item came to be, where the file system keeps it: a file system may give a
    // new item the inode number of one just deleted, and the birth time tells the two apart.
    std::expected<Admitted, Refusal> admit(std::string_view ruleId, std::span<const std::string> parts,
                                           FileIdentity scanned,
                                           std::optional<TimePoint> scannedBirth = std::nullopt,
                                           EntryKind scannedKind = EntryKind::folder) const;

    const std::filesystem::path& home() const { return home_; }

  private:
    const RuleTable* table_;
    std::filesystem::path home_;
};

// Opens the home folder as the guard does: a folder, no link anywhere on its path.
std::expected<UniqueFd, int> openHomeFolder(const std::filesystem::path& home);

} // namespace vantle
