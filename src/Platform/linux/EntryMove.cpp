#include "Platform/EntryMove.h"

#include "Platform/BeneathOpen.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace fs = std::filesystem;

fs::path canonicalForm(const fs::path& path) {
    std::error_code ec;
    auto absolute = fs::absolute(path, ec);
    if (ec) absolute = path;
    // "." and ".." go by spelling first, so "a/link/.." means "a", not the link target's parent.
    absolute = absolute.lexically_normal();
    auto canonical = fs::weakly_canonical(absolute, ec);
    // A part that cannot be read (no permission) keeps its spelling; the moves below still refuse
    // any link they meet on the way.
    if (ec) return absolute;
    auto text = canonical.string();
    if (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

std::expected<UniqueFd, int> openFolderAt(const fs::path& folder, bool make, mode_t mode) {
    if (!folder.is_absolute()) return std::unexpected(EINVAL);
    auto root = openFolder("/");
    if (!root) return std::unexpected(root.error());
    auto relative = folder.relative_path();
    if (make)
        if (auto made = makeFoldersBeneath(root->get(), relative, mode); !made)
            return std::unexpected(made.error());
    return openBeneath(root->get(), relative, O_PATH | O_DIRECTORY);
}

bool entryExists(int dir, const std::string& name) {
    struct stat st {};
    return ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

} // namespace vantle
