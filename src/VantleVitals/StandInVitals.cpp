#include "VantleVitals/StandInVitals.h"

#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "Platform/SystemError.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"
#include "VantleVitals/VitalsSampler.h"

#include <cerrno>

namespace vantle {

namespace {

// A made-up reading of an eight-core machine with four performance and four efficiency cores.
VitalsSnapshot madeUp(std::vector<double> cores, std::uint64_t usedGiB, std::uint64_t swapGiB,
                      VitalsSnapshot::Pressure pressure, VitalsSnapshot::Thermal thermal, double charge,
                      double networkIn, double networkOut) {
    using K = VitalsSnapshot::CoreKind;
    VitalsSnapshot s;
    s.cpu.perCore = cores;
    s.cpu.kinds = {K::performance, K::performance, K::performance, K::performance,
                   K::efficiency,  K::efficiency,  K::efficiency,  K::efficiency};
    double p = 0, e = 0;
    for (size_t i = 0; i < 4; ++i)
        p += cores[i] / 4;
    for (size_t i = 4; i < 8; ++i)
        e += cores[i] / 4;
    s.cpu.performanceCores = p;
    s.cpu.efficiencyCores = e;
    s.cpu.total = (p + e) / 2;
    s.memory = {16 * GiB, usedGiB * GiB, (usedGiB - 3) * GiB, 2 * GiB, GiB, swapGiB * GiB, pressure};
    s.disk = {512'000'000'000, 141'000'000'000};
    s.power = {true, charge, true, true, VitalsSnapshot::Battery{51'600'000, 60'000'000, 412, false, "Good"}};
    s.thermal = thermal;
    s.network = {networkIn, networkOut};
    s.uptimeSeconds = 3 * 86400 + 4 * 3600;
    s.diskActivity = VitalsSnapshot::DiskActivity{networkIn / 3, networkOut * 2};
    return s;
}

} // namespace

std::vector<VitalsSnapshot> StandInVitals::madeUpTable() {
    using P = VitalsSnapshot::Pressure;
    using T = VitalsSnapshot::Thermal;
    return {
        madeUp({0.12, 0.08, 0.05, 0.04, 0.20, 0.15, 0.10, 0.12}, 7, 0, P::normal, T::nominal, 0.62, 12'000,
               3'000),
        madeUp({0.45, 0.30, 0.22, 0.18, 0.35, 0.30, 0.28, 0.25}, 9, 0, P::normal, T::nominal, 0.63, 240'000,
               18'000),
        madeUp({0.92, 0.88, 0.85, 0.80, 0.60, 0.55, 0.50, 0.52}, 12, 1, P::warning, T::fair, 0.64, 1'800'000,
               90'000),
        madeUp({0.97, 0.95, 0.93, 0.90, 0.70, 0.66, 0.61, 0.64}, 14, 3, P::warning, T::serious, 0.64,
               2'400'000, 120'000),
        madeUp({0.40, 0.35, 0.20, 0.15, 0.30, 0.25, 0.20, 0.22}, 10, 2, P::normal, T::fair, 0.65, 80'000,
               9'000),
        madeUp({0.10, 0.06, 0.04, 0.03, 0.15, 0.12, 0.10, 0.09}, 8, 2, P::normal, T::nominal, 0.66, 6'000,
               2'000),
    };
}

StandInVitals::StandInVitals(std::filesystem::path dataFolder, Processes processes, Clock clock)
    : file_(std::move(dataFolder) / fileName), processes_(std::move(processes)), clock_(std::move(clock)),
      started_(clock_()) {
    auto text = readKeptFile(file_);
    if (text) {
        auto decoded = decodeJson<Record>(*text);
        if (decoded && !decoded->table.empty()) {
            record_ = std::move(*decoded);
            next_ = record_.record.empty() ? 0 : record_.record.back().row + 1;
            return;
        }
        keep_ = false;
        problem_ = fillIn(unreadableSentence, {{"file", file_.string()},
                                               {"reason", decoded ? "its table is empty" : decoded.error()}});
    } else if (text.error().what != KeptFileFailure::Case::missing) {
        keep_ = false;
        problem_ = fillIn(unreadableSentence, {{"file", file_.string()}, {"reason", text.error().sentence}});
    }
    record_.table = madeUpTable();
    if (keep_) save();
}

void StandInVitals::save() {
    if (!keep_) return;
    if (auto written = writeFileAtomically(file_, encodeJson(record_, 2) + "\n"); !written)
        problem_ = fillIn(unwritableSentence, {{"reason", written.error()}});
    else
        problem_.reset();
}

VitalsSnapshot StandInVitals::sample() {
    std::lock_guard lock(mutex_);
    auto now = clock_();
    int index = int(size_t(next_) % record_.table.size());
    next_ = index + 1;
    shown_ = index;
    VitalsSnapshot s = row(index);
    s.at = now;
    s.uptimeSeconds += std::max(0.0, std::chrono::duration<double>(now - started_).count());
    s.awake = record_.kept;
    if (processes_) {
        ActivitySample activity;
        activity.rows = processes_();
        VitalsSampler::fillProcesses(s, activity, 5);
    }
    record_.record.push_back({now, index});
    if (record_.record.size() > readingsKept)
        record_.record.erase(record_.record.begin(),
                             record_.record.begin() + std::ptrdiff_t(record_.record.size() - readingsKept));
    save();
    return s;
}

ActivitySample StandInVitals::read(const ActivityNeeds&) {
    std::lock_guard lock(mutex_);
    ActivitySample sample;
    if (processes_) sample.rows = processes_();
    // The totals follow the reading last shown, so the activity list and the vitals agree.
    const auto& shown = row(shown_.value_or(0));
    auto& t = sample.totals;
    t.date = clock_();
    t.cpu = shown.cpu.total;
    t.cpuUser = shown.cpu.total * 0.75; // made up: most busy time is the apps' own
    t.cpuSystem = shown.cpu.total - t.cpuUser;
    t.memoryUsed = shown.memory.usedBytes;
    t.memoryTotal = shown.memory.totalBytes;
    t.compressed = shown.memory.compressedBytes;
    t.swapUsed = shown.memory.swapUsedBytes;
    t.pressure = shown.memory.pressure;
    if (shown.diskActivity) {
        t.diskReadPerSecond = shown.diskActivity->readPerSecond;
        t.diskWrittenPerSecond = shown.diskActivity->writtenPerSecond;
    }
    t.networkInPerSecond = shown.network.bytesInPerSecond;
    t.networkOutPerSecond = shown.network.bytesOutPerSecond;
    t.processes = std::int32_t(sample.rows.size());
    for (auto& r : sample.rows)
        t.threads += r.threads;
    return sample;
}

void StandInVitals::keepAwake(bool on) {
    std::lock_guard lock(mutex_);
    record_.kept = on;
    record_.keptAwake.push_back({clock_(), on});
    save();
}

StandInVitals::Record StandInVitals::record() const {
    std::lock_guard lock(mutex_);
    return record_;
}

std::optional<std::string> StandInVitals::problem() const {
    std::lock_guard lock(mutex_);
    return problem_;
}

} // namespace vantle
