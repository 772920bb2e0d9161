#include "Vantle_Lite/LiteProduct.h"

namespace vantle {

std::shared_ptr<LiteProduct> LiteProduct::make(VantleLite live) {
    auto settings = std::make_unique<FileSettingsStore>(live.support / "Library" / "home.json");
    auto product = std::make_shared<LiteProduct>(std::move(live), std::move(settings));
    product->recording_ = product->settings().boolean(std::string(HealthRecorder::settingsKey)).value_or(false);
    return product;
}

void LiteProduct::setKeepsHealthRecord(bool on) {
    settings_->setBoolean(std::string(HealthRecorder::settingsKey), on);
    recording_ = on;
}

void LiteProduct::startHealthRecorder() {
    if (recorder_ || !live_.healthRecord || !live_.vitals) return;
    auto vitals = live_.vitals;
    recorder_ = std::make_unique<HealthRecorder>(
        live_.healthRecord, [vitals]() -> std::optional<VitalsSnapshot> { return vitals->sample(); },
        [this] { return recording_.load(); });
    recorder_->start();
}

} // namespace vantle
