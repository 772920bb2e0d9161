// The checkup's score: 100, less the points each area takes for what was read in it. The areas'
// limits add up to 100, every part grows (never shrinks) as its reading worsens, and a fact that
// could not be read takes nothing: the score counts only what the machine told. Pure functions.
#pragma once
#include "VantleSpec/CheckupFacts.h"
#include "VantleSpec/CheckupRecords.h"

#include <string_view>
#include <vector>

namespace vantle {

namespace checkup_points {
// storage: the fuller of the home's and the system's volumes
inline constexpr int storageMost = 20;
inline constexpr double storageFreeFine = 0.20;  // nothing taken at or above this share free
inline constexpr double storageFreeWorst = 0.05; // the most taken at or below it
// memory: the kernel's pressure level, and swap against physical memory
inline constexpr int memoryMost = 15;
inline constexpr int memoryWarning = 8;
inline constexpr int memoryCritical = 15;
inline constexpr int swapMost = 7;
inline constexpr double swapWorstShare = 0.25; // swap a quarter of memory takes swapMost
// performance: load per core beyond one, and heat
inline constexpr int performanceMost = 10;
inline constexpr double loadWorstPerCore = 2.0; // the most at twice as many tasks as cores
inline constexpr int heatFair = 2;
inline constexpr int heatSerious = 6;
inline constexpr int heatCritical = 10;
// battery: health under 80% of new, the most at 60%; a battery that says it is failing
inline constexpr int batteryMost = 5;
inline constexpr double batteryFine = 0.8;
inline constexpr double batteryWorst = 0.6;
// stability: failed services; crashes of the last thirty days and kernel oopses of this boot
inline constexpr int stabilityMost = 15;
inline constexpr int perFailedUnit = 3;
inline constexpr int failedUnitsMost = 9;
inline constexpr int perCrash = 2;
inline constexpr int crashesMost = 6;
// security
inline constexpr int securityMost = 15;
inline constexpr int notEncrypted = 6;
inline constexpr int noFirewall = 3;
inline constexpr int noAutomaticUpdates = 3;
inline constexpr int noScreenLock = 3;
// updates
inline constexpr int updatesMost = 10;
inline constexpr int perSecurityUpgrade = 2;
inline constexpr int securityUpgradesMost = 6;
inline constexpr int upgradesPerPoint = 20; // other upgrades: a point for every twenty
inline constexpr int otherUpgradesMost = 2;
inline constexpr int rebootPending = 2;
// backups: days since the newest backup run
inline constexpr int backupsMost = 10;
inline constexpr double backupFineDays = 7;
inline constexpr double backupWorstDays = 30;
} // namespace checkup_points

// One row of "how the score is worked out": the area, the most it takes, and how.
struct CheckupScoreRule {
    CheckupArea area;
    int most;
    std::string sentence;
};
std::vector<CheckupScoreRule> checkupScoreRules();

// The score of what was read at `now` (the age of backups is counted to it). Parts come in the
// areas' order, one for each scored area, with zero points where nothing was taken.
CheckupScore scoreCheckup(const CheckupFacts& facts, TimePoint now);

} // namespace vantle
