#include "VantleLibrary/DiskWalk.h"

#include "Platform/BeneathOpen.h"
#include "Platform/DirectoryReader.h"
#include "Platform/EntryStatus.h"
#include "Platform/HugePages.h"
#include "Platform/UniqueFd.h"
#include "Platform/UserEntryOpen.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace vantle {

std::string groupedCount(std::int64_t count) {
    auto digits = std::to_string(count < 0 ? -count : count);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return count < 0 ? "-" + out : out;
}

std::optional<std::string> Reading::note() const {
    std::string text;
    switch (stop) {
    case Stop::finished:
        break;
    case Stop::entryLimit:
        text = fillIn(entryLimitSentence, {{"count", groupedCount(entries)}});
        break;
    case Stop::timeLimit:
        text = fillIn(timeLimitSentence, {{"seconds", std::to_string(std::lround(seconds))}});
        break;
    case Stop::cancelled:
        text = cancelledSentence;
        break;
    }
    if (!missedContents.empty()) {
        if (!text.empty()) text += ' ';
        text += missedContents.size() == 1
                    ? fillIn(missedOneSentence, {{"path", missedContents.front()}})
                    : fillIn(missedManySentence,
                             {{"count", groupedCount(static_cast<std::int64_t>(missedContents.size()))},
                              {"path", missedContents.front()}});
    }
    if (notKept) {
        if (!text.empty()) text += ' ';
        text += *notKept;
    }
    if (text.empty()) return std::nullopt;
    return text;
}

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::int64_t progressEvery = 4096;
constexpr std::int64_t clockEvery = 256;

// A folder waiting to be read. It is opened again from its root's descriptor, beneath it and
// without following a link, so the queue holds no descriptors however wide the tree is.
struct Folder {
    std::string path;     // absolute
    std::string relative; // beneath its root; empty for the root itself
    size_t root = 0;
    std::uint64_t device = 0;
    bool appsOnly = false; // an application folder shared with the system: only apps are taken
    bool isHome = false;   // the home's top level, where "Library" is left out
};

// What one worker found; merged when every worker is done. Facts are kept in fixed chunks rather
// than one growing vector: growing copies the whole list and briefly holds it twice, and the merge
// frees each chunk as it is moved, so a big home is never held more than once.
struct Share {
    static constexpr size_t chunk = 16384; // several large pages each
    std::vector<std::vector<Facts>> facts;
    std::vector<std::string> missed;
    size_t count = 0;

    void add(Facts&& f) {
        if (facts.empty() || facts.back().size() == chunk) {
            facts.emplace_back().reserve(chunk);
            adviseHugePages(facts.back().data(), chunk * sizeof(Facts));
        }
        facts.back().push_back(std::move(f));
        ++count;
    }
};

// Reads folders on a few threads from one shared queue: the walk spends its time in status and
// attribute calls, which run side by side in the kernel.
class Walker {
  public:
    Walker(const DiskWalk& walk, const CancelFlag& cancel, const DiskWalk::ProgressFn& progress)
        : walk_(walk), cancel_(cancel), progress_(progress), began_(walk.now()) {}

    DiskWalk::Outcome run() {
        const auto& home = walk_.scope.home;
        addRoot(home, Kind::home);
        addRoot(home / "Library" / "Mobile Documents", Kind::cloud);
        auto homePrefix = home.string() + "/";
        for (const auto& apps : walk_.scope.appFolders)
            // An application folder inside the home (a sandbox's Applications) is read with the home.
            if (apps != home && !apps.string().starts_with(homePrefix)) addRoot(apps, Kind::apps);

        auto threads = walk_.threads > 0
                           ? walk_.threads
                           : std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, 4);
        shares_.resize(static_cast<size_t>(threads));
        {
            std::vector<std::jthread> helpers;
            for (int i = 1; i < threads; ++i)
                helpers.emplace_back([this, i] { work(shares_[static_cast<size_t>(i)]); });
            work(shares_[0]);
        }

