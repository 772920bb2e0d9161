// The `--home DIR` argument every library benchmark takes: the generated home it measures. Takes it
// out of argv (the rest goes to Google Benchmark) and gives the home's real path, or prints the usage
// and gives nothing.
#pragma once
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle::bench {

inline std::optional<std::filesystem::path> takeHome(int argc, char** argv, std::vector<char*>& rest,
                                                     std::string_view usage) {
    std::filesystem::path home;
    for (int i = 0; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--home" && i + 1 < argc)
            home = argv[++i];
        else
            rest.push_back(argv[i]);
    }
    std::error_code ec;
    if (!home.empty()) home = std::filesystem::canonical(home, ec);
    if (home.empty() || ec) {
        std::cerr << "usage: " << usage << "\n";
        return std::nullopt;
    }
    return home;
}

} // namespace vantle::bench
