#include "VantleStorage/CleanReceipt.h"

#include "VantleSpec/TerminalText.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>

namespace vantle {

std::int64_t CleanReceipt::count(ItemResult result) const {
    return std::ranges::count(outcomes, result, &Outcome::result);
}

std::string receiptText(const CleanReceipt& receipt, const std::vector<bool>& comesBackByItem) {
    using R = CleanReceipt;
    std::string out;
    for (const auto& o : receipt.outcomes) {
        if (o.words.empty()) continue;
        out += "  " + terminalSafe(o.item.name) + " (" + o.item.id + "): " + o.words + "\n";
    }
    const bool holds = std::ranges::any_of(receipt.plan.items,
                                           [](const auto& i) { return i.action == CleanPlan::Action::hold; });
    const auto held = receipt.count(R::ItemResult::held);
    const auto removed = receipt.count(R::ItemResult::removed) + receipt.count(R::ItemResult::partlyRemoved);
    if (!receipt.outcomes.empty() && held == 0 && removed == 0) {
        out += std::string(holds ? R::nothingSetAsideWords : R::nothingFreedWords) + "\n";
        return out;
    }
    if (held > 0) {
        auto count = std::to_string(held) + (held == 1 ? " item" : " items");
        out += fillIn(R::setAsideWords, {{"count", count}, {"size", fileBytes(receipt.heldBytes)}}) + "\n";
    }
    if (removed > 0) {
        out += "Deleted " + std::to_string(removed) + (removed == 1 ? " item" : " items") + ", " +
               fileBytes(receipt.freedBytes) + ".";
        if (receipt.measuredFreedBytes)
            out += " " + fileBytes(*receipt.measuredFreedBytes) + std::string(R::moreFreeWords);
        out += " " + std::string(R::cannotBeUndoneWords) + " ";
        bool allComeBack = std::ranges::all_of(comesBackByItem, [](bool b) { return b; });
        out += std::string(allComeBack ? R::madeAgainWords : R::doesNotComeBackWords) + "\n";
    }
    return out;
}

} // namespace vantle
