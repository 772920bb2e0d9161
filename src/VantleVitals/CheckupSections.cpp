#include "VantleVitals/CheckupSections.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/CheckupScoring.h"
#include "VantleSpec/Figures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace vantle {

namespace {

using Status = CheckupStatus;
using Action = CheckupAction;
using Kind = CheckupAction::Kind;

constexpr double day = 86400;

// Figures are shown through the shared formatters, which clamp each to what it can mean.
std::string plural(std::int64_t n, const char* one, const char* many) {
    return countWords(n, one, many);
}

std::string dateOf(TimePoint at) {
    auto t = std::chrono::system_clock::to_time_t(at);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d", &tm);
    return buffer;
}

std::string age(double seconds) {
    return durationWords(seconds);
}

Status worse(Status a, Status b) {
    auto rank = [](Status s) {
        return s == Status::attention ? 3 : s == Status::note ? 2 : s == Status::good ? 1 : 0;
    };
    return rank(a) >= rank(b) ? a : b;
}

// Builds one section and the findings that come with it.
class Area {
  public:
    Area(CheckupArea area, const CheckupFacts& facts, const CheckupBuildOptions& options,
         std::vector<CheckupFinding>& findings)
        : facts_(facts), options_(options), findings_(findings) {
        section_.area = area;
    }

    void reading(std::string id, std::string title, std::string value, std::string meaning, std::string why,
                 Status status, std::string_view source, std::optional<Action> action = std::nullopt) {
        section_.readings.push_back({std::move(id), std::move(title), std::move(value), std::move(meaning),
                                     std::move(why), status, sourceOf(source), std::move(action)});
        status_ = worse(status_, status);
    }

    // A reading the machine did not give: its value says why, and it takes no part in the status.
    void unknown(std::string id, std::string title, const std::string& fact, std::string meaning,
                 std::string why, std::string_view source) {
        section_.readings.push_back({std::move(id), std::move(title),
                                     "Unknown (" + facts_.whyUnknown(fact) + ")", std::move(meaning),
                                     std::move(why), Status::unknown, sourceOf(source), std::nullopt});
    }

    void item(CheckupItem item) {
        status_ = worse(status_, item.status);
        section_.items.push_back(std::move(item));
    }

    void finding(std::string id, Status status, std::string title, std::string detail, std::string why,
                 std::optional<Action> action = std::nullopt) {
        findings_.push_back({std::move(id), section_.area, status, std::move(title), std::move(detail),
                             std::move(why), std::move(action)});
    }

    void list(std::string title) { section_.listTitle = std::move(title); }

    // The verdict follows the section's status.
    CheckupSection done(std::string_view good, std::string_view note, std::string_view attention,
                        std::string_view unknown) {
        section_.status = status_;
        section_.verdict = std::string(status_ == Status::attention ? attention
                                       : status_ == Status::note    ? note
                                       : status_ == Status::good    ? good
                                                                    : unknown);
        return std::move(section_);
    }

    Status status() const { return status_; }

  private:
    std::string sourceOf(std::string_view source) const {
        if (!options_.standInSource) return std::string(source);
        return *options_.standInSource + ", standing in for " + std::string(source);
    }

