#include "VantleStorage/StorageReport.h"

#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "Platform/SystemError.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "VantleSpec/TerminalText.h"

#include <cerrno>

namespace vantle {

namespace {

using namespace std::chrono_literals;

constexpr auto quietTime = 10min;
constexpr auto unknownOwnerQuietTime = 24h;

} // namespace

bool preconditionHoldsOnDisk(const Rule& rule, const ItemFacts& facts, TimePoint now) {
    const Tally& t = facts.tally;
    if (facts.kind != EntryKind::file && facts.kind != EntryKind::folder) return false;
    if (!facts.wasInspected || t.isPartial() || t.meetingPoints > 0 || !t.keepsakes.empty() ||
        t.cloudOnlyFolders > 0 || facts.isEncryptedImage)
        return false;
    auto lastChange = lastChangeOf(facts);
    if (!lastChange) return false;
    if (now - *lastChange < quietTime) return false;
    if (rule.takesUnknownFolders && facts.kind == EntryKind::folder &&
        now - *lastChange < unknownOwnerQuietTime)
        return false;
    const auto& pre = rule.precondition;
    if (!pre.minimumAgeDays) return true;
    const auto minimumAge = std::chrono::days(*pre.minimumAgeDays);
    auto since = pre.ageSince(facts);
    return since && now - *since >= minimumAge;
}

StorageReport makeStorageReport(const StorageScan& scan, const RuleTable& table,
                                const StorageAbilities& abilities, TimePoint now) {
    StorageReport report;
    report.home = scan.home;
    report.measuredAt = scan.finishedAt;
    report.depth = scan.depth;
    report.complete = scan.complete;
    report.abilities = abilities;
    report.gaps = scan.gaps;

    std::vector<std::optional<StorageReport::Category>> byRule(table.size());
    for (const auto& item : scan.items) {
        auto index = table.indexOf(item.category);
        if (!index) continue;
        const Rule& rule = table[*index];
        auto& slot = byRule[*index];
        if (!slot) {
            slot.emplace();
            slot->id = rule.id;
            slot->title = rule.title;
            slot->safety = rule.safety;
            slot->method = rule.method;
            slot->systemFrees = rule.letsSystemFree();
            slot->cost = rule.cost;
            slot->instruction = rule.instruction;
            slot->precondition = rule.precondition.words();
        }
        const Tally& t = item.facts.tally;
        slot->bytes += t.allocatedBytes;
        slot->reclaimableBytes += t.reclaimableBytes;
        slot->pinnedBytes += t.pinnedBytes;
        if (t.isPartial()) ++slot->unreadableItems;
        if (t.privacyRefusals > 0) slot->privacyRefused = true;
        slot->items.push_back({item.id, item.path, t.allocatedBytes});

        if (!rule.letsSystemFree()) continue;
        report.reclaimableBytes += t.reclaimableBytes;
        if (rule.method == FreeMethod::hold) {
            ++report.chosenItemByItem;
        } else if (preconditionHoldsOnDisk(rule, item.facts, now)) {
            ++report.preconditionHolds;
            report.freeableNowBytes += t.reclaimableBytes;
        }
    }
    for (auto safety : allCases<SafetyClass>())
        for (auto& category : byRule)
            if (category && category->safety == safety) report.categories.push_back(std::move(*category));

    for (const auto& held : scan.held)
        report.held.push_back({held.id, held.path, held.facts.tally.allocatedBytes});
    return report;
}

std::string storageReportText(const StorageReport& report) {
    using R = StorageReport;
    // Names come from disk and may hold line breaks or escape sequences: each is escaped here, so a
    // name stays on its own line whoever prints the text.
    std::string out = "Storage of " + terminalSafe(report.home) + "\n";
    if (!report.complete) out += std::string(R::stoppedEarly) + "\n";

    auto itemLines = [&](const std::vector<R::Item>& items) {
        for (const auto& item : items)
            out += "  " + item.id + "  " + terminalSafe(item.path) + "  " + fileBytes(item.bytes) + "\n";
    };

    for (auto safety : allCases<SafetyClass>()) {
        bool headed = false;
        for (const auto& c : report.categories) {
            if (c.safety != safety) continue;
            if (!headed) {
                out += "\n";
                out += safety == SafetyClass::a && !report.abilities.frees ? R::classAMeasuredOnlyHeading
                                                                           : heading(safety);
                out += "\n";
                headed = true;
            }
            out += "  " + c.title + " (" + c.id + "): " + fileBytes(c.bytes);
            if (c.pinnedBytes > 0)
                out += " (" + fileBytes(c.reclaimableBytes) + std::string(R::sharedWithStaying);
            out += ", " + countWords(static_cast<std::int64_t>(c.items.size()), "item", "items");
            if (c.unreadableItems > 0)
                out += " (" + std::to_string(c.unreadableItems) + std::string(R::ofThemUnreadable);
            out += "\n";
            if (c.method == FreeMethod::ownersTool && c.instruction) {
                out += "    " + *c.instruction + "\n";
            } else if (c.systemFrees && c.method == FreeMethod::hold && !report.abilities.setsAside) {
                out += "    " + c.title + std::string(R::notSetAsideYet) + ".\n";
            } else if (c.systemFrees && c.cost) {
                out += "    What freeing costs: " + *c.cost +
                       (report.abilities.frees ? std::string(".") : std::string(R::freesNothingYet)) + "\n";
            }
            if (c.systemFrees)
                out += std::string(c.method == FreeMethod::hold ? "    Set aside only when "
                                                                : "    Freed only when ") +
                       c.precondition + ".\n";
            if (c.unreadableItems > 0) {
                out += "    " + std::string(R::partlyRead);
                if (c.privacyRefused) out += " " + std::string(R::privacyRefusal);
                out += "\n";
            }
        }
        if (safety != SafetyClass::b) continue;
        std::vector<R::Item> choosable;
        for (const auto& c : report.categories)
            if (c.systemFrees && c.method == FreeMethod::hold)
                choosable.insert(choosable.end(), c.items.begin(), c.items.end());
        if (!choosable.empty()) {
            out += "\n";
            out += report.abilities.setsAside ? R::setAsideHeading : R::listedOnlyHeading;
            out += "\n";
            itemLines(choosable);
        }
        if (!report.held.empty()) {
            out += "\n" + std::string(R::heldHeading) + std::string(R::putBackIds) + ":\n";
            itemLines(report.held);
        }
    }

    if (!report.gaps.empty()) {
        out += "\n";
        for (const auto& gap : report.gaps) {
            out += "  " + terminalSafe(gap.path) + " " + std::string(R::couldNotRead) +
                   std::string(R::sizeNotKnown) + ".";
            out += gap.reason == ScanGap::Reason::privacy ? " " + std::string(R::privacyRefusal)
                                                          : " (" + terminalSafe(gap.detail) + ")";
            out += "\n";
        }
    }

    out += "\nCould be freed now: " + fileBytes(report.freeableNowBytes) + " (" +
           countWords(report.preconditionHolds, "item", "items") +
           "). Could be freed or set aside in all: " + fileBytes(report.reclaimableBytes) + ".\n";
    if (report.depth == ScanDepth::rules) out += std::string(R::scanEverythingHint) + "\n";
    return out;
}

std::filesystem::path storageReportFile(const std::filesystem::path& dataFolder) {
    return dataFolder / "Library" / "storage.json";
}

std::expected<void, std::string> keepStorageReport(const std::filesystem::path& dataFolder,
                                                   const StorageReport& report, const StorageScan& scan) {
    return writeFileAtomicallyMakingFolder(storageReportFile(dataFolder),
                                           encodeJson(KeptStorageReport{report, scan}));
}

std::expected<KeptStorageReport, std::string> loadKeptStorageReport(const std::filesystem::path& dataFolder) {
    auto text = readKeptFile(storageReportFile(dataFolder), keptFileLargestBytes);
    if (!text)
        return std::unexpected(text.error().what == KeptFileFailure::Case::missing
                                   ? std::string("No storage report has been kept yet.")
                                   : "The kept storage report could not be read: " + text.error().sentence);
    auto kept = decodeJson<KeptStorageReport>(*text);
    if (!kept) return std::unexpected("The kept storage report could not be read: " + kept.error());
    return kept;
}

} // namespace vantle
