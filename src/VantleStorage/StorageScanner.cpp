#include "VantleStorage/StorageScanner.h"

#include "Platform/BeneathOpen.h"
#include "Platform/DirectoryReader.h"
#include "Platform/IoPriority.h"
#include "Platform/OpenFileLimit.h"
#include "Platform/SharedExtents.h"
#include "Platform/SystemError.h"
#include "VantleSpec/Sentence.h"
#include "VantleStorage/ItemId.h"
#include "VantleStorage/ItemSearch.h"
#include "VantleStorage/OwnersRecord.h"
#include "VantleStorage/TreeSizer.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <unordered_set>

namespace vantle {

namespace {

// Enough for every walker to stand deep in a tree with a descriptor per level.
constexpr std::uint64_t openFilesWanted = 65'536;
constexpr auto progressInterval = std::chrono::milliseconds(100);

// One item on its way from the search to the result.
struct Candidate {
    FoundItem found;
    bool held = false;
    std::vector<std::string> heldPlace; // for a held item: where it was taken from, relative to the home
};

struct AnchorWalk {
    std::string path;
    std::uint64_t device = 0;
    bool sharesBlocks = false;
};

EntryKind kindOf(EntryStatus::Type type) {
    switch (type) {
    case EntryStatus::Type::file:
        return EntryKind::file;
    case EntryStatus::Type::folder:
        return EntryKind::folder;
    case EntryStatus::Type::link:
        return EntryKind::link;
    default:
        return EntryKind::other;
    }
}

bool endsWithFolded(std::string_view name, std::string_view suffix) {
    if (name.size() < suffix.size()) return false;
    auto tail = name.substr(name.size() - suffix.size());
    return std::ranges::equal(tail, suffix, [](char a, char b) { return std::tolower(a) == b; });
}

// An encrypted disk image begins with "encrcdsa" (version 2) or ends with "cdsaencr" (version 1).
bool isEncryptedImage(int dirFd, const std::string& name, std::uint64_t size) {
    if (!endsWithFolded(name, ".dmg") && !endsWithFolded(name, ".sparseimage")) return false;
    UniqueFd fd(::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd || size < 8) return false;
    char head[8];
    if (::pread(fd.get(), head, 8, 0) == 8 && std::string_view(head, 8) == "encrcdsa") return true;
    return ::pread(fd.get(), head, 8, static_cast<off_t>(size - 8)) == 8 &&
           std::string_view(head, 8) == "cdsaencr";
}

std::vector<std::string> componentsOf(const std::filesystem::path& relative) {
    std::vector<std::string> out;
    for (const auto& part : relative)
        if (!part.empty() && part != "." && part != "/") out.push_back(part.string());
    return out;
}

// The holding folder's place relative to the home, when it lies inside it.
std::optional<std::filesystem::path> insideHome(const std::filesystem::path& home,
                                                const std::filesystem::path& place) {
    auto relative = place.lexically_normal().lexically_relative(home.lexically_normal());
    if (relative.empty() || *relative.begin() == "..") return std::nullopt;
    return relative;
}

std::size_t workerCount(std::size_t asked) {
    if (asked > 0) return asked;
    return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, 8);
}

} // namespace

StorageScanError StorageScanError::homeUnreadable(const std::filesystem::path& home) {
    return {Kind::homeUnreadable, fillIn(homeUnreadableWords, {{"path", home.string()}})};
}

StorageScanner::StorageScanner() : StorageScanner(Options{}) {}

StorageScanner::StorageScanner(Options options) : options_(std::move(options)) {
    if (!options_.table) options_.table = &RuleTable::shared();
    if (!options_.now) options_.now = systemClock();
}

std::optional<StorageScan> StorageScanner::latest() const {
    std::lock_guard lock(latestMutex_);
    return latest_;
}

