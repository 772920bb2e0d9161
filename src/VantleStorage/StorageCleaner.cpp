#include "VantleStorage/StorageCleaner.h"

#include "Platform/BeneathOpen.h"
#include "Platform/DirectoryReader.h"
#include "Platform/VolumeSpace.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/Uuid.h"
#include "VantleStorage/OwnersRecord.h"
#include "VantleStorage/ScanLedger.h"
#include "VantleStorage/TreeSizer.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace {

// Below this depth a tree is not deleted further: nothing a tool makes goes this deep, and each
// level holds a descriptor.
constexpr int deepestLevel = 2048;
// Folders' own blocks move a little as they are written; a tree grew when it gained more than this.
constexpr std::int64_t growthSlackBytes = 256 * 1024;

// What deleting one tree met, to word a partial removal.
struct Removal {
    bool removedAll = false;
    bool removedAny = false;
    bool sawGone = false;
    bool sawBusy = false;
    bool sawLocked = false;
    bool sawMount = false;
    bool sawAdded = false;
    int otherError = 0;

    void note(int error) {
        switch (error) {
        case ENOENT:
            sawGone = true;
            break;
        case EBUSY:
        case ETXTBSY:
            sawBusy = true;
            break;
        case EACCES:
        case EPERM:
        case EROFS:
            sawLocked = true;
            break;
        case ENOTEMPTY:
        case EEXIST:
            break; // told by what was left inside, or as added meanwhile
        default:
            if (otherError == 0) otherError = error;
        }
    }
    bool failedInside() const { return sawBusy || sawLocked || sawMount || otherError != 0; }
};

struct Name {
    std::string name;
    unsigned char type;
};

// Deletes everything inside the folder open as `dirFd`, bottom-up, never following a link and never
// entering another disk. Names are read first and deleted after, so the listing is not disturbed.
void removeInside(int dirFd, std::uint64_t device, Removal& r, int level) {
    std::vector<Name> names;
    {
        DirectoryReader reader(dirFd, TreeSizer::bufferBytes);
        DirectoryReader::Entry entry;
        while (reader.next(entry))
            names.push_back({std::string(entry.name), entry.type});
        if (reader.error() != 0) r.note(reader.error());
    }
    for (auto& [name, type] : names) {
        if (type == DT_UNKNOWN) {
            struct stat st {};
            if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                r.note(errno);
                continue;
            }
            type = S_ISDIR(st.st_mode) ? DT_DIR : DT_REG;
        }
        if (type != DT_DIR) {
            if (::unlinkat(dirFd, name.c_str(), 0) == 0)
                r.removedAny = true;
            else if (errno == EISDIR) // a folder in its place since the listing: left for the next time
                r.sawAdded = true;
            else
                r.note(errno);
            continue;
        }
        int fd = ::openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            int error = errno;
            // Became a link or a file since the listing: its name goes, nothing is followed.
            if ((error == ENOTDIR || error == ELOOP) && ::unlinkat(dirFd, name.c_str(), 0) == 0)
                r.removedAny = true;
            else
                r.note(error);
            continue;
        }
        UniqueFd child(fd);
        struct stat st {};
        if (::fstat(child.get(), &st) != 0) {
            r.note(errno);
            continue;
        }
        if (static_cast<std::uint64_t>(st.st_dev) != device) {
            r.sawMount = true;
            continue;
        }
        if (level >= deepestLevel) {
            r.note(ELOOP);
            continue;
        }
        Removal inner;
        removeInside(child.get(), device, inner, level + 1);
        child.reset();
        if (::unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0) {
            r.removedAny = true;
        } else if (errno == ENOTEMPTY && !inner.failedInside()) {
            inner.sawAdded = true;
        } else {
            r.note(errno);
        }
        r.removedAny |= inner.removedAny;
        r.sawGone |= inner.sawGone;
        r.sawBusy |= inner.sawBusy;
        r.sawLocked |= inner.sawLocked;
        r.sawMount |= inner.sawMount;
        r.sawAdded |= inner.sawAdded;
        if (r.otherError == 0) r.otherError = inner.otherError;
    }
}

