// The update check: once a day (and when asked) it reads the feed through the egress broker, takes
// the newest build above the running one, downloads it through the broker, verifies it strictly and
// keeps it, unpacked, in the data folder's Updates folder with the marker Ready/update.plist, ready
// to be installed when the program quits. Nothing unverified is kept. An actor: every operation
// takes its mutex, and listeners are called on the checking thread (the app moves them to its UI).
#pragma once
#include "VantleEgress/EgressBroker.h"
#include "VantleEgress/UpdateSource.h"
#include "VantleEgress/UpdateStatus.h"
#include "VantleEgress/UpdateVerifier.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

class AppUpdater {
  public:
    struct Options {
        UpdateSource source;
        std::filesystem::path folder; // the data folder's Updates folder
        std::string build;            // the running program's build
        // Null when offline. The download broker allows answers as large as an update.
        std::shared_ptr<EgressBroker> feedBroker;
        std::shared_ptr<EgressBroker> downloadBroker;
        std::string systemVersion = thisSystemVersion();
        std::shared_ptr<CodeSigningProvider> signing = platformCodeSigning();
        Clock clock = systemClock();
    };

    // The largest update archive the download broker accepts.
    static constexpr std::int64_t maximumUpdateBytes = 256 * 1024 * 1024;
    // The daily check runs at this local hour; a launch after a missed day checks at once.
    static constexpr int dailyCheckHour = 10;

    explicit AppUpdater(Options options);

    UpdateStatus status() const;
    // Checks now and gives the status it ended in. Blocks while the feed and the download run.
    UpdateStatus checkNow();
    void listen(std::function<void(const UpdateStatus&)> listener);

    // When the next daily check is due: at dailyCheckHour local time on the day after `lastCheck`,
    // or now when that moment has already passed (a missed day is caught up at launch) or when there
    // was no check yet.
    static TimePoint nextCheck(std::optional<TimePoint> lastCheck, TimePoint now);
    // An app started from a translocated copy cannot be replaced in place.
    static bool isTranslocated(const std::filesystem::path& runningApp);
    // The numeric part of the kernel's release ("6.1.0" from "6.1.0-27-amd64"): what an update's
    // minimum system version is compared with on Linux.
    static std::string thisSystemVersion();

    static constexpr std::string_view markerPath = "Ready/update.plist";

  private:
    void setStatus(UpdateStatus status);
    UpdateStatus fail(UpdateFailure failure);
    std::expected<void, UpdateFailure> keep(const UpdateItem& item, const UpdateVerifier::Verified& verified,
                                            std::string_view archive);

    Options options_;
    UpdateVerifier verifier_;
    UpdateStatus status_;
    std::vector<std::function<void(const UpdateStatus&)>> listeners_;
    mutable std::mutex mutex_;
    std::mutex checking_; // one check at a time; status() stays answerable meanwhile
};

} // namespace vantle
