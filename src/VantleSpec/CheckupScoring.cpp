#include "VantleSpec/CheckupScoring.h"
#include "VantleSpec/Figures.h"

#include "VantleSpec/ByteCount.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace vantle {

using namespace checkup_points;

namespace {

// Points and figures in the score's lines, through the shared formatters that clamp them.
std::string n(double v) {
    auto s = decimalFigure(v, 2, 0, 1e15);
    s.erase(s.find_last_not_of('0') + 1);
    if (s.ends_with('.')) s.pop_back();
    return s;
}
std::string pct(double share) {
    return wholePercent(share * 100);
}

// Points growing from 0 at `fine` to `most` at `worst` (either direction), never outside 0..most.
double ramp(double value, double fine, double worst, double most) {
    double t = (value - fine) / (worst - fine);
    return most * std::clamp(t, 0.0, 1.0);
}

int whole(double points) {
    return int(std::lround(points));
}

CheckupScore::Part part(CheckupArea area, double points, int most, std::string line) {
    return {area, std::clamp(whole(points), 0, most), most, std::move(line)};
}

CheckupScore::Part storage(const CheckupFacts& f) {
    const CheckupFacts::Volume* fullest = nullptr;
    double least = 2;
    for (const auto* v : {f.home ? &*f.home : nullptr, f.root ? &*f.root : nullptr}) {
        if (!v || v->totalBytes == 0) continue;
        double free = double(std::min(v->availableBytes, v->totalBytes)) / double(v->totalBytes);
        if (free < least) least = free, fullest = v;
    }
    if (!fullest)
        return part(CheckupArea::storage, 0, storageMost, "Free space not read: " + f.whyUnknown("home"));
    return part(CheckupArea::storage, ramp(least, storageFreeFine, storageFreeWorst, storageMost),
                storageMost, pct(least) + " free on " + fullest->path);
}

CheckupScore::Part memory(const CheckupFacts& f) {
    double points = 0;
    std::vector<std::string> why;
    if (f.pressure && *f.pressure != VitalsSnapshot::Pressure::normal) {
        points += *f.pressure == VitalsSnapshot::Pressure::critical ? memoryCritical : memoryWarning;
        why.push_back(std::string("memory pressure is ") + std::string(nameOf(*f.pressure)));
    }
    if (f.swapUsed && f.memoryTotal && *f.memoryTotal > 0 && *f.swapUsed > 0) {
        double share = double(*f.swapUsed) / double(*f.memoryTotal);
        double swap = ramp(share, 0, swapWorstShare, swapMost);
        if (whole(swap) > 0) {
            points += swap;
            why.push_back(memoryBytes(std::int64_t(*f.swapUsed)) + " swapped");
        }
    }
    if (!f.pressure && !f.swapUsed)
        return part(CheckupArea::memory, 0, memoryMost, "Memory not read: " + f.whyUnknown("pressure"));
    std::string line = why.empty() ? "No memory pressure" : why[0];
    if (why.size() > 1) line += ", " + why[1];
    if (!why.empty()) line[0] = char(std::toupper(line[0]));
    return part(CheckupArea::memory, std::min<double>(points, memoryMost), memoryMost, line);
}

CheckupScore::Part performance(const CheckupFacts& f) {
    double load = 0, heat = 0;
    std::string line;
    if (f.load1 && f.cores && *f.cores > 0) {
        double perCore = *f.load1 / *f.cores;
        load = ramp(perCore, 1.0, loadWorstPerCore, performanceMost);
        line = "Load " + n(std::round(*f.load1 * 100) / 100) + " on " + wholeNumber(double(*f.cores)) +
               (*f.cores == 1 ? " core" : " cores");
    }
    if (f.thermal) {
        using T = VitalsSnapshot::Thermal;
        heat = *f.thermal == T::critical  ? heatCritical
               : *f.thermal == T::serious ? heatSerious
               : *f.thermal == T::fair    ? heatFair
                                          : 0;
        if (heat > load) line = std::string("Heat is ") + std::string(nameOf(*f.thermal));
    }
    if (line.empty())
        return part(CheckupArea::performance, 0, performanceMost, "Load not read: " + f.whyUnknown("load1"));
    return part(CheckupArea::performance, std::max(load, heat), performanceMost, line);
}

CheckupScore::Part battery(const CheckupFacts& f) {
    if (f.hasBattery == false) return part(CheckupArea::battery, 0, batteryMost, "No battery");
    double points = 0;
    std::string line = "Battery health not read: " + f.whyUnknown("batteryHealth");
    if (f.batteryHealth) {
        points = ramp(*f.batteryHealth, batteryFine, batteryWorst, batteryMost);
        line = "The battery holds " + pct(*f.batteryHealth) + " of what it held new";
    }
    if (f.batteryCondition && *f.batteryCondition != "Good" && *f.batteryCondition != "Unknown") {
        points = batteryMost;
        line = "The battery reports " + *f.batteryCondition;
    }
    return part(CheckupArea::battery, points, batteryMost, line);
}

CheckupScore::Part stability(const CheckupFacts& f) {
    if (!f.failedUnits && !f.crashes && !f.kernelOopses)
        return part(CheckupArea::stability, 0, stabilityMost, "Not read: " + f.whyUnknown("failedUnits"));
    int failed = f.failedUnits ? int(f.failedUnits->size()) : 0;
    int crashes = (f.crashes ? int(f.crashes->size()) : 0) + f.kernelOopses.value_or(0);
    double points =
        std::min(failed * perFailedUnit, failedUnitsMost) + std::min(crashes * perCrash, crashesMost);
    std::string line = std::to_string(failed) + (failed == 1 ? " failed service, " : " failed services, ") +
                       std::to_string(crashes) + (crashes == 1 ? " crash" : " crashes");
    return part(CheckupArea::stability, points, stabilityMost, line);
}

CheckupScore::Part security(const CheckupFacts& f) {
    double points = 0;
    std::vector<std::string> missing;
    if (f.homeEncrypted == false) points += notEncrypted, missing.push_back("home not encrypted");
    if (f.firewall == false) points += noFirewall, missing.push_back("no firewall");
    if (f.automaticUpdates == false) points += noAutomaticUpdates, missing.push_back("no automatic updates");
    if (f.screenLock == false) points += noScreenLock, missing.push_back("screen does not lock");
    std::string line;
    for (auto& m : missing)
        line += (line.empty() ? "" : ", ") + m;
    if (line.empty())
        line = "Nothing missing that could be read";
    else
        line[0] = char(std::toupper(line[0]));
    return part(CheckupArea::security, points, securityMost, line);
}

CheckupScore::Part updates(const CheckupFacts& f) {
    if (!f.upgrades && !f.rebootRequired)
        return part(CheckupArea::updates, 0, updatesMost, "Not read: " + f.whyUnknown("upgrades"));
    int security = 0, other = 0;
    if (f.upgrades)
        for (auto& u : *f.upgrades)
            (u.security ? security : other) += 1;
    double points = std::min(security * perSecurityUpgrade, securityUpgradesMost) +
                    std::min(other / upgradesPerPoint, otherUpgradesMost) +
                    (f.rebootRequired == true ? rebootPending : 0);
    std::string line =
        std::to_string(security + other) + " pending (" + std::to_string(security) + " security)";
    if (f.rebootRequired == true) line += ", a restart is needed";
    return part(CheckupArea::updates, std::min<double>(points, updatesMost), updatesMost, line);
}

CheckupScore::Part backups(const CheckupFacts& f, TimePoint now) {
    if (!f.backups || f.backups->empty())
        return part(CheckupArea::backups, 0, backupsMost, "No backup known");
    std::optional<TimePoint> newest;
    for (auto& b : *f.backups)
        if (b.lastRun && (!newest || *b.lastRun > *newest)) newest = b.lastRun;
    if (!newest) return part(CheckupArea::backups, backupsMost, backupsMost, "No successful backup recorded");
    double days = std::max(0.0, std::chrono::duration<double>(now - *newest).count() / 86400);
    return part(CheckupArea::backups, ramp(days, backupFineDays, backupWorstDays, backupsMost), backupsMost,
                "Newest backup " + n(std::floor(days)) + (std::floor(days) == 1 ? " day old" : " days old"));
}

} // namespace

