// The user's own startup items: turning one off moves its file out of the startup folder into the
// data folder's `Turned Off` folder, and turning it back on moves it home; nothing is ever deleted or
// replaced. A real Linux run works over the XDG autostart entries (`*.desktop`), a sandbox over
// `Library/LaunchAgents/*.plist`. The user's enabled systemd user services are listed, read only.
// An actor: every operation takes its mutex.
#pragma once
#include <expected>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class StartupItems {
  public:
    struct Options {
        std::filesystem::path agents;    // the user's startup folder
        std::filesystem::path turnedOff; // the data folder's `Turned Off`
        std::string extension = ".plist";
        // Folders whose `*.wants` links name the enabled user services (may be empty).
        std::vector<std::filesystem::path> serviceFolders;
    };

    struct Item {
        std::string name;           // the file's name
        std::filesystem::path path; // where it lies
        bool service = false;       // a systemd user service: listed, never moved
        bool operator==(const Item&) const = default;
    };

    static constexpr std::string_view notOwnAgent =
        "Only your own launch agents can be turned off here; the Mac's need an administrator.";
    static constexpr std::string_view noLongerThere = "{name} is no longer there.";
    static constexpr std::string_view notMoved = "macOS did not move {name}: {reason}";

    explicit StartupItems(Options options);

    const Options& options() const { return options_; }

    // The startup folder's entries, then the enabled user services, each by name.
    std::vector<Item> list() const;
    // Where the file now lies, or the sentence saying why nothing moved.
    std::expected<std::filesystem::path, std::string> turnOff(const std::filesystem::path& agent);
    // True when the held file is back at its former path; false changes nothing.
    bool turnBackOn(const std::filesystem::path& held, const std::filesystem::path& former);
    // The files in `Turned Off` (for turning one back on in a later run).
    std::vector<Item> turnedOff() const;

  private:
    Options options_;
    mutable std::mutex mutex_;
};

} // namespace vantle
