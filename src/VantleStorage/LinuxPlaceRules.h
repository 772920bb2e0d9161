// The rows a real Linux run adds after the shipped rule table: where the tools and apps the table
// names keep their caches, logs and Trash in a freedesktop home. Plain values made on each call; the
// caller owns them. Thread-safe.
#pragma once
#include "VantleStorage/Rule.h"

#include <string>
#include <vector>

namespace vantle {

// The freedesktop base folders, each relative to the home folder ("" when it lies outside the home,
// where no home-anchored rule can reach it).
struct LinuxPlaces {
    std::string cache = ".cache";       // $XDG_CACHE_HOME
    std::string data = ".local/share";  // $XDG_DATA_HOME
    std::string state = ".local/state"; // $XDG_STATE_HOME
};

// The added rows, from the particular to the general within them. Rows whose base folder lies outside
// the home are left out.
std::vector<Rule> linuxPlaceRules(const LinuxPlaces& places);

} // namespace vantle