        DiskWalk::Outcome out;
        auto& reading = out.reading;
        reading.missedContents = std::move(rootsMissed_);
        size_t total = 0;
        for (const auto& share : shares_)
            total += share.count;
        out.snapshot.facts.reserve(total);
        adviseHugePages(out.snapshot.facts.data(), total * sizeof(Facts));
        for (auto& share : shares_) {
            for (auto& chunk : share.facts) {
                std::ranges::move(chunk, std::back_inserter(out.snapshot.facts));
                std::vector<Facts>().swap(chunk);
            }
            std::ranges::move(share.missed, std::back_inserter(reading.missedContents));
        }
        reading.stop = static_cast<Reading::Stop>(stop_.load());
        reading.entries = entries_.load();
        reading.seconds = std::chrono::duration<double>(walk_.now() - began_).count();
        reading.isComplete = reading.stop == Reading::Stop::finished && reading.missedContents.empty();
        out.snapshot.isWhole = reading.stop == Reading::Stop::finished;
        out.snapshot.at = began_;
        return out;
    }

  private:
    enum class Kind { home, cloud, apps };

    void addRoot(const std::filesystem::path& root, Kind kind) {
        auto fd = openFolder(root);
        auto status = fd ? statusOf(fd->get(), "") : std::unexpected(fd.error());
        if (!status) {
            // The cloud folder is absent on most machines, an application folder on some.
            bool absent = status.error() == ENOENT || status.error() == ENOTDIR;
            if (kind == Kind::home || !absent) rootsMissed_.push_back(root.string());
            return;
        }
        pending_.push_back(
            Folder{root.string(), "", roots_.size(), status->device, kind == Kind::apps, kind == Kind::home});
        roots_.push_back(std::move(*fd));
    }

    void work(Share& share) {
        Folder folder;
        std::vector<Folder> found;
        while (take(folder)) {
            read(folder, share, found);
            done(found);
        }
    }

    bool take(Folder& folder) {
        std::unique_lock lock(mutex_);
        queueChanged_.wait(lock, [&] { return !pending_.empty() || busy_ == 0 || stopped(); });
        if (pending_.empty() || stopped()) return false;
        folder = std::move(pending_.back());
        pending_.pop_back();
        ++busy_;
        return true;
    }

    void done(std::vector<Folder>& found) {
        {
            std::lock_guard lock(mutex_);
            for (auto& f : found)
                pending_.push_back(std::move(f));
            --busy_;
        }
        found.clear();
        queueChanged_.notify_all();
    }

    bool stopped() const {
        return stop_.load(std::memory_order_relaxed) != static_cast<int>(Reading::Stop::finished);
    }

    void setStop(Reading::Stop why) {
        int finished = static_cast<int>(Reading::Stop::finished);
        stop_.compare_exchange_strong(finished, static_cast<int>(why));
        std::lock_guard lock(mutex_); // so a worker about to wait cannot miss the news
        queueChanged_.notify_all();
    }

    // Counts one more entry, or stops the walk at a limit (the entry is then not counted).
    bool count(const std::string& folder) {
        if (stopped()) return false;
        if (cancel_.isCancelled()) {
            setStop(Reading::Stop::cancelled);
            return false;
        }
        auto n = entries_.fetch_add(1) + 1;
        if (n > walk_.entryLimit) {
            entries_.fetch_sub(1);
            setStop(Reading::Stop::entryLimit);
            return false;
        }
        if (n % clockEvery == 0 && walk_.now() >= walk_.deadline) {
            entries_.fetch_sub(1);
            setStop(Reading::Stop::timeLimit);
            return false;
        }
        if (progress_ && n % progressEvery == 0) {
            std::lock_guard lock(progressMutex_);
            progress_({n, files_.load(), folder});
        }
        // The last entry the limit allows is read, but the walk cannot know whether more followed:
        // a reading that reached its limit is partial.
        if (n == walk_.entryLimit) setStop(Reading::Stop::entryLimit);
        return true;
    }

    UniqueFd open(const Folder& folder, int& error) const {
        int rootFd = roots_[folder.root].get();
        if (folder.relative.empty()) {
            UniqueFd fd(openatNoAtime(rootFd, ".", folderFlags));
            error = fd ? 0 : errno;
            return fd;
        }
        // Listing a folder moves its access time unless opened without: the owner may ask that,
        // anyone else's folder is listed as the kernel allows.
        auto fd = openBeneath(rootFd, folder.relative, folderFlags | O_NOATIME);
        if (!fd && fd.error() == EPERM) fd = openBeneath(rootFd, folder.relative, folderFlags);
        error = fd ? 0 : fd.error();
        return fd ? std::move(*fd) : UniqueFd();
    }

    void read(const Folder& folder, Share& share, std::vector<Folder>& found) {
        int error = 0;
        auto fd = open(folder, error);
        if (!fd) {
            if (error != ENOENT)
                share.missed.push_back(folder.path); // gone since it was listed: nothing missed
            return;
        }
        DirectoryReader reader(fd.get(), 32 * 1024);
        DirectoryReader::Entry entry;
        // A folder that can be listed but not searched (read without execute permission) names its
        // entries but tells nothing about them: what it holds is missed, once.
        bool missed = false;
        auto miss = [&](const std::string& path) {
            if (!std::exchange(missed, true)) share.missed.push_back(path);
        };
        while (reader.next(entry)) {
            if (entry.name.front() == '.') continue;
            if (folder.isHome && entry.name == "Library") continue;
            if (!count(folder.path)) return;

            // The listing's names end in a terminator, as the system calls want them.
            auto status = statusOf(fd.get(), entry.name.data());
            if (!status) {
                if (status.error() != ENOENT) miss(folder.path); // else gone since the listing
                continue;
            }
            bool isFolder = status->type == EntryStatus::Type::folder;
            if (!isFolder && status->type != EntryStatus::Type::file) continue; // links are never followed

            std::string path;
            path.reserve(folder.path.size() + 1 + entry.name.size());
            path.append(folder.path).append(1, '/').append(entry.name);
            auto facts = factsOf(std::move(path), entry.name, *status);
            const auto& name = facts.name;
            bool keep = !folder.appsOnly || facts.kind() == LibraryKind::apps;
            if (facts.isPackage) {
                if (keep && status->device == folder.device)
                    addUpBundle(fd.get(), name, status->device, facts, share);
            } else if (isFolder && status->device == folder.device) {
                found.push_back(Folder{facts.path,
                                       folder.relative.empty() ? name : folder.relative + "/" + name,
                                       folder.root, folder.device, folder.appsOnly, false});
            }
            if (!keep) continue;
            if (!isFolder) files_.fetch_add(1, std::memory_order_relaxed);
            share.add(std::move(facts));
        }
        if (reader.error() != 0) miss(folder.path);
    }

    // An app bundle is one item: its size is its files' sizes summed. Read here, on this worker.
    // Another disk mounted inside the bundle is not the bundle's: its files are not added, as the
    // walk never looks into another disk. What could not be read leaves the size short and is missed.
    void addUpBundle(int parentFd, const std::string& name, std::uint64_t device, Facts& bundle,
                     Share& share) {
        struct Level {
            UniqueFd fd;
            std::unique_ptr<DirectoryReader> reader; // reads fd; declared after it so it ends first
            std::string path;
        };
        std::vector<Level> stack;
        bool missed = false;
        auto miss = [&](const std::string& path) {
            if (!std::exchange(missed, true)) share.missed.push_back(path);
        };
        auto enter = [&](int at, const std::string& child, std::string path) {
            UniqueFd fd(openatNoAtime(at, child.c_str(), folderFlags));
            if (!fd) {
                if (errno != ENOENT) miss(path);
                return;
            }
            auto reader = std::make_unique<DirectoryReader>(fd.get(), 16 * 1024);
            stack.push_back(Level{std::move(fd), std::move(reader), std::move(path)});
        };
        enter(parentFd, name, bundle.path);
        DirectoryReader::Entry entry;
        while (!stack.empty()) {
            auto& level = stack.back();
            if (!level.reader->next(entry)) {
                if (level.reader->error() != 0) miss(level.path);
                stack.pop_back();
                continue;
            }
            if (!count(bundle.path)) return;
            std::string child(entry.name);
            auto status = statusOf(level.fd.get(), child.c_str());
            if (!status) {
                if (status.error() != ENOENT) miss(level.path);
                continue;
            }
            if (status->type == EntryStatus::Type::file) {
                bundle.size += static_cast<std::int64_t>(status->sizeBytes);
                bundle.onDisk += static_cast<std::int64_t>(status->allocatedBytes);
            } else if (status->type == EntryStatus::Type::folder && status->device == device) {
                // `level` may move: not used after this
                enter(level.fd.get(), child, level.path + "/" + child);
            }
        }
    }

    const DiskWalk& walk_;
    const CancelFlag& cancel_;
    const DiskWalk::ProgressFn& progress_;
    const TimePoint began_;
    std::vector<UniqueFd> roots_;
    std::vector<std::string> rootsMissed_;
    std::vector<Share> shares_;

    std::mutex mutex_; // guards pending_ and busy_
    std::condition_variable queueChanged_;
    std::vector<Folder> pending_;
    int busy_ = 0; // workers reading a folder (and so perhaps about to add more)

    std::mutex progressMutex_; // progress is told one call at a time
    std::atomic<int> stop_{static_cast<int>(Reading::Stop::finished)};
    std::atomic<std::int64_t> entries_{0};
    std::atomic<std::int64_t> files_{0};
};

} // namespace

DiskWalk::Outcome DiskWalk::run(const CancelFlag& cancel, const ProgressFn& progress) const {
    return Walker(*this, cancel, progress).run();
}

} // namespace vantle