    const CheckupFacts& facts_;
    const CheckupBuildOptions& options_;
    std::vector<CheckupFinding>& findings_;
    CheckupSection section_;
    Status status_ = Status::unknown;
};

using Findings = std::vector<CheckupFinding>;
using Opt = CheckupBuildOptions;

CheckupSection ageSection(const CheckupFacts& f, TimePoint now, const Opt& o, Findings& out) {
    Area a(CheckupArea::age, f, o, out);
    const char* why =
        "Firmware and hardware this old may no longer get fixes, and parts wear out with the years.";
    if (f.firmwareDate) {
        int year = std::atoi(f.firmwareDate->substr(0, 4).c_str());
        auto nowYear = std::atoi(dateOf(now).substr(0, 4).c_str());
        int years = nowYear - year;
        Status s = year > 0 && years >= 7 ? Status::note : Status::good;
        a.reading("firmwareDate", "Firmware date", *f.firmwareDate,
                  "When this machine's firmware was released; a machine is at least this old.", why, s,
                  "/sys/class/dmi/id/bios_date");
        if (s == Status::note)
            a.finding("oldFirmware", Status::note, "This machine's firmware is from " + std::to_string(year),
                      "Its maker may publish a newer firmware; check the maker's support page or fwupd.",
                      why);
    } else {
        a.unknown("firmwareDate", "Firmware date", "firmwareDate",
                  "When this machine's firmware was released.", why, "/sys/class/dmi/id/bios_date");
    }
    if (f.installed) {
        double seconds = std::chrono::duration<double>(now - *f.installed).count();
        a.reading("installed", "System set up",
                  dateOf(*f.installed) + " (" + age(std::max(0.0, seconds)) + " ago)",
                  "When this system was first started.",
                  "An old installation carries settings and packages from long ago.", Status::good,
                  "statx /etc/machine-id");
    } else {
        a.unknown("installed", "System set up", "installed", "When this system was first started.",
                  "An old installation carries settings and packages from long ago.",
                  "statx /etc/machine-id");
    }
    return a.done("This machine's age gives no cause for concern.", "This machine is getting on in years.",
                  "This machine is getting on in years.", "This machine's age could not be read.");
}

CheckupSection performanceSection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::performance, f, o, out);
    const char* loadWhy = "More tasks waiting than cores to run them makes everything slower.";
    if (f.load1 && f.cores && *f.cores > 0) {
        double perCore = *f.load1 / *f.cores;
        Status s = perCore > 2 ? Status::attention : perCore > 1 ? Status::note : Status::good;
        a.reading(
            "load", "Load", decimalFigure(*f.load1, 2, 0, 1e6) + " on " + plural(*f.cores, "core", "cores"),
            "Tasks running or waiting to run, averaged over the last minute.", loadWhy, s, "/proc/loadavg",
            s == Status::good ? std::nullopt : std::optional<Action>(Action{Kind::balanceLoad, {}}));
        if (s != Status::good)
            a.finding("busyProcessor", s, "The processor is overloaded",
                      "The last minute averaged " + decimalFigure(perCore, 1, 0, 1e6) +
                          " tasks for each core.",
                      loadWhy, Action{Kind::balanceLoad, {}});
    } else {
        a.unknown("load", "Load", "load1", "Tasks running or waiting to run over the last minute.", loadWhy,
                  "/proc/loadavg");
    }
    if (f.cpuStall) {
        Status s = *f.cpuStall >= 50 ? Status::note : Status::good;
        a.reading("cpuStall", "Waiting for the processor",
                  decimalFigure(*f.cpuStall, 0, 0, 100) + "% of the last minute",
                  "How long some task was ready to run but had to wait.", loadWhy, s, "/proc/pressure/cpu",
                  s == Status::good ? std::nullopt : std::optional<Action>(Action{Kind::showActivity, {}}));
    } else {
        a.unknown("cpuStall", "Waiting for the processor", "cpuStall",
                  "How long some task had to wait to run.", loadWhy, "/proc/pressure/cpu");
    }
    const char* heatWhy = "A hot processor is slowed down to cool it.";
    if (f.thermal) {
        using T = VitalsSnapshot::Thermal;
        Status s = *f.thermal >= T::serious ? Status::attention
                   : *f.thermal == T::fair  ? Status::note
                                            : Status::good;
        a.reading("heat", "Heat", std::string(heatWord(*f.thermal)),
                  "The hottest thermal zone against its own trip points.", heatWhy, s, "/sys/class/thermal",
                  s == Status::good ? std::nullopt : std::optional<Action>(Action{Kind::showActivity, {}}));
        if (s == Status::attention)
            a.finding("hot", s, "This machine is hot",
                      "A thermal zone is at or past the point where the kernel slows the chip.", heatWhy,
                      Action{Kind::showActivity, {}});
    } else {
        a.unknown("heat", "Heat", "thermal", "The hottest thermal zone against its trip points.", heatWhy,
                  "/sys/class/thermal");
    }
    return a.done("The processor keeps up with its work.",
                  "The processor is busier than it can comfortably be.",
                  "The processor is overloaded or too hot.", "The processor's load could not be read.");
}

