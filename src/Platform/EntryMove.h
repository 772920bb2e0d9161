// The canonical form of a path that every move of an entry starts from, and opening its folder from
// "/" by descriptors, one component at a time, never through a link (for renameNoReplace). Free functions;
// thread-safe.
#pragma once
#include "Platform/UniqueFd.h"

#include <expected>
#include <filesystem>
#include <sys/types.h>

namespace vantle {

// Standardized ("." and ".." gone), its longest existing part resolved through links to a real
// path, and the components below that part appended unchanged. Relative paths are taken from the
// working folder.
std::filesystem::path canonicalForm(const std::filesystem::path& path);

// Opens an absolute folder that holds no link (a canonical path) for use with the *at calls. With
// `make`, missing folders are made with `mode`. The error is the
// errno; a link anywhere on the way gives ELOOP.
std::expected<UniqueFd, int> openFolderAt(const std::filesystem::path& folder, bool make = false,
                                          mode_t mode = 0755);

// Whether anything (a link included) lies at `name` in `dir`.
bool entryExists(int dir, const std::string& name);

} // namespace vantle
