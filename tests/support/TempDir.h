// A temporary folder made for one test and removed with everything in it when the test ends.
// Not thread-safe; one per test.
#pragma once
#include <filesystem>
#include <string_view>

namespace vantle::testing {

class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return root_; }
    std::filesystem::path operator/(std::string_view rel) const { return root_ / rel; }

    // Writes a file (making its parents) and returns its path.
    std::filesystem::path write(std::string_view rel, std::string_view contents) const;
    std::filesystem::path mkdir(std::string_view rel) const;

  private:
    std::filesystem::path root_;
};

std::string readFile(const std::filesystem::path& file);

} // namespace vantle::testing