CheckupSection memorySection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::memory, f, o, out);
    const char* why = "When memory runs short the system waits on the disk and everything slows down.";
    if (f.pressure) {
        using P = VitalsSnapshot::Pressure;
        Status s = *f.pressure == P::critical  ? Status::attention
                   : *f.pressure == P::warning ? Status::note
                                               : Status::good;
        std::string value = *f.pressure == P::critical  ? "Critical"
                            : *f.pressure == P::warning ? "Raised"
                                                        : "Normal";
        if (f.memoryStall)
            value +=
                " (tasks waited " + decimalFigure(*f.memoryStall, 0, 0, 100) + "% of the last ten seconds)";
        a.reading("pressure", "Memory pressure", value, "How often tasks had to wait for memory.", why, s,
                  "/proc/pressure/memory",
                  s == Status::good ? std::nullopt : std::optional<Action>(Action{Kind::balanceLoad, {}}));
        if (s != Status::good)
            a.finding("memoryPressure", s, "Memory is running short",
                      "Tasks are waiting for memory; quitting apps you aren't using frees it.", why,
                      Action{Kind::balanceLoad, {}});
    } else {
        a.unknown("pressure", "Memory pressure", "pressure", "How often tasks had to wait for memory.", why,
                  "/proc/pressure/memory");
    }
    if (f.memoryTotal && f.memoryAvailable) {
        a.reading("available", "Available memory",
                  memoryBytes(std::int64_t(*f.memoryAvailable)) + " of " +
                      memoryBytes(std::int64_t(*f.memoryTotal)),
                  "Memory that can be given to apps without swapping.", why, Status::good, "/proc/meminfo");
    } else {
        a.unknown("available", "Available memory", "memoryTotal",
                  "Memory that can be given to apps without swapping.", why, "/proc/meminfo");
    }
    const char* swapWhy = "Memory swapped to the disk is much slower to get back.";
    if (f.swapTotal && *f.swapTotal == 0) {
        a.reading("swap", "Swap", "None set up", "Disk space the system can move memory to.", swapWhy,
                  Status::good, "/proc/meminfo");
    } else if (f.swapUsed && f.swapTotal) {
        double share = f.memoryTotal && *f.memoryTotal ? double(*f.swapUsed) / double(*f.memoryTotal) : 0;
        Status s = share >= 0.25 ? Status::note : Status::good;
        a.reading("swap", "Swap",
                  memoryBytes(std::int64_t(*f.swapUsed)) + " of " + memoryBytes(std::int64_t(*f.swapTotal)) +
                      " in use",
                  "Memory moved out to the disk.", swapWhy, s, "/proc/meminfo");
        if (s != Status::good)
            a.finding("swap", s, "Much memory is swapped to the disk",
                      memoryBytes(std::int64_t(*f.swapUsed)) +
                          " is in swap, over a quarter of this machine's memory.",
                      swapWhy, Action{Kind::showActivity, {}});
    } else {
        a.unknown("swap", "Swap", "swapUsed", "Memory moved out to the disk.", swapWhy, "/proc/meminfo");
    }
    return a.done("There is enough memory for what is running.", "Memory is getting tight.",
                  "Memory is running out.", "Memory could not be read.");
}

CheckupSection storageSection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::storage, f, o, out);
    const char* why = "A full disk stops apps saving their work and the system updating itself.";
    auto volume = [&](const CheckupFacts::Volume& v, const char* id, const char* title) {
        if (v.totalBytes == 0) {
            a.reading(id, title, "Unknown (the volume reports no size)", "Free space on " + v.path + ".", why,
                      Status::unknown, "statvfs");
            return;
        }
        double free = double(std::min(v.availableBytes, v.totalBytes)) / double(v.totalBytes);
        Status s = free < 0.10 ? Status::attention : free < 0.20 ? Status::note : Status::good;
        a.reading(id, title,
                  fileBytes(std::int64_t(v.availableBytes)) + " free of " +
                      fileBytes(std::int64_t(v.totalBytes)) + " (" + wholePercent(free * 100) + ")",
                  "Space free for you on " + v.path + ".", why, s, "statvfs",
                  s == Status::good ? std::nullopt : std::optional<Action>(Action{Kind::showStorage, {}}));
        if (s != Status::good)
            a.finding(std::string(id) + "Full", s,
                      std::string(s == Status::attention ? "Only " : "") + wholePercent(free * 100) + " of " +
                          v.path + " is free",
                      "Clean up shows what can go and asks before anything does.", why,
                      Action{Kind::cleanUp, {}});
    };
    if (f.home)
        volume(*f.home, "homeFree", "Free space for your files");
    else
        a.unknown("homeFree", "Free space for your files", "home", "Space free on the home's volume.", why,
                  "statvfs");
    if (f.root)
        volume(*f.root, "systemFree", "Free space for the system");
    else if (!f.rootIsHome)
        a.unknown("systemFree", "Free space for the system", "root", "Space free on the system's volume.",
                  why, "statvfs");
    return a.done("There is room on the disk.", "The disk is getting full.", "The disk is nearly full.",
                  "Free space could not be read.");
}

