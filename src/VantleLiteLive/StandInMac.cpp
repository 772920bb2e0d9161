#include "VantleLiteLive/StandInMac.h"

#include "VantleLiteLive/StandInRecord.h"

namespace vantle {

Json StandInMac::initialSettings() {
    return Json{{"appearance", "light"}, {"wifi", true},          {"bluetooth", true},
                {"volume", 50},          {"brightness", 70},      {"doNotDisturb", false},
                {"lowPowerMode", false}, {"screenLockSeconds", 0}};
}

StandInMac::StandInMac(std::filesystem::path dataFolder, Clock clock)
    : file_(dataFolder / fileName), clock_(std::move(clock)) {
    auto loaded = loadStandInRecord<Record>(file_);
    note_ = std::move(loaded.note);
    // A record read back is not written again until this run adds to it.
    if (loaded.record) {
        record_ = std::move(*loaded.record);
        return;
    }
    record_.initial = initialSettings();
    record_.settings = record_.initial;
    save();
}

void StandInMac::save() const {
    saveStandInRecord(file_, record_);
}

StandInMac::Record StandInMac::record() const {
    std::lock_guard lock(mutex_);
    return record_;
}

std::optional<Json> StandInMac::setting(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = record_.settings.find(key);
    if (it == record_.settings.end()) return std::nullopt;
    return *it;
}

void StandInMac::change(const std::string& key, Json value) {
    std::lock_guard lock(mutex_);
    auto it = record_.settings.find(key);
    Json from = it == record_.settings.end() ? Json() : *it;
    record_.changes.push_back({toMilliseconds(clock_()), key, from, value});
    record_.settings[key] = std::move(value);
    save();
}

void StandInMac::act(const std::string& name) {
    std::lock_guard lock(mutex_);
    record_.acts.push_back({toMilliseconds(clock_()), name});
    save();
}

void StandInMac::keepAwake(const std::string& reason) {
    std::lock_guard lock(mutex_);
    record_.awake = true;
    record_.keptAwake.push_back({toMilliseconds(clock_()), reason, true});
    save();
}

void StandInMac::letSleep() {
    std::lock_guard lock(mutex_);
    record_.awake = false;
    record_.keptAwake.push_back({toMilliseconds(clock_()), "", false});
    save();
}

void StandInMac::moveToTrash(const std::filesystem::path& item) {
    std::lock_guard lock(mutex_);
    record_.trash.push_back({toMilliseconds(clock_()), item.string()});
    save();
}

std::vector<std::string> StandInMac::browsers() const {
    return {"Web Browser"};
}

bool StandInMac::locksAtOnce() const {
    auto seconds = setting("screenLockSeconds");
    return seconds && seconds->is_number() && seconds->get<double>() == 0;
}

} // namespace vantle
