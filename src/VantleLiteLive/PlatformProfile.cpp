#include "VantleLiteLive/PlatformProfile.h"

#include "VantleStorage/LinuxPlaceRules.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

extern char** environ;

namespace vantle {

PlatformProfile PlatformProfile::sandbox(const std::filesystem::path& home) {
    PlatformProfile p;
    p.home = home;
    p.dataFolder = home / ".vantle-lite";
    p.trashFolder = home / ".Trash";
    p.launchAgentsFolder = home / "Library" / "LaunchAgents";
    p.applicationFolders = {home / "Applications"};
    p.standIns = true;
    return p;
}

PlatformProfile PlatformProfile::linuxReal(const std::filesystem::path& home,
                                           const std::map<std::string, std::string>& environment) {
    auto xdg = [&](const char* name, std::filesystem::path fallback) {
        auto it = environment.find(name);
        // The basedir rules say a relative value is invalid and must be ignored.
        if (it != environment.end() && !it->second.empty() && it->second.front() == '/')
            return std::filesystem::path(it->second);
        return fallback;
    };
    auto dataHome = xdg("XDG_DATA_HOME", home / ".local" / "share");
    PlatformProfile p;
    p.home = home;
    p.dataFolder = dataHome / "Vantle Lite";
    p.trashFolder = dataHome / "Trash";
    p.launchAgentsFolder = xdg("XDG_CONFIG_HOME", home / ".config") / "autostart";
    p.applicationFolders = {"/usr/share/applications", dataHome / "applications", "/opt"};
    p.standIns = false;

    // A base folder outside the home cannot be named by a home-anchored row; one whose name would read
    // as a pattern is left out rather than matched as something else.
    auto insideHome = [&](const std::filesystem::path& folder) -> std::string {
        auto relative = folder.lexically_normal().lexically_relative(home.lexically_normal()).string();
        while (!relative.empty() && relative.back() == '/')
            relative.pop_back();
        if (relative.empty() || relative == "." || relative.starts_with("..") ||
            relative.find_first_of("*?[]\\") != std::string::npos)
            return {};
        return relative;
    };
    p.placeRules = linuxPlaceRules({.cache = insideHome(xdg("XDG_CACHE_HOME", home / ".cache")),
                                    .data = insideHome(dataHome),
                                    .state = insideHome(xdg("XDG_STATE_HOME", home / ".local" / "state"))});
    return p;
}

std::filesystem::path currentUserHome() {
    if (const char* home = std::getenv("HOME"); home && home[0] == '/')
        return std::filesystem::path(home).lexically_normal();
    if (auto* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return "/";
}

std::map<std::string, std::string> processEnvironment() {
    std::map<std::string, std::string> out;
    for (char** e = environ; e && *e; ++e) {
        std::string_view entry(*e);
        auto eq = entry.find('=');
        if (eq != std::string_view::npos) out.emplace(entry.substr(0, eq), entry.substr(eq + 1));
    }
    return out;
}

} // namespace vantle