CheckupSection batterySection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::battery, f, o, out);
    const char* why = "A worn battery runs for less time and may shut the machine down early.";
    if (f.hasBattery == false) {
        a.reading("battery", "Battery", "None", "This machine runs on mains power.", why, Status::good,
                  "/sys/class/power_supply");
        return a.done("No battery: this machine runs on mains power.", "", "", "");
    }
    if (!f.hasBattery) {
        a.unknown("battery", "Battery", "hasBattery", "Whether this machine has a battery.", why,
                  "/sys/class/power_supply");
        return a.done("", "", "", "The battery could not be read.");
    }
    if (f.batteryHealth) {
        Status s = *f.batteryHealth < 0.6   ? Status::attention
                   : *f.batteryHealth < 0.8 ? Status::note
                                            : Status::good;
        a.reading("health", "Battery health", percent(*f.batteryHealth) + " of its design capacity",
                  "What the battery holds when full, against what it held new.", why, s,
                  "/sys/class/power_supply (energy_full / energy_full_design)");
        if (s != Status::good)
            a.finding("batteryWorn", s,
                      "The battery holds " + percent(*f.batteryHealth) + " of what it held new",
                      "Only a new battery can change that.", why);
    } else {
        a.unknown("health", "Battery health", "batteryHealth",
                  "What the battery holds against what it held new.", why, "/sys/class/power_supply");
    }
    if (f.batteryCycles)
        a.reading("cycles", "Charge cycles", wholeNumber(double(*f.batteryCycles)),
                  "Full charges the battery has been through.",
                  "Most laptop batteries are made for some 500 to 1000 cycles.", Status::good,
                  "/sys/class/power_supply (cycle_count)");
    else
        a.unknown("cycles", "Charge cycles", "batteryCycles", "Full charges the battery has been through.",
                  "Most laptop batteries are made for some 500 to 1000 cycles.", "/sys/class/power_supply");
    if (f.batteryCondition) {
        bool bad = *f.batteryCondition != "Good" && *f.batteryCondition != "Unknown";
        a.reading("condition", "Condition", *f.batteryCondition, "The battery's own word for its health.",
                  why, bad ? Status::attention : Status::good, "/sys/class/power_supply (health)");
        if (bad)
            a.finding("batteryFault", Status::attention, "The battery reports " + *f.batteryCondition,
                      "Have the battery looked at; a failing battery can swell or shut the machine down.",
                      why);
    }
    return a.done("The battery is in good health.", "The battery is wearing out.",
                  "The battery needs replacing.", "The battery's health could not be read.");
}

CheckupSection energySection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::energy, f, o, out);
    const char* why = "The power drawn sets how long the battery lasts and how warm the machine runs.";
    if (f.watts)
        a.reading("draw", "Power draw", decimalFigure(*f.watts, 1, 0, 1e5) + " W",
                  "What the machine draws from its battery now.", why, Status::good,
                  "/sys/class/power_supply (power_now)");
    else
        a.unknown("draw", "Power draw", "watts", "What the machine draws now.", why,
                  "/sys/class/power_supply");
    if (f.onBattery && f.charge) {
        Status s = *f.onBattery && *f.charge < 0.2 ? Status::note : Status::good;
        a.reading("charge", "Charge",
                  wholePercent(*f.charge * 100) + (*f.onBattery ? ", on battery" : ", on mains power"),
                  "How full the battery is.", "Below a fifth, plug in soon.", s,
                  "/sys/class/power_supply (capacity)");
        if (s != Status::good)
            a.finding("lowCharge", s, "The battery is at " + wholePercent(*f.charge * 100), "Plug in soon.",
                      "Below a fifth, plug in soon.");
    }
    if (f.powerProfile)
        a.reading("profile", "Power profile", *f.powerProfile,
                  "The balance the firmware keeps between speed and power.", why, Status::good,
                  "/sys/firmware/acpi/platform_profile");
    return a.done("Power use is as expected.", "The battery is low.", "The battery is low.",
                  "Power use could not be read.");
}

