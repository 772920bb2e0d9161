// What the update check is doing or found, with the sentence the Settings page shows for it.
// Plain value; safe to copy.
#pragma once
#include "VantleSpec/Time.h"

#include <string>
#include <variant>

namespace vantle {

struct UpdateStatus {
    enum class Case { upToDate, downloading, ready, failed, notSetUp, offline, idle, checking };
    Case what = Case::idle;
    TimePoint checked{}; // upToDate
    std::string version; // downloading, ready
    std::string failure; // failed: the failure's sentence

    static constexpr std::string_view upToDateSentence = "Up to date · checked {time}";
    static constexpr std::string_view downloadingSentence = "Downloading {version}…";
    static constexpr std::string_view readySentence = "{version} is ready: it installs when you quit.";
    static constexpr std::string_view notSetUpSentence = "Updates are not set up in this copy.";
    static constexpr std::string_view offlineSentence = "Vantle Lite is offline.";
    static constexpr std::string_view idleSentence = "Vantle Lite looks for a new version once a day.";
    static constexpr std::string_view checkingSentence = "Looking for a new version…";

    // The time of upToDate is written in this machine's local time, hours and minutes.
    std::string sentence() const;
    // The case's name, for --json.
    std::string_view name() const;
    bool operator==(const UpdateStatus&) const = default;
};

} // namespace vantle
