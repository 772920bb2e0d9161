#include "VantleLibrary/MediaIndex.h"

#include "Platform/AtomicFile.h"
#include "Platform/UserEntryOpen.h"
#include "VantleSpec/Sentence.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

namespace vantle {

namespace {

constexpr std::string_view magic = "VLMEDIA1";

enum Present : std::uint8_t { hasDate = 1, hasMake = 2, hasModel = 4, hasDuration = 8 };

template <class T> void put(std::string& out, T value) {
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}
void putText(std::string& out, std::string_view text) {
    put(out, static_cast<std::uint32_t>(text.size()));
    out.append(text);
}

struct Cursor {
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

std::optional<MediaIndex::Key> keyOf(const std::string& path) {
    struct statx st {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC,
                STATX_TYPE | STATX_SIZE | STATX_MTIME | STATX_INO, &st) != 0 ||
        !S_ISREG(st.stx_mode))
        return std::nullopt;
    return MediaIndex::Key{
        static_cast<std::int64_t>(st.stx_size),
        static_cast<std::int64_t>(st.stx_mtime.tv_sec) * 1'000'000'000 + st.stx_mtime.tv_nsec, st.stx_ino};
}

void apply(const MediaFacts& media, Facts& f) {
    f.contentCreated = media.contentCreated;
    f.cameraMake = media.cameraMake;
    f.cameraModel = media.cameraModel;
    f.duration = media.duration;
}

} // namespace

std::string MediaIndex::encode(const std::unordered_map<std::string, Entry>& entries) {
    std::string out(magic);
    put(out, static_cast<std::uint64_t>(entries.size()));
    for (const auto& [path, e] : entries) {
        putText(out, path);
        put(out, e.key.size);
        put(out, e.key.modified);
        put(out, e.key.inode);
        const auto& m = e.facts;
        std::uint8_t present = (m.contentCreated ? hasDate : 0) | (m.cameraMake ? hasMake : 0) |
                               (m.cameraModel ? hasModel : 0) | (m.duration ? hasDuration : 0);
        put(out, present);
        if (m.contentCreated)
            put(out, static_cast<std::int64_t>(m.contentCreated->time_since_epoch().count()));
        if (m.cameraMake) putText(out, *m.cameraMake);
        if (m.cameraModel) putText(out, *m.cameraModel);
        if (m.duration) put(out, *m.duration);
    }
    return out;
}

std::optional<std::unordered_map<std::string, MediaIndex::Entry>> MediaIndex::decode(std::string_view bytes) {
    if (!bytes.starts_with(magic)) return std::nullopt;
    Cursor c{bytes.substr(magic.size())};
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
        if (present & hasDate) {
            std::int64_t at = 0;
            if (!c.get(at)) return std::nullopt;
            e.facts.contentCreated = TimePoint(TimePoint::duration(at));
        }
        if (present & hasMake) {
            e.facts.cameraMake.emplace();
            if (!c.text(*e.facts.cameraMake)) return std::nullopt;
        }
        if (present & hasModel) {
            e.facts.cameraModel.emplace();
            if (!c.text(*e.facts.cameraModel)) return std::nullopt;
        }
        if (present & hasDuration) {
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

MediaIndex::Filled MediaIndex::fill(std::vector<Facts>& facts, const CancelFlag& cancel, unsigned workers) {
    load();
    Filled filled;
    struct Job {
        Facts* facts;
        Key key;
        MediaFacts read;
        bool done = false;
    };
    std::vector<Job> jobs;
    std::unordered_map<std::string, Entry> next;
    for (auto& f : facts) {
        if (f.isFolder || !mayCarryMediaFacts(f.contentType)) continue;
        auto key = keyOf(f.path);
        if (!key) continue;
        if (auto it = entries_.find(f.path); it != entries_.end() && it->second.key == *key) {
            apply(it->second.facts, f);
            next.emplace(f.path, std::move(it->second));
            ++filled.kept;
            continue;
        }
        jobs.push_back({&f, *key, {}});
    }

    std::atomic<std::size_t> cursor{0};
    auto work = [&] {
        for (std::size_t i; (i = cursor.fetch_add(1)) < jobs.size();) {
            if (cancel.isCancelled()) return;
            auto& job = jobs[i];
            auto fd = openUserEntry(AT_FDCWD, job.facts->path.c_str(), O_RDONLY);
            if (!fd) continue;
            job.read = readMediaFacts(fd->get(), job.facts->name, job.facts->contentType);
            job.done = true;
        }
    };
    {
        std::vector<std::jthread> threads;
        for (unsigned t = 1; t < std::max(1u, workers) && t < jobs.size(); ++t)
            threads.emplace_back(work);
        work();
    }
    for (auto& job : jobs) {
        if (!job.done) continue;
        apply(job.read, *job.facts);
        next.emplace(job.facts->path, Entry{job.key, std::move(job.read)});
        ++filled.read;
    }
    changed_ = changed_ || filled.read > 0 || next.size() != entries_.size();
    entries_ = std::move(next);
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
