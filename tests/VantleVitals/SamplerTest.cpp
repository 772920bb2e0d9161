#include "VantleVitals/VitalsSampler.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;
using vantle::testing::TempDir;
using Kind = VitalsSnapshot::CoreKind;
using Thermal = VitalsSnapshot::Thermal;

namespace {

// A fixture machine: four cores, 0-1 performance and 2-3 efficiency, 16 GiB, one disk, one
// network card beside the loopback, a battery and a charger, one thermal zone.
struct SamplerMachine {
    TempDir dir;
    TimePoint now = sys_days{2026y / February / 3} + 10h;

    std::filesystem::path proc() const { return dir / "proc"; }
    std::filesystem::path sys() const { return dir / "sys"; }

    void stat(std::initializer_list<std::array<int, 4>> cores) const {
        // Each core: user, system, idle, steal; the total line adds them up.
        std::array<int, 4> all{};
        std::string lines;
        int n = 0;
        for (auto& c : cores) {
            for (int i = 0; i < 4; ++i)
                all[i] += c[i];
            lines += "cpu" + std::to_string(n++) + " " + std::to_string(c[0]) + " 0 " + std::to_string(c[1]) +
                     " " + std::to_string(c[2]) + " 0 0 0 " + std::to_string(c[3]) + " 0 0\n";
        }
        dir.write("proc/stat", "cpu  " + std::to_string(all[0]) + " 0 " + std::to_string(all[1]) + " " +
                                   std::to_string(all[2]) + " 0 0 0 " + std::to_string(all[3]) + " 0 0\n" +
                                   lines + "btime 1767225600\n");
    }

    void counters(std::uint64_t received, std::uint64_t sent, std::uint64_t sectorsRead,
                  std::uint64_t sectorsWritten) const {
        dir.write("proc/net/dev", "Inter-| Receive | Transmit\n face |bytes ...|bytes ...\n"
                                  "    lo: 999999 1 0 0 0 0 0 0 999999 1 0 0 0 0 0 0\n"
                                  " lback: 777777 1 0 0 0 0 0 0 777777 1 0 0 0 0 0 0\n"
                                  "  eth0: " +
                                      std::to_string(received) + " 1 0 0 0 0 0 0 " + std::to_string(sent) +
                                      " 1 0 0 0 0 0 0\n");
        dir.write("proc/diskstats", "   8 0 sda 1 0 " + std::to_string(sectorsRead) + " 0 1 0 " +
                                        std::to_string(sectorsWritten) + " 0 0 0 0\n" +
                                        "   8 1 sda1 1 0 1000000 0 1 0 1000000 0 0 0 0\n"
                                        "   7 0 loop0 1 0 1000000 0 1 0 1000000 0 0 0 0\n");
    }

    SamplerMachine() {
        stat({{0, 0, 100, 0}, {0, 0, 100, 0}, {0, 0, 100, 0}, {0, 0, 100, 0}});
        counters(1000, 2000, 10, 20);
        dir.write("proc/meminfo", "MemTotal: 16777216 kB\nMemFree: 1048576 kB\nMemAvailable: 4194304 kB\n"
                                  "AnonPages: 8388608 kB\nKernelStack: 16384 kB\nPageTables: 65536 kB\n"
                                  "SUnreclaim: 131072 kB\nUnevictable: 49152 kB\nZswap: 262144 kB\n"
                                  "SwapTotal: 8388608 kB\nSwapFree: 6291456 kB\n");
        dir.write("proc/pressure/memory", "some avg10=15.00 avg60=1.00 avg300=0.00 total=1\n"
                                          "full avg10=1.00 avg60=0.00 avg300=0.00 total=1\n");
        dir.write("proc/uptime", "3600.50 7000.00\n");
        dir.write("sys/devices/cpu_core/cpus", "0-1\n");
        dir.write("sys/devices/cpu_atom/cpus", "2-3\n");
        dir.write("sys/block/zram0/mm_stat", "4096000 1024000 2097152 0 2097152 0 0 0 0\n");
        dir.mkdir("sys/block/sda");
        dir.mkdir("sys/block/loop0");
        dir.write("sys/class/net/eth0/type", "1\n");
        dir.write("sys/class/net/lback/type", "772\n");
        dir.write("sys/class/power_supply/AC/type", "Mains\n");
        dir.write("sys/class/power_supply/AC/online", "1\n");
        dir.write("sys/class/power_supply/BAT0/type", "Battery\n");
        dir.write("sys/class/power_supply/BAT0/capacity", "64\n");
        dir.write("sys/class/power_supply/BAT0/status", "Charging\n");
        dir.write("sys/class/power_supply/BAT0/energy_full", "42000000\n");
        dir.write("sys/class/power_supply/BAT0/energy_full_design", "56000000\n");
        dir.write("sys/class/power_supply/BAT0/cycle_count", "321\n");
        zone("thermal_zone0", 45000, {{"passive", 90000}, {"critical", 105000}});
    }

