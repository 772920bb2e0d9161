#include "VantleSpec/CheckupScoring.h"
#include "VantleSpec/ByteCount.h"

#include <gtest/gtest.h>

#include <functional>

using namespace vantle;
using namespace std::chrono;

namespace {

const TimePoint scoringNow = sys_days{2026y / November / 22} + 12h;

// A machine where everything that can be read is read, and all is well.
CheckupFacts quiet() {
    CheckupFacts f;
    f.load1 = 0.5, f.cores = 4, f.thermal = VitalsSnapshot::Thermal::nominal;
    f.memoryTotal = 16 * GiB, f.memoryAvailable = 10 * GiB, f.swapTotal = 4 * GiB, f.swapUsed = 0;
    f.pressure = VitalsSnapshot::Pressure::normal;
    f.home = CheckupFacts::Volume{"/home/ada", 1000, 600};
    f.root = CheckupFacts::Volume{"/", 1000, 500};
    f.hasBattery = true, f.batteryHealth = 0.95, f.batteryCondition = "Good";
    f.failedUnits = std::vector<std::string>{}, f.crashes = std::vector<CheckupFacts::Crash>{},
    f.kernelOopses = 0;
    f.homeEncrypted = true, f.firewall = true, f.automaticUpdates = true, f.screenLock = true;
    f.upgrades = std::vector<CheckupFacts::Upgrade>{}, f.rebootRequired = false;
    f.backups = std::vector<CheckupFacts::Backup>{{"borg", "nas", scoringNow - 1h}};
    return f;
}

int pointsOf(const CheckupScore& s, CheckupArea area) {
    for (auto& p : s.parts)
        if (p.area == area) return p.points;
    ADD_FAILURE() << "no part for " << nameOf(area);
    return -1;
}

// Walks one reading from good to bad in `steps` and checks the score never rises and the area's
// points never fall; also that the walk's worst end really takes points.
void expectNeverRises(CheckupArea area, int steps, const std::function<void(CheckupFacts&, int)>& worsen) {
    int lastValue = 101, lastPoints = -1;
    for (int i = 0; i <= steps; ++i) {
        auto f = quiet();
        worsen(f, i);
        auto s = scoreCheckup(f, scoringNow);
        EXPECT_LE(s.value, lastValue) << nameOf(area) << " step " << i;
        EXPECT_GE(pointsOf(s, area), lastPoints) << nameOf(area) << " step " << i;
        lastValue = s.value, lastPoints = pointsOf(s, area);
    }
    EXPECT_GT(lastPoints, 0) << nameOf(area) << " never took points";
}

} // namespace

TEST(CheckupScore, AQuietMachineScoresFullAndUnreadFactsTakeNothing) {
    auto s = scoreCheckup(quiet(), scoringNow);
    EXPECT_EQ(s.value, 100);
    for (auto& p : s.parts)
        EXPECT_EQ(p.points, 0) << nameOf(p.area) << ": " << p.line;

    CheckupFacts nothing;
    nothing.unknown["home"] = "statvfs failed";
    auto blind = scoreCheckup(nothing, scoringNow);
    EXPECT_EQ(blind.value, 100);
    EXPECT_EQ(blind.parts[0].area, CheckupArea::performance) << "parts come in the areas' order";
    for (auto& p : blind.parts) {
        if (p.area == CheckupArea::storage) {
            EXPECT_EQ(p.line, "Free space not read: statvfs failed");
        }
    }
}

TEST(CheckupScore, NeverRisesAsAnyReadingWorsens) {
    using P = VitalsSnapshot::Pressure;
    using T = VitalsSnapshot::Thermal;
    expectNeverRises(CheckupArea::storage, 50,
                     [](auto& f, int i) { f.home->availableBytes = 1000 - 20 * i; });
    expectNeverRises(CheckupArea::storage, 50, [](auto& f, int i) { f.root->availableBytes = 500 - 10 * i; });
    expectNeverRises(CheckupArea::memory, 40, [](auto& f, int i) {
        f.swapUsed = std::uint64_t(i) * GiB / 4;
        f.pressure = i < 10 ? P::normal : i < 25 ? P::warning : P::critical;
    });
    expectNeverRises(CheckupArea::performance, 40, [](auto& f, int i) {
        f.load1 = 0.25 * i;
        f.thermal = T(std::min(3, i / 10));
    });
    expectNeverRises(CheckupArea::battery, 30, [](auto& f, int i) {
        f.batteryHealth = 1.0 - 0.025 * i;
        if (i == 30) f.batteryCondition = "Dead";
    });
    expectNeverRises(CheckupArea::stability, 10, [](auto& f, int i) {
        for (int k = 0; k < i; ++k)
            f.failedUnits->push_back("unit" + std::to_string(k));
        f.kernelOopses = i / 2;
        for (int k = 0; k < i; ++k)
            f.crashes->push_back({"app", scoringNow - 1h, "/var/crash/x"});
    });
    expectNeverRises(CheckupArea::security, 4, [](auto& f, int i) {
        if (i > 0) f.screenLock = false;
        if (i > 1) f.firewall = false;
        if (i > 2) f.automaticUpdates = false;
        if (i > 3) f.homeEncrypted = false;
    });
    expectNeverRises(CheckupArea::updates, 60, [](auto& f, int i) {
        for (int k = 0; k < i; ++k)
            f.upgrades->push_back({"p" + std::to_string(k), "1", "2", k % 7 == 0});
        f.rebootRequired = i > 30;
    });
    expectNeverRises(CheckupArea::backups, 45, [](auto& f, int i) {
        if (i == 45)
            f.backups->front().lastRun.reset(); // configured, never succeeded: worst of all
        else
            f.backups->front().lastRun = scoringNow - hours(24 * i);
    });
}

TEST(CheckupScore, TheWorstOfEverythingScoresZeroAndTheFullerVolumeSpeaks) {
    auto f = quiet();
    f.home->availableBytes = 0;
    f.pressure = VitalsSnapshot::Pressure::critical;
    f.load1 = 100;
    f.batteryCondition = "Dead";
    f.failedUnits = std::vector<std::string>(5, "x.service");
    f.kernelOopses = 5;
    f.homeEncrypted = f.firewall = f.automaticUpdates = f.screenLock = false;
    f.upgrades = std::vector<CheckupFacts::Upgrade>(10, {"s", "1", "2", true});
    f.upgrades->resize(50, {"p", "1", "2", false});
    f.rebootRequired = true;
    f.backups->front().lastRun.reset();
    auto s = scoreCheckup(f, scoringNow);
    EXPECT_EQ(s.value, 0);
    for (auto& p : s.parts)
        EXPECT_EQ(p.points, p.most) << nameOf(p.area) << ": " << p.line;

    auto g = quiet();
    g.home->availableBytes = 150; // 15% free
    g.root->availableBytes = 80;  // 8% free: the fuller one
    for (auto& p : scoreCheckup(g, scoringNow).parts)
        if (p.area == CheckupArea::storage) {
            EXPECT_EQ(p.line, "8% free on /");
            EXPECT_EQ(p.points, 16); // 20 x (0.20 - 0.08) / 0.15
        }
}
