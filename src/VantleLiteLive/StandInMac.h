// The made-up machine of a sandbox run (`stand-in-mac.json`): its settings, and a record of every
// setting changed and every act asked of it (restart, lock, sleep, empty the trash, ...), of keeping
// it awake, and of what was moved to its trash. Nothing is carried out. An actor: every operation
// takes its mutex.
#pragma once
#include "VantleSpec/Json.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

struct StandInSettingChange {
    TimePoint at;
    std::string setting;
    Json from;
    Json to;
    bool operator==(const StandInSettingChange&) const = default;
};
VANTLE_RECORD_JSON(StandInSettingChange, at, setting, from, to)

struct StandInAct {
    TimePoint at;
    std::string act;
    bool operator==(const StandInAct&) const = default;
};
VANTLE_RECORD_JSON(StandInAct, at, act)

struct StandInKeepAwake {
    TimePoint at;
    std::string reason;
    bool awake = true; // false records the request to let it sleep again
    bool operator==(const StandInKeepAwake&) const = default;
};
VANTLE_RECORD_JSON(StandInKeepAwake, at, reason, awake)

struct StandInTrashed {
    TimePoint at;
    std::string path;
    bool operator==(const StandInTrashed&) const = default;
};
VANTLE_RECORD_JSON(StandInTrashed, at, path)

class StandInMac {
  public:
    struct Record {
        Json initial = Json::object();
        Json settings = Json::object();
        std::vector<StandInSettingChange> changes;
        std::vector<StandInAct> acts;
        bool awake = false;
        std::vector<StandInKeepAwake> keptAwake;
        std::vector<StandInTrashed> trash;
        bool operator==(const Record&) const = default;
    };

    StandInMac(std::filesystem::path dataFolder, Clock clock = systemClock());

    Record record() const;
    std::optional<Json> setting(const std::string& key) const;
    // Records the change (with the value it replaces) and keeps the new value.
    void change(const std::string& key, Json value);
    // Records an act such as "restart", "lock", "sleep", "logOut".
    void act(const std::string& name);
    void keepAwake(const std::string& reason);
    void letSleep();
    void moveToTrash(const std::filesystem::path& item);

    std::vector<std::string> browsers() const;
    // Whether locking the screen takes effect at once (no grace period).
    bool locksAtOnce() const;

    static Json initialSettings();
    static constexpr std::string_view fileName = "stand-in-mac.json";

    // The note for the start-up record when a torn record file was kept aside; none otherwise.
    const std::optional<std::string>& note() const { return note_; }

  private:
    void save() const;
    std::optional<std::string> note_;

    std::filesystem::path file_;
    Clock clock_;
    Record record_;
    mutable std::mutex mutex_;
};

VANTLE_RECORD_JSON(StandInMac::Record, initial, settings, changes, acts, awake, keptAwake, trash)

} // namespace vantle
