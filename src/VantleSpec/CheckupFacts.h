// What a checkup read of the machine, as raw figures before they become sentences: every fact is
// optional, and a fact that could not be read has its reason under its name in `unknown`. The
// checkup's sections, findings and score are worked out from this record alone, so a sandbox can
// hand in a made-up one. A plain value owned by whoever holds it; safe to copy between threads.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleSpec/VitalsRecords.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

struct CheckupFacts {
    struct Volume {
        std::string path;
        std::uint64_t totalBytes = 0;
        std::uint64_t availableBytes = 0;
        bool operator==(const Volume&) const = default;
    };
    // An entry that starts with the user's session: an autostart entry or an enabled user service.
    struct StartupEntry {
        std::string name;
        std::string path;
        bool userService = false;
        bool operator==(const StartupEntry&) const = default;
    };
    struct Crash {
        std::string name; // the program that crashed, as its report names it
        TimePoint at{};
        std::string path;
        bool operator==(const Crash&) const = default;
    };
    // A backup tool the user configured, and its last successful run where it records one.
    struct Backup {
        std::string tool;
        std::string where; // the repository or destination, as the tool names it
        std::optional<TimePoint> lastRun;
        bool operator==(const Backup&) const = default;
    };
    struct Interface {
        std::string name;
        bool wireless = false;
        bool operator==(const Interface&) const = default;
    };
    // A package with a newer version in the package manager's own lists.
    struct Upgrade {
        std::string name;
        std::string installed;
        std::string candidate;
        bool security = false;
        bool operator==(const Upgrade&) const = default;
    };

    // age
    std::optional<std::string> firmwareDate; // YYYY-MM-DD
    std::optional<TimePoint> installed;      // when this system was set up
    // performance
    std::optional<double> load1; // the one-minute load average
    std::optional<int> cores;
    std::optional<double> cpuStall; // share of the last minute some task waited for the processor, %
    std::optional<VitalsSnapshot::Thermal> thermal;
    // memory
    std::optional<std::uint64_t> memoryTotal;
    std::optional<std::uint64_t> memoryAvailable;
    std::optional<double> memoryStall; // share of the last ten seconds some task waited for memory, %
    std::optional<VitalsSnapshot::Pressure> pressure;
    std::optional<std::uint64_t> swapTotal;
    std::optional<std::uint64_t> swapUsed;
    // storage
    std::optional<Volume> home;
    std::optional<Volume> root; // absent as a separate reading when `/` is the home's own volume
    bool rootIsHome = false;
    // battery
    std::optional<bool> hasBattery;
    std::optional<double> batteryHealth; // full charge against design, 0..1
    std::optional<std::int64_t> batteryCycles;
    std::optional<std::string> batteryCondition;
    std::optional<double> charge;
    std::optional<bool> onBattery;
    // energy
    std::optional<double> watts;
    std::optional<std::string> powerProfile;
    // stability
    std::optional<double> uptimeSeconds;
    std::optional<TimePoint> bootTime;
    std::optional<std::vector<Crash>> crashes; // the last thirty days
    std::optional<int> kernelOopses;           // since this boot
    std::optional<std::vector<std::string>> failedUnits;
    // startup
    std::optional<std::vector<StartupEntry>> startupEntries;
    // security
    std::optional<bool> homeEncrypted;
    std::optional<std::string> encryptionHow; // "dm-crypt (LUKS) on nvme0n1p3", "not encrypted: sda2"
    std::optional<bool> firewall;
    std::optional<std::string> firewallHow;
    std::optional<bool> automaticUpdates;
    std::optional<std::string> automaticUpdatesHow;
    std::optional<bool> screenLock;
    // updates
    std::optional<std::vector<Upgrade>> upgrades;
    std::optional<TimePoint> listsRead; // when the package lists were last fetched
    std::optional<bool> rebootRequired;
    std::optional<std::vector<std::string>> rebootFor; // the packages that asked for it
    // backups
    std::optional<std::vector<Backup>> backups;
    // network
    std::optional<std::vector<Interface>> interfacesUp;
    std::optional<std::string> defaultRoute; // "wlp2s0 via 192.168.1.1"
    // system
    std::optional<std::string> distribution;
    std::optional<std::string> kernel;
    std::optional<std::string> model;
    std::optional<std::string> firmware;

    std::map<std::string, std::string> unknown; // fact name -> why it could not be read

    bool operator==(const CheckupFacts&) const = default;

    // The reason a fact is unknown, or a plain one when the reader left none.
    std::string whyUnknown(const std::string& fact) const {
        auto it = unknown.find(fact);
        return it == unknown.end() ? "this machine does not tell" : it->second;
    }
};

VANTLE_RECORD_JSON(CheckupFacts::Volume, path, totalBytes, availableBytes)
VANTLE_RECORD_JSON(CheckupFacts::StartupEntry, name, path, userService)
VANTLE_RECORD_JSON(CheckupFacts::Crash, name, at, path)
VANTLE_RECORD_JSON(CheckupFacts::Backup, tool, where, lastRun)
VANTLE_RECORD_JSON(CheckupFacts::Interface, name, wireless)
VANTLE_RECORD_JSON(CheckupFacts::Upgrade, name, installed, candidate, security)

// Every field is optional in JSON too, so a stand-in table need only give what it shows.
inline void to_json(Json& j, const CheckupFacts& v);
inline void from_json(const Json& j, CheckupFacts& v);

#define VANTLE_CHECKUP_FACTS(X)                                                                              \
    X(firmwareDate)                                                                                          \
    X(installed) X(load1) X(cores) X(cpuStall) X(thermal) X(memoryTotal) X(memoryAvailable) X(memoryStall)   \
        X(pressure) X(swapTotal) X(swapUsed) X(home) X(root) X(rootIsHome) X(hasBattery) X(batteryHealth)    \
            X(batteryCycles) X(batteryCondition) X(charge) X(onBattery) X(watts) X(powerProfile)             \
                X(uptimeSeconds) X(bootTime) X(crashes) X(kernelOopses) X(failedUnits) X(startupEntries)     \
                    X(homeEncrypted) X(encryptionHow) X(firewall) X(firewallHow) X(automaticUpdates)         \
                        X(automaticUpdatesHow) X(screenLock) X(upgrades) X(listsRead) X(rebootRequired)      \
                            X(rebootFor) X(backups) X(interfacesUp) X(defaultRoute) X(distribution)          \
                                X(kernel) X(model) X(firmware) X(unknown)

inline void to_json(Json& j, const CheckupFacts& v) {
    j = Json::object();
#define VANTLE_FACT_PUT(field) ::vantle::json_detail::put(j, #field, v.field);
    VANTLE_CHECKUP_FACTS(VANTLE_FACT_PUT)
#undef VANTLE_FACT_PUT
}

inline void from_json(const Json& j, CheckupFacts& v) {
#define VANTLE_FACT_GET(field)                                                                               \
    if (j.contains(#field)) ::vantle::json_detail::get(j, #field, v.field);
    VANTLE_CHECKUP_FACTS(VANTLE_FACT_GET)
#undef VANTLE_FACT_GET
}
#undef VANTLE_CHECKUP_FACTS

} // namespace vantle
