#include "VantleVitals/KnownPrograms.h"

#include <array>
#include <utility>

namespace vantle {

std::optional<std::string_view> knownProgramDescription(std::string_view processName) {
    // Process names are cut to 15 characters by the kernel, so the long ones are listed as cut.
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 16> table{{
        {"tracker-miner-f", "Indexes your files so the desktop's search can find them."},
        {"localsearch-3", "Indexes your files so the desktop's search can find them."},
        {"baloo_file", "Indexes your files so the desktop's search can find them."},
        {"baloo_file_extr", "Reads the text inside your files for the desktop's search."},
        {"packagekitd", "Looks for and installs updates to the system's software."},
        {"fwupd", "Looks for firmware updates for this computer's devices."},
        {"gnome-software", "The software centre, looking for updates."},
        {"plasma-discover", "The software centre, looking for updates."},
        {"snapd", "Keeps snap packages up to date."},
        {"flatpak-system-", "Installs and updates Flatpak apps."},
        {"pipewire", "Carries the sound and screen sharing between apps."},
        {"wireplumber", "Decides where sound goes, for the sound server."},
        {"pulseaudio", "Carries the sound between apps and speakers."},
        {"evolution-data-", "Keeps your calendars and contacts for the desktop."},
        {"gvfsd-metadata", "Keeps the file manager's notes about your files."},
        {"syncthing", "Keeps folders in step with your other devices."},
    }};
    for (const auto& [name, sentence] : table)
        if (name == processName) return sentence;
    return std::nullopt;
}

} // namespace vantle