CheckupSection stabilitySection(const CheckupFacts& f, TimePoint now, const Opt& o, Findings& out) {
    Area a(CheckupArea::stability, f, o, out);
    if (f.uptimeSeconds) {
        std::string value = age(*f.uptimeSeconds);
        if (f.bootTime) value += " (started " + isoDate(*f.bootTime).substr(0, 16) + "Z)";
        a.reading("uptime", "Up", value, "Time since this machine last started.",
                  "Some fixes take effect only after a restart.", Status::good,
                  "/proc/uptime, /proc/stat btime");
    } else {
        a.unknown("uptime", "Up", "uptimeSeconds", "Time since this machine last started.",
                  "Some fixes take effect only after a restart.", "/proc/uptime");
    }
    const char* crashWhy = "Programs that crash lose work, and repeated crashes point at a fault to fix.";
    if (f.crashes) {
        Status s = f.crashes->empty() ? Status::good : Status::note;
        a.reading("crashes", "Crashes",
                  f.crashes->empty() ? "None in 30 days"
                                     : plural(std::int64_t(f.crashes->size()), "in 30 days", "in 30 days"),
                  "Crash reports and core dumps the system kept.", crashWhy, s,
                  "/var/crash, /var/lib/systemd/coredump");
        for (auto& c : *f.crashes)
            a.item({"crash:" + c.path, c.name, "Crashed " + dateOf(c.at), std::nullopt, Status::note, c.path,
                    Action{Kind::reveal, c.path}});
        if (!f.crashes->empty()) {
            a.list("Crashes");
            a.finding(
                "crashes", Status::note,
                plural(std::int64_t(f.crashes->size()), "program crashed", "programs crashed") + " lately",
                "The latest was " + f.crashes->back().name + " on " + dateOf(f.crashes->back().at) + ".",
                crashWhy, Action{Kind::showActivity, {}});
        }
    } else {
        a.unknown("crashes", "Crashes", "crashes", "Crash reports and core dumps the system kept.", crashWhy,
                  "/var/crash, /var/lib/systemd/coredump");
    }
    const char* oopsWhy =
        "A kernel oops means the kernel hit a fault; the machine may act oddly until restarted.";
    if (f.kernelOopses) {
        Status s = *f.kernelOopses > 0 ? Status::attention : Status::good;
        a.reading(
            "oopses", "Kernel faults",
            *f.kernelOopses ? plural(*f.kernelOopses, "since start", "since start") : "None since start",
            "Oopses and bugs the kernel logged since it started.", oopsWhy, s, "journalctl -k -b -p err",
            s == Status::good ? std::nullopt : std::optional<Action>(Action{Kind::restart, {}}));
        if (s != Status::good)
            a.finding("oops", s, "The kernel logged a fault",
                      "Restarting clears it; if it comes back, a driver is at fault.", oopsWhy,
                      Action{Kind::restart, {}});
    } else {
        a.unknown("oopses", "Kernel faults", "kernelOopses", "Oopses the kernel logged since it started.",
                  oopsWhy, "journalctl -k -b -p err");
    }
    const char* unitWhy = "A failed service is something the system meant to run that is not running.";
    if (f.failedUnits) {
        Status s = f.failedUnits->empty() ? Status::good : Status::attention;
        a.reading("failedUnits", "Failed services",
                  f.failedUnits->empty() ? "None" : std::to_string(f.failedUnits->size()),
                  "Services systemd started that failed.", unitWhy, s, "systemctl --failed");
        if (!f.failedUnits->empty()) {
            a.list(f.crashes && !f.crashes->empty() ? "Crashes and failed services" : "Failed services");
            for (auto& u : *f.failedUnits)
                a.item({"unit:" + u, u, "Failed", std::nullopt, Status::attention, std::nullopt,
                        Action{Kind::showActivity, {}}});
            a.finding(
                "failedUnits", s,
                plural(std::int64_t(f.failedUnits->size()), "service has failed", "services have failed"),
                "`systemctl status " + f.failedUnits->front() + "` tells why.", unitWhy,
                Action{Kind::showActivity, {}});
        }
    } else {
        a.unknown("failedUnits", "Failed services", "failedUnits", "Services systemd started that failed.",
                  unitWhy, "systemctl --failed");
    }
    (void)now;
    return a.done("Nothing has crashed or failed lately.", "Some programs crashed lately.",
                  "Something on this machine has failed.", "Crashes and failures could not be read.");
}

CheckupSection startupSection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::startup, f, o, out);
    const char* why = "Everything that starts with you takes time at log-in and memory all day.";
    if (f.startupEntries) {
        auto n = std::int64_t(f.startupEntries->size());
        Status s = n > 10 ? Status::note : Status::good;
        a.reading("entries", "Starts with you", plural(n, "item", "items"),
                  "Autostart entries and user services that start at log-in.", why, s,
                  "~/.config/autostart, ~/.config/systemd/user");
        a.list("Starts with you");
        for (auto& e : *f.startupEntries)
            a.item({"startup:" + e.path, e.name, e.userService ? "User service" : "Autostart entry",
                    std::nullopt, Status::good, e.path,
                    e.userService ? std::optional<Action>(Action{Kind::reveal, e.path})
                                  : std::optional<Action>(Action{Kind::turnOffLaunchAgent, e.path})});
        if (s != Status::good)
            a.finding("manyStartup", s, plural(n, "item starts", "items start") + " with you",
                      "Turning off the ones you don't need makes log-in quicker.", why,
                      Action{Kind::turnOffLaunchAgent, {}});
    } else {
        a.unknown("entries", "Starts with you", "startupEntries", "Autostart entries and user services.", why,
                  "~/.config/autostart");
    }
    return a.done("Only a few things start with you.", "Many things start with you.",
                  "Many things start with you.", "What starts with you could not be read.");
}