    void zone(const std::string& name, int temp,
              std::initializer_list<std::pair<const char*, int>> trips) const {
        zone(dir, name, temp, trips);
    }

    static void zone(const TempDir& dir, const std::string& name, int temp,
                     std::initializer_list<std::pair<const char*, int>> trips) {
        auto base = "sys/class/thermal/" + name + "/";
        dir.write(base + "temp", std::to_string(temp) + "\n");
        int i = 0;
        for (auto [type, at] : trips) {
            dir.write(base + "trip_point_" + std::to_string(i) + "_type", std::string(type) + "\n");
            dir.write(base + "trip_point_" + std::to_string(i++) + "_temp", std::to_string(at) + "\n");
        }
    }

    VitalsSampler sampler() {
        return VitalsSampler({proc(), sys(), dir.path(), [this] { return now; }, nullptr, 5});
    }
};

struct FixedActivity : ActivitySource {
    ActivitySample sample;
    ActivitySample read(const ActivityNeeds&) override { return sample; }
};

} // namespace

TEST(VitalsSampler, ProcessorPerCoreAndByKindBetweenTwoSamples) {
    SamplerMachine m;
    auto sampler = m.sampler();
    auto first = sampler.sample();
    EXPECT_DOUBLE_EQ(first.cpu.total, 0); // all idle since start
    EXPECT_EQ(first.cpu.kinds,
              (std::vector<Kind>{Kind::performance, Kind::performance, Kind::efficiency, Kind::efficiency}));

    // Over the next two seconds: core 0 fully busy, core 1 half, core 2 a quarter (as steal), core 3 idle.
    m.stat({{150, 50, 100, 0}, {50, 50, 200, 0}, {0, 0, 250, 50}, {0, 0, 300, 0}});
    m.now += 2s;
    auto s = sampler.sample();
    ASSERT_EQ(s.cpu.perCore.size(), 4u);
    EXPECT_DOUBLE_EQ(s.cpu.perCore[0], 1.0);
    EXPECT_DOUBLE_EQ(s.cpu.perCore[1], 0.5);
    EXPECT_DOUBLE_EQ(s.cpu.perCore[2], 0.25);
    EXPECT_DOUBLE_EQ(s.cpu.perCore[3], 0.0);
    EXPECT_DOUBLE_EQ(s.cpu.total, 350.0 / 800.0);
    EXPECT_DOUBLE_EQ(*s.cpu.performanceCores, 0.75);
    EXPECT_DOUBLE_EQ(*s.cpu.efficiencyCores, 0.125);
    EXPECT_EQ(s.at, m.now);
}

