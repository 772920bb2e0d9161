// Opening a place under a folder descriptor one component at a time, never following a link and
// never leaving the folder: everything the program changes is reached this way from the home.
// Free functions; thread-safe.
#pragma once
#include "Platform/UniqueFd.h"

#include <expected>
#include <filesystem>
#include <sys/types.h>

namespace vantle {

// Opens `relative` (no "..", no empty result) beneath `rootFd`. Every component, the last included,
// must not be a link (ELOOP otherwise). Uses openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS) where the
// kernel has it, else a component-by-component O_NOFOLLOW walk. The error is the errno.
std::expected<UniqueFd, int> openBeneath(int rootFd, const std::filesystem::path& relative, int flags,
                                         mode_t mode = 0);

// Opens a folder by absolute path for reading its entries, refusing a link at the last component.
std::expected<UniqueFd, int> openFolder(const std::filesystem::path& folder);

} // namespace vantle

namespace vantle {

// Makes `relative` beneath `rootFd` with its missing parents, one component at a time with mkdirat,
// refusing to pass through a link (ELOOP). An existing folder is fine. The error is the errno.
std::expected<void, int> makeFoldersBeneath(int rootFd, const std::filesystem::path& relative, mode_t mode = 0755);

} // namespace vantle
