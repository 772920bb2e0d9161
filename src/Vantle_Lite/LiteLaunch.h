// What the command line asked for. Only the sandbox is ever set from the command line; the other
// fields keep the values every launch gets. Plain value.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

struct LiteLaunch {
    struct Size {
        double width = 1320;
        double height = 880;
        bool operator==(const Size&) const = default;
    };

    std::optional<std::filesystem::path> sandbox;
    std::vector<std::string> play;
    std::optional<std::filesystem::path> capture;
    std::optional<std::string> answer;
    std::optional<std::string> appearance;
    bool standIns = false;
    std::optional<std::string> page;
    bool floatWindow = false; // `float` in the record; a keyword in C++
    bool minimize = false;
    Size size;
    bool sizeAsked = false;

    bool operator==(const LiteLaunch&) const = default;

    // The first "-sandbox" (or "--sandbox") followed by an argument wins; a trailing one is ignored,
    // and so is every other argument.
    static LiteLaunch parse(const std::vector<std::string>& arguments);

    // The argument list without every "-sandbox"/"--sandbox" and the argument after it, so a front
    // end can read its own words from what is left.
    static std::vector<std::string> withoutLaunchOptions(const std::vector<std::string>& arguments);
};

} // namespace vantle