TEST(VitalsSampler, MemorySwapCompressedAndPressure) {
    SamplerMachine m;
    auto s = m.sampler().sample();
    constexpr std::uint64_t KiB = 1024;
    EXPECT_EQ(s.memory.totalBytes, 16777216 * KiB);
    EXPECT_EQ(s.memory.usedBytes, (16777216 - 4194304) * KiB);
    EXPECT_EQ(s.memory.appBytes, 8388608 * KiB);
    EXPECT_EQ(s.memory.wiredBytes, (16384 + 65536 + 131072 + 49152) * KiB);
    EXPECT_EQ(s.memory.compressedBytes, 262144 * KiB + 2097152); // zswap's pool and zram's memory
    EXPECT_EQ(s.memory.swapUsedBytes, (8388608 - 6291456) * KiB);
    EXPECT_EQ(s.memory.pressure, VitalsSnapshot::Pressure::warning);

    // Without stall figures the share of available memory decides.
    std::filesystem::remove(m.proc() / "pressure/memory");
    m.dir.write("proc/meminfo", "MemTotal: 1000 kB\nMemAvailable: 40 kB\n");
    s = m.sampler().sample();
    EXPECT_EQ(s.memory.pressure, VitalsSnapshot::Pressure::critical);
    EXPECT_EQ(s.memory.swapUsedBytes, 0u);
    // A kernel older than MemAvailable: free, buffers and cache count as available.
    m.dir.write("proc/meminfo", "MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 100 kB\nCached: 100 kB\n");
    EXPECT_EQ(m.sampler().sample().memory.usedBytes, 700 * KiB);
}

TEST(VitalsSampler, NetworkAndDiskRatesLeaveOutLoopbackPartitionsAndLoopDevices) {
    SamplerMachine m;
    auto sampler = m.sampler();
    auto first = sampler.sample();
    EXPECT_DOUBLE_EQ(first.network.bytesInPerSecond, 0);
    EXPECT_FALSE(first.diskActivity); // no rate before a second reading

    m.counters(1000 + 4000, 2000 + 1000, 10 + 80, 20 + 16);
    m.now += 4s;
    auto s = sampler.sample();
    EXPECT_DOUBLE_EQ(s.network.bytesInPerSecond, 1000);
    EXPECT_DOUBLE_EQ(s.network.bytesOutPerSecond, 250);
    ASSERT_TRUE(s.diskActivity);
    EXPECT_DOUBLE_EQ(s.diskActivity->readPerSecond, 80 * 512 / 4.0);
    EXPECT_DOUBLE_EQ(s.diskActivity->writtenPerSecond, 16 * 512 / 4.0);

    // A counter that went back (an interface that came up again) is no negative rate.
    m.counters(10, 10, 0, 0);
    m.now += 1s;
    s = sampler.sample();
    EXPECT_DOUBLE_EQ(s.network.bytesInPerSecond, 0);
    EXPECT_DOUBLE_EQ(s.diskActivity->readPerSecond, 0);
}

TEST(VitalsSampler, PowerBatteryHealthUptimeAndDisk) {
    SamplerMachine m;
    auto s = m.sampler().sample();
    EXPECT_TRUE(s.power.hasBattery);
    EXPECT_DOUBLE_EQ(*s.power.charge, 0.64);
    EXPECT_TRUE(s.power.isCharging);
    EXPECT_TRUE(s.power.onAC);
    ASSERT_TRUE(s.power.battery);
    EXPECT_DOUBLE_EQ(*s.power.battery->health(), 0.75);
    EXPECT_TRUE(s.power.battery->serviceRecommended);
    EXPECT_EQ(s.power.battery->cycleCount, 321);
    EXPECT_DOUBLE_EQ(s.uptimeSeconds, 3600.5);
    EXPECT_GT(s.disk.totalBytes, 0u);
    EXPECT_LE(s.disk.availableBytes, s.disk.totalBytes);
}

