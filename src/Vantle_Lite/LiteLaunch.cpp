#include "Vantle_Lite/LiteLaunch.h"

namespace vantle {

namespace {
bool isSandboxOption(const std::string& a) { return a == "-sandbox" || a == "--sandbox"; }
} // namespace

LiteLaunch LiteLaunch::parse(const std::vector<std::string>& arguments) {
    LiteLaunch launch;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (!isSandboxOption(arguments[i])) continue;
        if (i + 1 < arguments.size()) launch.sandbox = std::filesystem::path(arguments[i + 1]);
        break;
    }
    return launch;
}

std::vector<std::string> LiteLaunch::withoutLaunchOptions(const std::vector<std::string>& arguments) {
    std::vector<std::string> out;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (isSandboxOption(arguments[i])) {
            ++i;
            continue;
        }
        out.push_back(arguments[i]);
    }
    return out;
}

} // namespace vantle