std::expected<StorageScan, StorageScanError>
StorageScanner::scan(const std::filesystem::path& home, ScanDepth depth,
                     const std::optional<std::set<std::string>>& only, bool inBackground,
                     const std::optional<std::filesystem::path>& holding, CancelFlag& cancel,
                     const Progress& progress) {
    std::lock_guard lock(scanMutex_);
    const RuleTable& table = *options_.table;
    auto report = [&](const ScanProgress& p) {
        if (progress) progress(p);
    };

    StorageScan result;
    result.home = home.string();
    result.depth = depth;
    if (only) result.only = std::vector<std::string>(only->begin(), only->end());
    result.startedAt = options_.now();

    std::optional<IdleIoPriority> idle;
    if (inBackground) idle.emplace();
    raiseOpenFileLimit(openFilesWanted);

    auto homeFd = openFolder(home);
    if (!homeFd) return std::unexpected(StorageScanError::homeUnreadable(home));
    auto homeShared = std::make_shared<const UniqueFd>(std::move(*homeFd));
    auto homeStatus = statusOf(homeShared->get(), "");
    if (!homeStatus) return std::unexpected(StorageScanError::homeUnreadable(home));

    // The holding folder: listed item by item, and never searched or counted inside a category.
    std::shared_ptr<const UniqueFd> holdingFd;
    std::optional<FileIdentity> holdingIdentity;
    std::optional<std::filesystem::path> holdingRelative;
    if (holding) {
        holdingRelative = insideHome(home, *holding);
        auto opened = holdingRelative
                          ? openBeneath(homeShared->get(), *holdingRelative, O_RDONLY | O_DIRECTORY)
                          : openFolder(*holding);
        if (opened) {
            holdingFd = std::make_shared<const UniqueFd>(std::move(*opened));
            if (auto st = statusOf(holdingFd->get(), ""))
                holdingIdentity = FileIdentity{st->device, st->inode};
        } else if (opened.error() != ENOENT) {
            result.gaps.push_back(
                {holding->string(), ScanGap::reasonFor(opened.error()), systemErrorText(opened.error())});
        }
    }

    report({ScanProgress::Phase::finding, 0, 0, 0});
    RuleSelection selection(table, depth, only);
    std::vector<Candidate> candidates;
    std::vector<AnchorWalk> anchorWalks; // indexed by Anchor

    RuleMatcher homeMatcher(table, Anchor::home, selection);
    ItemSearch homeSearch(homeMatcher, cancel, holdingIdentity);
    if (!homeSearch.run(homeShared, home)) return std::unexpected(StorageScanError::homeUnreadable(home));
    anchorWalks.push_back({home.string(), homeStatus->device, fileSystemSharesBlocks(homeShared->get())});
    for (auto& found : homeSearch.items())
        candidates.push_back({std::move(found)});
    result.gaps.insert(result.gaps.end(), homeSearch.gaps().begin(), homeSearch.gaps().end());
    result.mountPoints = homeSearch.mountPoints();

    RuleMatcher systemMatcher(table, Anchor::system, selection);
    anchorWalks.push_back({});
    if (options_.systemRoot && selection.touches(Anchor::system) && !cancel.isCancelled()) {
        result.systemRoot = options_.systemRoot->string();
        auto rootFd = openFolder(*options_.systemRoot);
        if (!rootFd) {
            result.gaps.push_back({options_.systemRoot->string(), ScanGap::reasonFor(rootFd.error()),
                                   systemErrorText(rootFd.error())});
        } else {
            auto rootShared = std::make_shared<const UniqueFd>(std::move(*rootFd));
            auto rootStatus = statusOf(rootShared->get(), "");
            ItemSearch systemSearch(systemMatcher, cancel, holdingIdentity);
            if (!rootStatus || !systemSearch.run(rootShared, *options_.systemRoot)) {
                int error = rootStatus ? systemSearch.rootError() : rootStatus.error();
                result.gaps.push_back(
                    {options_.systemRoot->string(), ScanGap::reasonFor(error), systemErrorText(error)});
            } else {
                auto rootPath = options_.systemRoot->string();
                if (rootPath.size() > 1 && rootPath.back() == '/') rootPath.pop_back();
                anchorWalks.back() = {rootPath == "/" ? "" : rootPath, rootStatus->device,
                                      fileSystemSharesBlocks(rootShared->get())};
                for (auto& found : systemSearch.items())
                    candidates.push_back({std::move(found)});
                result.gaps.insert(result.gaps.end(), systemSearch.gaps().begin(), systemSearch.gaps().end());
                result.mountPoints.insert(result.mountPoints.end(), systemSearch.mountPoints().begin(),
                                          systemSearch.mountPoints().end());
            }
        }
    }

    if (holdingFd) {
        auto holdingParts = holdingRelative ? componentsOf(*holdingRelative) : std::vector<std::string>{};
        DirectoryReader reader(holdingFd->get());
        DirectoryReader::Entry entry;
        while (reader.next(entry)) {
            auto st = statusOf(holdingFd->get(), entry.name.data());
            if (!st) continue;
            Candidate held;
            held.held = true;
            held.found = {
                0,   Anchor::home, {},          std::string(entry.name), (*holding / entry.name).string(),
                *st, holdingFd,    std::nullopt};
            std::optional<std::vector<std::string>> former;
            if (options_.formerPlace) former = options_.formerPlace(entry.name);
            if (former) {
                held.heldPlace = std::move(*former);
            } else {
                held.heldPlace = holdingParts;
                held.heldPlace.emplace_back(entry.name);
            }
            held.found.parts = held.heldPlace;
            candidates.push_back(std::move(held));
        }
    }

    // Sizing: every folder item becomes a task for the walkers; files, links and other disks are
    // settled here.
    ScanLedger ledger(cancel);
    if (holdingIdentity) ledger.claim(*holdingIdentity);
    for (const auto& c : candidates)
        if (c.found.status.type == EntryStatus::Type::folder)
            ledger.claim({c.found.status.device, c.found.status.inode});

    std::vector<SizingTarget> targets(candidates.size());
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const auto& found = candidates[i].found;
        const auto& walk = anchorWalks[static_cast<std::size_t>(found.anchor)];
        targets[i].device = found.status.device;
        targets[i].matcher =
            found.inside ? (found.anchor == Anchor::home ? &homeMatcher : &systemMatcher) : nullptr;
        targets[i].anchorPathLength = candidates[i].held ? home.string().size() + 1 : walk.path.size() + 1;
        targets[i].sharesBlocks = walk.sharesBlocks;
        targets[i].notesKeepsakes = !candidates[i].held && table[found.ruleIndex].letsSystemFree();
    }

    const std::size_t workers = workerCount(options_.workers);
    std::vector<TreeSizer> sizers;
    sizers.reserve(workers);
    for (std::size_t w = 0; w < workers; ++w)
        sizers.emplace_back(ledger, targets);
    WorkQueue<SizingTask> queue(workers);
    std::vector<Tally> settled(candidates.size());
    std::vector<bool> inspected(candidates.size(), false);
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const auto& found = candidates[i].found;
        const auto& walk = anchorWalks[static_cast<std::size_t>(found.anchor)];
        bool otherDisk = !candidates[i].held && found.status.device != walk.device;
        switch (found.status.type) {
        case EntryStatus::Type::link:
            settled[i].links = 1;
            break;
        case EntryStatus::Type::folder:
            if (otherDisk) {
                settled[i].mountPoints.push_back(found.path);
                break;
            }
            TreeSizer::countFolder(settled[i], found.status);
            inspected[i] = true;
            queue.push({i, found.parent, found.name, found.path, found.inside});
            break;
        default:
            if (otherDisk) {
                settled[i].mountPoints.push_back(found.path);
                break;
            }
            inspected[i] = true;
            sizers.front().countEntry(i, found.parent->get(), found.name.c_str(), found.status,
                                      found.path.substr(0, found.path.size() - found.name.size() - 1));
            break;
        }
    }

    report({ScanProgress::Phase::measuring, candidates.size(), 0, 0});
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    std::size_t finished = 0;
    {
        std::vector<std::jthread> threads;
        for (std::size_t w = 0; w < workers; ++w) {
            threads.emplace_back([&, w] {
                std::optional<IdleIoPriority> lowered;
                if (inBackground) lowered.emplace();
                sizers[w].run(queue);
                std::lock_guard done(doneMutex);
                ++finished;
                doneSignal.notify_all();
            });
        }
        std::unique_lock wait(doneMutex);
        while (!doneSignal.wait_for(wait, progressInterval, [&] { return finished == workers; }))
            report({ScanProgress::Phase::measuring, candidates.size(), ledger.entriesSeen(),
                    ledger.bytesSeen()});
    }

    std::unordered_set<std::string> usedIds;
    std::vector<std::size_t> order(candidates.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::ranges::sort(order, [&](std::size_t a, std::size_t b) {
        const auto& x = candidates[a];
        const auto& y = candidates[b];
        if (x.held != y.held) return y.held;
        if (x.found.ruleIndex != y.found.ruleIndex) return x.found.ruleIndex < y.found.ruleIndex;
        return x.found.path < y.found.path;
    });
    for (std::size_t i : order) {
        auto& c = candidates[i];
        const auto& st = c.found.status;
        ScannedItem item;
        item.category = c.held ? std::string(heldPrefix) : table[c.found.ruleIndex].id;
        item.anchor = c.found.anchor;
        item.parts = std::move(c.found.parts);
        item.name = std::move(c.found.name);
        item.path = std::move(c.found.path);
        for (int salt = 0;; ++salt) {
            item.id =
                c.held ? heldItemId(item.parts, salt) : itemId(item.category, item.anchor, item.parts, salt);
            if (usedIds.insert(item.id).second) break;
        }
        ItemFacts& facts = item.facts;
        facts.kind = kindOf(st.type);
        facts.identity = {st.device, st.inode};
        facts.tally = std::move(settled[i]);
        for (auto& sizer : sizers)
            facts.tally.join(sizer.tallies()[i]);
        facts.modified = st.modified;
        facts.added = st.born.value_or(st.changed);
        facts.opened = st.accessed;
        facts.wasInspected = inspected[i];
        if (st.type == EntryStatus::Type::file)
            facts.isEncryptedImage = isEncryptedImage(c.found.parent->get(), item.name, st.sizeBytes);
        if (!c.held && st.type == EntryStatus::Type::folder &&
            table[c.found.ruleIndex].precondition.ageSignal == Precondition::AgeSignal::xcodeLastAccessed)
            facts.ownersRecord = xcodeLastAccessed(c.found.parent->get(), item.name);
        (c.held ? result.held : result.items).push_back(std::move(item));
    }

    result.complete = !cancel.isCancelled();
    result.finishedAt = options_.now();
    report({ScanProgress::Phase::done, candidates.size(), ledger.entriesSeen(), ledger.bytesSeen()});
    if (result.complete) {
        std::lock_guard keep(latestMutex_);
        latest_ = result;
    }
    return result;
}

} // namespace vantle
