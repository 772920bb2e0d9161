#include "VantleLibrary/Duplicates.h"

#include "Platform/PageCache.h"
#include "Platform/SharedExtents.h"
#include "Platform/UniqueFd.h"
#include "Platform/UserEntryOpen.h"
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/FingerprintReader.h"
#include "VantleLibrary/SmallFileHasher.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <fcntl.h>
#include <limits>
#include <map>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace vantle {

namespace {

// What statx said of one candidate. Records with their names are made only for the files that end
// in a group: most candidates leave at the sample stage, and a copy of each path would cost more
// than the statx.
struct Seen {
    size_t candidate;
    FileStatus status;
    FingerprintCache::Place kept; // where the cache keeps its hashes: looked up once for both stages
};

using Bucket = std::vector<size_t>; // indices into the seen files that may still be copies

// Files numbered by size in one open-addressed table, so that those sharing a size are found without
// sorting: sorting every candidate by size, twice a scan, was the longest step after the statx in an
// unchanged rescan. A negative size leaves a file out.
class SizeGroups {
  public:
    static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

    template <class SizeOf> SizeGroups(size_t count, const SizeOf& sizeOf) : groupOf_(count, none) {
        const auto capacity = std::bit_ceil(std::max<size_t>(16, 2 * count));
        const auto shift = 64 - std::countr_zero(capacity);
        std::vector<std::pair<std::int64_t, std::uint32_t>> slots(capacity, {0, none});
        for (size_t i = 0; i < count; ++i) {
            const std::int64_t size = sizeOf(i);
            if (size < 0) continue;
            // Multiplied by 2^64 / golden ratio and the high bits taken, so that sizes a few bytes
            // apart land far apart.
            auto slot =
                static_cast<size_t>((static_cast<std::uint64_t>(size) * 0x9E3779B97F4A7C15ULL) >> shift);
            while (slots[slot].second != none && slots[slot].first != size)
                slot = (slot + 1) & (capacity - 1);
            if (slots[slot].second == none) {
                slots[slot] = {size, static_cast<std::uint32_t>(counts_.size())};
                counts_.push_back(0);
            }
            groupOf_[i] = slots[slot].second;
            ++counts_[groupOf_[i]];
        }
    }
    size_t groups() const { return counts_.size(); }
    std::uint32_t groupOf(size_t i) const { return groupOf_[i]; }
    // Whether another file has file i's size.
    bool shared(size_t i) const { return groupOf_[i] != none && counts_[groupOf_[i]] >= 2; }
    std::uint32_t members(std::uint32_t group) const { return counts_[group]; }

  private:
    std::vector<std::uint32_t> groupOf_; // none for a file left out
    std::vector<std::uint32_t> counts_;  // how many files each group has
};

size_t distinctFiles(const Bucket& bucket, const std::vector<Seen>& seen) {
    if (bucket.size() == 2) return seen[bucket[0]].status.number == seen[bucket[1]].status.number ? 1 : 2;
    std::vector<FileNumber> numbers;
    numbers.reserve(bucket.size());
    for (auto i : bucket)
        numbers.push_back(seen[i].status.number);
    std::ranges::sort(numbers);
    return static_cast<size_t>(std::ranges::distance(numbers.begin(), std::ranges::unique(numbers).begin()));
}

// Fills in the clone fields. Only file systems that can share blocks are asked for extent maps, and
// whether one can is asked once per device.
void readSharing(std::vector<Duplicates::Record>& records, std::map<std::int32_t, bool>& deviceShares) {
    for (auto& r : records) {
        r.privateSize = r.allocated;
        auto known = deviceShares.find(r.number.device);
        if (known != deviceShares.end() && !known->second) continue;
        auto opened = openUserEntry(AT_FDCWD, r.path.c_str(), O_RDONLY | O_NONBLOCK);
        if (!opened) continue;
        const auto& fd = *opened;
        if (known == deviceShares.end())
            known = deviceShares.emplace(r.number.device, fileSystemSharesBlocks(fd.get())).first;
        if (!known->second) continue;
        auto extents = sharedExtents(fd.get());
        if (!extents || extents->empty()) continue;
        std::int64_t shared = 0;
        for (const auto& e : *extents)
            shared += static_cast<std::int64_t>(e.lengthBytes);
        r.isShared = true;
        r.cloneID = extents->front().physical;
        r.sharesAllBlocks = shared >= r.allocated;
        r.privateSize = std::max<std::int64_t>(0, r.allocated - shared);
    }
}

// The folder part of an absolute path ("/" for a file at the root); empty when there is none.
std::string_view folderOf(std::string_view path) {
    auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return {};
    return path.substr(0, slash == 0 ? 1 : slash);
}

// Handles on the folders of the last paths asked about, opened again only when the folder changes:
// candidates come a folder at a time, so the kernel walks a folder's path once a run of files rather
// than once a file. The last filesABatch folders stay open, for a hasher that opens a batch of files
// together. One per thread.
class FolderHandle {
  public:
    // Where to reach `path` from: its folder's handle and its own name, or the whole path when the
    // folder cannot be opened. The name is good until the next call; the handle for filesABatch calls.
    std::pair<int, const char*> beneath(std::string_view path) {
        auto folder = folderOf(path);
        if (!folder.empty() && folder != kept_[last_].path) {
            auto found = std::ranges::find(kept_, folder, &Kept::path);
            if (found != kept_.end()) {
                last_ = static_cast<size_t>(found - kept_.begin());
            } else {
                last_ = (last_ + 1) % kept_.size();
                kept_[last_] = {folder, UniqueFd(openatNoAtime(AT_FDCWD, std::string(folder).c_str(),
                                                               O_PATH | O_DIRECTORY))};
            }
        }
        const auto& fd = kept_[last_].fd;
        if (folder.empty() || !fd) {
            name_.assign(path);
            return {AT_FDCWD, name_.c_str()};
        }
        name_.assign(path.substr(path.rfind('/') + 1));
        return {fd.get(), name_.c_str()};
    }

