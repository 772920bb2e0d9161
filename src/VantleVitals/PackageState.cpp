#include "VantleVitals/PackageState.h"

#include "Platform/ArchiveCalls.h"
#include "Platform/AtomicFile.h"
#include "Platform/SystemError.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <tuple>
#include <unordered_map>

namespace vantle {

namespace fs = std::filesystem;

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// dpkg's weight of a character in the non-digit parts: letters first, then other marks, "~" lowest.
int weight(char c) {
    if (isDigit(c)) return 0;
    if (isAlpha(c)) return c;
    if (c == '~') return -1;
    if (c) return c + 256;
    return 0;
}

// dpkg's verrevcmp, over string views (an end of the view reads as the end of a C string).
int compareParts(std::string_view a, std::string_view b) {
    size_t i = 0, j = 0;
    auto at = [](std::string_view s, size_t k) { return k < s.size() ? s[k] : '\0'; };
    while (i < a.size() || j < b.size()) {
        int firstDiff = 0;
        while ((at(a, i) && !isDigit(at(a, i))) || (at(b, j) && !isDigit(at(b, j)))) {
            int ac = weight(at(a, i)), bc = weight(at(b, j));
            if (ac != bc) return ac - bc;
            ++i, ++j;
        }
        while (at(a, i) == '0')
            ++i;
        while (at(b, j) == '0')
            ++j;
        while (isDigit(at(a, i)) && isDigit(at(b, j))) {
            if (!firstDiff) firstDiff = at(a, i) - at(b, j);
            ++i, ++j;
        }
        if (isDigit(at(a, i))) return 1;
        if (isDigit(at(b, j))) return -1;
        if (firstDiff) return firstDiff;
    }
    return 0;
}

struct Version {
    long long epoch = 0;
    std::string_view upstream, revision;
};

Version split(std::string_view v) {
    Version out;
    if (auto colon = v.find(':'); colon != std::string_view::npos) {
        long long e = 0;
        for (char c : v.substr(0, colon))
            e = isDigit(c) ? e * 10 + (c - '0') : e;
        out.epoch = e;
        v.remove_prefix(colon + 1);
    }
    if (auto dash = v.rfind('-'); dash != std::string_view::npos) {
        out.revision = v.substr(dash + 1);
        v = v.substr(0, dash);
    }
    out.upstream = v;
    return out;
}

// Calls `stanza` with each paragraph's Package, Architecture, Version and Status fields.
template <class F> void eachStanza(std::string_view text, F stanza) {
    std::string_view package, arch, version, status;
    auto flush = [&] {
        if (!package.empty()) stanza(package, arch, version, status);
        package = arch = version = status = {};
    };
    size_t pos = 0;
    while (pos <= text.size()) {
        auto end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        auto line = text.substr(pos, end - pos);
        pos = end + 1;
        if (line.empty() || line == "\r") {
            flush();
            if (end == text.size()) break;
            continue;
        }
        auto field = [&](std::string_view key, std::string_view& into) {
            if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == ':') {
                auto v = line.substr(key.size() + 1);
                while (!v.empty() && (v.front() == ' ' || v.front() == '\t'))
                    v.remove_prefix(1);
                while (!v.empty() && (v.back() == '\r' || v.back() == ' '))
                    v.remove_suffix(1);
                into = v;
                return true;
            }
            return false;
        };
        field("Package", package) || field("Architecture", arch) || field("Version", version) ||
            field("Status", status);
        if (end == text.size()) break;
    }
    flush();
}

// Hands a text given in pieces to eachStanza one whole paragraph at a time, so a list is never held
// whole: a decompressed list runs to tens of megabytes, and building that string (growing and
// copying it, faulting in its pages) cost far more than reading it.
template <class F> class StanzaFeed {
  public:
    explicit StanzaFeed(F& stanza) : stanza_(stanza) {}
    void add(const char* data, size_t size) {
        pending_.append(data, size);
        auto cut = pending_.rfind("\n\n");
        if (cut == std::string::npos) return;
        eachStanza(std::string_view(pending_).substr(0, cut + 1), stanza_);
        pending_.erase(0, cut + 2);
    }
    void finish() { eachStanza(pending_, stanza_); }

  private:
    F& stanza_;
    std::string pending_;
};

// Each paragraph of a list file, decompressed as it is read when its name says it is compressed.
template <class F> std::expected<void, std::string> eachListStanza(const fs::path& file, F stanza) {
    auto ext = file.extension().string();
    if (ext != ".lz4" && ext != ".gz" && ext != ".xz" && ext != ".zst" && ext != ".bz2" && ext != ".lzma") {
        auto text = readWholeFile(file);
        if (!text) return std::unexpected(systemErrorText(text.error()));
        eachStanza(*text, stanza);
        return {};
    }
    auto calls = archiveCalls();
    if (!calls) return std::unexpected(calls.error());
    const ArchiveCalls& ar = **calls;
    std::unique_ptr<archive, decltype(&::archive_read_free)> a(ar.read_new(), ar.read_free);
    auto why = [&](const char* otherwise) {
        const char* text = ar.error_string(a.get());
        return std::unexpected(std::string(text ? text : otherwise));
    };
    ar.read_support_filter_all(a.get());
    ar.read_support_format_raw(a.get());
    if (ar.read_open_filename(a.get(), file.c_str(), 1 << 16) != ARCHIVE_OK) return why("unreadable");
    archive_entry* entry = nullptr;
    if (ar.read_next_header(a.get(), &entry) != ARCHIVE_OK) return why("empty");
    StanzaFeed<F> feed(stanza);
    for (;;) {
        // The decompressor's own buffer, lent until the next call: no copy on the way.
        const void* block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        auto got = ar.read_data_block(a.get(), &block, &size, &offset);
        if (got == ARCHIVE_EOF) break;
        if (got < ARCHIVE_WARN) return why("torn");
        feed.add(static_cast<const char*>(block), size);
    }
    feed.finish();
    return {};
}