CheckupSection securitySection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::security, f, o, out);
    const char* encWhy = "Without encryption, anyone holding the disk can read your files.";
    if (f.homeEncrypted) {
        // A machine with a battery travels; an unencrypted one is the riskier for it.
        Status s = *f.homeEncrypted ? Status::good : f.hasBattery == true ? Status::attention : Status::note;
        a.reading("encryption", "Disk encryption",
                  (*f.homeEncrypted ? "On: " : "Off: ") + f.encryptionHow.value_or(""),
                  "Whether your home folder's disk is encrypted.", encWhy, s,
                  "/proc/self/mountinfo, /sys/block (dm-crypt)");
        if (s != Status::good)
            a.finding("notEncrypted", s, "Your home folder is not on an encrypted disk",
                      "Encryption is set up when the system is installed (LUKS); back up, then reinstall "
                      "with it on.",
                      encWhy);
    } else {
        a.unknown("encryption", "Disk encryption", "homeEncrypted",
                  "Whether your home folder's disk is encrypted.", encWhy,
                  "/proc/self/mountinfo, /sys/block");
    }
    const char* fwWhy = "A firewall stops other machines reaching services you did not mean to share.";
    if (f.firewall) {
        Status s = *f.firewall ? Status::good : Status::note;
        a.reading("firewall", "Firewall", (*f.firewall ? "On: " : "Off: ") + f.firewallHow.value_or(""),
                  "Whether packet-filtering rules are in effect.", fwWhy, s,
                  "/etc/ufw/ufw.conf, /proc/net/ip_tables_names, systemctl is-active");
        if (s != Status::good)
            a.finding("noFirewall", s, "No firewall is running", "ufw or firewalld turn one on in a step.",
                      fwWhy, Action{Kind::openSettings, "firewall"});
    } else {
        a.unknown("firewall", "Firewall", "firewall", "Whether packet-filtering rules are in effect.", fwWhy,
                  "/etc/ufw/ufw.conf, systemctl is-active");
    }
    const char* upWhy = "Security fixes that install by themselves close holes before they are used.";
    if (f.automaticUpdates) {
        Status s = *f.automaticUpdates ? Status::good : Status::note;
        a.reading("automaticUpdates", "Automatic security updates",
                  (*f.automaticUpdates ? "On: " : "Off: ") + f.automaticUpdatesHow.value_or(""),
                  "Whether security updates install without you.", upWhy, s, "/etc/apt/apt.conf.d");
        if (s != Status::good)
            a.finding("noAutomaticUpdates", s, "Security updates do not install by themselves",
                      "The unattended-upgrades package installs them for you.", upWhy,
                      Action{Kind::openSettings, "software-updates"});
    } else {
        a.unknown("automaticUpdates", "Automatic security updates", "automaticUpdates",
                  "Whether security updates install without you.", upWhy, "/etc/apt/apt.conf.d");
    }
    const char* lockWhy = "A screen that locks keeps others out when you step away.";
    if (f.screenLock) {
        Status s = *f.screenLock ? Status::good : Status::attention;
        a.reading("screenLock", "Screen lock", *f.screenLock ? "On" : "Off",
                  "Whether the screen locks when idle.", lockWhy, s,
                  "gsettings org.gnome.desktop.screensaver lock-enabled, kscreenlockerrc");
        if (s != Status::good)
            a.finding("noScreenLock", s, "The screen does not lock",
                      "Turn on the screen lock in the desktop's privacy settings.", lockWhy,
                      Action{Kind::openSettings, "privacy"});
    } else {
        a.unknown("screenLock", "Screen lock", "screenLock", "Whether the screen locks when idle.", lockWhy,
                  "gsettings org.gnome.desktop.screensaver lock-enabled");
    }
    return a.done("This machine is well protected.", "This machine's protection could be better.",
                  "This machine's protection has a gap.", "This machine's protection could not be read.");
}