  private:
    struct Kept {
        std::string_view path;
        UniqueFd fd;
    };
    std::array<Kept, filesABatch> kept_;
    size_t last_ = 0;
    std::string name_; // paths need not end in a NUL where they are kept
};

} // namespace

std::int64_t DuplicateScan::freeableBytes() const {
    std::int64_t total = 0;
    for (const auto& s : sharing)
        total += s.freeable;
    return total;
}

DuplicateSharing Duplicates::sharingOf(std::string fingerprint, std::int64_t size,
                                       std::span<const Record> copies) {
    DuplicateSharing sharing{std::move(fingerprint), {}, {}, 0};
    // The copies by file, so that one file's names sit together. A group is a handful of copies and
    // there may be tens of thousands of groups: a sort costs less here than maps would.
    std::vector<const Record*> byFile;
    byFile.reserve(copies.size());
    for (const auto& r : copies)
        byFile.push_back(&r);
    std::ranges::stable_sort(byFile, {}, &Record::number);
    // Copies whose blocks are all shared from one place are one clone family: removing every member
    // of a family frees a copy's size, removing some of them frees only their own blocks.
    std::vector<std::uint64_t> families;
    std::int64_t standalone = 0;
    for (size_t begin = 0; begin < byFile.size();) {
        auto end = begin + 1;
        while (end < byFile.size() && byFile[end]->number == byFile[begin]->number)
            ++end;
        const auto& file = *byFile[begin];
        if (end - begin > 1) {
            auto& names = sharing.hardLinks.emplace_back();
            for (auto k = begin; k < end; ++k)
                names.push_back(byFile[k]->path);
            std::ranges::sort(names);
        }
        if (!file.sharesAllBlocks || file.cloneID == 0) {
            ++standalone;
        } else {
            for (auto k = begin; k < end; ++k)
                sharing.clones.push_back(byFile[k]->path);
            if (std::ranges::find(families, file.cloneID) != families.end())
                sharing.freeable += file.privateSize;
            else
                families.push_back(file.cloneID);
        }
        begin = end;
    }
    std::ranges::sort(sharing.clones);
    auto distinctCopies = standalone + static_cast<std::int64_t>(families.size());
    sharing.freeable += size * std::max<std::int64_t>(0, distinctCopies - 1);
    return sharing;
}

std::vector<FileItem> Duplicates::candidatesOf(std::span<const Facts> facts, std::int64_t smallestSize) {
    auto counts = [&](const Facts& f) { return !f.isFolder && !f.isPackage && f.size >= smallestSize; };
    std::unordered_map<std::int64_t, int> sizes;
    for (const auto& f : facts)
        if (counts(f)) ++sizes[f.size];
    std::vector<FileItem> out;
    for (const auto& f : facts)
        if (counts(f) && sizes[f.size] > 1) out.push_back(toFileItem(f));
    return out;
}