std::string partlyWhy(const Removal& r) {
    using R = CleanReceipt;
    if (r.sawMount) return std::string(R::diskInsideWords);
    if (r.sawBusy) return std::string(R::partInUseWords);
    if (r.sawLocked) return std::string(R::partLockedWords);
    if (r.otherError != 0) return fillIn(R::notAllowedWords, {{"code", std::to_string(r.otherError)}}) + ".";
    if (r.sawAdded) return std::string(R::addedMeanwhileWords);
    return std::string(R::partFailedWords);
}

// The item as it is now: a fresh walk of a folder through its admitted descriptor, or a file's status.
ItemFacts measureNow(const ItemGuard::Admitted& a, const CleanPlan::Item& planned) {
    ItemFacts facts;
    const auto& st = a.status;
    facts.kind = kindOf(st.type);
    facts.identity = {st.device, st.inode};
    facts.modified = st.modified;
    facts.added = st.born.value_or(st.changed);
    facts.born = st.born;
    facts.opened = st.accessed;
    facts.isEncryptedImage = planned.measurement.isEncryptedImage;
    if (a.folder) {
        CancelFlag never;
        ScanLedger ledger(never);
        facts.tally = TreeSizer::measureFolder(ledger, a.folder->get(), ".", a.realPath, true);
        // The ledger is this tree's alone: a file whose every name is inside goes with it.
        for (const auto& [item, bytes] :
             ledger.wholeHardLinks([](std::size_t, std::size_t) { return true; })) {
            facts.tally.pinnedBytes -= bytes;
            facts.tally.reclaimableBytes += bytes;
        }
        facts.wasInspected = true;
        if (a.rule->precondition.ageSignal == Precondition::AgeSignal::xcodeLastAccessed)
            facts.ownersRecord = xcodeLastAccessed(a.parent(), a.name);
    } else {
        Tally& t = facts.tally;
        t.files = 1;
        t.logicalBytes = static_cast<std::int64_t>(st.sizeBytes);
        t.allocatedBytes = static_cast<std::int64_t>(st.allocatedBytes);
        (st.links > 1 ? t.pinnedBytes : t.reclaimableBytes) = t.allocatedBytes;
        t.noteWrite(st.modified);
        facts.wasInspected = true;
    }
    return facts;
}

std::string joinedIds(const RuleTable& table, bool hold) {
    std::string out;
    for (const auto& rule : table.rules()) {
        if (!rule.letsSystemFree() || (rule.method == FreeMethod::hold) != hold) continue;
        if (!out.empty()) out += ", ";
        out += rule.id;
    }
    return out;
}

std::optional<std::vector<std::string>> insideOf(const std::filesystem::path& base,
                                                 const std::filesystem::path& place) {
    auto relative = place.lexically_normal().lexically_relative(base.lexically_normal());
    if (relative.empty() || *relative.begin() == "..") return std::nullopt;
    std::vector<std::string> out;
    for (const auto& part : relative)
        if (part != ".") out.push_back(part.string());
    return out;
}

} // namespace

StorageCleaner::StorageCleaner(std::filesystem::path home, Options options)
    : home_(std::move(home)), options_(std::move(options)) {
    if (!options_.table) options_.table = &RuleTable::shared();
    if (!options_.now) options_.now = systemClock();
}

std::string StorageCleaner::clearableIds() const {
    return joinedIds(*options_.table, false);
}

RunningApps StorageCleaner::runningNow() const {
    if (options_.running) return options_.running();
    struct stat st {};
    uid_t owner = ::stat(home_.c_str(), &st) == 0 ? st.st_uid : ::geteuid();
    return RunningApps::read("/proc", owner);
}

