#include "VantleVitals/StandInCheckup.h"

#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "Platform/SystemError.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"

#include <cerrno>

namespace vantle {

namespace {

constexpr auto days = [](int n) { return std::chrono::hours(24 * n); };

CheckupFacts common(TimePoint from) {
    CheckupFacts f;
    f.firmwareDate = "2022-03-14";
    f.installed = from - days(400);
    f.cores = 8;
    f.memoryTotal = 16 * GiB;
    f.swapTotal = 8 * GiB;
    f.hasBattery = true;
    f.batteryCycles = 212;
    f.batteryCondition = "Good";
    f.uptimeSeconds = 3 * 86400 + 4 * 3600;
    f.bootTime = from - std::chrono::hours(76);
    f.distribution = "Debian GNU/Linux 12 (bookworm)";
    f.kernel = "6.1.0-26-amd64";
    f.model = "LENOVO ThinkPad X1 Carbon Gen 10";
    f.firmware = "LENOVO N3AET74W (2022-03-14)";
    f.powerProfile = "balanced";
    f.interfacesUp = std::vector<CheckupFacts::Interface>{{"wlp0s20f3", true}};
    f.defaultRoute = "wlp0s20f3 via 192.168.1.1";
    f.encryptionHow = "dm-crypt (LUKS) on nvme0n1p3";
    f.startupEntries = std::vector<CheckupFacts::StartupEntry>{
        {"Nextcloud", "~/.config/autostart/com.nextcloud.desktopclient.nextcloud.desktop", false},
        {"syncthing.service", "~/.config/systemd/user/default.target.wants/syncthing.service", true}};
    return f;
}

} // namespace

std::vector<CheckupFacts> StandInCheckup::madeUpTable(TimePoint from) {
    using P = VitalsSnapshot::Pressure;
    using T = VitalsSnapshot::Thermal;
    std::vector<CheckupFacts> rows;

    auto calm = common(from);
    calm.load1 = 1.2, calm.cpuStall = 2, calm.thermal = T::nominal;
    calm.memoryAvailable = 9 * GiB, calm.swapUsed = 0, calm.pressure = P::normal, calm.memoryStall = 0;
    calm.home = CheckupFacts::Volume{"/home/ada", 512'000'000'000, 201'000'000'000};
    calm.rootIsHome = true;
    calm.batteryHealth = 0.93, calm.charge = 0.81, calm.onBattery = true, calm.watts = 7.4;
    calm.crashes = std::vector<CheckupFacts::Crash>{}, calm.kernelOopses = 0,
    calm.failedUnits = std::vector<std::string>{};
    calm.homeEncrypted = true, calm.firewall = true, calm.firewallHow = "ufw enabled";
    calm.automaticUpdates = true, calm.automaticUpdatesHow = "unattended-upgrades", calm.screenLock = true;
    calm.upgrades = std::vector<CheckupFacts::Upgrade>{}, calm.listsRead = from - std::chrono::hours(5),
    calm.rebootRequired = false;
    calm.backups = std::vector<CheckupFacts::Backup>{
        {"Déjà Dup", "its configured destination", from - std::chrono::hours(20)}};
    rows.push_back(calm);

    auto look = calm;
    look.load1 = 11.0, look.thermal = T::fair;
    look.memoryAvailable = 2 * GiB, look.swapUsed = 5 * GiB, look.pressure = P::warning,
    look.memoryStall = 14;
    look.home = CheckupFacts::Volume{"/home/ada", 512'000'000'000, 71'000'000'000};
    look.batteryHealth = 0.74, look.charge = 0.16, look.watts = 14.9;
    look.crashes = std::vector<CheckupFacts::Crash>{
        {"gnome-shell", from - days(3), "/var/crash/_usr_bin_gnome-shell.1000.crash"}};
    look.firewall = false,
    look.firewallHow =
        "no nftables, firewalld or ufw service is running, and no iptables filter table is loaded";
    look.upgrades = std::vector<CheckupFacts::Upgrade>{
        {"firefox-esr", "115.14.0esr-1~deb12u1", "115.15.0esr-1~deb12u1", false},
        {"libc6", "2.36-9+deb12u7", "2.36-9+deb12u8", false}};
    look.rebootRequired = true, look.rebootFor = std::vector<std::string>{"linux-image-6.1.0-27-amd64"};
    look.backups =
        std::vector<CheckupFacts::Backup>{{"Déjà Dup", "its configured destination", from - days(12)}};
    rows.push_back(look);

    auto trouble = look;
    trouble.load1 = 19.5, trouble.thermal = T::serious;
    trouble.memoryAvailable = GiB / 2, trouble.swapUsed = 7 * GiB, trouble.pressure = P::critical,
    trouble.memoryStall = 48;
    trouble.home = CheckupFacts::Volume{"/home/ada", 512'000'000'000, 9'000'000'000};
    trouble.batteryHealth = 0.55, trouble.batteryCondition = "Dead";
    trouble.failedUnits = std::vector<std::string>{"cups.service", "snapd.service"};
    trouble.kernelOopses = 1;
    trouble.homeEncrypted = false, trouble.encryptionHow = "/dev/nvme0n1p2 has no dm-crypt beneath it";
    trouble.automaticUpdates = false, trouble.automaticUpdatesHow = "unattended-upgrades is not installed";
    trouble.screenLock = false;
    trouble.upgrades->push_back({"openssl", "3.0.14-1~deb12u1", "3.0.15-1~deb12u1", true});
    trouble.listsRead = from - days(40);
    trouble.backups = std::vector<CheckupFacts::Backup>{{"borg", "ssh://backup@nas/./ada", from - days(64)}};
    trouble.startupEntries->push_back({"Discord", "~/.config/autostart/discord.desktop", false});
    rows.push_back(trouble);

    // A bare container: nothing but the system's name can be read.
    CheckupFacts bare;
    bare.distribution = "Debian GNU/Linux 12 (bookworm)";
    bare.kernel = "6.1.0-26-amd64";
    for (auto fact : {"firmwareDate", "installed",      "load1",          "cpuStall", "thermal",
                      "pressure",     "memoryTotal",    "swapUsed",       "home",     "root",
                      "hasBattery",   "watts",          "uptimeSeconds",  "crashes",  "kernelOopses",
                      "failedUnits",  "startupEntries", "homeEncrypted",  "firewall", "automaticUpdates",
                      "screenLock",   "upgrades",       "rebootRequired", "backups",  "interfacesUp",
                      "defaultRoute", "model",          "firmware"})
        bare.unknown[fact] = "the sandbox's stand-in shows a container that tells nothing";
    rows.push_back(bare);
    return rows;
}

StandInCheckup::StandInCheckup(std::filesystem::path dataFolder, Clock clock)
    : file_(std::move(dataFolder) / fileName), clock_(std::move(clock)) {
    auto text = readKeptFile(file_);
    if (text) {
        auto decoded = decodeJson<Record>(*text);
        if (decoded && !decoded->table.empty()) {
            record_ = std::move(*decoded);
            return;
        }
        keep_ = false;
        problem_ = fillIn(unreadableSentence, {{"file", file_.string()},
                                               {"reason", decoded ? "its table is empty" : decoded.error()}});
    } else if (text.error().what != KeptFileFailure::Case::missing) {
        keep_ = false;
        problem_ = fillIn(unreadableSentence, {{"file", file_.string()}, {"reason", text.error().sentence}});
    }
    record_.datesFrom = toMilliseconds(clock_());
    record_.table = madeUpTable(record_.datesFrom);
}

CheckupFacts StandInCheckup::read() {
    std::lock_guard lock(mutex_);
    int index = int(size_t(std::max(0, record_.next)) % record_.table.size());
    auto f = record_.table[size_t(index)];
    record_.next = int((size_t(index) + 1) % record_.table.size());
    auto shift = clock_() - record_.datesFrom;
    auto move = [&](std::optional<TimePoint>& at) {
        if (at) *at += shift;
    };
    move(f.installed), move(f.bootTime), move(f.listsRead);
    if (f.crashes)
        for (auto& c : *f.crashes)
            c.at += shift;
    if (f.backups)
        for (auto& b : *f.backups)
            move(b.lastRun);
    if (keep_)
        if (auto written = writeFileAtomically(file_, encodeJson(record_, 2) + "\n"); !written)
            problem_ = "The sandbox's stand-in checkup could not be kept: " + written.error();
    return f;
}

StandInCheckup::Record StandInCheckup::record() const {
    std::lock_guard lock(mutex_);
    return record_;
}

std::optional<std::string> StandInCheckup::problem() const {
    std::lock_guard lock(mutex_);
    return problem_;
}

} // namespace vantle
