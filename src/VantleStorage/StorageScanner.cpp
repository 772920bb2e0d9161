#include "VantleStorage/StorageScanner.h"

#include "Platform/BeneathOpen.h"
#include "Platform/DirectoryReader.h"
#include "Platform/IoPriority.h"
#include "Platform/OpenFileLimit.h"
#include "Platform/SharedExtents.h"
#include "Platform/SystemError.h"
#include "Platform/UserEntryOpen.h"
#include "VantleSpec/Sentence.h"
#include "VantleStorage/ItemId.h"
#include "VantleStorage/ItemSearch.h"
#include "VantleStorage/OwnersRecord.h"
#include "VantleStorage/TreeSizer.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <unordered_set>

namespace vantle {

namespace {

// Enough for every walker to stand deep in a tree with a descriptor per level.
constexpr std::uint64_t openFilesWanted = 65'536;
constexpr auto progressInterval = std::chrono::milliseconds(100);

bool endsWithFolded(std::string_view name, std::string_view suffix) {
    if (name.size() < suffix.size()) return false;
    auto tail = name.substr(name.size() - suffix.size());
    return std::ranges::equal(tail, suffix, [](char a, char b) { return std::tolower(a) == b; });
}

// An encrypted disk image begins with "encrcdsa" (version 2) or ends with "cdsaencr" (version 1).
bool isEncryptedImage(int dirFd, const std::string& name, std::uint64_t size) {
    if (!endsWithFolded(name, ".dmg") && !endsWithFolded(name, ".sparseimage")) return false;
    if (size < 8) return false;
    // Looking at the header must not count as opening the image: Old Installers judge by access time.
    auto fd = openUserEntry(dirFd, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!fd) return false;
    struct stat st {};
    if (::fstat(fd->get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    char head[8];
    if (::pread(fd->get(), head, 8, 0) == 8 && std::string_view(head, 8) == "encrcdsa") return true;
    return ::pread(fd->get(), head, 8, static_cast<off_t>(size - 8)) == 8 &&
           std::string_view(head, 8) == "cdsaencr";
}

// A folder of the user's opened for listing: listing must not move its access time either.
std::expected<UniqueFd, int> openForListing(const std::filesystem::path& folder) {
    auto opened = openFolder(folder);
    if (!opened) return opened;
    int fd = openatNoAtime(opened->get(), ".", O_RDONLY | O_DIRECTORY);
    if (fd < 0) return std::unexpected(errno);
    return UniqueFd(fd);
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

// Four walkers a processor: a walker waiting for the disk (a cold cache) leaves its processor to
// another, and on a busy machine the walk still gets its share of the processors.
std::size_t workerCount(std::size_t asked) {
    if (asked > 0) return asked;
    return std::clamp<std::size_t>(4 * std::thread::hardware_concurrency(), 4, 32);
}

// One scan, step by step: open the home, find the items of every anchor, list the held items, size
// them all on the walkers, and put the result together. Lives on the scanning thread only.
class ScanJob {
  public:
    ScanJob(const StorageScanner::Options& options, const std::filesystem::path& home, ScanDepth depth,
            const std::optional<std::set<std::string>>& only, bool inBackground, CancelFlag& cancel,
            const StorageScanner::Progress& progress)
        : options_(options), table_(*options.table), home_(home), inBackground_(inBackground),
          cancel_(cancel), progress_(progress), selection_(table_, depth, only),
          homeMatcher_(table_, Anchor::home, selection_), systemMatcher_(table_, Anchor::system, selection_) {
        result_.home = home.string();
        result_.depth = depth;
        if (only) result_.only = std::vector<std::string>(only->begin(), only->end());
        result_.startedAt = options.now();
    }

    std::expected<StorageScan, StorageScanError> run(const std::optional<std::filesystem::path>& holding) {
        auto homeFd = openForListing(home_);
        if (!homeFd) return std::unexpected(StorageScanError::homeUnreadable(home_));
        auto homeShared = std::make_shared<const UniqueFd>(std::move(*homeFd));
        if (holding) openHolding(homeShared->get(), *holding);

        report({ScanProgress::Phase::finding, 0, 0, 0});
        if (!searchAnchor(Anchor::home, homeShared, home_))
            return std::unexpected(StorageScanError::homeUnreadable(home_));
        if (options_.systemRoot && selection_.touches(Anchor::system) && !cancel_.isCancelled()) {
            result_.systemRoot = options_.systemRoot->string();
            if (auto rootFd = openForListing(*options_.systemRoot))
                searchAnchor(Anchor::system, std::make_shared<const UniqueFd>(std::move(*rootFd)),
                             *options_.systemRoot);
            else
                noteGap(*options_.systemRoot, rootFd.error());
        }
        if (holdingFd_) listHeld();

        measure();
        assemble();
        result_.complete = !cancel_.isCancelled();
        result_.finishedAt = options_.now();
        report({ScanProgress::Phase::done, candidates_.size(), ledger_.entriesSeen(), ledger_.bytesSeen()});
        return std::move(result_);
    }

  private:
    // One item on its way from the search to the result.
    struct Candidate {
        FoundItem found;
        bool held = false;
        Tally settled;          // what was counted before the walk: the item itself
        bool inspected = false; // the walk looks inside it
    };

    // What every walk below one anchor shares.
    struct AnchorWalk {
        std::string path; // without a trailing "/"; empty for "/"
        std::uint64_t device = 0;
        bool sharesBlocks = false;
    };

    void report(const ScanProgress& p) const {
        if (progress_) progress_(p);
    }

    void noteGap(const std::filesystem::path& place, int error) {
        result_.gaps.push_back({place.string(), refusalOf(error), systemErrorText(error)});
    }

    // The holding folder: listed item by item, and never searched or counted inside a category.
    void openHolding(int homeFd, const std::filesystem::path& holding) {
        holding_ = holding;
        auto relative = insideHome(home_, holding);
        if (relative) holdingParts_ = componentsOf(*relative);
        auto opened =
            relative ? openBeneath(homeFd, *relative, O_RDONLY | O_DIRECTORY) : openForListing(holding);
        if (!opened) {
            if (opened.error() != ENOENT) noteGap(holding, opened.error());
            return;
        }
        holdingFd_ = std::make_shared<const UniqueFd>(std::move(*opened));
        if (auto st = statusOf(holdingFd_->get(), "")) holdingIdentity_ = FileIdentity{st->device, st->inode};
    }

    // False when the anchor itself could not be read; anything deeper becomes a gap.
    bool searchAnchor(Anchor anchor, std::shared_ptr<const UniqueFd> fd, const std::filesystem::path& path) {
        const RuleMatcher& matcher = anchor == Anchor::home ? homeMatcher_ : systemMatcher_;
        auto status = statusOf(fd->get(), "");
        ItemSearch search(matcher, cancel_, holdingIdentity_);
        if (!status || !search.run(fd, path)) {
            if (anchor != Anchor::home) noteGap(path, status ? search.rootError() : status.error());
            return false;
        }
        auto text = path.string();
        if (text.size() > 1 && text.back() == '/') text.pop_back();
        walks_[static_cast<std::size_t>(anchor)] = {text == "/" ? "" : text, status->device,
                                                    fileSystemSharesBlocks(fd->get())};
        for (auto& found : search.items())
            candidates_.push_back({std::move(found)});
        result_.gaps.insert(result_.gaps.end(), search.gaps().begin(), search.gaps().end());
        result_.mountPoints.insert(result_.mountPoints.end(), search.mountPoints().begin(),
                                   search.mountPoints().end());
        return true;
    }

    // Each entry of the holding folder is one held item, named after the place it was taken from.
    void listHeld() {
        DirectoryReader reader(holdingFd_->get());
        DirectoryReader::Entry entry;
        while (reader.next(entry)) {
            auto st = statusOf(holdingFd_->get(), entry.name.data());
            if (!st) continue;
            std::optional<std::vector<std::string>> former;
            if (options_.formerPlace) former = options_.formerPlace(entry.name);
            if (!former) {
                former = holdingParts_;
                former->emplace_back(entry.name);
            }
            Candidate held{.found = {0, Anchor::home, std::move(*former), std::string(entry.name),
                                     (holding_ / entry.name).string(), *st, holdingFd_, std::nullopt},
                           .held = true};
            candidates_.push_back(std::move(held));
        }
    }

    // Every folder item becomes a task for the walkers; files, links and items on another disk are
    // settled here, before the walk.
    void measure() {
        if (holdingIdentity_) ledger_.claim(*holdingIdentity_);
        for (const auto& c : candidates_)
            if (c.found.status.type == EntryStatus::Type::folder)
                ledger_.claim({c.found.status.device, c.found.status.inode});

        std::vector<SizingTarget> targets(candidates_.size());
        for (std::size_t i = 0; i < candidates_.size(); ++i) {
            const auto& c = candidates_[i];
            const auto& walk = walks_[static_cast<std::size_t>(c.found.anchor)];
            targets[i] = {.device = c.found.status.device,
                          .matcher = !c.found.inside                  ? nullptr
                                     : c.found.anchor == Anchor::home ? &homeMatcher_
                                                                      : &systemMatcher_,
                          .anchorPathLength = (c.held ? home_.string().size() : walk.path.size()) + 1,
                          .sharesBlocks = walk.sharesBlocks,
                          .notesKeepsakes = !c.held && table_[c.found.ruleIndex].letsSystemFree()};
        }

        const std::size_t workers = workerCount(options_.workers);
        sizers_.reserve(workers);
        for (std::size_t w = 0; w < workers; ++w)
            sizers_.emplace_back(ledger_, targets);
        WorkQueue<SizingTask> queue(workers);
        for (std::size_t i = 0; i < candidates_.size(); ++i) {
            auto& c = candidates_[i];
            const auto& found = c.found;
            bool otherDisk =
                !c.held && found.status.device != walks_[static_cast<std::size_t>(found.anchor)].device;
            if (found.status.type == EntryStatus::Type::link) {
                c.settled.links = 1;
            } else if (otherDisk) {
                c.settled.mountPoints.push_back(found.path);
            } else if (found.status.type == EntryStatus::Type::folder) {
                TreeSizer::countFolder(c.settled, found.status);
                c.inspected = true;
                queue.push({i, found.parent, found.name, found.path, found.inside});
            } else {
                c.inspected = true;
                sizers_.front().countEntry(i, found.parent->get(), found.name.c_str(), found.status,
                                           found.path.substr(0, found.path.size() - found.name.size() - 1));
            }
        }

        report({ScanProgress::Phase::measuring, candidates_.size(), 0, 0});
        std::mutex doneMutex;
        std::condition_variable doneSignal;
        std::size_t finished = 0;
        std::vector<std::jthread> threads;
        for (std::size_t w = 0; w < workers; ++w) {
            threads.emplace_back([&, w] {
                std::optional<IdleIoPriority> lowered;
                if (inBackground_) lowered.emplace();
                sizers_[w].run(queue);
                std::lock_guard done(doneMutex);
                ++finished;
                doneSignal.notify_all();
            });
        }
        std::unique_lock wait(doneMutex);
        while (!doneSignal.wait_for(wait, progressInterval, [&] { return finished == workers; }))
            report({ScanProgress::Phase::measuring, candidates_.size(), ledger_.entriesSeen(),
                    ledger_.bytesSeen()});
    }

    // Joins the walkers' tallies into each item's facts, names the items, and orders them by rule,
    // then by path, so two scans of the same home list the same items in the same order.
    void assemble() {
        std::vector<std::size_t> order(candidates_.size());
        for (std::size_t i = 0; i < order.size(); ++i)
            order[i] = i;
        std::ranges::sort(order, [&](std::size_t a, std::size_t b) {
            const auto& x = candidates_[a];
            const auto& y = candidates_[b];
            if (x.held != y.held) return y.held;
            if (x.found.ruleIndex != y.found.ruleIndex) return x.found.ruleIndex < y.found.ruleIndex;
            return x.found.path < y.found.path;
        });
        // Files all of whose names lie inside one item, or inside items of one category freed
        // together, are freed with them: reclaimable, not pinned.
        std::vector<std::int64_t> unpinned(candidates_.size(), 0);
        auto freedTogether = [&](std::size_t a, std::size_t b) {
            const auto& x = candidates_[a];
            const auto& y = candidates_[b];
            return !x.held && !y.held && x.found.ruleIndex == y.found.ruleIndex &&
                   table_[x.found.ruleIndex].method == FreeMethod::remove &&
                   table_[x.found.ruleIndex].letsSystemFree();
        };
        for (const auto& [item, bytes] : ledger_.wholeHardLinks(freedTogether))
            unpinned[item] += bytes;
        std::unordered_set<std::string> usedIds;
        for (std::size_t i : order) {
            auto& c = candidates_[i];
            const auto& st = c.found.status;
            ScannedItem item;
            item.category = c.held ? std::string(heldPrefix) : table_[c.found.ruleIndex].id;
            item.anchor = c.found.anchor;
            item.parts = std::move(c.found.parts);
            item.name = std::move(c.found.name);
            item.path = std::move(c.found.path);
            for (int salt = 0;; ++salt) {
                item.id = c.held ? heldItemId(item.parts, salt)
                                 : itemId(item.category, item.anchor, item.parts, salt);
                if (usedIds.insert(item.id).second) break;
            }
            ItemFacts& facts = item.facts;
            facts.kind = kindOf(st.type);
            facts.identity = {st.device, st.inode};
            facts.tally = std::move(c.settled);
            for (auto& sizer : sizers_)
                facts.tally.join(sizer.tallies()[i]);
            facts.tally.pinnedBytes -= unpinned[i];
            facts.tally.reclaimableBytes += unpinned[i];
            facts.modified = st.modified;
            facts.added = st.born.value_or(st.changed);
            facts.born = st.born;
            facts.opened = st.accessed;
            facts.wasInspected = c.inspected;
            int parentFd = c.found.parent->get();
            if (st.type == EntryStatus::Type::file)
                facts.isEncryptedImage = isEncryptedImage(parentFd, item.name, st.sizeBytes);
            if (!c.held && st.type == EntryStatus::Type::folder &&
                table_[c.found.ruleIndex].precondition.ageSignal ==
                    Precondition::AgeSignal::xcodeLastAccessed)
                facts.ownersRecord = xcodeLastAccessed(parentFd, item.name);
            (c.held ? result_.held : result_.items).push_back(std::move(item));
        }
    }

    const StorageScanner::Options& options_;
    const RuleTable& table_;
    std::filesystem::path home_;
    bool inBackground_;
    CancelFlag& cancel_;
    const StorageScanner::Progress& progress_;
    RuleSelection selection_;
    RuleMatcher homeMatcher_;
    RuleMatcher systemMatcher_;

    StorageScan result_;
    std::array<AnchorWalk, 2> walks_{}; // by Anchor
    std::vector<Candidate> candidates_;
    std::filesystem::path holding_;
    std::vector<std::string> holdingParts_; // the holding folder below the home, when it is there
    std::shared_ptr<const UniqueFd> holdingFd_;
    std::optional<FileIdentity> holdingIdentity_;
    ScanLedger ledger_{cancel_};
    std::vector<TreeSizer> sizers_;
};

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
    std::optional<IdleIoPriority> idle;
    if (inBackground) idle.emplace();
    raiseOpenFileLimit(openFilesWanted);

    auto result = ScanJob(options_, home, depth, only, inBackground, cancel, progress).run(holding);
    if (result && result->complete) {
        std::lock_guard keep(latestMutex_);
        latest_ = *result;
    }
    return result;
}

} // namespace vantle
