#include "VantleLibrary/Duplicates.h"

#include "Platform/SharedExtents.h"
#include "Platform/UniqueFd.h"
#include "VantleLibrary/FingerprintReader.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <fcntl.h>
#include <map>
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
            UniqueFd fd(::open(r.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
            if (!fd) continue;
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
    FingerprintReader reader(options_.clock, deadline, &cancel);
    std::vector<std::optional<Digest>> digests(records.size());
    auto refine = [&](HashMode mode, DuplicateProgress::Phase phase) {
        std::map<FileNumber, std::vector<size_t>> work; // file -> its names among the records
        for (const auto& bucket : buckets)
            for (auto i : bucket)
                work[records[i].number].push_back(i);
        std::ranges::fill(digests, std::nullopt);
        size_t done = 0;
        for (const auto& [number, names] : work) {
            if (shouldStop()) break;
            const auto& first = records[names.front()];
            FileStatus asRecorded{true,           first.number, first.size,     first.allocated,
                                  first.modified, first.born,   first.linkCount};
            std::optional<Digest> digest;
            for (auto i : names)
                if (auto* kept = cache_.valid(records[i].path, asRecorded)) {
                    auto& known = mode == HashMode::sample ? kept->sample : kept->full;
                    if (known) digest = known;
                    if (digest) break;
                }
            if (!digest) {
                auto made = reader.hash(first.path, {first.number, first.size, first.modified}, mode);
                if (made) {
                    digest = *made;
                } else if (made.error() == FingerprintReader::Miss::pastDeadline ||
                           made.error() == FingerprintReader::Miss::cancelled) {
                    stopped = true;
                    break;
                }
            }
            if (digest)
                for (auto i : names) {
                    digests[i] = digest;
                    cache_.store(records[i].path, asRecorded, mode, *digest);
                }
            report(phase, ++done, work.size(), reader.bytesRead());
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

    out.isComplete = !stopped;
    if (out.isComplete) {
        std::unordered_set<std::string> paths;
        for (const auto& item : items)
            paths.insert(item.path);
        cache_.keepOnly(paths);
    }
    if (auto saved = cache_.save(); !saved) out.note = fillIn(cacheNotSaved, {{"reason", saved.error()}});
    out.bytesRead = reader.bytesRead();
    out.seconds = std::chrono::duration<double>(options_.clock() - started).count();
    latest_ = out;
    changesBeforeLatest_ = changesAtStart;
    return out;
}

} // namespace vantle
