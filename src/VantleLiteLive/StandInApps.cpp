#include "VantleLiteLive/StandInApps.h"

#include "VantleLiteLive/StandInRecord.h"

#include <algorithm>

namespace vantle {

StandInApps::StandInApps(std::filesystem::path dataFolder, Clock clock)
    : file_(dataFolder / fileName),
      clock_(std::move(clock)), installed_{"Calculator", "Calendar", "Files",       "Mail",       "Music",
                                           "Photos",     "Terminal", "Text Editor", "Web Browser"},
      running_{"Files", "Mail", "Music", "Web Browser"} {
    auto loaded = loadStandInRecord<Record>(file_);
    note_ = std::move(loaded.note);
    // A record read back is not written again until this run adds to it.
    if (loaded.record)
        record_ = std::move(*loaded.record);
    else
        save();
}

void StandInApps::save() const {
    saveStandInRecord(file_, record_);
}

StandInApps::Record StandInApps::record() const {
    std::lock_guard lock(mutex_);
    return record_;
}

std::vector<std::string> StandInApps::installed() const {
    std::lock_guard lock(mutex_);
    return installed_;
}

std::vector<std::string> StandInApps::running() const {
    std::lock_guard lock(mutex_);
    return running_;
}

void StandInApps::open(const std::string& app) {
    std::lock_guard lock(mutex_);
    record_.opened.push_back({toMilliseconds(clock_()), app});
    if (std::find(running_.begin(), running_.end(), app) == running_.end()) running_.push_back(app);
    save();
}

bool StandInApps::quit(const std::string& app) {
    std::lock_guard lock(mutex_);
    record_.quit.push_back({toMilliseconds(clock_()), app});
    bool wasRunning = std::erase(running_, app) > 0;
    save();
    return wasRunning;
}

void StandInApps::openFile(const std::filesystem::path& file, std::optional<std::string> app) {
    std::lock_guard lock(mutex_);
    record_.openedFiles.push_back({toMilliseconds(clock_()), file.string(), std::move(app)});
    save();
}

void StandInApps::reveal(const std::filesystem::path& item) {
    std::lock_guard lock(mutex_);
    record_.revealed.push_back({toMilliseconds(clock_()), item.string(), std::nullopt});
    save();
}

void StandInApps::openLink(const std::string& address) {
    std::lock_guard lock(mutex_);
    record_.links.push_back({toMilliseconds(clock_()), address});
    save();
}

void StandInApps::share(const std::filesystem::path& item) {
    std::lock_guard lock(mutex_);
    record_.shared.push_back({toMilliseconds(clock_()), item.string(), std::nullopt});
    save();
}

} // namespace vantle