std::expected<CleanPlan, CleanRefusal>
StorageCleaner::planRemoval(const StorageScan& scan, std::span<const std::string> categories) const {
    using K = CleanRefusal::Kind;
    const RuleTable& table = *options_.table;
    auto refuse = [](K kind, std::string message) {
        return std::unexpected(CleanRefusal{kind, std::move(message)});
    };
    const auto ids = clearableIds();
    if (categories.empty())
        return refuse(K::unknownCategory, fillIn(CleanRefusal::noCategoryWords, {{"ids", ids}}));
    for (const auto& id : categories) {
        const Rule* rule = table.find(id);
        if (!rule)
            return refuse(K::unknownCategory,
                          fillIn(CleanRefusal::unknownCategoryWords, {{"id", id}, {"ids", ids}}));
        auto words = [&](std::string_view w) {
            return fillIn(w, {{"title", rule->title}, {"instruction", rule->instruction.value_or("")}});
        };
        if (rule->anchor != Anchor::home) return refuse(K::neverFreed, words(CleanRefusal::outsideHomeWords));
        if (rule->method == FreeMethod::ownersTool)
            return refuse(K::neverFreed, words(CleanRefusal::ownersToolWords));
        if (rule->safety == SafetyClass::d) return refuse(K::neverFreed, words(CleanRefusal::macosWords));
        if (rule->safety == SafetyClass::c) return refuse(K::neverFreed, words(CleanRefusal::yoursWords));
        if (rule->method == FreeMethod::hold || rule->safety == SafetyClass::b)
            return refuse(K::itemByItem, words(CleanRefusal::itemByItemWords));
    }
    const TimePoint now = options_.now();
    if (std::filesystem::path(scan.home).lexically_normal() != home_.lexically_normal())
        return refuse(K::staleScan, std::string(CleanRefusal::otherHomeWords));
    if (now - scan.finishedAt > scanLifetime)
        return refuse(K::staleScan, std::string(CleanRefusal::staleScanWords));

    CleanPlan plan;
    plan.id = newUuid();
    plan.createdAt = now;
    plan.home = home_.string();
    const RunningApps running = runningNow();
    struct stat homeStatus {};
    std::uint64_t homeDevice = ::stat(home_.c_str(), &homeStatus) == 0 ? homeStatus.st_dev : 0;
    for (const auto& item : scan.items) {
        if (std::ranges::find(categories, item.category) == categories.end()) continue;
        const Rule& rule = *table.find(item.category);
        CleanPlan::Item planned{item.id,
                                item.category,
                                rule.title,
                                item.name,
                                item.path,
                                item.facts.tally.allocatedBytes,
                                rule.safety,
                                CleanPlan::Action::remove,
                                rule.precondition.words(),
                                item.parts,
                                item.facts,
                                scan.finishedAt};
        auto ready = checkReadiness(rule, {item.parts, item.path, item.facts, homeDevice}, running, now);
        if (!ready.isReady()) {
            plan.leftAlone.push_back({item.category, item.name, planned.bytes, ready.reason.said});
            continue;
        }
        plan.items.push_back(std::move(planned));
    }
    return plan;
}

std::expected<void, CleanRefusal> StorageCleaner::checkHolding(const HoldingShelf& shelf) const {
    auto refuse = [](std::string message) {
        return std::unexpected(CleanRefusal{CleanRefusal::Kind::holdingUnusable, std::move(message)});
    };
    const auto& holding = shelf.holding();
    if (holding.empty() || !holding.is_absolute())
        return refuse(std::string(CleanRefusal::holdingUnknownWords));
    if (insideOf(holding, home_) || holding.lexically_normal() == home_.lexically_normal())
        return refuse(std::string(CleanRefusal::holdingHoldsHomeWords));
    if (auto parts = insideOf(home_, holding)) {
        const RuleTable& table = *options_.table;
        // Inside a place a rule may clear: any of its leading folders claimed by such a rule.
        for (std::size_t n = 1; n <= parts->size(); ++n) {
            std::span<const std::string> head(parts->data(), n);
            auto claim = table.claimant(Anchor::home, head);
            if (claim && table[*claim].letsSystemFree()) {
                auto place = (home_ / std::filesystem::path(head.front())).string();
                for (std::size_t i = 1; i < n; ++i)
                    place = (std::filesystem::path(place) / head[i]).string();
                return refuse(fillIn(CleanRefusal::holdingInsideWords, {{"place", place}}));
            }
        }
        // Holding a place a rule may clear: some freeing rule's pattern reaches below it.
        RuleMatcher matcher(table, Anchor::home, RuleSelection(table, ScanDepth::rules));
        RuleMatcher::Place at = matcher.root();
        bool reaches = true;
        for (const auto& part : *parts) {
            auto step = matcher.step(at, part);
            if (!step.inside) {
                reaches = false;
                break;
            }
            at = std::move(*step.inside);
        }
        if (reaches)
            for (const auto& rule : table.rules())
                if (rule.letsSystemFree())
                    for (const auto& pattern : table.compiled(*table.indexOf(rule.id)).patterns)
                        if (pattern.size() > parts->size() &&
                            std::equal(parts->begin(), parts->end(), pattern.begin()))
                            return refuse(
                                fillIn(CleanRefusal::holdingContainsWords, {{"place", rule.title}}));
    }
    // On the home folder's disk: the holding folder, or the nearest folder above it that exists.
    struct stat homeStatus {};
    if (::stat(home_.c_str(), &homeStatus) != 0)
        return refuse(std::string(CleanRefusal::holdingUnknownWords));
    std::filesystem::path probe = holding;
    struct stat st {};
    while (::lstat(probe.c_str(), &st) != 0 && probe.has_relative_path())
        probe = probe.parent_path();
    if (st.st_dev != homeStatus.st_dev) return refuse(std::string(CleanRefusal::holdingOtherDiskWords));
    return {};
}

