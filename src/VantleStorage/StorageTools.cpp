#include "VantleStorage/StorageTools.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"
#include "VantleStorage/StorageReport.h"

#include <algorithm>

namespace vantle {

namespace {

constexpr std::string_view everythingNotBoolWords = "scan_storage: everything must be true or false.";
constexpr std::string_view needsCategoriesWords = "clean_storage needs categories: category ids from "
                                                  "scan_storage, e.g. gradle_caches. The categories that can "
                                                  "be freed are: {ids}";
constexpr std::string_view notACategoryWords = "\"{id}\" is not a storage category. The categories that can "
                                               "be freed are: {ids}. Run scan_storage to see "
                                               "what each holds.";
constexpr std::string_view classBWords =
    "{title} are never taken as a whole category: nothing rebuilds them. Show the user the items "
    "scan_storage "
    "lists, and pass the ids of the ones the user chooses to set_aside_storage.";
constexpr std::string_view ownersToolWords = "Only the tool that owns it can clear it safely. {instruction}";
constexpr std::string_view classCWords =
    "It is the user's own data: Vantle shows its size and never deletes it.";
constexpr std::string_view classDWords = "macOS looks after it and Vantle never touches it.";
constexpr std::string_view notAnItemIdWords = "\"{id}\" is not an item id. Run scan_storage: it lists the "
                                              "items that can be set aside, each with its id.";
constexpr std::string_view notItemByItemWords = "{title} is not set aside item by item. ";
constexpr std::string_view wholeCategoryWords = "It is cleared as a whole category, with clean_storage.";
constexpr std::string_view neverDeletedWords = "Vantle never deletes it.";
constexpr std::string_view mustBeTextWords = "{argument} must be text, e.g. {example}";
constexpr std::string_view unknownArgumentWords =
    "{tool} takes no argument \"{argument}\". Its arguments are: {arguments}";
constexpr std::string_view nothingFreeableWords =
    "Nothing can be freed there right now. {list} Tell the user; do not try another way of deleting it.";
constexpr std::string_view nothingSetAsideWords =
    "None of those can be set aside right now. Left alone: {list} Tell the user; do not try another way of "
    "deleting them.";
constexpr std::string_view cleanUnpreviewedWords =
    "clean_storage deletes only what its preview showed in this run, and nothing was previewed. Nothing was "
    "touched.";
constexpr std::string_view setAsideUnpreviewedWords = "set_aside_storage moves only what its preview showed "
                                                      "in this run, and nothing was previewed. Nothing was "
                                                      "touched.";
constexpr std::string_view heldAreWords = "The held items are: {list}";
constexpr std::string_view notHeldWords = "\"{id}\" is not the id of an item Vantle set aside. ";
constexpr std::string_view nothingHeldWords = "Vantle is keeping nothing set aside.";
constexpr std::string_view nothingPutBackWords =
    "Nothing was put back. {why} The items are still in Vantle's holding folder.";
constexpr std::string_view stillHeldWords = "Still set aside: {list}";

ToolResult refused(std::string text) {
    return {std::move(text), Json::object(), true};
}

std::string freeableIds(const RuleTable& table) {
    std::string out;
    for (const auto& rule : table.rules())
        if (rule.letsSystemFree() && rule.method == FreeMethod::remove)
            out += (out.empty() ? "" : ", ") + rule.id;
    return out;
}

// Reads a list-of-text argument; a refusal in words where it is not one.
std::expected<std::vector<std::string>, std::string>
textList(const Json& args, std::string_view tool, std::string_view name, std::string_view example) {
    for (const auto& [key, value] : args.items())
        if (key != name)
            return std::unexpected(
                fillIn(unknownArgumentWords, {{"tool", tool}, {"argument", key}, {"arguments", name}}));
    std::vector<std::string> out;
    if (!args.contains(name)) return out;
    const Json& value = args.at(std::string(name));
    auto wrong = fillIn(mustBeTextWords, {{"argument", name}, {"example", example}});
    if (value.is_string()) return std::vector<std::string>{value.get<std::string>()};
    if (!value.is_array()) return std::unexpected(wrong);
    for (const auto& element : value) {
        if (!element.is_string()) return std::unexpected(wrong);
        out.push_back(element.get<std::string>());
    }
    return out;
}

std::string leftList(const CleanPlan& plan) {
    std::string out;
    for (const auto& left : plan.leftAlone)
        out += left.name + ": " + left.reason + " ";
    if (!out.empty()) out.pop_back();
    return out;
}

std::string previewText(const CleanPlan& plan, bool hold) {
    std::string out =
        hold ? "These would be moved into Vantle's holding folder, from where they can be put back:\n"
             : "These would be deleted for good:\n";
    for (const auto& item : plan.items)
        out += "  " + item.id + "  " + item.path + "  " + fileBytes(item.bytes) + "\n";
    for (const auto& left : plan.leftAlone)
        out += "  Left alone: " + left.name + ": " + left.reason + "\n";
    out += "In all: " + fileBytes(plan.bytes()) + ". Ask the user before going ahead.\n";
    return out;
}

} // namespace

void PlanShelf::keep(Key key, CleanPlan plan) {
    plans_[std::move(key)] = std::move(plan);
}

std::optional<CleanPlan> PlanShelf::take(const Key& key) {
    auto at = plans_.find(key);
    if (at == plans_.end()) return std::nullopt;
    auto plan = std::move(at->second);
    plans_.erase(at);
    return plan;
}

StorageTools::StorageTools(std::filesystem::path home, std::shared_ptr<StorageScanner> scanner,
                           std::shared_ptr<StorageCleaner> cleaner, std::shared_ptr<HoldingShelf> shelf)
    : home_(std::move(home)), scanner_(std::move(scanner)), cleaner_(std::move(cleaner)),
      shelf_(std::move(shelf)) {}

const std::vector<ToolSpec>& StorageTools::specs() {
    static const std::vector<ToolSpec> all = {
        {std::string(scanStorage),
         "Measure what is taking up disk space and what can be freed safely: for clean my Mac, free up "
         "space, what "
         "is using my disk.",
         {{"everything", "bool",
           "true to also measure the user's own folders and the system's areas, which takes about a "
           "minute"}}},
        {std::string(cleanStorage),
         "Free disk space by deleting whole categories of caches and build data for good.",
         {{"categories", "list of strings",
           "Category ids that scan_storage listed as can be freed, e.g. gradle_caches, app_caches"}}},
        {std::string(setAsideStorage),
         "Move old installers, archives or device files the user chose by name into Vantle's holding folder, "
         "where "
         "they can be put back.",
         {{"items", "list of strings",
           "Ids of the items the user chose, exactly as scan_storage listed them, e.g. "
           "old_installers:3fa9c2"}}},
        {std::string(putBackStorage),
         "Put items that Vantle set aside earlier back where they were.",
         {{"items", "list of strings",
           "Ids of held items, exactly as scan_storage listed them, e.g. held:3fa9c2"}}},
    };
    return all;
}

ToolResult StorageTools::call(std::string_view tool, const Json& arguments, std::string_view run,
                              bool carryOut) {
    std::lock_guard lock(mutex_);
    const Json args = arguments.is_object() ? arguments : Json::object();
    if (tool == scanStorage) return scan(args);
    if (tool == cleanStorage) return clean(args, run, carryOut);
    if (tool == setAsideStorage) return setAside(args, run, carryOut);
    if (tool == putBackStorage) return putBack(args);
    return refused("There is no storage tool named \"" + std::string(tool) + "\".");
}

ToolResult StorageTools::scan(const Json& args) {
    bool everything = false;
    for (const auto& [key, value] : args.items()) {
        if (key != "everything")
            return refused(fillIn(unknownArgumentWords,
                                  {{"tool", scanStorage}, {"argument", key}, {"arguments", "everything"}}));
        if (!value.is_boolean()) return refused(std::string(everythingNotBoolWords));
        everything = value.get<bool>();
    }
    CancelFlag cancel;
    auto result = scanner_->scan(home_, everything ? ScanDepth::full : ScanDepth::rules, std::nullopt, false,
                                 shelf_->holding(), cancel);
    if (!result) return refused(result.error().message);
    auto report =
        makeStorageReport(*result, scanner_->table(), StorageAbilities{true, true, true}, systemNow());
    ToolResult out{storageReportText(report), Json::object(), false};
    out.figures["freeableNowBytes"] = report.freeableNowBytes;
    out.figures["reclaimableBytes"] = report.reclaimableBytes;
    out.figures["preconditionHolds"] = report.preconditionHolds;
    out.figures["chosenItemByItem"] = report.chosenItemByItem;
    return out;
}

ToolResult StorageTools::clean(const Json& args, std::string_view run, bool carryOut) {
    const RuleTable& table = scanner_->table();
    auto categories = textList(args, cleanStorage, "categories", "[\"gradle_caches\"]");
    if (!categories) return refused(categories.error());
    if (categories->empty()) return refused(fillIn(needsCategoriesWords, {{"ids", freeableIds(table)}}));
    for (const auto& id : *categories) {
        const Rule* rule = table.find(id);
        if (!rule) return refused(fillIn(notACategoryWords, {{"id", id}, {"ids", freeableIds(table)}}));
        if (rule->method == FreeMethod::ownersTool)
            return refused(fillIn(ownersToolWords, {{"instruction", rule->instruction.value_or("")}}));
        if (rule->safety == SafetyClass::b) return refused(fillIn(classBWords, {{"title", rule->title}}));
        if (rule->safety == SafetyClass::c) return refused(std::string(classCWords));
        if (rule->safety == SafetyClass::d || !rule->letsSystemFree())
            return refused(std::string(classDWords));
    }
    PlanShelf::Key key{std::string(run), *categories};
    std::ranges::sort(key.chosen);
    if (carryOut) {
        auto plan = plans_.take(key);
        if (!plan) return refused(std::string(cleanUnpreviewedWords));
        CancelFlag cancel;
        auto receipt = cleaner_->carryOut(*plan, cancel, shelf_.get());
        if (!receipt) return refused(receipt.error().message);
        std::vector<bool> comesBack;
        for (const auto& item : plan->items)
            if (const Rule* rule = table.find(item.category)) comesBack.push_back(rule->comesBack);
        ToolResult out{receiptText(*receipt, comesBack), Json::object(), false};
        out.figures["measuredFreedBytes"] = receipt->measuredFreedBytes.value_or(0);
        out.figures["partlyRemovedCount"] = receipt->count(CleanReceipt::ItemResult::partlyRemoved);
        return out;
    }
    CancelFlag cancel;
    auto scanned =
        scanner_->scan(home_, ScanDepth::rules, std::set<std::string>(categories->begin(), categories->end()),
                       false, shelf_->holding(), cancel);
    if (!scanned) return refused(scanned.error().message);
    auto plan = cleaner_->planRemoval(*scanned, *categories);
    if (!plan) return refused(plan.error().message);
    if (plan->items.empty()) return refused(fillIn(nothingFreeableWords, {{"list", leftList(*plan)}}));
    auto text = previewText(*plan, false);
    plans_.keep(std::move(key), std::move(*plan));
    return {std::move(text), Json::object(), false};
}

ToolResult StorageTools::setAside(const Json& args, std::string_view run, bool carryOut) {
    const RuleTable& table = scanner_->table();
    auto items = textList(args, setAsideStorage, "items", "[\"old_installers:3fa9c2\"]");
    if (!items) return refused(items.error());
    if (items->empty()) return refused(std::string(CleanRefusal::noItemWords));
    std::set<std::string> rules;
    for (const auto& id : *items) {
        auto colon = id.find(':');
        const Rule* rule = colon == std::string::npos ? nullptr : table.find(id.substr(0, colon));
        if (!rule || id.size() != colon + 7) return refused(fillIn(notAnItemIdWords, {{"id", id}}));
        if (!rule->letsSystemFree() || rule->method != FreeMethod::hold)
            return refused(fillIn(notItemByItemWords, {{"title", rule->title}}) +
                           std::string(rule->letsSystemFree() ? wholeCategoryWords : neverDeletedWords));
        rules.insert(rule->id);
    }
    PlanShelf::Key key{std::string(run), *items};
    std::ranges::sort(key.chosen);
    if (carryOut) {
        auto plan = plans_.take(key);
        if (!plan) return refused(std::string(setAsideUnpreviewedWords));
        CancelFlag cancel;
        auto receipt = cleaner_->carryOut(*plan, cancel, shelf_.get());
        if (!receipt) return refused(receipt.error().message);
        ToolResult out{receiptText(*receipt), Json::object(), false};
        out.figures["heldCount"] = receipt->count(CleanReceipt::ItemResult::held);
        out.figures["leftAloneCount"] = receipt->count(CleanReceipt::ItemResult::leftAlone);
        out.figures["holding"] = shelf_->holding().string();
        out.figures["heldBytes"] = receipt->heldBytes;
        return out;
    }
    CancelFlag cancel;
    auto scanned = scanner_->scan(home_, ScanDepth::rules, rules, false, shelf_->holding(), cancel);
    if (!scanned) return refused(scanned.error().message);
    auto plan = cleaner_->planSetAside(*scanned, *items, *shelf_);
    if (!plan) return refused(plan.error().message);
    if (plan->items.empty()) return refused(fillIn(nothingSetAsideWords, {{"list", leftList(*plan)}}));
    auto text = previewText(*plan, true);
    plans_.keep(std::move(key), std::move(*plan));
    return {std::move(text), Json::object(), false};
}

ToolResult StorageTools::putBack(const Json& args) {
    auto items = textList(args, putBackStorage, "items", "[\"held:3fa9c2\"]");
    if (!items) return refused(items.error());
    auto heldList = [&] {
        std::string out;
        for (const auto& held : shelf_->heldItems())
            out += (out.empty() ? "" : ", ") + held.id + " (" + held.original + ")";
        return out;
    };
    for (const auto& id : *items) {
        if (shelf_->find(id)) continue;
        auto held = heldList();
        return refused(fillIn(notHeldWords, {{"id", id}}) + (held.empty()
                                                                 ? std::string(nothingHeldWords)
                                                                 : fillIn(heldAreWords, {{"list", held}})));
    }
    if (items->empty()) {
        auto held = heldList();
        return refused(held.empty() ? std::string(nothingHeldWords) : fillIn(heldAreWords, {{"list", held}}));
    }
    auto result = shelf_->putBack(*items);
    if (result.putBack.empty()) {
        std::string why;
        for (const auto& f : result.failures)
            why += f;
        return refused(fillIn(nothingPutBackWords, {{"why", why}}));
    }
    std::string text;
    for (const auto& id : result.putBack)
        text += "Put back " + id + ". ";
    for (const auto& f : result.failures)
        text += f + " ";
    if (auto still = heldList(); !still.empty()) text += fillIn(stillHeldWords, {{"list", still}});
    ToolResult out{text, Json::object(), false};
    out.figures["putBackCount"] = result.putBack.size();
    return out;
}

} // namespace vantle