std::vector<CheckupScoreRule> checkupScoreRules() {
    auto s = [](int v) { return std::to_string(v); };
    return {
        {CheckupArea::storage, storageMost,
         "Points as free space on the home's or the system's volume falls under " + pct(storageFreeFine) +
             ", the most at " + pct(storageFreeWorst) + "."},
        {CheckupArea::memory, memoryMost,
         s(memoryWarning) + " when the kernel reports memory pressure, " + s(memoryCritical) +
             " when it is critical; up to " + s(swapMost) + " as swap grows to a quarter of memory."},
        {CheckupArea::performance, performanceMost,
         "Points as the load passes one task a core, the most at " + n(loadWorstPerCore) + " a core; or " +
             s(heatFair) + " warm, " + s(heatSerious) + " hot, " + s(heatCritical) +
             " very hot, whichever is more."},
        {CheckupArea::battery, batteryMost,
         "Points as the battery falls under " + pct(batteryFine) + " of what it held new, the most at " +
             pct(batteryWorst) + " or when it reports a fault."},
        {CheckupArea::stability, stabilityMost,
         s(perFailedUnit) + " for each failed service (at most " + s(failedUnitsMost) + "), " + s(perCrash) +
             " for each crash of the last thirty days or kernel oops since start (at most " + s(crashesMost) +
             ")."},
        {CheckupArea::security, securityMost,
         s(notEncrypted) + " when the home is not on an encrypted disk, " + s(noFirewall) +
             " without a firewall, " + s(noAutomaticUpdates) + " without automatic security updates, " +
             s(noScreenLock) + " when the screen does not lock."},
        {CheckupArea::updates, updatesMost,
         s(perSecurityUpgrade) + " for each pending security update (at most " + s(securityUpgradesMost) +
             "), " + "1 for every " + s(upgradesPerPoint) + " other updates (at most " +
             s(otherUpgradesMost) + "), " + s(rebootPending) + " when a restart is needed."},
        {CheckupArea::backups, backupsMost,
         "Points as the newest backup grows older than " + n(backupFineDays) + " days, the most at " +
             n(backupWorstDays) + " days or when a configured backup never succeeded."},
    };
}

CheckupScore scoreCheckup(const CheckupFacts& facts, TimePoint now) {
    CheckupScore score;
    score.parts = {storage(facts),   memory(facts),   performance(facts), battery(facts),
                   stability(facts), security(facts), updates(facts),     backups(facts, now)};
    // Parts are listed in the areas' own order.
    std::ranges::stable_sort(score.parts, {}, &CheckupScore::Part::area);
    int taken = 0;
    for (auto& p : score.parts)
        taken += p.points;
    score.value = std::max(0, 100 - taken);
    return score;
}

} // namespace vantle
