// What is running at the moment an item is freed: the names of running programs, and every path a
// running program holds open, runs from or works in. Read from the process table (/proc on Linux)
// into a plain value the caller owns; reading and querying are thread-safe.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace vantle {

struct RunningApps {
    std::vector<std::string> bundleIDs;    // identifiers of running apps (none on Linux)
    std::vector<std::string> processNames; // command names, executables' and scripts' base names
    std::vector<std::string> openPaths;    // sorted: open files, executables and working folders
    bool seesOpenFiles = true;             // false when some process's open files could not be listed
    std::vector<std::string> folded;       // processNames and bundleIDs in lower case, sorted

    // Whether a running app or process carries `name`, ignoring case.
    bool runs(std::string_view name) const;
    // The first open path at `path` or below it, if any.
    std::optional<std::string> holdsInside(std::string_view path) const;

    // Reads the process table under `procRoot`, leaving out this process itself (whose descriptors
    // are the cleaner's own). Another person's processes (or `homeOwner`'s, when someone else reads)
    // whose open files cannot be listed make seesOpenFiles false; system services that keep their
    // lists private, and our own undumpable agents, are passed over (RunningApps.cpp says why).
    static RunningApps read(const std::filesystem::path& procRoot, uid_t homeOwner);

    // Puts `folded` and the order of `openPaths` right after the lists were filled by hand.
    void settle();
};

} // namespace vantle