struct Release {
    bool security = false;
    bool notAutomatic = false;
};

// The header fields of a Release or InRelease file (the signed wrapper of InRelease is skipped).
Release readRelease(const fs::path& file) {
    Release r;
    auto text = readWholeFile(file);
    if (!text) return r;
    std::string_view t = *text;
    auto value = [&](std::string_view key) -> std::string_view {
        size_t pos = 0;
        while (pos < t.size()) {
            auto end = t.find('\n', pos);
            if (end == std::string_view::npos) end = t.size();
            auto line = t.substr(pos, end - pos);
            if (line.starts_with(key) && line.size() > key.size() && line[key.size()] == ':') {
                auto v = line.substr(key.size() + 1);
                while (!v.empty() && v.front() == ' ')
                    v.remove_prefix(1);
                return v;
            }
            pos = end + 1;
        }
        return {};
    };
    auto suite = value("Suite");
    r.security = suite.ends_with("-security") || value("Label").find("Security") != std::string_view::npos;
    r.notAutomatic = value("NotAutomatic").starts_with("yes");
    return r;
}

} // namespace

int compareDebianVersions(std::string_view a, std::string_view b) {
    auto x = split(a), y = split(b);
    if (x.epoch != y.epoch) return x.epoch < y.epoch ? -1 : 1;
    if (int c = compareParts(x.upstream, y.upstream)) return c;
    return compareParts(x.revision, y.revision);
}

std::expected<PackageUpgrades, std::string> readPackageUpgrades(const fs::path& dpkgStatus,
                                                                const fs::path& listsFolder) {
    auto status = readWholeFile(dpkgStatus);
    if (!status)
        return std::unexpected(dpkgStatus.string() + " could not be read (" +
                               systemErrorText(status.error()) + ")");
    // name -> (architecture, installed version)
    std::unordered_map<std::string, std::vector<std::pair<std::string, std::string>>> installed;
    eachStanza(*status, [&](auto package, auto arch, auto version, auto state) {
        if (!state.ends_with(" installed") || version.empty()) return;
        installed[std::string(package)].emplace_back(std::string(arch), std::string(version));
    });

    std::error_code ec;
    std::vector<fs::path> lists, releases;
    for (auto& entry : fs::directory_iterator(listsFolder, ec)) {
        auto name = entry.path().filename().string();
        if (name.ends_with("_InRelease") || name.ends_with("_Release"))
            releases.push_back(entry.path());
        else if (name.find("_Packages") != std::string::npos && !name.ends_with(".diff_Index"))
            lists.push_back(entry.path());
    }
    if (ec) return std::unexpected(listsFolder.string() + " could not be read (" + ec.message() + ")");
    std::ranges::sort(lists);

    PackageUpgrades out;
    for (auto& r : releases) {
        struct stat st {};
        if (::stat(r.c_str(), &st) == 0) {
            TimePoint at = std::chrono::system_clock::from_time_t(st.st_mtime);
            if (!out.listsRead || at > *out.listsRead) out.listsRead = at;
        }
    }
    // name|arch -> best candidate seen, and whether it came from a security suite
    std::map<std::string, CheckupFacts::Upgrade> best;
    for (auto& list : lists) {
        auto name = list.filename().string();
        Release release;
        size_t longest = 0;
        for (auto& r : releases) {
            auto rn = r.filename().string();
            auto stem = rn.substr(0, rn.rfind('_'));
            if (stem.size() > longest && name.starts_with(stem + "_"))
                longest = stem.size(), release = readRelease(r);
        }
        if (release.notAutomatic) continue;
        // Newer versions of installed packages this list offers, counted only once the whole list
        // was read: a list torn half-way offers nothing, as before it was read in one piece.
        std::vector<std::tuple<std::string, std::string, std::string>> offered; // package, arch, version
        auto read = eachListStanza(list, [&](auto package, auto arch, auto version, auto) {
            auto it = installed.find(std::string(package));
            if (it == installed.end() || version.empty()) return;
            for (auto& [iarch, iversion] : it->second) {
                if (arch != iarch && arch != "all" && iarch != "all") continue;
                if (compareDebianVersions(version, iversion) <= 0) continue;
                offered.emplace_back(std::string(package), iarch, std::string(version));
            }
        });
        if (!read) {
            out.unreadLists.push_back(name + ": " + read.error());
            continue;
        }
        for (auto& [package, iarch, version] : offered) {
            auto key = package + "|" + iarch;
            auto found = best.find(key);
            if (found == best.end()) {
                const auto& versions = installed.at(package);
                auto mine = std::ranges::find(versions, iarch, &std::pair<std::string, std::string>::first);
                best[key] = {package, mine->second, version, release.security};
            } else if (int c = compareDebianVersions(version, found->second.candidate); c > 0) {
                found->second.candidate = version, found->second.security = release.security;
            } else if (c == 0) {
                found->second.security |= release.security;
            }
        }
    }
    for (auto& [key, upgrade] : best)
        out.upgrades.push_back(upgrade);
    std::ranges::sort(out.upgrades, {}, &CheckupFacts::Upgrade::name);
    return out;
}

} // namespace vantle