Duplicates::Duplicates(Options options) : options_(std::move(options)), cache_(options_.cacheFile) {}

void Duplicates::readCacheAhead() {
    std::lock_guard lock(mutex_);
    // While the thread runs the cache is its own: only a scan, under the lock, joins it and reads on.
    if (cacheReading_.joinable() || cache_.loaded()) return;
    cacheReading_ = std::jthread([this] { cache_.load(); });
}

void Duplicates::loadCache() {
    if (cacheReading_.joinable()) cacheReading_.join();
    cache_.load();
}

std::optional<DuplicateScan> Duplicates::latest() const {
    std::lock_guard lock(mutex_);
    return latest_;
}

std::optional<DuplicateScan> Duplicates::fresh() const {
    std::lock_guard lock(mutex_);
    if (!latest_ || !latest_->isComplete || changes_.load() != changesBeforeLatest_) return std::nullopt;
    if (options_.clock() - latest_->at >= options_.freshness) return std::nullopt;
    return latest_;
}

DuplicateScan Duplicates::scan(std::span<const FileItem> items, CancelFlag& cancel,
                               const ProgressFn& progress) {
    std::vector<Candidate> candidates;
    candidates.reserve(items.size());
    for (size_t i = 0; i < items.size(); ++i)
        candidates.push_back({items[i].path, items[i].size, i});
    return scanCandidates(
        std::move(candidates), [&](size_t i) { return items[i]; }, cancel, progress);
}

DuplicateScan Duplicates::scan(std::span<const Facts> facts, CancelFlag& cancel, const ProgressFn& progress) {
    // Every file: the scan itself keeps only those whose size another shares.
    std::vector<Candidate> candidates;
    for (size_t i = 0; i < facts.size(); ++i)
        if (!facts[i].isFolder && !facts[i].isPackage)
            candidates.push_back({facts[i].path, facts[i].size, i});
    return scanCandidates(
        std::move(candidates), [&](size_t i) { return toFileItem(facts[i]); }, cancel, progress);
}

std::optional<DuplicateScan> Duplicates::scan(const CatalogIndex::Opened& index, CancelFlag& cancel,
                                              const ProgressFn& progress) {
    // Every file: the scan itself keeps only those whose size another shares.
    std::vector<Candidate> listed;
    listed.reserve(index.entries());
    bool read = index.forEachListed([&](const CatalogIndex::Opened::Listed& entry, size_t place) {
        if (entry.isFile) listed.push_back({entry.path, entry.size, place});
    });
    if (!read) return std::nullopt;
    return scanCandidates(
        std::move(listed), [&](size_t place) { return toFileItem(index.at(place).value()); }, cancel,
        progress);
}

