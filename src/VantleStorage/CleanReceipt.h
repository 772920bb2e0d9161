// What carrying out a clean plan did, item by item, with the bytes measured gone, the change in the
// volume's free space, and the undo step that puts back what was set aside. Plain values, freely
// copied; receiptText() is pure.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleStorage/CleanPlan.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// The undo step of one clean: putting back exactly the items it set aside, by their held ids.
struct StorageUndo {
    std::vector<std::string> heldIds;
    bool empty() const { return heldIds.empty(); }
    bool operator==(const StorageUndo&) const = default;
};
VANTLE_RECORD_JSON(StorageUndo, heldIds)

struct CleanReceipt {
    enum class ItemResult { held, partlyRemoved, leftAlone, removed };
    struct Outcome {
        CleanPlan::Item item;
        ItemResult result = ItemResult::leftAlone;
        std::string words;              // what happened, where there is something to say
        std::int64_t measuredBytes = 0; // its size measured just before
        std::int64_t freedBytes = 0;    // what was measured gone
        std::optional<std::string> heldId;
        bool operator==(const Outcome&) const = default;
    };

    CleanPlan plan;
    std::vector<Outcome> outcomes;
    std::int64_t freedBytes = 0;
    std::int64_t heldBytes = 0;
    std::optional<std::int64_t> measuredFreedBytes; // the volume's gain in free space; absent when unread
    StorageUndo undo;
    bool cancelled = false; // stopped before every item was started

    std::int64_t count(ItemResult result) const;
    bool operator==(const CleanReceipt&) const = default;

    static constexpr std::string_view preconditionGoneWords = "Its precondition no longer holds.";
    static constexpr std::string_view changedWhileCheckingWords = "It changed while Vantle was checking it.";
    static constexpr std::string_view partlyWords =
        "Deleted part of {title}: {size} of it is still there. {why}";
    static constexpr std::string_view partFailedWords = "Part of it could not be deleted.";
    static constexpr std::string_view partGoneWords = "Part of it was already gone.";
    static constexpr std::string_view addedMeanwhileWords =
        "Something was added to it while it was being deleted; what is left stays.";
    static constexpr std::string_view partInUseWords = "Part of it is in use, and was left in place.";
    static constexpr std::string_view partLockedWords =
        "Part of it is locked or belongs to someone else, and was left in place.";
    static constexpr std::string_view diskInsideWords =
        "Another disk is attached inside it; that was left alone.";
    static constexpr std::string_view notAllowedWords = "This Mac did not allow it (error {code})";
    static constexpr std::string_view onOtherDiskWords = "It is on another disk.";
    static constexpr std::string_view couldNotDeleteWords = "It could not be deleted.";
    static constexpr std::string_view leftUnmeasuredWords =
        " What is left could not be measured, so none of it is counted as freed.";
    static constexpr std::string_view holdingUnpreparedWords =
        "The holding folder could not be prepared, so it was left where it is.";
    static constexpr std::string_view holdingUnopenedWords =
        "The holding folder could not be opened, so it was left where it is.";
    static constexpr std::string_view holdingOtherDiskWords =
        "The holding folder is on another disk, so it was left where it is.";
    static constexpr std::string_view nothingFreedWords =
        "Nothing was freed: every item failed its last check and was left exactly as it was. ";
    static constexpr std::string_view nothingSetAsideWords =
        "Nothing was set aside: every item failed its last check and was left exactly as it was. ";
    static constexpr std::string_view moreFreeWords =
        " more free space so far. The rest returns when macOS lets go of it: a snapshot, or a program that "
        "still has a deleted file open, can hold it for a while.";
    static constexpr std::string_view cannotBeUndoneWords = "This cannot be undone.";
    static constexpr std::string_view doesNotComeBackWords = "It does not come back.";
    static constexpr std::string_view madeAgainWords =
        "The apps and tools that own it make it again when they need it.";
    static constexpr std::string_view setAsideWords =
        "Set aside {count} ({size}) in Vantle's holding folder. They keep taking up their {size} of space "
        "there, so no space was freed. Undo or put_back_storage puts them back; Vantle never deletes them.";
};
VANTLE_ENUM_NAMES(CleanReceipt::ItemResult, "held", "partlyRemoved", "leftAlone", "removed")
VANTLE_RECORD_JSON(CleanReceipt::Outcome, item, result, words, measuredBytes, freedBytes, heldId)
VANTLE_RECORD_JSON(CleanReceipt, plan, outcomes, freedBytes, heldBytes, measuredFreedBytes, undo, cancelled)

// The receipt in words: one line per item that was not simply removed, then the summary.
std::string receiptText(const CleanReceipt& receipt, const std::vector<bool>& comesBackByItem = {});

} // namespace vantle
