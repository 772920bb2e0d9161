// "Open at login": the program's own XDG autostart entry ($XDG_CONFIG_HOME/autostart/vantle-lite.desktop,
// or .config/autostart inside a sandbox), which the desktop runs at every login so the menu bar panel
// and the health record are there. Turning it on writes the entry atomically; turning it off removes it
// (only a regular file of that name: a link or folder in its place is left alone). Failures are
// sentences. An actor: each operation takes its mutex; any thread may call it.
#pragma once
#include <expected>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class OpenAtLogin {
  public:
    struct Failure {
        std::string sentence;
        static constexpr std::string_view notWritten =
            "Vantle Lite could not be set to open at login: {reason}";
        static constexpr std::string_view notRemoved =
            "Vantle Lite could not stop opening at login: {reason}";
    };

    // `home` is the folder everything is reached from; `entry` lies inside it (else it is reached by path).
    OpenAtLogin(std::filesystem::path home, std::filesystem::path entry);

    const std::filesystem::path& entry() const { return entry_; }
    bool isOn() const;
    // Writes the entry that runs `command` (the program first, then its arguments) at login.
    std::expected<void, Failure> turnOn(const std::vector<std::string>& command);
    std::expected<void, Failure> turnOff();

    // The desktop entry's text; each argument quoted as the desktop entry format asks.
    static std::string entryText(const std::vector<std::string>& command);
    static constexpr std::string_view fileName = "vantle-lite.desktop";

  private:
    std::filesystem::path home_;
    std::filesystem::path entry_;
    mutable std::mutex mutex_;
};

} // namespace vantle
