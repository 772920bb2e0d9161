// The holding shelf: items set aside by name wait in the holding folder (the data folder's
// Holding/), each moved there without replacing anything, until they are put back where they were;
// nothing on it is ever deleted by the program. Its entries are kept in a file written atomically
// beside it. An actor: every operation holds the shelf's lock; callers own the values returned.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/CleanReceipt.h"
#include "VantleStorage/RuleTable.h"

#include <expected>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct HeldItem {
    std::string id;
    std::string category;
    std::string title;
    std::string name;
    std::string original; // where it came from
    std::string path;     // where it is now
    std::int64_t bytes = 0;
    TimePoint since;
    bool operator==(const HeldItem&) const = default;
};
VANTLE_RECORD_JSON(HeldItem, id, category, title, name, original, path, bytes, since)

class HoldingShelf {
  public:
    struct Entry {
        std::string slot;               // its own name inside the holding folder
        std::vector<std::string> parts; // its former place relative to the home
        std::string rule;
        std::string folder; // the folder it was taken from
        std::string name;   // its former name
        std::string path;   // its former full path
        TimePoint since;
        bool operator==(const Entry&) const = default;
    };

    struct PutBackResult {
        std::vector<std::string> putBack;  // the ids that went back
        std::vector<std::string> failures; // one sentence each
        bool operator==(const PutBackResult&) const = default;
    };

    static constexpr std::string_view homeUnopenedWords =
        "The home folder could not be opened, so nothing was put back.";
    static constexpr std::string_view notStorageStepWords =
        "One step was not a storage step and was left for the tool that made it.";
    static constexpr std::string_view cannotGoBackWords = "{name} could not be put back. ";
    static constexpr std::string_view outsideHomeWords = "Its place is outside the home folder.";
    static constexpr std::string_view notSetAsidePlaceWords =
        "Its place is not one Vantle sets items aside from.";
    static constexpr std::string_view notInHoldingWords = "It is no longer in the holding folder.";
    static constexpr std::string_view folderGoneWords = "The folder it was in cannot be opened.";
    static constexpr std::string_view moveRefusedWords = "This Mac did not allow the move (error {code})";
    static constexpr std::string_view placeTakenWords =
        "Something with that name is there now, and Vantle never replaces an item.";

    // `holding` is the holding folder, `entriesFile` where the entries are kept.
    HoldingShelf(std::filesystem::path home, std::filesystem::path holding, std::filesystem::path entriesFile,
                 const RuleTable& table, Clock now = systemClock());

    const std::filesystem::path& holding() const { return holding_; }
    const std::filesystem::path& home() const { return home_; }

    // The entries as kept; a missing or unreadable file holds none.
    std::vector<Entry> entries() const;
    static std::string idOf(const Entry& entry);
    std::optional<Entry> find(std::string_view heldId) const;
    // The report's lines for what is held now.
    std::vector<HeldItem> heldItems() const;

    // Moves `name` out of `parentFd` into the holding folder (open as `holdingFd`) under a fresh slot,
    // never replacing anything, and records it. The error is the errno of the move.
    std::expected<std::string, int> setAside(int parentFd, int holdingFd, std::span<const std::string> parts,
                                             std::string_view rule);

    // Puts the held items back where they were, in order; what cannot go back stays held.
    PutBackResult putBack(std::span<const std::string> heldIds);

  private:
    std::vector<Entry> load() const;
    std::expected<void, std::string> keep(const std::vector<Entry>& entries) const;

    mutable std::mutex mutex_;
    std::filesystem::path home_;
    std::filesystem::path holding_;
    std::filesystem::path entriesFile_;
    const RuleTable* table_;
    Clock now_;
};
VANTLE_RECORD_JSON(HoldingShelf::Entry, slot, parts, rule, folder, name, path, since)

} // namespace vantle
