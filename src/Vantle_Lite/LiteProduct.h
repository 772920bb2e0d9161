// The product model every page, the menu and the menu bar panel read and act through: the live
// services and the user's settings. Made once when start-up succeeds. Used from the main thread.
#pragma once
#include "VantleLiteLive/VantleLite.h"
#include "VantleVitals/HealthRecorder.h"
#include "Vantle_Lite/SettingsStore.h"

#include <atomic>
#include <memory>

namespace vantle {

class LiteProduct {
  public:
    LiteProduct(VantleLite live, std::unique_ptr<SettingsStore> settings)
        : live_(std::move(live)), settings_(std::move(settings)) {}

    // Builds the product over the live services, with the settings file in their data folder.
    static std::shared_ptr<LiteProduct> make(VantleLite live);

    VantleLite& live() { return live_; }
    const VantleLite& live() const { return live_; }
    SettingsStore& settings() { return *settings_; }

    // Whether the window can be seen; the Health page reads the machine only while it is.
    bool windowVisible() const { return windowVisible_; }
    // Gives true when the value really changed (only then is the change published).
    bool setWindowVisible(bool visible) {
        if (visible == windowVisible_) return false;
        windowVisible_ = visible;
        return true;
    }

    // The health record's on/off choice, kept in the settings; the recorder thread reads the copy in
    // `recording_`, never the settings store, which belongs to the main thread.
    bool keepsHealthRecord() const { return recording_.load(); }
    void setKeepsHealthRecord(bool on);
    // Starts feeding the health record once a minute while the choice is on; the desktop app does this
    // for as long as it runs. Stopped (with the open minute written) when the product goes away.
    void startHealthRecorder();

  private:
    VantleLite live_;
    std::unique_ptr<SettingsStore> settings_;
    bool windowVisible_ = true;
    std::atomic<bool> recording_{false};
    std::unique_ptr<HealthRecorder> recorder_;
};

} // namespace vantle
