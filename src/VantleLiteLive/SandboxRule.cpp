#include "VantleLiteLive/SandboxRule.h"

#include "VantleLiteLive/PlatformProfile.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

struct Identity {
    dev_t device;
    ino_t inode;
    bool operator==(const Identity&) const = default;
};

std::optional<Identity> identityOf(const fs::path& p, bool followLinks) {
    struct stat st {};
    if ((followLinks ? ::stat(p.c_str(), &st) : ::lstat(p.c_str(), &st)) != 0) return std::nullopt;
    return Identity{st.st_dev, st.st_ino};
}

// The place a path really names: links resolved as far as the path exists.
fs::path resolved(const fs::path& p) {
    std::error_code ec;
    auto out = fs::weakly_canonical(p, ec);
    return ec ? p : out;
}

// Where an entry leads, following its links even when the last one dangles (a dangling link still
// leads out of the folder).
fs::path leadsTo(fs::path place) {
    std::error_code ec;
    for (int hops = 0; hops < 40 && fs::is_symlink(place, ec); ++hops) {
        auto target = fs::read_symlink(place, ec);
        if (ec) break;
        place = target.is_absolute() ? target : place.parent_path() / target;
    }
    return resolved(place.lexically_normal());
}

bool isInside(const fs::path& inner, const fs::path& outer) {
    const auto& a = inner.native();
    const auto& b = outer.native();
    if (b == "/") return a.size() > 1 && a.front() == '/';
    return a.size() > b.size() && a.compare(0, b.size(), b) == 0 && a[b.size()] == '/';
}

// Whether `place` or one of its parents is the same folder as `folder` (by device and inode).
bool anyAncestorIs(fs::path place, const Identity& folder) {
    for (;;) {
        if (identityOf(place, true) == folder) return true;
        auto parent = place.parent_path();
        if (parent == place || parent.empty()) return false;
        place = parent;
    }
}

SandboxRefusal refuse(const fs::path& path, std::string reason) {
    SandboxRefusal r{path, std::move(reason), {}};
    r.sentence = fillIn(SandboxRefusal::sentenceText, {{"path", path.string()}, {"reason", r.reason}});
    return r;
}

} // namespace

fs::path standardizedPath(const fs::path& folder) {
    std::error_code ec;
    auto abs = fs::absolute(folder, ec);
    auto out = (ec ? folder : abs).lexically_normal();
    auto text = out.string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

std::expected<fs::path, SandboxRefusal> SandboxRule::check(const fs::path& folder) const {
    const fs::path path = standardizedPath(folder);
    const fs::path real = resolved(path);
    const auto folderId = identityOf(path, true);
    const auto folderLinkId = identityOf(path, false);

    for (const auto& homeGiven : realHomes) {
        const fs::path home = standardizedPath(homeGiven);
        const fs::path homeReal = resolved(home);
        const auto homeId = identityOf(home, true);
        const std::string homeText = home.string();

        bool same = path == home || real == homeReal ||
                    (homeId && (folderId == homeId || folderLinkId == identityOf(home, false)));
        if (same) return std::unexpected(refuse(path, std::string(SandboxRefusal::isHome)));

        bool holds = isInside(homeReal, real) || (folderId && anyAncestorIs(homeReal, *folderId));
        if (holds)
            return std::unexpected(refuse(path, fillIn(SandboxRefusal::holdsHome, {{"home", homeText}})));

        for (const auto& folder : privateFolders) {
            const fs::path place = homeReal / folder;
            const auto placeId = identityOf(place, true);
            bool inside =
                real == place || isInside(real, place) || (placeId && anyAncestorIs(real, *placeId));
            if (inside)
                return std::unexpected(refuse(
                    path, fillIn(SandboxRefusal::insidePrivate, {{"place", (home / folder).string()}})));
        }
    }

    for (auto entry : checkedEntries) {
        fs::path place = real / entry;
        if (!identityOf(place, false)) continue;
        fs::path target = leadsTo(place);
        if (target != real && !isInside(target, real))
            return std::unexpected(refuse(
                path, fillIn(SandboxRefusal::leadsOut, {{"entry", entry}, {"target", target.string()}})));
    }
    return path;
}

SandboxRule SandboxRule::forThisMachine() {
    SandboxRule rule;
    // Where freedesktop apps keep their data and settings: as private to them as a home's Library.
    rule.privateFolders = {"Library", ".local/share", ".config"};
    rule.realHomes.push_back(currentUserHome());
    ::setpwent();
    while (auto* pw = ::getpwent()) {
        // Login accounts only: system accounts' "homes" are places like / or /var/lib/x.
        if (pw->pw_uid < 1000 || pw->pw_uid == 65534 || !pw->pw_dir || pw->pw_dir[0] != '/') continue;
        fs::path home = standardizedPath(pw->pw_dir);
        std::error_code ec;
        if (home == "/" || !fs::is_directory(home, ec)) continue;
        if (std::find(rule.realHomes.begin(), rule.realHomes.end(), home) == rule.realHomes.end())
            rule.realHomes.push_back(home);
    }
    ::endpwent();
    return rule;
}

} // namespace vantle