CheckupSection updatesSection(const CheckupFacts& f, TimePoint now, const Opt& o, Findings& out) {
    Area a(CheckupArea::updates, f, o, out);
    const char* why = "Updates fix faults and close security holes.";
    if (f.upgrades) {
        std::int64_t security = std::ranges::count(*f.upgrades, true, &CheckupFacts::Upgrade::security);
        std::int64_t all = std::int64_t(f.upgrades->size());
        Status s = security ? Status::attention : all ? Status::note : Status::good;
        a.reading("pending", "Pending updates",
                  all ? plural(all, "package", "packages") + " (" + wholeNumber(double(security)) +
                            " security)"
                      : "None",
                  "Installed packages with a newer version in the package lists on this machine.", why, s,
                  "/var/lib/dpkg/status, /var/lib/apt/lists",
                  s == Status::good ? std::nullopt
                                    : std::optional<Action>(Action{Kind::openSettings, "software-updates"}));
        if (all) {
            a.list("Pending updates");
            for (auto& u : *f.upgrades)
                a.item({"upgrade:" + u.name, u.name, u.installed + " → " + u.candidate, std::nullopt,
                        u.security ? Status::attention : Status::note, std::nullopt, std::nullopt});
            a.finding("pendingUpdates", s,
                      security ? plural(security, "security update is", "security updates are") + " waiting"
                               : plural(all, "update is", "updates are") + " waiting",
                      "Your package manager installs them.", why,
                      Action{Kind::openSettings, "software-updates"});
        }
    } else {
        a.unknown("pending", "Pending updates", "upgrades",
                  "Installed packages with a newer version in the lists.", why,
                  "/var/lib/dpkg/status, /var/lib/apt/lists");
    }
    if (f.listsRead) {
        double days = std::chrono::duration<double>(now - *f.listsRead).count() / day;
        Status s = days > 14 ? Status::note : Status::good;
        a.reading("listsRead", "Package lists fetched", dateOf(*f.listsRead),
                  "When the package lists were last fetched; updates published since are not counted.", why,
                  s, "/var/lib/apt/lists");
        if (s != Status::good)
            a.finding("staleLists", s,
                      "The package lists are " + plural(std::int64_t(days), "day", "days") + " old",
                      "Updates published since then are not counted; check for updates.", why,
                      Action{Kind::openSettings, "software-updates"});
    }
    const char* rebootWhy = "Updated system parts are used only after a restart.";
    if (f.rebootRequired) {
        Status s = *f.rebootRequired ? Status::note : Status::good;
        std::string value = *f.rebootRequired ? "Yes" : "No";
        if (*f.rebootRequired && f.rebootFor && !f.rebootFor->empty()) {
            value += ", for ";
            for (size_t i = 0; i < f.rebootFor->size(); ++i)
                value += (i ? ", " : "") + (*f.rebootFor)[i];
        }
        a.reading("reboot", "Restart needed", value, "Whether installed updates wait for a restart.",
                  rebootWhy, s, "/run/reboot-required",
                  s == Status::good ? std::nullopt : std::optional<Action>(Action{Kind::restart, {}}));
        if (s != Status::good)
            a.finding("reboot", s, "A restart finishes installing updates", "Restart when it suits you.",
                      rebootWhy, Action{Kind::restart, {}});
    } else {
        a.unknown("reboot", "Restart needed", "rebootRequired",
                  "Whether installed updates wait for a restart.", rebootWhy, "/run/reboot-required");
    }
    return a.done("This machine is up to date.", "Updates are waiting.", "Security updates are waiting.",
                  "Updates could not be read.");
}

CheckupSection backupsSection(const CheckupFacts& f, TimePoint now, const Opt& o, Findings& out) {
    Area a(CheckupArea::backups, f, o, out);
    const char* why = "A backup is what brings your files back after a lost disk, a theft or a mistake.";
    const char* source = "Déjà Dup (gsettings), Timeshift, restic and borg records";
    if (!f.backups || f.backups->empty()) {
        a.unknown("lastBackup", "Last backup", "backups", "The newest successful run of a backup tool.", why,
                  source);
        return a.done("", "", "", "When this machine was last backed up is not known.");
    }
    std::optional<TimePoint> newest;
    for (auto& b : *f.backups) {
        if (b.lastRun && (!newest || *b.lastRun > *newest)) newest = b.lastRun;
        double days = b.lastRun ? std::chrono::duration<double>(now - *b.lastRun).count() / day : 1e9;
        // A repository that never succeeded may be one tried once and left; the newest run speaks for the
        // area.
        Status s = !b.lastRun  ? Status::note
                   : days > 30 ? Status::attention
                   : days > 7  ? Status::note
                               : Status::good;
        a.item({"backup:" + b.tool + ":" + b.where, b.tool,
                b.where + (b.lastRun ? ", last run " + dateOf(*b.lastRun) : ", no successful run recorded"),
                std::nullopt, s, std::nullopt, std::nullopt});
    }
    a.list("Backups");
    if (newest) {
        double days = std::max(0.0, std::chrono::duration<double>(now - *newest).count() / day);
        Status s = days > 30 ? Status::attention : days > 7 ? Status::note : Status::good;
        a.reading("lastBackup", "Last backup", dateOf(*newest) + " (" + age(days * day) + " ago)",
                  "The newest successful run of a backup tool.", why, s, source);
        if (s != Status::good)
            a.finding("oldBackup", s,
                      "The newest backup is " + plural(std::int64_t(days), "day", "days") + " old",
                      "Run your backup tool now, and let it run on a schedule.", why,
                      Action{Kind::openSettings, "backups"});
    } else {
        a.reading("lastBackup", "Last backup", "Never", "The newest successful run of a backup tool.", why,
                  Status::attention, source);
        a.finding("noBackup", Status::attention, "No backup has succeeded yet",
                  "A backup tool is set up, but it records no successful run.", why,
                  Action{Kind::openSettings, "backups"});
    }
    return a.done("Your files are backed up.", "The last backup is getting old.",
                  "Your files are not backed up lately.",
                  "When this machine was last backed up is not known.");
}

