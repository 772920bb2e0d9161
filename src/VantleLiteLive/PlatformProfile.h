// Where this run keeps things and which stand-ins it uses: the one record that says how the
// program's places map onto this system. A sandbox run uses the same layout on every system; a real
// run on Linux uses the freedesktop places. Plain value; thread-safe to copy.
#pragma once
#include "VantleStorage/Rule.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace vantle {

struct PlatformProfile {
    std::filesystem::path home;
    std::filesystem::path dataFolder;
    std::filesystem::path trashFolder;        // files the user removes go here
    std::filesystem::path launchAgentsFolder; // the user's own start-up entries
    std::vector<std::filesystem::path> applicationFolders;
    bool standIns = false; // processes, apps and the machine's controls are stand-ins that record requests
    // Storage rows added after the shipped rule table for where this system's tools keep what the table
    // names (none in a sandbox, which keeps the table's own layout).
    std::vector<Rule> placeRules;

    // `.vantle-lite`, `.Trash` and `Library/LaunchAgents` inside the sandbox, on every system.
    static PlatformProfile sandbox(const std::filesystem::path& home);
    // XDG_DATA_HOME (else ~/.local/share)/Vantle Lite, the freedesktop Trash, XDG autostart entries,
    // the .desktop application folders, and the storage rows for the XDG cache, data and state folders
    // that lie inside the home. `environment` is read for the XDG_*_HOME variables.
    static PlatformProfile linuxReal(const std::filesystem::path& home,
                                     const std::map<std::string, std::string>& environment);
};

// The current user's home: $HOME when it is an absolute path, else the password database's entry.
std::filesystem::path currentUserHome();

// The environment as a map, for the profile and tests.
std::map<std::string, std::string> processEnvironment();

} // namespace vantle
