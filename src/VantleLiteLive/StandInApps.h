// The made-up installed and running apps of a sandbox run (`stand-in-apps.json`). Opening an app or
// a file, quitting, showing an item in the file manager, handing over a link and sharing are
// recorded, never carried out. An actor: every operation takes its mutex.
#pragma once
#include "VantleSpec/Json.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

struct StandInAppEvent {
    TimePoint at;
    std::string app;
    bool operator==(const StandInAppEvent&) const = default;
};
VANTLE_RECORD_JSON(StandInAppEvent, at, app)

struct StandInFileEvent {
    TimePoint at;
    std::string file;
    std::optional<std::string> app;
    bool operator==(const StandInFileEvent&) const = default;
};
VANTLE_RECORD_JSON(StandInFileEvent, at, file, app)

struct StandInLinkEvent {
    TimePoint at;
    std::string address;
    bool operator==(const StandInLinkEvent&) const = default;
};
VANTLE_RECORD_JSON(StandInLinkEvent, at, address)

class StandInApps {
  public:
    struct Record {
        std::vector<StandInAppEvent> opened;
        std::vector<StandInAppEvent> quit;
        std::vector<StandInFileEvent> openedFiles;
        std::vector<StandInFileEvent> revealed;
        std::vector<StandInLinkEvent> links;
        std::vector<StandInFileEvent> shared;
        bool operator==(const Record&) const = default;
    };

    StandInApps(std::filesystem::path dataFolder, Clock clock = systemClock());

    Record record() const;
    std::vector<std::string> installed() const;
    std::vector<std::string> running() const;

    void open(const std::string& app);
    // False when the app was not running (the request is still recorded).
    bool quit(const std::string& app);
    void openFile(const std::filesystem::path& file, std::optional<std::string> app = std::nullopt);
    void reveal(const std::filesystem::path& item);
    void openLink(const std::string& address);
    void share(const std::filesystem::path& item);

    static constexpr std::string_view fileName = "stand-in-apps.json";

    // The note for the start-up record when a torn record file was kept aside; none otherwise.
    const std::optional<std::string>& note() const { return note_; }

  private:
    void save() const;
    std::optional<std::string> note_;

    std::filesystem::path file_;
    Clock clock_;
    Record record_;
    std::vector<std::string> installed_;
    std::vector<std::string> running_;
    mutable std::mutex mutex_;
};

VANTLE_RECORD_JSON(StandInApps::Record, opened, quit, openedFiles, revealed, links, shared)

} // namespace vantle
