// Feeds the health record: samples the machine every few seconds while recording is on, folds the
// samples of each minute into one point and appends it when the minute is over. An actor: tick,
// flush, start and stop hold its mutex and may be called from any thread. The recorder knows nothing
// of where its on/off choice is kept; whoever wires it passes `isOn`, which reads the settings key
// below (not set means off: nothing is written until the user turns the record on).
#pragma once
#include "VantleSpec/HealthPoint.h"
#include "VantleSpec/Time.h"
#include "VantleSpec/VitalsRecords.h"
#include "VantleVitals/HealthRecord.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace vantle {

struct HealthRecorderOptions {
    std::chrono::seconds sampleEvery{5};
};

class HealthRecorder {
  public:
    // The Boolean settings key that turns the record on ("Keep a record of this Mac's health").
    static constexpr std::string_view settingsKey = "keepHealthRecord";

    // One reading of the machine; none when the sampler could not read it (that sample is skipped).
    using Sampler = std::function<std::optional<VitalsSnapshot>()>;

    using Options = HealthRecorderOptions;

    HealthRecorder(std::shared_ptr<HealthRecord> record, Sampler sampler, std::function<bool()> isOn,
                   Clock clock = systemClock(), Options options = {});
    ~HealthRecorder(); // stops the thread and writes the minute so far
    HealthRecorder(const HealthRecorder&) = delete;
    HealthRecorder& operator=(const HealthRecorder&) = delete;

    // Takes one sample. When the clock has moved into a later minute, the previous minute's point is
    // appended first. While recording is off the samples of the open minute are dropped.
    void tick();

    // Appends the open minute's point now, covering the seconds sampled so far (used when quitting).
    void flush();

    // Ticks on a thread of the recorder's own every `sampleEvery` until stop (or destruction).
    void start();
    void stop();

  private:
    struct AppSum {
        double cpuSeconds = 0;
        std::uint64_t memoryBytes = 0;
    };
    // The samples of the open minute, summed as they come.
    struct Minute {
        std::int64_t start = 0; // seconds since 1970, a whole minute
        double seconds = 0;
        double cpuSeconds = 0, cpuPeak = 0;
        double memorySeconds = 0, memoryPeak = 0;
        double pressuredSeconds = 0;
        double swapByteSeconds = 0;
        double networkInSeconds = 0, networkOutSeconds = 0;
        double diskReadSeconds = 0, diskWrittenSeconds = 0;
        VitalsSnapshot::Pressure pressure = VitalsSnapshot::Pressure::normal;
        VitalsSnapshot::Thermal thermal = VitalsSnapshot::Thermal::nominal;
        std::optional<double> charge;
        std::map<std::string, AppSum, std::less<>> apps;

        void add(const VitalsSnapshot& snapshot, double weight);
        HealthPoint point() const;
    };

    void writeOpenMinute();

    std::mutex mutex_;
    std::shared_ptr<HealthRecord> record_;
    Sampler sampler_;
    std::function<bool()> isOn_;
    Clock clock_;
    Options options_;
    std::optional<Minute> open_;
    std::optional<TimePoint> lastSample_;
    std::mutex threadMutex_; // start and stop; never held by tick, so stop can join a ticking thread
    std::jthread thread_;    // last: stopped and joined before the members it uses go
};

} // namespace vantle
