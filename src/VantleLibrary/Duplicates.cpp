#include "VantleLibrary/Duplicates.h"

#include "Platform/SharedExtents.h"
#include "Platform/UserEntryOpen.h"
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/FingerprintReader.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace vantle {

namespace {

using Bucket = std::vector<size_t>; // indices of records that may still be copies of each other

size_t distinctFiles(const Bucket& bucket, const std::vector<Duplicates::Record>& records) {
    std::vector<FileNumber> numbers;
    for (auto i : bucket)
        numbers.push_back(records[i].number);
    std::ranges::sort(numbers);
    return static_cast<size_t>(std::ranges::distance(numbers.begin(), std::ranges::unique(numbers).begin()));
}

// Fills in the clone fields. Only file systems that can share blocks are asked for extent maps, and
// whether one can is asked once per device.
void readSharing(std::vector<Duplicates::Record>& records, const std::vector<Bucket>& buckets) {
    std::map<std::int32_t, bool> deviceShares;
    for (const auto& bucket : buckets)
        for (auto i : bucket) {
            auto& r = records[i];
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
    std::map<FileNumber, std::vector<std::string>> names;
    std::map<FileNumber, const Record*> files;
    for (const auto& r : copies) {
        names[r.number].push_back(r.path);
        files.emplace(r.number, &r);
    }
    for (auto& [number, paths] : names)
        if (paths.size() > 1) {
            std::ranges::sort(paths);
            sharing.hardLinks.push_back(paths);
        }
    // Copies whose blocks are all shared from one place are one clone family: removing every member
    // of a family frees a copy's size, removing some of them frees only their own blocks.
    std::map<std::uint64_t, int> families;
    int standalone = 0;
    for (auto& [number, file] : files) {
        if (!file->sharesAllBlocks || file->cloneID == 0) {
            ++standalone;
            continue;
        }
        for (const auto& path : names[number])
            sharing.clones.push_back(path);
        if (families[file->cloneID]++ > 0) sharing.freeable += file->privateSize;
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
                               const std::function<void(const DuplicateProgress&)>& progress) {
    std::lock_guard lock(mutex_);
    const auto changesAtStart = changes_.load();
    const auto started = options_.clock();
    const auto deadline = started + options_.timeLimit;
    DuplicateScan out;
    out.at = toMilliseconds(started); // the precision a stored scan keeps
    cache_.load();

    bool stopped = false;
    std::atomic<int> missed{0}; // candidates that could not be read, or changed while being read
    const auto threads =
        options_.threads > 0 ? options_.threads : std::max(1u, std::thread::hardware_concurrency());
    auto shouldStop = [&] {
        if (!stopped && (cancel.isCancelled() || options_.clock() > deadline)) stopped = true;
        return stopped;
    };
    auto report = [&](DuplicateProgress::Phase phase, size_t done, size_t total, std::int64_t bytes) {
        if (progress) progress({phase, done, total, bytes});
    };

    // 1. Records, read only for files the catalog says share a size with another: a size alone in the
    //    library cannot have a copy, whatever the file holds now.
    std::unordered_map<std::int64_t, int> listedSizes;
    for (const auto& item : items)
        if (item.size >= options_.smallestSize) ++listedSizes[item.size];
    std::vector<Record> records;
    std::vector<size_t> itemOf;
    for (size_t i = 0; i < items.size() && !shouldStop(); ++i) {
        const auto& item = items[i];
        if (item.size < options_.smallestSize || listedSizes[item.size] < 2) continue;
        auto status = fileStatus(item.path);
        if (!status || !status->isRegular || status->size < options_.smallestSize) continue;
        Record r;
        r.path = item.path;
        r.names = {item.name};
        r.number = status->number;
        r.size = status->size;
        r.allocated = status->allocated;
        r.linkCount = status->links;
        r.modified = status->modified;
        r.born = status->born;
        records.push_back(std::move(r));
        itemOf.push_back(i);
        if (records.size() % 256 == 0) report(DuplicateProgress::Phase::recording, i + 1, items.size(), 0);
    }

    // 2. Size groups of at least two distinct files (two names of one file are not two copies).
    std::vector<Bucket> buckets;
    {
        std::vector<size_t> order(records.size());
        for (size_t i = 0; i < order.size(); ++i)
            order[i] = i;
        std::ranges::stable_sort(order, {}, [&](size_t i) { return records[i].size; });
        for (size_t begin = 0; begin < order.size();) {
            size_t end = begin;
            while (end < order.size() && records[order[end]].size == records[order[begin]].size)
                ++end;
            Bucket bucket(order.begin() + begin, order.begin() + end);
            if (distinctFiles(bucket, records) >= 2) {
                out.candidates += static_cast<int>(bucket.size());
                buckets.push_back(std::move(bucket));
            }
            begin = end;
        }
    }
    readSharing(records, buckets);

    // 3-6. Sample hashes split the size groups, then full hashes split what is left. Each distinct file
    //      is hashed once, in inode order (the map's), which on most file systems follows the disk.
    //      Hashing runs on every core: warm, SHA-256 is the cost; cold, two reads in flight keep the
    //      disk busier than one. The cache is consulted before and written after, on this thread.
    std::mutex clockMutex; // an injected clock need not be safe to call from two threads
    Clock clock = [&] {
        std::lock_guard hold(clockMutex);
        return options_.clock();
    };
    std::mutex progressMutex;
    std::int64_t bytesRead = 0;
    std::vector<std::optional<Digest>> digests(records.size());
    auto refine = [&](HashMode mode, DuplicateProgress::Phase phase) {
        std::map<FileNumber, std::vector<size_t>> work; // file -> its names among the records
        for (const auto& bucket : buckets)
            for (auto i : bucket)
                work[records[i].number].push_back(i);
        std::ranges::fill(digests, std::nullopt);
        auto statusOf = [&](const Record& r) {
            return FileStatus{true, r.number, r.size, r.allocated, r.modified, r.born, r.linkCount};
        };
        std::vector<const std::vector<size_t>*> toHash;
        for (const auto& [number, names] : work) {
            auto asRecorded = statusOf(records[names.front()]);
            std::optional<Digest> known;
            for (auto i : names)
                if (auto* kept = cache_.valid(records[i].path, asRecorded)) {
                    known = mode == HashMode::sample ? kept->sample : kept->full;
                    if (known) break;
                }
            if (!known) {
                toHash.push_back(&names);
                continue;
            }
            for (auto i : names) {
                digests[i] = known;
                cache_.store(records[i].path, asRecorded, mode, *known);
            }
        }

        std::vector<std::optional<Digest>> made(toHash.size());
        std::atomic<size_t> nextFile{0};
        std::atomic<bool> stop{stopped};
        size_t done = work.size() - toHash.size();
        auto hashSome = [&] {
            FingerprintReader reader(clock, deadline, &cancel);
            std::int64_t reported = 0;
            while (!stop.load()) {
                if (cancel.isCancelled() || clock() > deadline) {
                    stop = true;
                    break;
                }
                auto k = nextFile.fetch_add(1);
                if (k >= toHash.size()) break;
                const auto& first = records[toHash[k]->front()];
                auto result = reader.hash(first.path, {first.number, first.size, first.modified}, mode);
                if (result) {
                    made[k] = *result;
                } else if (result.error() == FingerprintReader::Miss::pastDeadline ||
                           result.error() == FingerprintReader::Miss::cancelled) {
                    stop = true;
                } else if (result.error() != FingerprintReader::Miss::notRegular) {
                    // Unreadable, or changed under the scan: its copies, if any, are not known.
                    missed.fetch_add(1);
                }
                std::lock_guard hold(progressMutex);
                bytesRead += reader.bytesRead() - reported;
                reported = reader.bytesRead();
                ++done;
                report(phase, done, work.size(), bytesRead);
            }
        };
        auto helpers = std::min<size_t>(threads > 0 ? threads - 1 : 0, toHash.size() / 2);
        {
            std::vector<std::jthread> pool;
            for (size_t t = 0; t < helpers; ++t)
                pool.emplace_back(hashSome);
            hashSome();
        }
        if (stop.load()) stopped = true;
        for (size_t k = 0; k < toHash.size(); ++k) {
            if (!made[k]) continue;
            auto asRecorded = statusOf(records[toHash[k]->front()]);
            for (auto i : *toHash[k]) {
                digests[i] = made[k];
                cache_.store(records[i].path, asRecorded, mode, *made[k]);
            }
        }

        // Split each group by digest; a group cut short by the deadline keeps only what was hashed.
        std::vector<Bucket> next;
        for (const auto& bucket : buckets) {
            std::map<Digest, Bucket> byDigest;
            for (auto i : bucket)
                if (digests[i]) byDigest[*digests[i]].push_back(i);
            for (auto& [digest, part] : byDigest)
                if (distinctFiles(part, records) >= 2) next.push_back(std::move(part));
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
    for (const auto& bucket : buckets) {
        const auto& first = records[bucket.front()];
        DuplicateGroup group{hexOf(*digests[bucket.front()]), first.size, {}};
        for (auto i : bucket) {
            auto item = items[itemOf[i]];
            item.size = records[i].size;
            group.items.push_back(std::move(item));
        }
        std::ranges::sort(group.items, {}, &FileItem::path);
        std::vector<Record> copies;
        for (auto i : bucket)
            copies.push_back(records[i]);
        auto sharing = sharingOf(group.fingerprint, group.size, copies);
        found.emplace_back(std::move(group), std::move(sharing));
    }
    // Most space first; ties in a stable order.
    std::ranges::sort(found, {},
                      [](const auto& f) { return std::pair(-f.second.freeable, f.first.fingerprint); });
    for (auto& [group, sharing] : found) {
        out.groups.push_back(std::move(group));
        out.sharing.push_back(std::move(sharing));
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
    if (!stopped) {
        std::unordered_set<std::string> paths;
        for (const auto& item : items)
            paths.insert(item.path);
        cache_.keepOnly(paths);
    }
    if (auto saved = cache_.save(); !saved)
        notes.push_back(fillIn(cacheNotSaved, {{"reason", saved.error()}}));
    for (const auto& n : notes)
        out.note = out.note ? *out.note + " " + n : n;
    out.bytesRead = bytesRead;
    out.seconds = std::chrono::duration<double>(options_.clock() - started).count();
    latest_ = out;
    changesBeforeLatest_ = changesAtStart;
    return out;
}

} // namespace vantle
