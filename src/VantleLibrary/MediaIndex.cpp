#include "VantleLibrary/MediaIndex.h"

#include "Platform/AtomicFile.h"
#include "Platform/IoPriority.h"
#include "Platform/UniqueFd.h"
#include "Platform/UserEntryOpen.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <thread>

namespace vantle {

namespace {

constexpr std::string_view mediaMagic = "VLMEDIA1";

enum MediaPresent : std::uint8_t {
    mediaHasDate = 1,
    mediaHasMake = 2,
    mediaHasModel = 4,
    mediaHasDuration = 8
};

template <class T> void putRaw(std::string& out, T value) {
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}
void putMediaText(std::string& out, std::string_view text) {
    putRaw(out, static_cast<std::uint32_t>(text.size()));
    out.append(text);
}

struct MediaCursor {
    std::string_view rest;
    template <class T> bool get(T& value) {
        if (rest.size() < sizeof value) return false;
        std::memcpy(&value, rest.data(), sizeof value);
        rest.remove_prefix(sizeof value);
        return true;
    }
    bool text(std::string& out) {
        std::uint32_t n = 0;
        if (!get(n) || rest.size() < n) return false;
        out.assign(rest.substr(0, n));
        rest.remove_prefix(n);
        return true;
    }
};

std::optional<MediaIndex::Key> mediaKeyOf(int dirFd, const char* name) {
    struct statx st {};
    if (::statx(dirFd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC,
                STATX_TYPE | STATX_SIZE | STATX_MTIME | STATX_INO, &st) != 0 ||
        !S_ISREG(st.stx_mode))
        return std::nullopt;
    return MediaIndex::Key{
        static_cast<std::int64_t>(st.stx_size),
        static_cast<std::int64_t>(st.stx_mtime.tv_sec) * 1'000'000'000 + st.stx_mtime.tv_nsec, st.stx_ino};
}

void applyMedia(const MediaFacts& media, Facts& f) {
    f.contentCreated = media.contentCreated;
    f.cameraMake = media.cameraMake;
    f.cameraModel = media.cameraModel;
    f.duration = media.duration;
}

} // namespace

std::string MediaIndex::encode(const std::unordered_map<std::string, Entry>& entries) {
    std::string out(mediaMagic);
    putRaw(out, static_cast<std::uint64_t>(entries.size()));
    for (const auto& [path, e] : entries) {
        putMediaText(out, path);
        putRaw(out, e.key.size);
        putRaw(out, e.key.modified);
        putRaw(out, e.key.inode);
        const auto& m = e.facts;
        std::uint8_t present = (m.contentCreated ? mediaHasDate : 0) | (m.cameraMake ? mediaHasMake : 0) |
                               (m.cameraModel ? mediaHasModel : 0) | (m.duration ? mediaHasDuration : 0);
        putRaw(out, present);
        if (m.contentCreated)
            putRaw(out, static_cast<std::int64_t>(m.contentCreated->time_since_epoch().count()));
        if (m.cameraMake) putMediaText(out, *m.cameraMake);
        if (m.cameraModel) putMediaText(out, *m.cameraModel);
        if (m.duration) putRaw(out, *m.duration);
    }
    return out;
}

std::optional<std::unordered_map<std::string, MediaIndex::Entry>> MediaIndex::decode(std::string_view bytes) {
    if (!bytes.starts_with(mediaMagic)) return std::nullopt;
    MediaCursor c{bytes.substr(mediaMagic.size())};
    std::uint64_t count = 0;
    if (!c.get(count) || count > c.rest.size()) return std::nullopt;
    std::unordered_map<std::string, Entry> out;
    out.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        std::string path;
        Entry e;
        std::uint8_t present = 0;
        if (!c.text(path) || !c.get(e.key.size) || !c.get(e.key.modified) || !c.get(e.key.inode) ||
            !c.get(present))
            return std::nullopt;
        if (present & mediaHasDate) {
            std::int64_t at = 0;
            if (!c.get(at)) return std::nullopt;
            e.facts.contentCreated = TimePoint(TimePoint::duration(at));
        }
        if (present & mediaHasMake) {
            e.facts.cameraMake.emplace();
            if (!c.text(*e.facts.cameraMake)) return std::nullopt;
        }
        if (present & mediaHasModel) {
            e.facts.cameraModel.emplace();
            if (!c.text(*e.facts.cameraModel)) return std::nullopt;
        }
        if (present & mediaHasDuration) {
            double d = 0;
            if (!c.get(d)) return std::nullopt;
            e.facts.duration = d;
        }
        out.emplace(std::move(path), std::move(e));
    }
    if (!c.rest.empty()) return std::nullopt;
    return out;
}

void MediaIndex::load() {
    if (loaded_) return;
    loaded_ = true;
    if (!file_) return;
    auto bytes = readWholeFile(*file_);
    if (!bytes) return;
    // A damaged or foreign file is only a cache: the files are read again.
    if (auto entries = decode(*bytes)) entries_ = std::move(*entries);
}

void MediaIndex::Filled::applyTo(std::vector<Facts>& facts) const {
    for (const auto& [at, media] : found)
        if (at < facts.size()) applyMedia(media, facts[at]);
}

bool MediaIndex::Filled::carries() const {
    return std::ranges::any_of(found, [](const auto& each) { return each.second != MediaFacts{}; });
}

namespace {

// Looks at `files` (places in `facts`) on `workers` threads at idle disk priority, in runs of
// neighbours: the walk lists a folder's files together, so each run opens their folder once instead
// of looking up every full path. `look(share, at, folderFd, name)` sees each file; folderFd is -1
// when the folder could not be opened, and name is then the full path.
template <class Share, class Look>
std::vector<Share> inFolderRuns(const std::vector<Facts>& facts, const std::vector<std::size_t>& files,
                                unsigned workers, const CancelFlag& cancel, Look look) {
    constexpr std::size_t run = 256;
    std::atomic<std::size_t> cursor{0};
    auto work = [&](Share& share) {
        // Behind the walk, nobody waits on each file: the disk goes first to whatever someone does.
        IdleIoPriority idle;
        UniqueFd folder;
        std::string folderPath;
        for (std::size_t first; (first = cursor.fetch_add(run)) < files.size();) {
            if (cancel.isCancelled()) return;
            for (std::size_t i = first; i < std::min(first + run, files.size()); ++i) {
                const std::size_t at = files[i];
                const auto& path = facts[at].path;
                auto slash = path.rfind('/');
                if (slash == std::string::npos || slash == 0) continue;
                std::string_view parent(path.data(), slash);
                if (parent != folderPath) {
                    folderPath.assign(parent);
                    // A handle on the place alone: nothing is read through it, no time moves.
                    folder = UniqueFd(::open(folderPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
                }
                look(share, at, folder.get(), folder ? path.c_str() + slash + 1 : path.c_str());
            }
        }
    };
    std::vector<Share> shares(std::max(1u, workers));
    std::vector<std::jthread> threads;
    for (unsigned t = 1; t < shares.size() && t * run < files.size(); ++t)
        threads.emplace_back(work, std::ref(shares[t]));
    work(shares[0]);
    return shares;
}

} // namespace

std::optional<std::vector<std::pair<std::size_t, AttributeFacts>>>
MediaIndex::attributes(const std::vector<Facts>& facts, const CancelFlag& cancel, Progress* progress,
                       unsigned workers) {
    std::vector<std::size_t> files;
    files.reserve(facts.size());
    for (std::size_t at = 0; at < facts.size(); ++at)
        if (!facts[at].isFolder) files.push_back(at);
    if (progress) progress->toRead = files.size();
    using Found = std::vector<std::pair<std::size_t, AttributeFacts>>;
    auto shares = inFolderRuns<Found>(facts, files, workers, cancel,
                                      [&](Found& found, std::size_t at, int folder, const char* name) {
                                          auto read = attributesOf(folder, name, facts[at].path.c_str());
                                          if (!read.empty()) found.emplace_back(at, std::move(read));
                                          if (progress) ++progress->read;
                                      });
    if (cancel.isCancelled()) return std::nullopt;
    Found all;
    for (auto& found : shares)
        std::ranges::move(found, std::back_inserter(all));
    return all;
}

MediaIndex::Filled MediaIndex::fill(const std::vector<Facts>& facts, const CancelFlag& cancel,
                                    Progress* progress, unsigned workers) {
    load();
    std::vector<std::size_t> files;
    for (std::size_t at = 0; at < facts.size(); ++at)
        if (!facts[at].isFolder && mayCarryMediaFacts(facts[at].contentType)) files.push_back(at);
    if (progress) progress->toRead = files.size();

    struct Share {
        std::vector<std::pair<std::size_t, MediaFacts>> found;
        std::vector<std::pair<std::size_t, Entry>> entries; // every media file's entry, kept or read
        std::size_t kept = 0, read = 0;
    };
    // A file the media module could not be loaded to read is left for the next fill, as a stopped
    // fill leaves what it did not reach.
    std::atomic<bool> unread{false};
    // entries_ is only looked up while the workers run.
    auto shares = inFolderRuns<Share>(
        facts, files, workers, cancel, [&](Share& share, std::size_t at, int folder, const char* name) {
            const auto& f = facts[at];
            if (progress) ++progress->read;
            auto key = mediaKeyOf(folder < 0 ? AT_FDCWD : folder, name);
            if (!key) return;
            if (auto it = entries_.find(f.path); it != entries_.end() && it->second.key == *key) {
                share.found.emplace_back(at, it->second.facts);
                share.entries.emplace_back(at, it->second);
                ++share.kept;
                return;
            }
            // Non-blocking, so a pipe put where the file was cannot hold the reader up.
            auto fd = openUserEntry(folder < 0 ? AT_FDCWD : folder, name, O_RDONLY | O_NONBLOCK);
            if (!fd) return;
            auto read = readMediaFacts(fd->get(), f.name, f.contentType);
            if (!read) {
                unread = true;
                return;
            }
            Entry entry{*key, std::move(*read)};
            share.found.emplace_back(at, entry.facts);
            share.entries.emplace_back(at, std::move(entry));
            ++share.read;
        });

    Filled filled;
    const bool whole = !cancel.isCancelled() && !unread;
    std::unordered_map<std::string, Entry> next;
    for (auto& share : shares) {
        filled.kept += share.kept;
        filled.read += share.read;
        std::ranges::move(share.found, std::back_inserter(filled.found));
        for (auto& [at, entry] : share.entries)
            // A stopped fill adds what it read and forgets nothing: the rest is read next time.
            (whole ? next : entries_).insert_or_assign(facts[at].path, std::move(entry));
    }
    changed_ = changed_ || filled.read > 0;
    if (whole) {
        // Files no longer there (or no longer of a kind that carries these facts) are dropped.
        changed_ = changed_ || next.size() != entries_.size();
        entries_ = std::move(next);
    }
    filled.whole = whole;
    return filled;
}

std::expected<void, std::string> MediaIndex::keep() {
    if (!file_ || !changed_) return {};
    auto written = writeFileAtomicallyMakingFolder(*file_, encode(entries_), 0600);
    if (!written) return std::unexpected(fillIn(keepFailedSentence, {{"reason", written.error()}}));
    changed_ = false;
    return {};
}

} // namespace vantle
