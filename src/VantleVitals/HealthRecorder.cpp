#include "VantleVitals/HealthRecorder.h"

#include <algorithm>
#include <condition_variable>

namespace vantle {

namespace {

constexpr std::int64_t minuteSeconds = 60;

std::int64_t minuteOf(TimePoint at) {
    using namespace std::chrono;
    return floor<minutes>(at).time_since_epoch().count() * minuteSeconds;
}

} // namespace

void HealthRecorder::Minute::add(const VitalsSnapshot& snapshot, double weight) {
    seconds += weight;
    cpuSeconds += snapshot.cpu.total * weight;
    cpuPeak = std::max(cpuPeak, snapshot.cpu.total);
    const auto& memory = snapshot.memory;
    const double used = memory.totalBytes ? double(memory.usedBytes) / double(memory.totalBytes) : 0;
    memorySeconds += used * weight;
    memoryPeak = std::max(memoryPeak, used);
    if (memory.pressure != VitalsSnapshot::Pressure::normal) pressuredSeconds += weight;
    swapByteSeconds += double(memory.swapUsedBytes) * weight;
    networkInSeconds += snapshot.network.bytesInPerSecond * weight;
    networkOutSeconds += snapshot.network.bytesOutPerSecond * weight;
    if (snapshot.diskActivity) {
        diskReadSeconds += snapshot.diskActivity->readPerSecond * weight;
        diskWrittenSeconds += snapshot.diskActivity->writtenPerSecond * weight;
    }
    pressure = std::max(pressure, memory.pressure);
    thermal = std::max(thermal, snapshot.thermal);
    if (snapshot.power.charge) charge = snapshot.power.charge;

    // One reading may list several processes of one name (an app's helpers); they count as one app.
    // The busiest list gives the processor share, the heaviest list may know more of the memory.
    std::map<std::string_view, std::pair<double, std::uint64_t>> reading;
    for (const auto& process : snapshot.topProcesses) {
        auto& [cpu, bytes] = reading[process.name];
        cpu += process.cpuPercent;
        bytes += process.memoryBytes;
    }
    std::map<std::string_view, std::uint64_t> heaviest;
    for (const auto& process : snapshot.heaviestProcesses)
        heaviest[process.name] += process.memoryBytes;
    for (const auto& [name, bytes] : heaviest) {
        auto& entry = reading[name];
        entry.second = std::max(entry.second, bytes);
    }
    for (const auto& [name, entry] : reading) {
        auto it = apps.find(name);
        if (it == apps.end()) it = apps.emplace(std::string(name), AppSum{}).first;
        it->second.cpuSeconds += entry.first * weight;
        it->second.memoryBytes = std::max(it->second.memoryBytes, entry.second);
    }
}

HealthPoint HealthRecorder::Minute::point() const {
    HealthPoint p;
    p.start = fromRecordSeconds(start);
    p.seconds = std::min(seconds, double(minuteSeconds));
    const double over = seconds > 0 ? seconds : 1;
    p.cpu = cpuSeconds / over;
    p.cpuPeak = cpuPeak;
    p.memory = memorySeconds / over;
    p.memoryPeak = memoryPeak;
    p.pressure = pressure;
    p.pressureShare = pressuredSeconds / over;
    p.swapBytes = static_cast<std::uint64_t>(swapByteSeconds / over + 0.5);
    p.networkIn = networkInSeconds / over;
    p.networkOut = networkOutSeconds / over;
    p.diskRead = diskReadSeconds / over;
    p.diskWritten = diskWrittenSeconds / over;
    p.thermal = thermal;
    p.charge = charge;
    for (const auto& [name, sum] : apps)
        p.apps.push_back({name, sum.cpuSeconds / over, sum.memoryBytes, std::nullopt});
    keepBusiestApps(p.apps);
    return p;
}

HealthRecorder::HealthRecorder(std::shared_ptr<HealthRecord> record, Sampler sampler,
                               std::function<bool()> isOn, Clock clock, Options options)
    : record_(std::move(record)), sampler_(std::move(sampler)), isOn_(std::move(isOn)),
      clock_(std::move(clock)), options_(options) {}

HealthRecorder::~HealthRecorder() {
    stop();
    flush();
}

void HealthRecorder::writeOpenMinute() {
    if (open_ && record_) record_->append(open_->point());
    open_.reset();
}

void HealthRecorder::tick() {
    std::lock_guard lock(mutex_);
    if (!isOn_ || !isOn_()) {
        open_.reset();
        lastSample_.reset();
        return;
    }
    auto snapshot = sampler_ ? sampler_() : std::nullopt;
    if (!snapshot) return;
    const TimePoint now = clock_();
    const std::int64_t minute = minuteOf(now);
    if (open_ && open_->start != minute) writeOpenMinute();

    // A sample stands for the time since the one before; after a long pause (the machine slept, the
    // record was off) or a clock that went back, it stands for one ordinary interval instead.
    const double interval = double(options_.sampleEvery.count());
    double weight = interval;
    if (lastSample_) {
        const double gap = std::chrono::duration<double>(now - *lastSample_).count();
        if (gap > 0 && gap <= 2 * interval) weight = gap;
    }
    if (!open_) {
        open_ = Minute{};
        open_->start = minute;
    }
    open_->add(*snapshot, weight);
    lastSample_ = now;
}

void HealthRecorder::flush() {
    std::lock_guard lock(mutex_);
    if (isOn_ && isOn_()) writeOpenMinute();
    open_.reset();
}

void HealthRecorder::start() {
    std::lock_guard lock(threadMutex_);
    if (thread_.joinable()) return;
    thread_ = std::jthread([this](std::stop_token stop) {
        std::mutex waitMutex;
        std::condition_variable_any wake;
        do {
            tick();
            std::unique_lock wait(waitMutex);
            wake.wait_for(wait, stop, options_.sampleEvery, [] { return false; });
        } while (!stop.stop_requested());
    });
}

void HealthRecorder::stop() {
    std::lock_guard lock(threadMutex_);
    if (!thread_.joinable()) return;
    thread_.request_stop();
    thread_.join();
}

} // namespace vantle