TEST(VitalsSampler, PowerSuppliesOfOtherKinds) {
    TempDir d;
    EXPECT_TRUE(VitalsSampler::power(d / "sys").onAC); // no supplies at all: a desktop on mains
    EXPECT_FALSE(VitalsSampler::power(d / "sys").hasBattery);

    // A mouse's battery is not the machine's; a battery that reports charge rather than energy.
    d.write("sys/class/power_supply/hidpp_battery_0/type", "Battery\n");
    d.write("sys/class/power_supply/hidpp_battery_0/scope", "Device\n");
    d.write("sys/class/power_supply/hidpp_battery_0/capacity", "5\n");
    EXPECT_FALSE(VitalsSampler::power(d / "sys").hasBattery);
    d.write("sys/class/power_supply/BAT1/type", "Battery\n");
    d.write("sys/class/power_supply/BAT1/status", "Discharging\n");
    d.write("sys/class/power_supply/BAT1/charge_full", "4500000\n");
    d.write("sys/class/power_supply/BAT1/charge_full_design", "5000000\n");
    d.write("sys/class/power_supply/BAT1/cycle_count", "0\n"); // the driver does not count
    d.write("sys/class/power_supply/BAT1/health", "Good\n");
    auto p = VitalsSampler::power(d / "sys");
    EXPECT_TRUE(p.hasBattery);
    EXPECT_FALSE(p.onAC); // no charger listed and discharging
    EXPECT_FALSE(p.charge);
    EXPECT_DOUBLE_EQ(*p.battery->health(), 0.9);
    EXPECT_FALSE(p.battery->cycleCount);
    EXPECT_FALSE(p.battery->serviceRecommended);
    d.write("sys/class/power_supply/BAT1/health", "Dead\n");
    EXPECT_TRUE(VitalsSampler::power(d / "sys").battery->serviceRecommended);
}

TEST(VitalsSampler, ThermalStateAgainstEachZonesTripPoints) {
    std::tuple<int, Thermal> cases[] = {{69000, Thermal::nominal},
                                        {80000, Thermal::fair},
                                        {90000, Thermal::serious},
                                        {104999, Thermal::serious},
                                        {105000, Thermal::critical}};
    for (auto [temp, state] : cases) {
        TempDir d;
        SamplerMachine::zone(d, "thermal_zone0", temp,
                             {{"active", 50000}, {"passive", 90000}, {"critical", 105000}});
        EXPECT_EQ(VitalsSampler::thermalState(d / "sys"), state) << temp;
    }

    TempDir d;
    SamplerMachine::zone(d, "thermal_zone0", 60000, {{"passive", 95000}});
    SamplerMachine::zone(d, "thermal_zone1", 88000, {{"hot", 85000}});     // the worst zone speaks
    SamplerMachine::zone(d, "thermal_zone2", 150000, {{"active", 40000}}); // no trip says what hot means here
    SamplerMachine::zone(d, "thermal_zone3", -274000, {{"critical", 1000}}); // a sensor that is not there
    EXPECT_EQ(VitalsSampler::thermalState(d / "sys"), Thermal::critical);
    d.write("sys/class/thermal/thermal_zone1/mode", "disabled\n");
    EXPECT_EQ(VitalsSampler::thermalState(d / "sys"), Thermal::nominal);
}

TEST(VitalsSampler, CoreKindsFromCapacitiesOrNotAtAll) {
    TempDir d;
    EXPECT_TRUE(VitalsSampler::coreKinds(d / "sys").empty());
    for (auto [core, capacity] : {std::pair{0, 446}, {1, 446}, {2, 1024}, {3, 1024}})
        d.write("sys/devices/system/cpu/cpu" + std::to_string(core) + "/cpu_capacity",
                std::to_string(capacity));
    d.mkdir("sys/devices/system/cpu/cpufreq");
    auto kinds = VitalsSampler::coreKinds(d / "sys");
    EXPECT_EQ(
        kinds,
        (std::map<int, Kind>{
            {0, Kind::efficiency}, {1, Kind::efficiency}, {2, Kind::performance}, {3, Kind::performance}}));

    TempDir alike;
    for (int core = 0; core < 2; ++core)
        alike.write("sys/devices/system/cpu/cpu" + std::to_string(core) + "/cpu_capacity", "1024");
    EXPECT_TRUE(VitalsSampler::coreKinds(alike / "sys").empty());
    // Only one of the hybrid lists is no machine with core kinds.
    alike.write("sys/devices/cpu_core/cpus", "0-1");
    EXPECT_TRUE(VitalsSampler::coreKinds(alike / "sys").empty());
}