std::expected<CleanPlan, CleanRefusal> StorageCleaner::planSetAside(const StorageScan& scan,
                                                                    std::span<const std::string> itemIds,
                                                                    const HoldingShelf& shelf) const {
    using K = CleanRefusal::Kind;
    const RuleTable& table = *options_.table;
    auto refuse = [](K kind, std::string message) {
        return std::unexpected(CleanRefusal{kind, std::move(message)});
    };
    if (itemIds.empty()) return refuse(K::unknownItem, std::string(CleanRefusal::noItemWords));
    std::vector<const ScannedItem*> chosen;
    for (const auto& id : itemIds) {
        auto found = std::ranges::find(scan.items, id, &ScannedItem::id);
        if (found == scan.items.end())
            return refuse(K::unknownItem, fillIn(CleanRefusal::unknownItemWords, {{"id", id}}));
        const Rule* rule = table.find(found->category);
        if (!rule || !rule->letsSystemFree() || rule->method != FreeMethod::hold)
            return refuse(K::unknownItem,
                          fillIn(CleanRefusal::notItemByItemWords,
                                 {{"id", id}, {"title", rule ? rule->title : found->category}}));
        if (std::ranges::find(chosen, &*found) == chosen.end()) chosen.push_back(&*found);
    }
    const TimePoint now = options_.now();
    if (std::filesystem::path(scan.home).lexically_normal() != home_.lexically_normal())
        return refuse(K::staleScan, std::string(CleanRefusal::otherHomeWords));
    if (now - scan.finishedAt > scanLifetime)
        return refuse(K::staleScan, std::string(CleanRefusal::staleScanWords));
    if (auto usable = checkHolding(shelf); !usable) return std::unexpected(usable.error());

    CleanPlan plan;
    plan.id = newUuid();
    plan.createdAt = now;
    plan.home = home_.string();
    plan.holding = shelf.holding().string();
    const RunningApps running = runningNow();
    struct stat homeStatus {};
    std::uint64_t homeDevice = ::stat(home_.c_str(), &homeStatus) == 0 ? homeStatus.st_dev : 0;
    for (const ScannedItem* item : chosen) {
        const Rule& rule = *table.find(item->category);
        CleanPlan::Item planned{item->id,
                                item->category,
                                rule.title,
                                item->name,
                                item->path,
                                item->facts.tally.allocatedBytes,
                                rule.safety,
                                CleanPlan::Action::hold,
                                rule.precondition.words(),
                                item->parts,
                                item->facts,
                                scan.finishedAt};
        auto ready = checkReadiness(rule, {item->parts, item->path, item->facts, homeDevice}, running, now);
        if (!ready.isReady()) {
            plan.leftAlone.push_back({item->category, item->name, planned.bytes, ready.reason.said});
            continue;
        }
        plan.items.push_back(std::move(planned));
    }
    return plan;
}

