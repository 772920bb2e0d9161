// `vantle storage clean CATEGORY... [--yes]`, `vantle storage set-aside ID... [--yes]` and
// `vantle storage put-back ID... [--yes]`: each measures afresh, shows exactly what it will do,
// asks on a terminal unless --yes, carries out the plan it showed and prints the receipt.
#include "cli/Commands.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/TerminalText.h"
#include "VantleStorage/ItemId.h"
#include "VantleStorage/StorageReport.h"

#include <iostream>
#include <memory>

namespace vantle::cli {

namespace {

constexpr std::string_view declinedSentence = "Nothing was touched.";
constexpr std::string_view scanStoppedSentence =
    "The storage scan was stopped before it finished. Nothing was touched.";
constexpr std::string_view nothingToFreeSentence = "Nothing can be freed there right now. Left alone: {list} "
                                                   "Tell the user; do not try another way of deleting it.";
constexpr std::string_view nothingToSetAsideSentence =
    "None of those can be set aside right now. Left alone: {list} Tell the user; do not try another way of "
    "deleting them.";
constexpr std::string_view notHeldSentence = "\"{id}\" is not the id of an item Vantle set aside. ";
constexpr std::string_view heldAreSentence = "The held items are: {list}";
constexpr std::string_view nothingHeldSentence = "Vantle is keeping nothing set aside.";
constexpr std::string_view nothingPutBackSentence =
    "Nothing was put back. {why} The items are still in Vantle's holding folder.";
constexpr std::string_view stillHeldSentence = "Still set aside: {list}";

struct Choice {
    std::vector<std::string> ids;
    bool yes = false;
    bool json = false;
};

std::optional<StorageScan> scanFor(VantleLite& live, const std::set<std::string>& rules, CliContext& ctx) {
    CancelFlag cancel;
    std::expected<StorageScan, StorageScanError> result;
    {
        InterruptGuard interrupt(cancel);
        ProgressLine line;
        line.show("Measuring what is there now…");
        result = live.storageScanner->scan(live.home, ScanDepth::rules, rules, false, live.holding, cancel);
    }
    if (!result) {
        ctx.refuse(result.error().message);
        return std::nullopt;
    }
    if (!result->complete) {
        ctx.refuse(std::string(scanStoppedSentence));
        return std::nullopt;
    }
    return std::move(*result);
}

std::string leftAloneList(const CleanPlan& plan) {
    std::string out;
    for (const auto& left : plan.leftAlone)
        out += left.name + ": " + left.reason + " ";
    if (!out.empty()) out.pop_back();
    return out;
}

void printPlan(const CleanPlan& plan, const RuleTable& table, bool hold) {
    std::cout << (hold ? "Will move into Vantle's holding folder, from where it can be put back:\n"
                       : "Will delete for good:\n");
    for (const auto& item : plan.items)
        std::cout << "  " << item.id << "  " << terminalSafe(item.path) << "  " << fileBytes(item.bytes)
                  << "\n";
    if (!plan.leftAlone.empty()) {
        std::cout << "Left alone:\n";
        for (const auto& left : plan.leftAlone)
            std::cout << "  " << terminalSafe(left.name) << " (" << left.category
                      << "): " << terminalSafe(left.reason) << "\n";
    }
    std::cout << "In all: " << fileBytes(plan.bytes()) << ".";
    if (!hold) {
        std::vector<std::string> costs;
        for (const auto& item : plan.items)
            if (const Rule* rule = table.find(item.category);
                rule && rule->cost && std::ranges::find(costs, *rule->cost) == costs.end())
                costs.push_back(*rule->cost);
        // A cost is a clause that may begin with a tool's own lower-case name ("npm downloads
        // again…"): it is led in, never capitalised.
        for (std::size_t i = 0; i < costs.size(); ++i)
            std::cout << (i == 0 ? " What freeing costs: " : "; ") << costs[i];
        if (!costs.empty()) std::cout << ".";
    }
    std::cout << "\n";
}

// Carries out a plan that was shown and answered: progress on the terminal, Ctrl-C stops before the
// next item, the receipt in words or as JSON.
void carryOut(VantleLite& live, const CleanPlan& plan, const Choice& choice, CliContext& ctx) {
    CancelFlag cancel;
    std::expected<CleanReceipt, CleanRefusal> receipt;
    {
        InterruptGuard interrupt(cancel);
        ProgressLine line;
        receipt = live.storageCleaner->carryOut(
            plan, cancel, live.holdingShelf.get(), [&](const StorageCleaner::Progress& p) {
                line.show(std::to_string(p.done + 1) + " of " + std::to_string(p.count) + ": " + p.name);
            });
    }
    if (!receipt) return ctx.refuse(receipt.error().message);
    std::vector<bool> comesBack;
    for (const auto& item : plan.items)
        if (const Rule* rule = live.storageScanner->table().find(item.category))
            comesBack.push_back(rule->comesBack);
    if (choice.json)
        printJson(Json(*receipt));
    else
        std::cout << receiptText(*receipt, comesBack);
    bool didSomething = std::ranges::any_of(
        receipt->outcomes, [](const auto& o) { return o.result != CleanReceipt::ItemResult::leftAlone; });
    if (!didSomething) ctx.exitCode = exitRefused;
}

std::set<std::string> rulesOf(const std::vector<std::string>& itemIds) {
    std::set<std::string> out;
    for (const auto& id : itemIds)
        out.insert(id.substr(0, id.find(':')));
    return out;
}

std::string heldList(const HoldingShelf& shelf) {
    std::string out;
    for (const auto& held : shelf.heldItems())
        out += (out.empty() ? "" : ", ") + held.id + " (" + held.original + ")";
    return out;
}

} // namespace

void addStorageCleanCommands(CLI::App& storage, CliContext& ctx) {
    auto* clean = storage.add_subcommand(
        "clean",
        "Delete whole categories of caches and build data for good, after showing them (Ctrl-C stops "
        "before the next item)");
    auto cleanChoice = std::make_shared<Choice>();
    clean
        ->add_option("categories", cleanChoice->ids,
                     "Category ids from storage scan, e.g. pip_cache app_caches")
        ->required();
    clean->add_flag("--yes", cleanChoice->yes, "Go ahead without asking");
    clean->add_flag("--json", cleanChoice->json, "Print the receipt as JSON");
    clean->callback([&ctx, choice = cleanChoice] {
        auto* live = ctx.live();
        if (!live) return;
        auto& cleaner = *live->storageCleaner;
        // Ids are checked before anything is measured.
        StorageScan none;
        none.home = live->home.string();
        none.finishedAt = systemNow();
        if (auto checked = cleaner.planRemoval(none, choice->ids); !checked)
            return ctx.refuse(checked.error().message);
        auto scan = scanFor(*live, std::set<std::string>(choice->ids.begin(), choice->ids.end()), ctx);
        if (!scan) return;
        auto plan = cleaner.planRemoval(*scan, choice->ids);
        if (!plan) return ctx.refuse(plan.error().message);
        if (plan->items.empty())
            return ctx.refuse(fillIn(nothingToFreeSentence, {{"list", leftAloneList(*plan)}}));
        printPlan(*plan, cleaner.table(), false);
        if (!confirmChange(ctx, "Delete these for good? This cannot be undone.", choice->yes,
                           declinedSentence))
            return;
        carryOut(*live, *plan, *choice, ctx);
    });

    auto* setAside = storage.add_subcommand(
        "set-aside",
        "Move items you chose by id into Vantle's holding folder, from where they can be put back");
    auto asideChoice = std::make_shared<Choice>();
    setAside->add_option("items", asideChoice->ids, "Item ids from storage scan, e.g. old_installers:3fa9c2")
        ->required();
    setAside->add_flag("--yes", asideChoice->yes, "Go ahead without asking");
    setAside->add_flag("--json", asideChoice->json, "Print the receipt as JSON");
    setAside->callback([&ctx, choice = asideChoice] {
        auto* live = ctx.live();
        if (!live) return;
        auto scan = scanFor(*live, rulesOf(choice->ids), ctx);
        if (!scan) return;
        auto plan = live->storageCleaner->planSetAside(*scan, choice->ids, *live->holdingShelf);
        if (!plan) return ctx.refuse(plan.error().message);
        if (plan->items.empty())
            return ctx.refuse(fillIn(nothingToSetAsideSentence, {{"list", leftAloneList(*plan)}}));
        printPlan(*plan, live->storageCleaner->table(), true);
        if (!confirmChange(ctx, "Set these aside?", choice->yes, declinedSentence)) return;
        carryOut(*live, *plan, *choice, ctx);
    });

    auto* putBack = storage.add_subcommand("put-back", "Put items Vantle set aside back where they were");
    auto backChoice = std::make_shared<Choice>();
    putBack->add_option("items", backChoice->ids, "Ids of held items from storage scan, e.g. held:3fa9c2")
        ->required();
    putBack->add_flag("--yes", backChoice->yes, "Go ahead without asking");
    putBack->add_flag("--json", backChoice->json, "Print the result as JSON");
    putBack->callback([&ctx, choice = backChoice] {
        auto* live = ctx.live();
        if (!live) return;
        auto& shelf = *live->holdingShelf;
        for (const auto& id : choice->ids) {
            if (shelf.find(id)) continue;
            auto held = heldList(shelf);
            return ctx.refuse(fillIn(notHeldSentence, {{"id", id}}) +
                              (held.empty() ? std::string(nothingHeldSentence)
                                            : fillIn(heldAreSentence, {{"list", held}})));
        }
        std::cout << "Will put back:\n";
        for (const auto& id : choice->ids)
            if (auto entry = shelf.find(id))
                std::cout << "  " << id << "  " << terminalSafe(entry->path) << "\n";
        if (!confirmChange(ctx, "Put these back?", choice->yes, declinedSentence)) return;
        auto result = shelf.putBack(choice->ids);
        if (choice->json) {
            Json out;
            out["putBack"] = result.putBack;
            out["failures"] = result.failures;
            printJson(out);
        } else {
            for (const auto& id : result.putBack)
                std::cout << "Put back " << id << ".\n";
        }
        if (result.putBack.empty()) {
            std::string why;
            for (const auto& f : result.failures)
                why += f;
            return ctx.refuse(fillIn(nothingPutBackSentence, {{"why", why}}));
        }
        for (const auto& f : result.failures)
            std::cerr << f << "\n";
        if (auto still = heldList(shelf); !still.empty() && !choice->json)
            std::cout << terminalSafe(fillIn(stillHeldSentence, {{"list", still}})) << "\n";
        if (!result.failures.empty()) ctx.exitCode = exitRefused;
    });
}

} // namespace vantle::cli