TEST(VitalsSampler, AnEmptyOrOddMachineGivesZerosNotACrash) {
    TempDir d;
    VitalsSampler empty(
        {d / "proc", d / "sys", d / "no-such-volume", [] { return TimePoint{}; }, nullptr, 5});
    auto s = empty.sample();
    s = empty.sample();
    EXPECT_EQ(s.cpu, VitalsSnapshot::CPU{});
    EXPECT_EQ(s.memory, VitalsSnapshot::Memory{});
    EXPECT_EQ(s.disk, VitalsSnapshot::Disk{});
    EXPECT_EQ(s.thermal, Thermal::nominal);
    EXPECT_FALSE(s.diskActivity);
    EXPECT_FALSE(s.gpu);

    for (auto file : {"proc/stat", "proc/meminfo", "proc/pressure/memory", "proc/net/dev", "proc/diskstats",
                      "proc/uptime", "sys/devices/cpu_core/cpus", "sys/class/thermal/thermal_zone0/temp",
                      "sys/class/power_supply/BAT0/type", "sys/class/drm/card0/device/gpu_busy_percent"})
        d.write(file, "\x01\x02 nonsense (\n\n-");
    d.mkdir("sys/block/sda");
    VitalsSampler odd({d / "proc", d / "sys", d.path(), [] { return TimePoint{}; }, nullptr, 5});
    odd.sample();
    s = odd.sample();
    EXPECT_TRUE(s.cpu.perCore.empty());
    EXPECT_EQ(s.memory.totalBytes, 0u);
    EXPECT_FALSE(s.power.hasBattery);
    EXPECT_FALSE(s.gpu);
}

TEST(VitalsSampler, BusiestAndHeaviestProcessesAndTheRunningApps) {
    SamplerMachine m;
    auto activity = std::make_shared<FixedActivity>();
    auto row = [](int pid, double cpu, std::uint64_t footprint, std::uint64_t resident,
                  std::optional<std::string> app = {}, bool own = true) {
        ProcessRow r;
        r.pid = pid;
        r.name = "p" + std::to_string(pid);
        r.cpuPercent = cpu;
        r.memory = footprint;
        r.realMemory = resident;
        r.app = app;
        r.isOwn = own;
        return r;
    };
    activity->sample.rows = {row(1, 5, 100, 200), row(2, 150, 50, 60, "Editor"), row(3, 80, 0, 900),
                             row(4, 0, 300, 400, "Editor"), row(5, 20, 10, 20, "Mail", false)};
    VitalsSampler sampler({m.proc(), m.sys(), m.dir.path(), [&] { return m.now; }, activity, 2});
    auto s = sampler.sample();
    ASSERT_EQ(s.topProcesses.size(), 2u);
    EXPECT_EQ(s.topProcesses[0].pid, 2);
    EXPECT_EQ(s.topProcesses[1].pid, 3);
    ASSERT_EQ(s.heaviestProcesses.size(), 2u);
    EXPECT_EQ(s.heaviestProcesses[0].pid, 3); // no footprint known: its resident size, marked so
    EXPECT_EQ(s.heaviestProcesses[0].memoryBytes, 900u);
    EXPECT_TRUE(s.heaviestProcesses[0].memoryIsResident);
    EXPECT_EQ(s.heaviestProcesses[1].pid, 4);
    EXPECT_FALSE(s.heaviestProcesses[1].memoryIsResident);
    EXPECT_EQ(s.apps, (std::vector<std::string>{"Editor"})); // another user's app is not running for us
}
