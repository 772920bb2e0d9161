#include "VantleStorage/HoldingShelf.h"

#include "Platform/AtomicFile.h"
#include "Platform/BeneathOpen.h"
#include "Platform/EntryStatus.h"
#include "Platform/KeptFile.h"
#include "Platform/RenameNoReplace.h"
#include "VantleSpec/Sentence.h"
#include "VantleStorage/ItemGuard.h"
#include "VantleStorage/ItemId.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace vantle {

namespace {

// A few hundred entries at most; anything far larger is not the shelf's file.
constexpr std::size_t largestEntriesFile = 16 << 20;

struct KeptEntries {
    std::vector<HoldingShelf::Entry> entries;
};
VANTLE_RECORD_JSON(KeptEntries, entries)

std::string joinedPath(const std::filesystem::path& home, std::span<const std::string> parts,
                       std::size_t count) {
    std::filesystem::path out = home;
    for (std::size_t i = 0; i < count; ++i)
        out /= parts[i];
    return out.string();
}

} // namespace

HoldingShelf::HoldingShelf(std::filesystem::path home, std::filesystem::path holding,
                           std::filesystem::path entriesFile, const RuleTable& table, Clock now)
    : home_(std::move(home)), holding_(std::move(holding)), entriesFile_(std::move(entriesFile)),
      table_(&table), now_(now ? std::move(now) : systemClock()) {}

std::vector<HoldingShelf::Entry> HoldingShelf::load() const {
    // A missing, torn or hostile file holds nothing: what is in the holding folder stays there, and
    // the scan still lists it by its slot.
    auto text = readKeptFile(entriesFile_, largestEntriesFile);
    if (!text) return {};
    auto kept = decodeJson<KeptEntries>(*text);
    if (!kept) return {};
    // An entry whose slot could name another place is not ours to act on.
    std::erase_if(kept->entries, [](const Entry& e) { return !isValidComponent(e.slot) || e.parts.empty(); });
    return std::move(kept->entries);
}

std::expected<void, std::string> HoldingShelf::keep(const std::vector<Entry>& entries) const {
    return writeFileAtomicallyMakingFolder(entriesFile_, encodeJson(KeptEntries{entries}), 0600);
}

std::vector<HoldingShelf::Entry> HoldingShelf::entries() const {
    std::lock_guard lock(mutex_);
    return load();
}

std::string HoldingShelf::idOf(const Entry& entry) {
    return heldItemId(entry.parts);
}

std::optional<HoldingShelf::Entry> HoldingShelf::find(std::string_view heldId) const {
    for (auto& entry : entries())
        if (idOf(entry) == heldId) return entry;
    return std::nullopt;
}

std::vector<HeldItem> HoldingShelf::heldItems() const {
    std::vector<HeldItem> out;
    for (const auto& e : entries()) {
        const Rule* rule = table_->find(e.rule);
        auto path = (holding_ / e.slot).string();
        std::int64_t bytes = 0;
        if (auto st = statusOf(AT_FDCWD, path.c_str())) bytes = static_cast<std::int64_t>(st->allocatedBytes);
        out.push_back({idOf(e), e.rule, rule ? rule->title : e.rule, e.name, e.path, path, bytes, e.since});
    }
    return out;
}

std::expected<std::string, int> HoldingShelf::setAside(int parentFd, int holdingFd,
                                                       std::span<const std::string> parts,
                                                       std::string_view rule) {
    std::lock_guard lock(mutex_);
    auto entries = load();
    std::string id = heldItemId(parts);
    // A slot per move: the held id's digits and the item's own name, with a count where taken.
    std::string digits = id.substr(id.find(':') + 1);
    std::string slot;
    for (int attempt = 0; attempt < 100; ++attempt) {
        slot = digits + (attempt ? "-" + std::to_string(attempt) : "") + " " + parts.back();
        if (auto moved = renameNoReplace(parentFd, parts.back().c_str(), holdingFd, slot.c_str()); moved)
            break;
        else if (moved.error() != EEXIST)
            return std::unexpected(moved.error());
        slot.clear();
    }
    if (slot.empty()) return std::unexpected(EEXIST);
    Entry entry{slot,
                std::vector<std::string>(parts.begin(), parts.end()),
                std::string(rule),
                joinedPath(home_, parts, parts.size() - 1),
                parts.back(),
                joinedPath(home_, parts, parts.size()),
                now_()};
    // An older entry for the same place was put back by hand; the new one replaces it.
    std::erase_if(entries, [&](const Entry& e) { return e.parts == entry.parts; });
    entries.push_back(entry);
    if (!keep(entries)) {
        // Unrecorded, it could never be put back by id: undo the move.
        renameNoReplace(holdingFd, slot.c_str(), parentFd, parts.back().c_str());
        return std::unexpected(EIO);
    }
    return id;
}

HoldingShelf::PutBackResult HoldingShelf::putBack(std::span<const std::string> heldIds) {
    std::lock_guard lock(mutex_);
    PutBackResult result;
    auto entries = load();
    auto home = openHomeFolder(home_);
    if (!home) {
        result.failures.emplace_back(homeUnopenedWords);
        return result;
    }
    auto holdingParts = holding_.lexically_normal().lexically_relative(home_.lexically_normal());
    bool holdingInHome = !holdingParts.empty() && *holdingParts.begin() != "..";
    auto holding =
        holdingInHome ? openBeneath(home->get(), holdingParts, O_RDONLY | O_DIRECTORY) : openFolder(holding_);

    for (const auto& id : heldIds) {
        auto at = std::ranges::find_if(entries, [&](const Entry& e) { return idOf(e) == id; });
        if (at == entries.end()) continue; // the caller words ids that are not held
        const Entry& e = *at;
        auto fail = [&](std::string_view why) {
            result.failures.push_back(fillIn(cannotGoBackWords, {{"name", e.name}}) + std::string(why));
        };
        if (!std::ranges::all_of(e.parts, [](const std::string& p) { return isValidComponent(p); })) {
            fail(outsideHomeWords);
            continue;
        }
        auto rule = table_->indexOf(e.rule);
        if (!rule || (*table_)[*rule].method != FreeMethod::hold || !(*table_)[*rule].letsSystemFree() ||
            !table_->matches(*rule, e.parts)) {
            fail(notSetAsidePlaceWords);
            continue;
        }
        if (!holding || !statusOf(holding->get(), e.slot.c_str())) {
            fail(notInHoldingWords);
            continue;
        }
        std::filesystem::path folderParts;
        for (std::size_t i = 0; i + 1 < e.parts.size(); ++i)
            folderParts /= e.parts[i];
        auto folder = openBeneath(home->get(), folderParts, O_RDONLY | O_DIRECTORY);
        if (!folder) {
            fail(folderGoneWords);
            continue;
        }
        auto moved = renameNoReplace(holding->get(), e.slot.c_str(), folder->get(), e.name.c_str());
        if (!moved) {
            if (moved.error() == EEXIST)
                fail(placeTakenWords);
            else if (moved.error() == ENOENT)
                fail(notInHoldingWords);
            else
                fail(fillIn(moveRefusedWords, {{"code", std::to_string(moved.error())}}) + ".");
            continue;
        }
        result.putBack.push_back(id);
        entries.erase(at);
    }
    if (!result.putBack.empty()) keep(entries);
    return result;
}

} // namespace vantle