std::expected<CleanReceipt, CleanRefusal>
StorageCleaner::carryOut(const CleanPlan& plan, CancelFlag& cancel, HoldingShelf* shelf,
                         const std::function<void(const Progress&)>& progress) {
    std::lock_guard lock(mutex_);
    using R = CleanReceipt;
    if (options_.now() - plan.createdAt > planLifetime)
        return std::unexpected(
            CleanRefusal{CleanRefusal::Kind::stalePlan, std::string(CleanRefusal::stalePlanWords)});
    if (std::filesystem::path(plan.home).lexically_normal() != home_.lexically_normal())
        return std::unexpected(
            CleanRefusal{CleanRefusal::Kind::staleScan, std::string(CleanRefusal::otherHomeWords)}
                .atCarryingOut());

    CleanReceipt receipt;
    receipt.plan = plan;
    ItemGuard guard(*options_.table, home_);
    auto homeFd = openHomeFolder(home_);
    std::optional<std::uint64_t> freeBefore;
    if (homeFd)
        if (auto free = freeBytesOn(homeFd->get())) freeBefore = *free;

    // The holding folder, made and opened once, from the home by descriptors where it lies inside it.
    std::optional<UniqueFd> holdingFd;
    std::string holdingTrouble;
    bool anyHold =
        std::ranges::any_of(plan.items, [](const auto& i) { return i.action == CleanPlan::Action::hold; });
    if (anyHold) {
        if (!shelf) {
            holdingTrouble = R::holdingUnopenedWords;
        } else if (auto usable = checkHolding(*shelf); !usable) {
            holdingTrouble = usable.error().message.find("another disk") != std::string::npos
                                 ? std::string(R::holdingOtherDiskWords)
                                 : std::string(R::holdingUnopenedWords);
        } else {
            auto parts = insideOf(home_, shelf->holding());
            if (parts && homeFd) {
                std::filesystem::path relative;
                for (const auto& p : *parts)
                    relative /= p;
                if (!makeFoldersBeneath(homeFd->get(), relative, 0700))
                    holdingTrouble = R::holdingUnpreparedWords;
                else if (auto opened = openBeneath(homeFd->get(), relative, O_RDONLY | O_DIRECTORY))
                    holdingFd = std::move(*opened);
                else
                    holdingTrouble = R::holdingUnopenedWords;
            } else {
                std::error_code ec;
                std::filesystem::create_directories(shelf->holding(), ec);
                if (auto opened = openFolder(shelf->holding()))
                    holdingFd = std::move(*opened);
                else
                    holdingTrouble = ec ? R::holdingUnpreparedWords : R::holdingUnopenedWords;
            }
        }
    }

    std::vector<std::string> handledCategories;
    for (std::size_t index = 0; index < plan.items.size(); ++index) {
        const auto& item = plan.items[index];
        if (cancel.isCancelled()) {
            receipt.cancelled = true;
            break;
        }
        if (progress) progress({index, plan.items.size(), item.name});
        R::Outcome outcome{item, R::ItemResult::leftAlone, {}, 0, 0, std::nullopt};
        auto leave = [&](std::string words) {
            outcome.result = R::ItemResult::leftAlone;
            outcome.words = std::move(words);
            receipt.outcomes.push_back(outcome);
        };
        bool ofTheRest = std::ranges::find(handledCategories, item.category) != handledCategories.end();

        auto admitted = guard.admit(item.category, item.parts, item.measurement.identity,
                                    item.measurement.born, item.measurement.kind);
        if (!admitted) {
            leave(admitted.error().reason);
            continue;
        }
        const TimePoint now = options_.now();
        ItemFacts fresh = measureNow(*admitted, item);
        outcome.measuredBytes = fresh.tally.allocatedBytes;
        ItemNow itemNow{item.parts, admitted->realPath, fresh, admitted->homeDevice};
        auto ready = checkReadiness(*admitted->rule, itemNow, runningNow(), now, ofTheRest);
        if (!ready.isReady()) {
            leave(ready.reason.said);
            continue;
        }
        // What is carried out is what was shown: a tree that grew since is left for a new look.
        if (fresh.tally.allocatedBytes > item.bytes + growthSlackBytes + item.bytes / 100) {
            leave(fillIn(CleanRefusal::grewWords, {{"title", item.name},
                                                   {"then", fileBytes(item.bytes)},
                                                   {"now", fileBytes(fresh.tally.allocatedBytes)}}));
            continue;
        }
        // Last look: the name must still be this very item.
        auto still = statusOf(admitted->parent(), admitted->name.c_str());
        if (!still || still->inode != admitted->status.inode || still->device != admitted->status.device) {
            leave(std::string(R::changedWhileCheckingWords));
            continue;
        }

        if (item.action == CleanPlan::Action::hold) {
            if (!holdingFd) {
                leave(holdingTrouble.empty() ? std::string(R::holdingUnopenedWords) : holdingTrouble);
                continue;
            }
            auto slot = shelf->setAside(admitted->parent(), holdingFd->get(), item.parts, item.category);
            if (!slot) {
                leave(slot.error() == EXDEV
                          ? std::string(R::holdingOtherDiskWords)
                          : fillIn(R::notAllowedWords, {{"code", std::to_string(slot.error())}}));
                continue;
            }
            outcome.result = R::ItemResult::held;
            outcome.heldId = *slot;
            receipt.heldBytes += fresh.tally.allocatedBytes;
            receipt.undo.heldIds.push_back(*slot);
            receipt.outcomes.push_back(std::move(outcome));
            handledCategories.push_back(item.category);
            continue;
        }

        Removal removal;
        if (admitted->folder) {
            removeInside(admitted->folder->get(), admitted->status.device, removal, 0);
            admitted->folder.reset();
            if (::unlinkat(admitted->parent(), admitted->name.c_str(), AT_REMOVEDIR) == 0) {
                removal.removedAll = true;
            } else {
                int error = errno;
                if (error == ENOENT)
                    removal.sawGone = true;
                else if (error == ENOTEMPTY && !removal.failedInside())
                    removal.sawAdded = true;
                else
                    removal.note(error);
            }
        } else if (::unlinkat(admitted->parent(), admitted->name.c_str(), 0) == 0) {
            removal.removedAll = true;
        } else {
            removal.note(errno);
        }
        handledCategories.push_back(item.category);

        const std::int64_t before = fresh.tally.reclaimableBytes;
        if (removal.removedAll) {
            outcome.result = R::ItemResult::removed;
            outcome.freedBytes = before;
            if (removal.sawGone) outcome.words = R::partGoneWords;
        } else {
            // Count only what is measured gone: what is left is walked again.
            std::optional<std::int64_t> left;
            if (auto st = statusOf(admitted->parent(), admitted->name.c_str())) {
                if (st->type == EntryStatus::Type::folder) {
                    CancelFlag never;
                    ScanLedger ledger(never);
                    auto tally = TreeSizer::measureFolder(ledger, admitted->parent(), admitted->name,
                                                          admitted->realPath, false);
                    if (tally.refusals() == 0) left = tally.allocatedBytes;
                } else {
                    left = static_cast<std::int64_t>(st->allocatedBytes);
                }
            } else if (st.error() == ENOENT) {
                left = 0;
            }
            if (removal.removedAny && left) {
                outcome.result = R::ItemResult::partlyRemoved;
                outcome.freedBytes = std::max<std::int64_t>(0, before - *left);
                outcome.words =
                    fillIn(R::partlyWords,
                           {{"title", item.title}, {"size", fileBytes(*left)}, {"why", partlyWhy(removal)}});
            } else {
                outcome.result = removal.removedAny ? R::ItemResult::partlyRemoved : R::ItemResult::leftAlone;
                outcome.words = std::string(R::couldNotDeleteWords) +
                                (left ? std::string() : std::string(R::leftUnmeasuredWords));
                if (left && !removal.removedAny) outcome.words += " " + partlyWhy(removal);
            }
        }
        receipt.freedBytes += outcome.freedBytes;
        receipt.outcomes.push_back(std::move(outcome));
    }

    if (freeBefore && homeFd)
        if (auto after = freeBytesOn(homeFd->get()))
            receipt.measuredFreedBytes = std::max<std::int64_t>(
                0, static_cast<std::int64_t>(*after) - static_cast<std::int64_t>(*freeBefore));
    return receipt;
}

} // namespace vantle
