#include "support/TempDir.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace vantle::testing {

TempDir::TempDir() {
    auto base = std::filesystem::temp_directory_path() / "vantle-test-XXXXXX";
    std::string pattern = base.string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    // Resolve /tmp links once so paths compare equal to what the code under test standardizes.
    root_ = std::filesystem::canonical(pattern);
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave folders without write permission behind; give them back before removing.
    for (auto it = std::filesystem::recursive_directory_iterator(
             root_, std::filesystem::directory_options::skip_permission_denied, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
    }
    std::filesystem::permissions(root_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(root_, ec);
}

std::filesystem::path TempDir::write(std::string_view rel, std::string_view contents) const {
    auto file = root_ / rel;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    return file;
}

std::filesystem::path TempDir::mkdir(std::string_view rel) const {
    auto dir = root_ / rel;
    std::filesystem::create_directories(dir);
    return dir;
}

std::string readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

} // namespace vantle::testing
