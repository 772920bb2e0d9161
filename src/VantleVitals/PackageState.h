// What the package manager itself knows about pending upgrades, read from its own files and never
// from the network: the installed packages in dpkg's status file against the package lists apt
// last fetched (plain or compressed). A list from a suite marked NotAutomatic (experimental,
// backports) offers nothing, as apt would not pick it by itself; pins in apt's preferences are not
// read. Pure functions over the given folders; safe from any thread.
#pragma once
#include "VantleSpec/CheckupFacts.h"

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

// dpkg's ordering of version strings ([epoch:]upstream[-revision], "~" before everything, even
// the end): negative, zero or positive as `a` sorts before, with or after `b`.
int compareDebianVersions(std::string_view a, std::string_view b);

struct PackageUpgrades {
    std::vector<CheckupFacts::Upgrade> upgrades; // sorted by name
    std::optional<TimePoint> listsRead;          // the newest release file's change time
    std::vector<std::string> unreadLists;        // list files that could not be read, with why
};

// The error says why nothing could be worked out (no dpkg status file, no lists folder).
std::expected<PackageUpgrades, std::string> readPackageUpgrades(const std::filesystem::path& dpkgStatus,
                                                                const std::filesystem::path& listsFolder);

} // namespace vantle
