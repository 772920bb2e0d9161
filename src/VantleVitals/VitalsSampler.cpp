#include "VantleVitals/VitalsSampler.h"

#include <algorithm>
#include <ranges>
#include <set>
#include <sys/statvfs.h>

namespace vantle {

namespace fs = std::filesystem;
using procfs::readLine;
using procfs::readNumber;
using procfs::readText;

namespace {

using Kind = VitalsSnapshot::CoreKind;
using Thermal = VitalsSnapshot::Thermal;

// The entries of a /sys class folder, sorted so the result does not depend on listing order.
std::vector<fs::path> entriesOf(const fs::path& folder) {
    std::vector<fs::path> out;
    std::error_code ec;
    for (auto& entry : fs::directory_iterator(folder, ec))
        out.push_back(entry.path());
    std::ranges::sort(out);
    return out;
}

procfs::CpuTimes sum(const procfs::CpuTimes& a, const procfs::CpuTimes& b) {
    return {a.user + b.user, a.system + b.system, a.idle + b.idle, a.other + b.other};
}

double perSecond(std::uint64_t before, std::uint64_t after, double seconds) {
    return after >= before && seconds > 0 ? double(after - before) / seconds : 0;
}

} // namespace

VitalsSampler::VitalsSampler(Options options)
    : options_(std::move(options)), kinds_(coreKinds(options_.sysRoot)) {}

std::map<int, Kind> VitalsSampler::coreKinds(const fs::path& sysRoot) {
    std::map<int, Kind> kinds;
    auto big = parseCpuListFile(sysRoot / "devices/cpu_core/cpus");
    auto little = parseCpuListFile(sysRoot / "devices/cpu_atom/cpus");
    if (!big.empty() && !little.empty()) {
        for (int core : big)
            kinds[core] = Kind::performance;
        for (int core : little)
            kinds[core] = Kind::efficiency;
        return kinds;
    }
    std::map<int, std::int64_t> capacity;
    for (auto& entry : entriesOf(sysRoot / "devices/system/cpu")) {
        auto name = entry.filename().string();
        if (!name.starts_with("cpu") || name.size() == 3 ||
            !std::ranges::all_of(name.substr(3), [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        if (auto c = readNumber(entry / "cpu_capacity"); c && *c > 0)
            capacity[std::stoi(name.substr(3))] = *c;
    }
    if (capacity.empty()) return kinds;
    auto [least, most] = std::ranges::minmax(capacity | std::views::values);
    if (least == most) return kinds; // all alike: nothing to tell apart
    for (auto [core, c] : capacity)
        kinds[core] = c == most ? Kind::performance : Kind::efficiency;
    return kinds;
}

std::vector<int> VitalsSampler::parseCpuListFile(const fs::path& file) {
    auto text = readText(file);
    return text ? procfs::parseCpuList(*text) : std::vector<int>{};
}

Thermal VitalsSampler::thermalState(const fs::path& sysRoot) {
    Thermal worst = Thermal::nominal;
    for (auto& zone : entriesOf(sysRoot / "class/thermal")) {
        if (!zone.filename().string().starts_with("thermal_zone")) continue;
        if (readLine(zone / "mode") == "disabled") continue;
        auto temp = readNumber(zone / "temp"); // millidegrees Celsius
        // Sensors that are absent report 0, or nonsense such as -274000; neither is a reading.
        if (!temp || *temp <= 0 || *temp >= 200'000) continue;
        std::optional<std::int64_t> passive, critical;
        for (int trip = 0; trip < 64; ++trip) {
            auto prefix = "trip_point_" + std::to_string(trip) + "_";
            auto type = readLine(zone / (prefix + "type"));
            if (!type) break;
            auto at = readNumber(zone / (prefix + "temp"));
            if (!at || *at <= 0) continue;
            if (*type == "passive")
                passive = std::min(passive.value_or(*at), *at);
            else if (*type == "hot" || *type == "critical")
                critical = std::min(critical.value_or(*at), *at);
        }
        if (!passive && !critical) continue; // no trip says what hot means for this zone
        auto first = std::min(passive.value_or(*critical), critical.value_or(*passive));
        Thermal state = critical && *temp >= *critical ? Thermal::critical
                        : passive && *temp >= *passive ? Thermal::serious
                        : *temp >= first - 10'000      ? Thermal::fair
                                                       : Thermal::nominal;
        worst = std::max(worst, state);
    }
    return worst;
}

VitalsSnapshot::Power VitalsSampler::power(const fs::path& sysRoot) {
    VitalsSnapshot::Power power;
    bool mainsSeen = false;
    std::optional<std::string> batteryStatus;
    for (auto& supply : entriesOf(sysRoot / "class/power_supply")) {
        auto type = readLine(supply / "type");
        if (!type) continue;
        if (*type != "Battery") {
            if (auto online = readNumber(supply / "online")) {
                mainsSeen = true;
                if (*online == 1) power.onAC = true;
            }
            continue;
        }
        // A mouse's or a headset's battery says so; the machine's own has scope System or none.
        if (readLine(supply / "scope") == "Device" || readNumber(supply / "present") == 0) continue;
        if (power.hasBattery) continue; // the first battery speaks for the machine
        power.hasBattery = true;
        if (auto capacity = readNumber(supply / "capacity"))
            power.charge = std::clamp(double(*capacity) / 100.0, 0.0, 1.0);
        batteryStatus = readLine(supply / "status");
        power.isCharging = batteryStatus == "Charging";
        VitalsSnapshot::Battery battery;
        // Batteries report energy (µWh) or charge (µAh); the ratio is the same either way.
        for (auto unit : {"energy", "charge"}) {
            auto full = readNumber(supply / (std::string(unit) + "_full"));
            auto design = readNumber(supply / (std::string(unit) + "_full_design"));
            if (full && design && *full > 0 && *design > 0) {
                battery.fullChargeCapacity = std::uint64_t(*full);
                battery.designCapacity = std::uint64_t(*design);
                break;
            }
        }
        if (auto cycles = readNumber(supply / "cycle_count"); cycles && *cycles > 0)
            battery.cycleCount = *cycles;
        battery.condition = readLine(supply / "health");
        auto health = battery.health();
        battery.serviceRecommended =
            (health && *health < 0.8) ||
            (battery.condition && *battery.condition != "Good" && *battery.condition != "Unknown");
        power.battery = battery;
    }
    if (!power.hasBattery)
        power.onAC = true;
    else if (!mainsSeen)
        power.onAC = batteryStatus && *batteryStatus != "Discharging";
    return power;
}

void VitalsSampler::fillProcesses(VitalsSnapshot& snapshot, const ActivitySample& activity, size_t shown) {
    auto summary = [](const ProcessRow& r) {
        // The footprint where it is known; otherwise the resident size, which says so.
        bool resident = r.memory == 0 && r.realMemory > 0;
        return VitalsSnapshot::Process{r.pid, r.name, r.cpuPercent, resident ? r.realMemory : r.memory,
                                       resident};
    };
    std::vector<VitalsSnapshot::Process> all;
    all.reserve(activity.rows.size());
    for (auto& row : activity.rows)
        all.push_back(summary(row));
    auto take = [&](auto better) {
        auto n = std::min(shown, all.size());
        std::ranges::partial_sort(all, all.begin() + std::ptrdiff_t(n), better);
        return std::vector(all.begin(), all.begin() + std::ptrdiff_t(n));
    };
    snapshot.topProcesses = take([](auto& a, auto& b) {
        return a.cpuPercent != b.cpuPercent ? a.cpuPercent > b.cpuPercent : a.pid < b.pid;
    });
    snapshot.heaviestProcesses = take([](auto& a, auto& b) {
        return a.memoryBytes != b.memoryBytes ? a.memoryBytes > b.memoryBytes : a.pid < b.pid;
    });
    std::set<std::string> apps;
    for (auto& row : activity.rows)
        if (row.app && row.isOwn) apps.insert(*row.app);
    snapshot.apps.assign(apps.begin(), apps.end());
}

VitalsSnapshot::CPU VitalsSampler::cpu(const procfs::Stat& now, const procfs::Stat* before) const {
    VitalsSnapshot::CPU cpu;
    if (now.all)
        cpu.total = procfs::busyBetween(before && before->all ? *before->all : procfs::CpuTimes{}, *now.all);
    std::optional<procfs::CpuTimes> kindNow[2], kindBefore[2];
    bool anyKnown = false;
    for (auto& [core, times] : now.cores) {
        procfs::CpuTimes then{};
        if (before)
            for (auto& [c, t] : before->cores)
                if (c == core) then = t;
        cpu.perCore.push_back(procfs::busyBetween(then, times));
        auto kind = kinds_.find(core);
        cpu.kinds.push_back(kind == kinds_.end() ? Kind::unknown : kind->second);
        if (kind == kinds_.end()) continue;
        anyKnown = true;
        int i = kind->second == Kind::performance ? 0 : 1;
        kindNow[i] = sum(kindNow[i].value_or(procfs::CpuTimes{}), times);
        kindBefore[i] = sum(kindBefore[i].value_or(procfs::CpuTimes{}), then);
    }
    if (!anyKnown) cpu.kinds.clear();
    if (kindNow[0] && kindNow[1]) {
        cpu.performanceCores = procfs::busyBetween(*kindBefore[0], *kindNow[0]);
        cpu.efficiencyCores = procfs::busyBetween(*kindBefore[1], *kindNow[1]);
    }
    return cpu;
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> VitalsSampler::networkCounters() const {
    auto text = readText(options_.procRoot / "net/dev");
    if (!text) return std::nullopt;
    std::pair<std::uint64_t, std::uint64_t> total{};
    for (auto& c : procfs::parseNetDev(*text)) {
        constexpr std::int64_t loopbackType = 772; // ARPHRD_LOOPBACK
        if (c.name == "lo" || readNumber(options_.sysRoot / "class/net" / c.name / "type") == loopbackType)
            continue;
        total.first += c.received;
        total.second += c.sent;
    }
    return total;
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> VitalsSampler::diskCounters() const {
    auto text = readText(options_.procRoot / "diskstats");
    if (!text) return std::nullopt;
    // Whole disks only: partitions, device-mapper and RAID volumes would count the same bytes again,
    // and loop, RAM and compressed-RAM devices are not storage.
    std::set<std::string> disks;
    for (auto& entry : entriesOf(options_.sysRoot / "block")) {
        auto name = entry.filename().string();
        bool virtualDevice = false;
        for (auto prefix : {"loop", "ram", "zram", "dm-", "md", "sr"})
            virtualDevice |= name.starts_with(prefix);
        if (!virtualDevice) disks.insert(name);
    }
    if (disks.empty()) return std::nullopt;
    std::pair<std::uint64_t, std::uint64_t> total{};
    for (auto& d : procfs::parseDiskstats(*text)) {
        if (!disks.contains(d.name)) continue;
        total.first += d.sectorsRead;
        total.second += d.sectorsWritten;
    }
    return total;
}

VitalsSnapshot VitalsSampler::sample() {
    std::lock_guard lock(mutex_);
    Counters now;
    now.at = options_.clock();
    now.stat = procfs::parseStat(readText(options_.procRoot / "stat").value_or(""));
    now.network = networkCounters();
    now.disk = diskCounters();
    const Counters* before = previous_ ? &*previous_ : nullptr;
    double seconds = before ? std::chrono::duration<double>(now.at - before->at).count() : 0;

    VitalsSnapshot s;
    s.at = now.at;
    s.cpu = cpu(now.stat, before ? &before->stat : nullptr);
    s.memory = procfs::readMemory(options_.procRoot, options_.sysRoot);
    struct statvfs volume {};
    if (::statvfs(options_.volume.c_str(), &volume) == 0) {
        s.disk.totalBytes = std::uint64_t(volume.f_blocks) * volume.f_frsize;
        s.disk.availableBytes = std::uint64_t(volume.f_bavail) * volume.f_frsize;
    }
    s.power = power(options_.sysRoot);
    s.thermal = thermalState(options_.sysRoot);
    for (auto& card : entriesOf(options_.sysRoot / "class/drm"))
        if (auto busy = readNumber(card / "device/gpu_busy_percent"))
            s.gpu = std::max(s.gpu.value_or(0), std::clamp(double(*busy) / 100.0, 0.0, 1.0));
    if (before && before->network && now.network) {
        s.network.bytesInPerSecond = perSecond(before->network->first, now.network->first, seconds);
        s.network.bytesOutPerSecond = perSecond(before->network->second, now.network->second, seconds);
    }
    if (before && before->disk && now.disk && seconds > 0) {
        constexpr double sectorBytes = 512;
        s.diskActivity = VitalsSnapshot::DiskActivity{
            sectorBytes * perSecond(before->disk->first, now.disk->first, seconds),
            sectorBytes * perSecond(before->disk->second, now.disk->second, seconds)};
    }
    if (auto uptime = readText(options_.procRoot / "uptime"))
        s.uptimeSeconds = procfs::parseUptime(*uptime).value_or(0);
    if (options_.activity) fillProcesses(s, options_.activity->read(), options_.processesShown);
    previous_ = std::move(now);
    return s;
}

} // namespace vantle
