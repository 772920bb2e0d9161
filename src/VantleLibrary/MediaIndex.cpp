#include "VantleLibrary/MediaIndex.h"

#include "Platform/AtomicFile.h"
#include "Platform/IoPriority.h"
#include "Platform/UserEntryOpen.h"
#include "VantleSpec/Sentence.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
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

std::optional<MediaIndex::Key> mediaKeyOf(const std::string& path) {
    struct statx st {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC,
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

MediaIndex::Filled MediaIndex::fill(const std::vector<Facts>& facts, const CancelFlag& cancel,
                                    Progress* progress, unsigned workers) {
    load();
    Filled filled;
    struct Job {
        std::size_t at;
        Key key;
        MediaFacts read;
        bool done = false;
    };
    std::vector<Job> jobs;
    std::unordered_map<std::string, Entry> next;
    bool whole = true;
    for (std::size_t at = 0; at < facts.size(); ++at) {
        const auto& f = facts[at];
        if (f.isFolder || !mayCarryMediaFacts(f.contentType)) continue;
        // The files' times are looked at again here; a stop between them must come quickly.
        if ((at & 1023) == 0 && cancel.isCancelled()) {
            whole = false;
            break;
        }
        auto key = mediaKeyOf(f.path);
        if (!key) continue;
        if (auto it = entries_.find(f.path); it != entries_.end() && it->second.key == *key) {
            filled.found.emplace_back(at, it->second.facts);
            next.emplace(f.path, it->second);
            ++filled.kept;
            continue;
        }
        jobs.push_back({at, *key, {}});
    }
    if (progress) progress->toRead = jobs.size();

    std::atomic<std::size_t> cursor{0};
    auto work = [&] {
        // Behind the walk, nobody waits on each file: the disk goes first to whatever someone does.
        IdleIoPriority idle;
        for (std::size_t i; (i = cursor.fetch_add(1)) < jobs.size();) {
            if (cancel.isCancelled()) return;
            auto& job = jobs[i];
            const auto& f = facts[job.at];
            // Non-blocking, so a pipe put where the file was cannot hold the reader up.
            auto fd = openUserEntry(AT_FDCWD, f.path.c_str(), O_RDONLY | O_NONBLOCK);
            if (!fd) continue;
            job.read = readMediaFacts(fd->get(), f.name, f.contentType);
            job.done = true;
            if (progress) ++progress->read;
        }
    };
    if (whole) {
        std::vector<std::jthread> threads;
        for (unsigned t = 1; t < std::max(1u, workers) && t < jobs.size(); ++t)
            threads.emplace_back(work);
        work();
    }
    whole = whole && !cancel.isCancelled();
    for (auto& job : jobs) {
        if (!job.done) continue;
        filled.found.emplace_back(job.at, job.read);
        const auto& path = facts[job.at].path;
        // A stopped fill adds what it read and forgets nothing: the rest is read next time.
        if (whole)
            next.insert_or_assign(path, Entry{job.key, std::move(job.read)});
        else
            entries_.insert_or_assign(path, Entry{job.key, std::move(job.read)});
        ++filled.read;
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