CheckupSection networkSection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::network, f, o, out);
    const char* why = "Without a default route this machine cannot reach the internet, updates included.";
    if (f.interfacesUp) {
        std::string value;
        for (auto& i : *f.interfacesUp)
            value += (value.empty() ? "" : ", ") + i.name + (i.wireless ? " (wireless)" : "");
        a.reading("interfaces", "Connections up", value.empty() ? "None" : value,
                  "Network interfaces that are up, the loopback aside.", why,
                  value.empty() ? Status::note : Status::good, "/sys/class/net/*/operstate");
    } else {
        a.unknown("interfaces", "Connections up", "interfacesUp", "Network interfaces that are up.", why,
                  "/sys/class/net");
    }
    if (f.defaultRoute) {
        a.reading("route", "Default route", f.defaultRoute->empty() ? "None" : *f.defaultRoute,
                  "Where traffic for other networks goes.", why,
                  f.defaultRoute->empty() ? Status::note : Status::good,
                  "/proc/net/route, /proc/net/ipv6_route");
        if (f.defaultRoute->empty())
            a.finding("noRoute", Status::note, "This machine has no way out to the internet",
                      "No default route is set; check the network connection.", why,
                      Action{Kind::openSettings, "network"});
    } else {
        a.unknown("route", "Default route", "defaultRoute", "Where traffic for other networks goes.", why,
                  "/proc/net/route");
    }
    return a.done("This machine is connected.", "This machine is not connected.",
                  "This machine is not connected.", "The network could not be read.");
}

CheckupSection systemSection(const CheckupFacts& f, const Opt& o, Findings& out) {
    Area a(CheckupArea::system, f, o, out);
    const char* why = "What to give when asking for help, and what updates and drivers are made for.";
    auto add = [&](const char* id, const char* title, const std::optional<std::string>& v,
                   const char* meaning, const char* source) {
        if (v)
            a.reading(id, title, *v, meaning, why, Status::good, source);
        else
            a.unknown(id, title, id, meaning, why, source);
    };
    add("distribution", "System", f.distribution, "The distribution and its release.", "/etc/os-release");
    add("kernel", "Kernel", f.kernel, "The running kernel's release.", "/proc/sys/kernel/osrelease");
    add("model", "Model", f.model, "The machine's maker and model.", "/sys/class/dmi/id");
    add("firmware", "Firmware", f.firmware, "The firmware's version and date.",
        "/sys/class/dmi/id/bios_version");
    return a.done("The system is described below.", "", "", "The system could not be read.");
}

} // namespace

MacCheckup buildCheckup(const CheckupFacts& facts, TimePoint now, const CheckupBuildOptions& options) {
    MacCheckup c;
    c.read = now;
    auto& out = c.findings;
    c.sections = {ageSection(facts, now, options, out),       performanceSection(facts, options, out),
                  memorySection(facts, options, out),         storageSection(facts, options, out),
                  batterySection(facts, options, out),        energySection(facts, options, out),
                  stabilitySection(facts, now, options, out), startupSection(facts, options, out),
                  securitySection(facts, options, out),       updatesSection(facts, now, options, out),
                  backupsSection(facts, now, options, out),   networkSection(facts, options, out),
                  systemSection(facts, options, out)};
    // What needs attention comes first; otherwise the areas' order stands.
    std::ranges::stable_sort(out, [](auto& x, auto& y) {
        return (x.status == Status::attention) > (y.status == Status::attention);
    });
    c.score = scoreCheckup(facts, now);
    return c;
}

} // namespace vantle
