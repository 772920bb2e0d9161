// What every fuzz target shares: the input as text, and a scratch file for readers that only take a
// path. Used by one fuzzing process at a time.
#pragma once
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <unistd.h>

namespace vantle::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// A file in a folder of this process's own, rewritten with each input.
inline std::filesystem::path scratchFile(std::string_view name, std::string_view contents) {
    static const auto folder = [] {
        auto dir = std::filesystem::temp_directory_path() / ("vantle-fuzz-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        return dir;
    }();
    auto file = folder / name;
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(contents.data(), std::streamsize(contents.size()));
    return file;
}

} // namespace vantle::fuzz