DuplicateScan Duplicates::scanCandidates(std::vector<Candidate> candidates,
                                         const std::function<FileItem(size_t source)>& itemOf,
                                         CancelFlag& cancel, const ProgressFn& progress) {
    std::lock_guard lock(mutex_);
    const auto changesAtStart = changes_.load();
    const auto started = options_.clock();
    const auto deadline = started + options_.timeLimit;
    DuplicateScan out;
    out.at = toMilliseconds(started); // the precision a stored scan keeps

    // Past a few dozen reads in flight a disk orders no better, and a many-core machine would only
    // pay for the threads and their buffers.
    const auto threads = options_.threads > 0 ? options_.threads
                                              : std::clamp(8 * std::thread::hardware_concurrency(), 1u, 32u);
    std::mutex clockMutex; // an injected clock need not be safe to call from two threads
    Clock clock = [&] {
        std::lock_guard hold(clockMutex);
        return options_.clock();
    };
    std::atomic<bool> stopped{false};
    // Between files a thread looks at the clock only if no other thread is looking at it this moment:
    // waiting for the lock, the threads queued and woke one another for every file.
    auto pastDeadline = [&] {
        std::unique_lock hold(clockMutex, std::try_to_lock);
        return hold.owns_lock() && options_.clock() > deadline;
    };
    auto shouldStop = [&] {
        if (!stopped.load() && (cancel.isCancelled() || pastDeadline())) stopped = true;
        return stopped.load();
    };
    std::atomic<int> missed{0}; // candidates that could not be read, or changed while being read
    std::atomic<std::int64_t> bytesRead{0};
    std::mutex progressMutex;
    DuplicateProgress shown; // guarded by progressMutex
    // Counts `count` more files done in `phase` and their bytes. The first file, each 64th after it and
    // the last are shown: a lock per file kept the threads waiting on each other. The bytes are counted
    // before the file, so the last file shown counts every byte; a report overtaken by a later one
    // is not shown, so the line never goes back.
    auto report = [&](DuplicateProgress::Phase phase, std::atomic<size_t>& done, size_t count, size_t total,
                      std::int64_t moreBytes) {
        bytesRead.fetch_add(moreBytes);
        auto now = done.fetch_add(count) + count;
        if (!progress || (now != count && now / 64 == (now - count) / 64 && now != total)) return;
        std::lock_guard hold(progressMutex);
        if (shown.phase == phase && shown.done > now) return;
        shown = {phase, now, total, bytesRead.load()};
        progress(shown);
    };
    // Runs `work` on every core, this thread among them; each takes its next share from `next`.
    auto everyCore = [&](size_t shares, const std::function<void(std::atomic<size_t> & next)>& work,
                         size_t width = 0) {
        std::atomic<size_t> next{0};
        auto helpers = std::min<size_t>((width ? width : threads) - 1, shares / 2);
        std::vector<std::jthread> pool;
        for (size_t t = 0; t < helpers; ++t)
            pool.emplace_back([&] { work(next); });
        work(next);
    };

    // 1. Records, read only for files the catalog says share a size with another: a size alone in the
    //    library cannot have a copy, whatever the file holds now. A walk lists a folder's files
    //    together, so each run of them is looked at through one open folder rather than by walking
    //    every path from the root again.
    const SizeGroups listed(candidates.size(), [&](size_t i) {
        return candidates[i].size >= options_.smallestSize ? candidates[i].size : -1;
    });
    std::vector<size_t> wanted;
    wanted.reserve(candidates.size());
    for (size_t i = 0; i < candidates.size(); ++i)
        if (listed.shared(i)) wanted.push_back(i);
    std::vector<std::pair<size_t, size_t>> runs; // [begin, end) of `wanted` in one folder
    for (size_t begin = 0; begin < wanted.size();) {
        auto folder = folderOf(candidates[wanted[begin]].path);
        auto end = begin + 1;
        while (end < wanted.size() && folderOf(candidates[wanted[end]].path) == folder)
            ++end;
        runs.emplace_back(begin, end);
        begin = end;
    }
    // Recorded in place, then the files that are not worth a look are dropped: a second list of every
    // status cost a few mebibytes of fresh memory, which a one-shot run pays for by the page.
    constexpr auto notSeen = std::numeric_limits<size_t>::max();
    std::vector<Seen> seen(wanted.size(), Seen{notSeen, {}, {}});
    const auto cores = std::max(1u, std::thread::hardware_concurrency());
    // Warm, a status is a few microseconds of the processor, and two threads a core keep the cores
    // busy; more only crowded out the cache being read beside them (on the 50,000-file corpus, an
    // unchanged rescan took 15% longer with eight a core). Cold, each waits on the disk, which
    // answers sooner the more it is asked at once (eight a core: 1.4x faster). A few statuses asked
    // first, spread over the list, tell which it is.
    auto recordWidth = [&]() -> size_t {
        constexpr size_t probes = 16;
        constexpr auto warmStatus = std::chrono::microseconds(25);
        if (options_.threads > 0 || wanted.size() < 4 * probes) return threads;
        const auto began = std::chrono::steady_clock::now();
        for (size_t p = 0; p < probes; ++p)
            fileStatusAt(AT_FDCWD, std::string(candidates[wanted[p * wanted.size() / probes]].path).c_str());
        const bool warm = std::chrono::steady_clock::now() - began < probes * warmStatus;
        return warm ? std::min<size_t>(threads, 2 * cores) : threads;
    };
    std::atomic<size_t> recorded{0};
    everyCore(
        runs.size(),
        [&](std::atomic<size_t>& next) {
            FolderHandle folder;
            while (!shouldStop()) {
                auto k = next.fetch_add(1);
                if (k >= runs.size()) break;
                auto [begin, end] = runs[k];
                for (auto i = begin; i < end; ++i) {
                    auto [at, name] = folder.beneath(candidates[wanted[i]].path);
                    auto status = fileStatusAt(at, name);
                    if (status && status->isRegular && status->size >= options_.smallestSize)
                        seen[i] = {wanted[i], *status, {}};
                }
                report(DuplicateProgress::Phase::recording, recorded, end - begin, wanted.size(), 0);
            }
        },
        recordWidth());
    std::erase_if(seen, [&](const Seen& s) { return s.candidate == notSeen; });
    auto pathOf = [&](size_t i) { return candidates[seen[i].candidate].path; };
    // The cache may have been read meanwhile (readCacheAhead). Each file's place in it is looked up
    // once, on every core, rather than once a stage on this thread: in an unchanged rescan the
    // look-ups are most of what is left after the statx.
    loadCache();
    constexpr size_t lookUpShare = 1024;
    everyCore((seen.size() + lookUpShare - 1) / lookUpShare,
              [&](std::atomic<size_t>& next) {
                  std::vector<std::string_view> paths;
                  std::vector<FingerprintCache::Place> places;
                  for (size_t begin; (begin = next.fetch_add(1) * lookUpShare) < seen.size();) {
                      auto end = std::min(begin + lookUpShare, seen.size());
                      paths.clear();
                      for (auto i = begin; i < end; ++i)
                          paths.push_back(pathOf(i));
                      places.resize(paths.size());
                      cache_.place(paths, places);
                      for (auto i = begin; i < end; ++i)
                          seen[i].kept = places[i - begin];
                  }
              },
              cores);

    // 2. Size groups of at least two distinct files (two names of one file are not two copies).
    std::vector<Bucket> buckets;
    {
        const SizeGroups bySize(seen.size(), [&](size_t i) { return seen[i].status.size; });
        // Each group's room made first: grown one file at a time, tens of thousands of small groups
        // were each allocated two or three times over.
        std::vector<Bucket> groups(bySize.groups());
        for (std::uint32_t g = 0; g < groups.size(); ++g)
            if (bySize.members(g) >= 2) groups[g].reserve(bySize.members(g));
        for (size_t i = 0; i < seen.size(); ++i)
            if (bySize.shared(i)) groups[bySize.groupOf(i)].push_back(i);
        for (auto& bucket : groups)
            if (bucket.size() >= 2 && distinctFiles(bucket, seen) >= 2) {
                out.candidates += static_cast<int>(bucket.size());
                buckets.push_back(std::move(bucket));
            }
    }

    // 3-6. Sample hashes split the size groups, then full hashes split what is left. Each distinct file
    //      is hashed once, in inode order, which on most file systems follows the disk. Hashing runs
    //      on eight threads a core: warm, SHA-256 is the cost and they share it; cold, most of them
    //      wait on the disk, which is faster the more reads it is given at once (on the 50,000-file
    //      corpus, cold: 1.25x faster than with two threads a core, warm: the same within noise).
    //      The cache is consulted before and written after, on this thread.
    std::vector<std::optional<Digest>> digests(seen.size());
    // One reader and one small-file hasher per hashing thread, kept from the sample pass to the
    // whole-file pass: a fresh 1 MiB buffer is a few hundred page faults before the first byte is read.
    struct Hashers {
        std::optional<FingerprintReader> reader;
        std::optional<SmallFileHasher> small;
        std::int64_t bytesRead() const {
            return (reader ? reader->bytesRead() : 0) + (small ? small->bytesRead() : 0);
        }
    };
    std::vector<Hashers> hashers(threads);
    // Warm, eight threads a core only take turns at SHA-256 and push each other's buffers out of the
    // processor's caches (on the 50,000-file corpus, 10% more processor time than two a core, which
    // cost no more than one and keep a core busy while a thread meets the odd page not in memory);
    // cold, they keep the disk busy. A few of the files about to be read, spread over the list, tell
    // which it is: if nearly every page they need is in memory, so are most of the others'. Not
    // every page: a scan lets go of the pages it brought in, so a file read once with a page missing
    // stays that way, and "every page" judged most warm homes cold.
    auto widthFor = [&](HashMode mode, std::span<const size_t> firstNames) -> size_t {
        if (options_.threads > 0 || firstNames.size() < 2 * cores) return threads;
        constexpr size_t probes = 16;
        double inMemory = 0, needed = 0;
        for (size_t p = 0; p < probes; ++p) {
            auto i = firstNames[p * firstNames.size() / probes];
            const auto& status = seen[i].status;
            auto opened = openUserEntry(AT_FDCWD, std::string(pathOf(i)).c_str(), O_RDONLY | O_NONBLOCK);
            if (!opened) return threads;
            auto ranges = mode == HashMode::full || status.size <= wholeInOneReadBytes
                              ? std::vector<ByteRange>{{0, status.size}}
                              : sampleRanges(status.size);
            for (auto [offset, length] : ranges) {
                auto share = residentShare(opened->get(), offset, length);
                if (!share) return threads;
                inMemory += *share * static_cast<double>(length);
                needed += static_cast<double>(length);
            }
        }
        // A few pages from the disk here and there are waits the second thread a core covers.
        return inMemory >= 0.95 * needed ? std::min<size_t>(threads, 2 * cores) : threads;
    };
    auto refine = [&](HashMode mode, DuplicateProgress::Phase phase) {
        // Each file with its names among the seen. Names of one file share its size, so they are
        // found within each size group: one sort of every name was most of an unchanged rescan's
        // time in this step, where nothing is left to read.
        size_t grouped = 0;
        for (const auto& bucket : buckets)
            grouped += bucket.size();
        std::vector<std::pair<FileNumber, size_t>> byNumber;
        std::vector<std::pair<size_t, size_t>> files; // [begin, end) of byNumber: one file's names
        byNumber.reserve(grouped);
        files.reserve(grouped);
        for (const auto& bucket : buckets) {
            const auto first = byNumber.size();
            for (auto i : bucket)
                byNumber.emplace_back(seen[i].status.number, i);
            std::sort(byNumber.begin() + static_cast<std::ptrdiff_t>(first), byNumber.end());
            for (auto begin = first; begin < byNumber.size();) {
                auto end = begin + 1;
                while (end < byNumber.size() && byNumber[end].first == byNumber[begin].first)
                    ++end;
                files.emplace_back(begin, end);
                begin = end;
            }
        }
        std::ranges::fill(digests, std::nullopt);
        std::vector<std::pair<size_t, size_t>> toHash;
        for (auto [begin, end] : files) {
            const auto& asRecorded = seen[byNumber[begin].second].status;
            std::optional<Digest> known;
            auto from = end; // the name the kept hash was found under
            for (auto k = begin; k < end && !known; ++k)
                if (auto* kept =
                        cache_.valid(pathOf(byNumber[k].second), asRecorded, seen[byNumber[k].second].kept)) {
                    known = mode == HashMode::sample ? kept->sample : kept->full;
                    from = k;
                }
            if (!known) {
                toHash.emplace_back(begin, end);
                continue;
            }
            for (auto k = begin; k < end; ++k) {
                digests[byNumber[k].second] = known;
                if (k != from) cache_.store(pathOf(byNumber[k].second), asRecorded, mode, *known);
            }
        }

        std::vector<std::optional<Digest>> made(toHash.size());
        // A file whose slices cover all of it is read once; a one-slice file's whole-file hash is made
        // from the same read, and taken from the cache like any kept one if its sample is shared.
        std::vector<std::optional<Digest>> madeWhole(mode == HashMode::sample ? toHash.size() : 0);
        std::atomic<size_t> done{files.size() - toHash.size()};
        std::atomic<size_t> slots{0};
        std::vector<size_t> firstNames;
        firstNames.reserve(toHash.size());
        for (auto [begin, end] : toHash)
            firstNames.push_back(byNumber[begin].second);
        const auto width = widthFor(mode, firstNames);
        // Warm, every sample goes through the small-file hasher, a batch of reads at a time; cold, only
        // the files read whole, the others slice by slice as they come.
        auto isSmall = [&](const std::pair<size_t, size_t>& names) {
            return mode == HashMode::sample &&
                   (width < threads || seen[byNumber[names.first].second].status.size <= wholeInOneReadBytes);
        };
        // Cold, in inode order. Warm, the disk's order no longer matters, and the catalog's order (a
        // folder at a time) lets a thread open a run of files beneath one handle on their folder. In
        // inode order a thread met a new folder at nearly every file on a home whose files were not
        // made a folder at a time.
        if (width == threads) {
            std::ranges::sort(toHash, {}, [&](const auto& names) { return byNumber[names.first].first; });
        } else {
            // Whole files are hashed two at a time, and two of one size take every step together:
            // copies share a size, so by size first, the largest first so that no thread is left
            // with a big pair while the others have finished.
            auto catalogOrder = [&](const auto& names) { return byNumber[names.first].second; };
            if (mode == HashMode::full)
                std::ranges::sort(toHash, {}, [&](const auto& names) {
                    return std::pair(-seen[byNumber[names.first].second].status.size, catalogOrder(names));
                });
            else
                std::ranges::sort(toHash, {}, catalogOrder);
        }
        // Small files are read whole and hashed by one kind of hasher, the others slice by slice by
        // another: each kind in a pass of its own, in the order above.
        const auto smallEnd =
            static_cast<size_t>(std::ranges::stable_partition(toHash, isSmall).begin() - toHash.begin());
        auto hashShare = [&](size_t from, size_t to, bool small) {
            if (from == to) return;
            slots = 0;
            everyCore(
                to - from,
                [&](std::atomic<size_t>& next) {
                    // Each made when first needed: a reader's buffers are 2 MiB, and many threads meet
                    // only small files or only large ones.
                    auto& mine = hashers[slots.fetch_add(1)];
                    std::int64_t reported = mine.bytesRead();
                    auto settle = [&](size_t k, std::expected<Digest, FingerprintReader::Miss> result) {
                        if (result) {
                            made[k] = *result;
                        } else if (result.error() == FingerprintReader::Miss::pastDeadline ||
                                   result.error() == FingerprintReader::Miss::cancelled) {
                            stopped = true;
                        } else if (result.error() != FingerprintReader::Miss::notRegular) {
                            // Unreadable, or changed under the scan: its copies, if any, are not known.
                            missed.fetch_add(1);
                        }
                        auto readNow = mine.bytesRead();
                        report(phase, done, 1, files.size(), readNow - reported);
                        reported = readNow;
                    };
                    // In inode order files mostly come a folder at a time, so each thread opens them
                    // beneath a handle on their folder (a file is opened before the next is asked for).
                    // Warm, each thread takes runs of sixteen samples, or whole files by the pair so
                    // that the largest are spread over the threads; cold, runs of one keep every
                    // thread's next read close to the others' on the disk.
                    FolderHandle folder;
                    const size_t run = width == threads ? 1 : mode == HashMode::full ? 2 : 16;
                    size_t k = 0, runEnd = 0;
                    auto pull = [&]() -> std::optional<FingerprintReader::Job> {
                        if (shouldStop()) return std::nullopt;
                        if (k == runEnd) {
                            k = std::min(from + next.fetch_add(run), to);
                            runEnd = std::min(k + run, to);
                        }
                        if (k == to) return std::nullopt;
                        const auto first = byNumber[toHash[k].first].second;
                        const auto& status = seen[first].status;
                        auto [dirFd, name] = folder.beneath(pathOf(first));
                        return FingerprintReader::Job{
                            k++, {dirFd, name, {status.number, status.size, status.modified}}};
                    };
                    if (small) {
                        if (!mine.small) mine.small.emplace();
                        // Warm, the system calls are most of a small file's cost, and a batch
                        // shares them; cold, a batch would wait for its slowest read.
                        const auto reads = width < threads ? SmallFileHasher::Reads::inBatches
                                                           : SmallFileHasher::Reads::oneByOne;
                        mine.small->hashEach(
                            pull,
                            [&](size_t k, auto both) {
                                if (!both) return settle(k, std::unexpected(both.error()));
                                madeWhole[k] = both->full;
                                settle(k, both->sample);
                            },
                            reads);
                    } else {
                        if (!mine.reader) mine.reader.emplace(clock, deadline, &cancel);
                        mine.reader->hashEach(mode, pull, settle);
                    }
                },
                width);
        };
        hashShare(0, smallEnd, true);
        hashShare(smallEnd, toHash.size(), false);
        // Room for every name at once rather than by doubling as they come: in a first scan each is
        // new to the cache. The whole-file pass stores under names the sample pass has just kept.
        if (mode == HashMode::sample) {
            size_t names = 0;
            for (auto [begin, end] : toHash)
                names += end - begin;
            cache_.reserve(names);
        }
        for (size_t k = 0; k < toHash.size(); ++k) {
            if (!made[k]) continue;
            auto [begin, end] = toHash[k];
            const auto& asRecorded = seen[byNumber[begin].second].status;
            for (auto n = begin; n < end; ++n) {
                digests[byNumber[n].second] = made[k];
                cache_.store(pathOf(byNumber[n].second), asRecorded, mode, *made[k]);
                if (!madeWhole.empty() && madeWhole[k])
                    cache_.store(pathOf(byNumber[n].second), asRecorded, HashMode::full, *madeWhole[k]);
            }
        }

        // Split each group by digest; a group cut short by the deadline keeps only what was hashed.
        // Sorted in place rather than gathered in a map a group: tens of thousands of small groups
        // made a node and a list for every file.
        std::vector<Bucket> next;
        std::vector<size_t> hashed;
        for (const auto& bucket : buckets) {
            hashed.clear();
            for (auto i : bucket)
                if (digests[i]) hashed.push_back(i);
            // A group's files are in the order they were seen; ties keep it.
            std::ranges::sort(hashed, [&](size_t a, size_t b) {
                if (*digests[a] != *digests[b]) return *digests[a] < *digests[b];
                return a < b;
            });
            for (size_t begin = 0; begin < hashed.size();) {
                auto end = begin + 1;
                while (end < hashed.size() && *digests[hashed[end]] == *digests[hashed[begin]])
                    ++end;
                if (end - begin >= 2) {
                    Bucket part(hashed.begin() + static_cast<std::ptrdiff_t>(begin),
                                hashed.begin() + static_cast<std::ptrdiff_t>(end));
                    if (distinctFiles(part, seen) >= 2) next.push_back(std::move(part));
                }
                begin = end;
            }
        }
        buckets = std::move(next);
    };
    refine(HashMode::sample, DuplicateProgress::Phase::sampling);
    if (!stopped) {
        refine(HashMode::full, DuplicateProgress::Phase::hashing);
    } else {
        buckets.clear(); // equal samples alone prove nothing
    }

    std::vector<std::pair<DuplicateGroup, DuplicateSharing>> found;
    found.reserve(buckets.size());
    std::map<std::int32_t, bool> deviceShares;
    std::vector<Record> copies;
    for (const auto& bucket : buckets) {
        const auto& first = seen[bucket.front()].status;
        DuplicateGroup group{hexOf(*digests[bucket.front()]), first.size, {}};
        group.items.reserve(bucket.size());
        copies.clear();
        for (auto i : bucket) {
            const auto& s = seen[i].status;
            auto item = itemOf(candidates[seen[i].candidate].source);
            item.size = s.size;
            copies.push_back(Record{std::string(pathOf(i)),
                                    {item.name},
                                    s.number,
                                    s.size,
                                    s.allocated,
                                    0,
                                    s.links,
                                    0,
                                    false,
                                    false,
                                    s.modified,
                                    s.born});
            group.items.push_back(std::move(item));
        }
        std::ranges::sort(group.items, {}, &FileItem::path);
        readSharing(copies, deviceShares);
        auto sharing = sharingOf(group.fingerprint, group.size, copies);
        found.emplace_back(std::move(group), std::move(sharing));
    }
    // Most space first; ties in a stable order. Sorted by place, so no group or fingerprint is copied
    // for a comparison.
    std::vector<size_t> order(found.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::ranges::sort(order, [&](size_t a, size_t b) {
        const auto &x = found[a], &y = found[b];
        if (x.second.freeable != y.second.freeable) return x.second.freeable > y.second.freeable;
        return x.first.fingerprint < y.first.fingerprint;
    });
    out.groups.reserve(found.size());
    out.sharing.reserve(found.size());
    for (auto i : order) {
        out.groups.push_back(std::move(found[i].first));
        out.sharing.push_back(std::move(found[i].second));
    }

    out.missed = missed.load();
    out.isComplete = !stopped && out.missed == 0;
    std::vector<std::string> notes;
    if (stopped)
        notes.push_back(
            cancel.isCancelled()
                ? std::string(stoppedNote)
                : fillIn(
                      timeLimitNote,
                      {{"seconds",
                        std::to_string(
                            std::chrono::duration_cast<std::chrono::seconds>(options_.timeLimit).count())}}));
    if (out.missed > 0) notes.push_back(fillIn(filesMissedNote, {{"count", groupedCount(out.missed)}}));
    // Every path the cache was asked about is a candidate's, so when none was left unasked there is
    // nothing to drop, and no set of every candidate's path to build.
    if (!stopped && cache_.unasked() > 0) {
        std::unordered_set<std::string_view> paths;
        paths.reserve(candidates.size());
        for (const auto& c : candidates)
            paths.insert(c.path);
        cache_.keepOnly(paths);
    }
    if (auto saved = cache_.save(); !saved)
        notes.push_back(fillIn(cacheNotSaved, {{"reason", saved.error()}}));
    for (const auto& n : notes)
        out.note = out.note ? *out.note + " " + n : n;
    out.bytesRead = bytesRead.load();
    out.seconds = std::chrono::duration<double>(options_.clock() - started).count();
    // A copy of every group and item: only made when it may be given again.
    if (options_.freshness > std::chrono::milliseconds::zero()) {
        latest_ = out;
        changesBeforeLatest_ = changesAtStart;
    }
    return out;
}

} // namespace vantle
