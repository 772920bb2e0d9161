#include "VantleVitals/CheckupReader.h"
#include "VantleVitals/BoundedCommand.h"
#include "VantleVitals/CheckupSections.h"
#include "VantleVitals/PackageState.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <archive.h>
#include <archive_entry.h>

#include <sys/stat.h>
#include <utime.h>

using namespace vantle;
using vantle::testing::TempDir;
namespace fs = std::filesystem;
using namespace std::chrono;

namespace {

const TimePoint readerNow = sys_days{2026y / November / 22} + 12h;

// A machine laid out under one folder: proc/, sys/, etc/, var/, run/ and home/, with no program
// asked unless a test writes one.
struct CheckupMachine {
    TempDir dir;
    CheckupMachine() { dir.mkdir("home"); }

    CheckupReader::Options options() const {
        CheckupReader::Options o;
        o.procRoot = dir / "proc", o.sysRoot = dir / "sys", o.etcRoot = dir / "etc";
        o.varRoot = dir / "var", o.runRoot = dir / "run", o.home = dir / "home";
        o.systemVolume = dir.path();
        o.timeshiftSnapshots = dir / "timeshift/snapshots";
        o.systemctl = o.journalctl = o.gsettings = "";
        o.clock = [] { return readerNow; };
        return o;
    }
    CheckupFacts read() const { return CheckupReader(options()).read(); }

    // A program that prints `output` and ends with `status`, as a fixture script.
    fs::path program(std::string_view name, std::string_view output, int status = 0) const {
        auto path = dir.write(std::string("bin/") + std::string(name),
                              "#!/bin/sh\ncat <<'EOF'\n" + std::string(output) + "EOF\nexit " +
                                  std::to_string(status) + "\n");
        ::chmod(path.c_str(), 0755);
        return path;
    }
};

void age(const fs::path& file, hours by) {
    auto t = system_clock::to_time_t(system_clock::now() - by);
    utimbuf times{t, t};
    ::utime(file.c_str(), &times);
}

const CheckupSection& section(const MacCheckup& c, CheckupArea area) {
    for (auto& s : c.sections)
        if (s.area == area) return s;
    throw std::runtime_error("no section");
}

} // namespace

TEST(CheckupReader, ABareContainerLeavesEveryFactUnknownWithItsReasonAndNoFinding) {
    CheckupMachine m;
    auto f = m.read();
    EXPECT_FALSE(f.load1 || f.memoryTotal || f.thermal || f.hasBattery || f.crashes || f.failedUnits ||
                 f.upgrades || f.homeEncrypted || f.firewall || f.automaticUpdates || f.screenLock ||
                 f.defaultRoute || f.interfacesUp);
    EXPECT_EQ(f.unknown["thermal"],
              "this machine shows no thermal zones (usual in containers and virtual machines)");
    EXPECT_EQ(f.unknown["crashes"],
              "no crash collector keeps reports here (no /var/crash, no systemd-coredump)");
    EXPECT_TRUE(f.unknown["load1"].starts_with("there is no ")) << f.unknown["load1"];
    EXPECT_TRUE(f.unknown["upgrades"].find("dpkg/status could not be read") != std::string::npos)
        << f.unknown["upgrades"];
    EXPECT_EQ(f.unknown["failedUnits"], "systemctl could not answer: it is not asked here");
    EXPECT_TRUE(f.home) << "statvfs still answers for the home";

    auto c = buildCheckup(f, readerNow);
    ASSERT_EQ(c.sections.size(), 13u);
    EXPECT_EQ(section(c, CheckupArea::backups).verdict, "When this machine was last backed up is not known.");
    for (auto area :
         {CheckupArea::performance, CheckupArea::battery, CheckupArea::security, CheckupArea::updates})
        EXPECT_EQ(section(c, area).status, CheckupStatus::unknown) << nameOf(area);
    for (auto& finding : c.findings)
        EXPECT_EQ(finding.area, CheckupArea::storage)
            << "only a real reading may make a finding: " << finding.title;
    auto& heat = section(c, CheckupArea::performance).readings[2];
    EXPECT_EQ(heat.value,
              "Unknown (this machine shows no thermal zones (usual in containers and virtual machines))");
    EXPECT_EQ(heat.source, "/sys/class/thermal");
}

TEST(CheckupReader, AnEmptyPowerSupplyFolderMeansMainsPowerButOddFilesStayUnknown) {
    CheckupMachine m;
    m.dir.mkdir("sys/class/power_supply");
    m.dir.write("sys/class/power_supply/AC/type", "Mains\n");
    m.dir.write("sys/class/power_supply/AC/online", "1\n");
    m.dir.write("sys/class/dmi/id/bios_date", "Not Specified\n");
    m.dir.write("proc/loadavg", "garbage\n");
    m.dir.write("proc/stat", "cpu  1 2 3 4\ncpu0 1 2 3 4\n");
    m.dir.write("proc/meminfo", "MemTotal: 1000 kB\nSwapTotal: 0 kB\nSwapFree: 0 kB\n");
    m.dir.write("sys/class/thermal/thermal_zone0/temp", "0\n"); // an absent sensor reads 0
    auto f = m.read();
    EXPECT_EQ(f.hasBattery, false);
    EXPECT_EQ(f.unknown["watts"], "without a battery this machine does not give its power draw");
    EXPECT_EQ(f.unknown["firmwareDate"], "the firmware gives its date as \"Not Specified\"");
    EXPECT_EQ(f.unknown["load1"], "/proc/loadavg holds no load average");
    EXPECT_FALSE(f.memoryTotal) << "a meminfo without MemAvailable gives no memory figures";
    EXPECT_FALSE(f.pressure);
    EXPECT_FALSE(f.thermal);
    EXPECT_EQ(buildCheckup(f, readerNow).sections[4].verdict,
              "No battery: this machine runs on mains power.");
}

TEST(CheckupReader, ALaptopReadsBatteryDrawHeatMemoryAndLoad) {
    CheckupMachine m;
    auto bat = std::string("sys/class/power_supply/BAT0/");
    for (auto [name, value] :
         std::initializer_list<std::pair<const char*, const char*>>{{"type", "Battery"},
                                                                    {"status", "Discharging"},
                                                                    {"capacity", "15"},
                                                                    {"energy_full", "35000000"},
                                                                    {"energy_full_design", "50000000"},
                                                                    {"cycle_count", "612"},
                                                                    {"power_now", "9500000"},
                                                                    {"health", "Good"}})
        m.dir.write(bat + name, std::string(value) + "\n");
    m.dir.write("sys/class/thermal/thermal_zone0/temp", "96000\n");
    m.dir.write("sys/class/thermal/thermal_zone0/trip_point_0_type", "passive\n");
    m.dir.write("sys/class/thermal/thermal_zone0/trip_point_0_temp", "95000\n");
    m.dir.write("proc/stat", "cpu  1 2 3 4\ncpu0 1 2 3 4\ncpu1 1 2 3 4\nbtime 1763812800\n");
    m.dir.write("proc/loadavg", "5.00 3.00 1.00 2/300 999\n");
    m.dir.write("proc/pressure/cpu", "some avg10=70.00 avg60=55.50 avg300=10.00 total=1\n");
    m.dir.write(
        "proc/meminfo",
        "MemTotal: 8000000 kB\nMemAvailable: 200000 kB\nSwapTotal: 4000000 kB\nSwapFree: 1000000 kB\n");
    m.dir.write("proc/pressure/memory",
                "some avg10=45.00 avg60=1 avg300=1 total=1\nfull avg10=12.00 avg60=1 avg300=1 total=1\n");
    auto f = m.read();
    EXPECT_EQ(f.hasBattery, true);
    EXPECT_NEAR(*f.batteryHealth, 0.7, 1e-9);
    EXPECT_EQ(f.batteryCycles, 612);
    EXPECT_NEAR(*f.watts, 9.5, 1e-9);
    EXPECT_EQ(f.onBattery, true);
    EXPECT_EQ(f.thermal, VitalsSnapshot::Thermal::serious);
    EXPECT_EQ(f.cores, 2);
    EXPECT_EQ(f.load1, 5.0);
    EXPECT_EQ(f.cpuStall, 55.5);
    EXPECT_EQ(f.pressure, VitalsSnapshot::Pressure::critical);
    EXPECT_EQ(f.swapUsed, 3000000ull * 1024);

    auto c = buildCheckup(f, readerNow);
    EXPECT_EQ(section(c, CheckupArea::performance).status,
              CheckupStatus::attention); // 2.5 tasks a core, and hot
    EXPECT_EQ(section(c, CheckupArea::memory).verdict, "Memory is running out.");
    EXPECT_EQ(section(c, CheckupArea::battery).status, CheckupStatus::note);
    EXPECT_EQ(section(c, CheckupArea::energy).readings[1].value, "15%, on battery");
    EXPECT_TRUE(checkupSummary(c.findings).ends_with(" things need your attention."))
        << checkupSummary(c.findings);
}

TEST(CheckupReader, HomeEncryptionFollowsTheMountDownTheDeviceStack) {
    CheckupMachine m;
    auto home = (m.dir / "home").string();
    auto mountinfo = [&](std::string fs, std::string source) {
        m.dir.write("proc/self/mountinfo", "22 1 259:2 / / rw - ext4 /dev/nvme0n1p2 rw\n"
                                           "30 22 253:0 / " +
                                               home + " rw,relatime - " + fs + " " + source + " rw\n");
    };
    // /dev/mapper/home -> dm-1 (LVM) -> dm-0 (LUKS) -> nvme0n1p3
    m.dir.write("sys/class/block/dm-1/dm/name", "home\n");
    m.dir.write("sys/class/block/dm-1/dm/uuid", "LVM-abc\n");
    m.dir.mkdir("sys/class/block/dm-1/slaves/dm-0");
    m.dir.write("sys/class/block/dm-0/dm/uuid", "CRYPT-LUKS2-1234-luks\n");
    m.dir.mkdir("sys/class/block/dm-0/slaves/nvme0n1p3");
    m.dir.mkdir("sys/class/block/nvme0n1p3");
    m.dir.mkdir("sys/class/block/sda2");

    mountinfo("ext4", "/dev/mapper/home");
    auto f = m.read();
    EXPECT_EQ(f.homeEncrypted, true);
    EXPECT_EQ(f.encryptionHow, "dm-crypt (LUKS) on dm-0");

    mountinfo("ext4", "/dev/sda2");
    f = m.read();
    EXPECT_EQ(f.homeEncrypted, false);
    EXPECT_EQ(f.encryptionHow, "/dev/sda2 has no dm-crypt beneath it");

    mountinfo("overlay", "overlay");
    f = m.read();
    EXPECT_FALSE(f.homeEncrypted);
    EXPECT_EQ(f.unknown["homeEncrypted"],
              "the home folder is on overlay (overlay), which does not tell what disk lies beneath");

    // A mount point with a space is written "\040" by the kernel.
    fs::create_directories(m.dir / "home/My Files");
    m.dir.write("proc/self/mountinfo", "22 1 259:2 / / rw - ext4 /dev/sda2 rw\n"
                                       "31 22 253:1 / " +
                                           home + "/My\\040Files rw - ext4 /dev/mapper/home rw\n");
    auto o = m.options();
    o.home = m.dir / "home/My Files";
    EXPECT_EQ(CheckupReader(o).read().homeEncrypted, true);
}

TEST(CheckupReader, CrashesOfTheLastThirtyDaysAndFailedUnitsFromSystemctl) {
    CheckupMachine m;
    age(m.dir.write("var/crash/_usr_bin_gedit.1000.crash", "x"), hours(24 * 2));
    age(m.dir.write("var/crash/_usr_bin_old.1000.crash", "x"), hours(24 * 40));
    m.dir.write("var/crash/notes.txt", "x");
    age(m.dir.write("var/lib/systemd/coredump/core.firefox.1000.abc.4242.1763000000000000.zst", "x"),
        hours(5));
    auto o = m.options();
    o.systemctl = m.program("systemctl", "● cups.service loaded failed failed CUPS Scheduler\n"
                                         "snapd.socket loaded failed failed Socket\n");
    auto f = CheckupReader(o).read();
    ASSERT_TRUE(f.crashes);
    ASSERT_EQ(f.crashes->size(), 2u);
    EXPECT_EQ((*f.crashes)[0].name, "gedit");
    EXPECT_EQ((*f.crashes)[1].name, "firefox");
    ASSERT_TRUE(f.failedUnits);
    // The fixture answers the user's manager with the same list.
    EXPECT_EQ(*f.failedUnits, (std::vector<std::string>{"cups.service", "snapd.socket",
                                                        "cups.service (yours)", "snapd.socket (yours)"}));
    auto stability = section(buildCheckup(f, readerNow), CheckupArea::stability);
    EXPECT_EQ(stability.status, CheckupStatus::attention);
    EXPECT_EQ(stability.listTitle, "Crashes and failed services");

    o.systemctl = m.program(
        "systemctl2", "System has not been booted with systemd as init system (PID 1). Can't operate.\n", 1);
    f = CheckupReader(o).read();
    EXPECT_FALSE(f.failedUnits);
    EXPECT_EQ(f.unknown["failedUnits"], "systemctl could not answer: System has not been booted with systemd "
                                        "as init system (PID 1). Can't operate.");
    EXPECT_FALSE(f.firewall) << "no rule or running service seen, and systemctl could not say";
}

TEST(CheckupReader, UpdatesComeFromDpkgAndTheListsWithoutTheNetwork) {
    CheckupMachine m;
    m.dir.write(
        "var/lib/dpkg/status",
        "Package: libc6\nStatus: install ok installed\nArchitecture: amd64\nVersion: 2.36-9+deb12u7\n\n"
        "Package: openssl\nStatus: install ok installed\nArchitecture: amd64\nVersion: 3.0.14-1~deb12u1\n\n"
        "Package: removed\nStatus: deinstall ok config-files\nArchitecture: amd64\nVersion: 1.0\n\n"
        "Package: tzdata\nStatus: install ok installed\nArchitecture: all\nVersion: 2024a-0+deb12u1\n");
    auto lists = std::string("var/lib/apt/lists/");
    m.dir.write(lists + "deb.debian.org_debian_dists_bookworm_InRelease", "Origin: Debian\nSuite: stable\n");
    m.dir.write(lists + "deb.debian.org_debian_dists_bookworm_main_binary-amd64_Packages",
                "Package: libc6\nArchitecture: amd64\nVersion: 2.36-9+deb12u8\n\n"
                "Package: libc6\nArchitecture: i386\nVersion: 2.99-1\n\n"
                "Package: removed\nArchitecture: amd64\nVersion: 2.0\n\n"
                "Package: tzdata\nArchitecture: all\nVersion: 2024a-0+deb12u1\n");
    m.dir.write(
        lists + "security.debian.org_dists_bookworm-security_InRelease",
        "-----BEGIN PGP SIGNED MESSAGE-----\nHash: SHA512\n\nOrigin: Debian\nSuite: stable-security\n");
    m.dir.write(lists + "security.debian.org_dists_bookworm-security_main_binary-amd64_Packages",
                "Package: openssl\nArchitecture: amd64\nVersion: 3.0.15-1~deb12u1\n");
    m.dir.write(lists + "deb.debian.org_debian_dists_experimental_InRelease",
                "Suite: experimental\nNotAutomatic: yes\n");
    m.dir.write(lists + "deb.debian.org_debian_dists_experimental_main_binary-amd64_Packages",
                "Package: tzdata\nArchitecture: all\nVersion: 2099a-1\n");
    m.dir.write("run/reboot-required", "");
    m.dir.write("run/reboot-required.pkgs", "linux-image-amd64\nlinux-image-amd64\n");

    auto f = m.read();
    ASSERT_TRUE(f.upgrades) << f.unknown["upgrades"];
    ASSERT_EQ(f.upgrades->size(), 2u);
    EXPECT_EQ((*f.upgrades)[0], (CheckupFacts::Upgrade{"libc6", "2.36-9+deb12u7", "2.36-9+deb12u8", false}));
    EXPECT_EQ((*f.upgrades)[1],
              (CheckupFacts::Upgrade{"openssl", "3.0.14-1~deb12u1", "3.0.15-1~deb12u1", true}));
    EXPECT_EQ(f.rebootRequired, true);
    EXPECT_EQ(f.rebootFor, (std::vector<std::string>{"linux-image-amd64"}));
    EXPECT_TRUE(f.listsRead);
    EXPECT_EQ(section(buildCheckup(f, readerNow), CheckupArea::updates).verdict,
              "Security updates are waiting.");
}

namespace {
std::string gzipped(const std::string& text) {
    std::string out(text.size() + 65536, '\0');
    size_t used = 0;
    auto* a = archive_write_new();
    archive_write_add_filter_gzip(a);
    archive_write_set_format_raw(a);
    archive_write_open_memory(a, out.data(), out.size(), &used);
    auto* entry = archive_entry_new();
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_write_header(a, entry);
    archive_write_data(a, text.data(), text.size());
    archive_entry_free(entry);
    archive_write_free(a);
    out.resize(used);
    return out;
}
} // namespace

TEST(PackageUpgrades, ACompressedListIsReadAcrossItsBlocksAndATornOneOffersNothing) {
    TempDir dir;
    dir.write("status",
              "Package: zlib1g\nStatus: install ok installed\nArchitecture: amd64\nVersion: 1:1.2.13-1\n\n"
              "Package: curl\nStatus: install ok installed\nArchitecture: amd64\nVersion: 7.88.1-10\n");
    // Far more than one decompressed block, with the installed packages' paragraphs among the
    // others, so paragraphs are cut across blocks.
    std::string list;
    for (int i = 0; i < 6000; ++i) {
        if (i == 2999) list += "Package: zlib1g\nArchitecture: amd64\nVersion: 1:1.2.13.dfsg-1\n\n";
        list += "Package: filler" + std::to_string(i) + "\nArchitecture: amd64\nVersion: 1.0-" +
                std::to_string(i) + "\nDescription: " + std::string(i % 97, 'x') + "\n\n";
    }
    list += "Package: curl\nArchitecture: amd64\nVersion: 7.88.1-10+deb12u5\n";
    dir.write("lists/deb.debian.org_debian_dists_bookworm_InRelease", "Suite: stable\n");
    dir.write("lists/deb.debian.org_debian_dists_bookworm_main_binary-amd64_Packages.gz", gzipped(list));
    auto read = readPackageUpgrades(dir / "status", dir / "lists");
    ASSERT_TRUE(read) << read.error();
    EXPECT_TRUE(read->unreadLists.empty());
    EXPECT_EQ(read->upgrades,
              (std::vector<CheckupFacts::Upgrade>{{"curl", "7.88.1-10", "7.88.1-10+deb12u5", false},
                                                  {"zlib1g", "1:1.2.13-1", "1:1.2.13.dfsg-1", false}}));

    // A second list, torn two thirds in: what it offered before the tear is not counted.
    auto torn = gzipped("Package: zlib1g\nArchitecture: amd64\nVersion: 1:9.9-1\n\n" + list);
    dir.write("lists/deb.debian.org_debian_dists_bookworm_contrib_binary-amd64_Packages.gz",
              torn.substr(0, torn.size() * 2 / 3));
    read = readPackageUpgrades(dir / "status", dir / "lists");
    ASSERT_TRUE(read) << read.error();
    ASSERT_EQ(read->unreadLists.size(), 1u);
    EXPECT_TRUE(read->unreadLists[0].starts_with(
        "deb.debian.org_debian_dists_bookworm_contrib_binary-amd64_Packages.gz: "));
    ASSERT_EQ(read->upgrades.size(), 2u);
    EXPECT_EQ(read->upgrades[1].candidate, "1:1.2.13.dfsg-1");
}

TEST(DebianVersions, SortAsDpkgDoes) {
    EXPECT_LT(compareDebianVersions("1.0~rc1", "1.0"), 0);
    EXPECT_LT(compareDebianVersions("1.0", "1.0a"), 0);
    EXPECT_LT(compareDebianVersions("1.9", "1.10"), 0);
    EXPECT_GT(compareDebianVersions("1:0.9", "2.0"), 0);
    EXPECT_LT(compareDebianVersions("1.0-1", "1.0-1+deb12u1"), 0);
    EXPECT_LT(compareDebianVersions("3.0.14-1~deb12u1", "3.0.14-1"), 0);
    EXPECT_EQ(compareDebianVersions("1.01", "1.1"), 0);
    EXPECT_GT(compareDebianVersions("2.36-9+deb12u8", "2.36-9+deb12u7"), 0);
    EXPECT_LT(compareDebianVersions("1.0-1.1", "1.0-1.1a"), 0);
}

TEST(CheckupReader, RoutesUnattendedUpgradesAndBackupsAreReadFromTheirOwnFiles) {
    EXPECT_EQ(CheckupReader::defaultRoute("Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\n"
                                          "wlp2s0\t0010A8C0\t00000000\t0001\t0\t0\t600\t00FFFFFF\n"
                                          "wlp2s0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\n",
                                          ""),
              "wlp2s0 via 192.168.1.1");
    EXPECT_EQ(CheckupReader::defaultRoute(
                  "", "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
                      "fe800000000000000000000000000001 00000400 00000001 00000000 00000003 eth0\n"),
              "eth0 (IPv6)");
    EXPECT_EQ(CheckupReader::defaultRoute("Iface\tDestination\n", ""), "");

    EXPECT_EQ(CheckupReader::unattendedUpgradeSetting({"APT::Periodic::Unattended-Upgrade \"1\";\n",
                                                       "// APT::Periodic::Unattended-Upgrade \"0\";\n"}),
              true);
    EXPECT_EQ(CheckupReader::unattendedUpgradeSetting({"APT::Periodic::Unattended-Upgrade \"1\";\n",
                                                       "APT::Periodic::Unattended-Upgrade \"0\";\n"}),
              false);
    EXPECT_EQ(CheckupReader::unattendedUpgradeSetting({"APT::Periodic::Update-Package-Lists \"1\";\n"}),
              std::nullopt);

    CheckupMachine m;
    m.dir.write("home/.config/borg/security/0123/location", "ssh://nas/./ada\n");
    m.dir.write("home/.config/borg/security/0123/manifest-timestamp", "2026-11-20T08:00:00.000000\n");
    m.dir.write("home/.config/borg/security/4567/location", "/media/usb/never\n");
    auto f = m.read();
    ASSERT_TRUE(f.backups);
    ASSERT_EQ(f.backups->size(), 2u);
    EXPECT_EQ((*f.backups)[0].lastRun, sys_days{2026y / November / 20} + 8h);
    EXPECT_FALSE((*f.backups)[1].lastRun);
    auto backups = section(buildCheckup(f, readerNow), CheckupArea::backups);
    EXPECT_EQ(backups.status, CheckupStatus::note) << "one repository has never succeeded";
    EXPECT_EQ(backups.readings[0].value, "2026-11-20 (2 days ago)");
}

TEST(BoundedCommand, AnswersInTimeOrIsStopped) {
    CheckupMachine m;
    auto ok = runBounded({m.program("hello", "hi there\n", 3).string()}, milliseconds(2000));
    ASSERT_TRUE(ok) << ok.error();
    EXPECT_EQ(ok->text, "hi there\n");
    EXPECT_EQ(ok->status, 3);

    auto slow = m.dir.write("bin/slow", "#!/bin/sh\nsleep 30\n");
    ::chmod(slow.c_str(), 0755);
    auto started = steady_clock::now();
    auto stopped = runBounded({slow.string()}, milliseconds(200));
    ASSERT_FALSE(stopped);
    EXPECT_EQ(stopped.error(), slow.string() + " did not answer within 200 ms");
    EXPECT_LT(steady_clock::now() - started, seconds(10)) << "the slow program was waited for, not stopped";

    auto missing = runBounded({(m.dir / "bin/none").string()}, milliseconds(200));
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().find("could not be started") != std::string::npos) << missing.error();
}

TEST(CheckupReader, ScreenLockFromTheSchemaDefaultWithoutASessionWasShownAsOn) {
    CheckupMachine m;
    auto o = m.options();
    o.gsettings = m.program("gsettings", "true\n");
    auto f = CheckupReader(o).read();
    EXPECT_FALSE(f.screenLock) << "with no session and no stored settings, gsettings gives its default";
    EXPECT_NE(f.unknown["screenLock"].find("no desktop session is running"), std::string::npos)
        << f.unknown["screenLock"];

    m.dir.write("home/.config/dconf/user", "GVariant");
    EXPECT_EQ(CheckupReader(o).read().screenLock, true) << "the user's stored settings are read";
    m.dir.write("home/.config/kscreenlockerrc", "[Daemon]\nAutolock=false\n");
    EXPECT_EQ(CheckupReader(o).read().screenLock, false);

    CheckupMachine session;
    auto inSession = session.options();
    inSession.gsettings = session.program("gsettings", "false\n");
    inSession.desktop = "GNOME";
    EXPECT_EQ(CheckupReader(inSession).read().screenLock, false);
}

TEST(CheckupReader, FirewallSaidItNeedsRootWhenRunningAsRoot) {
    CheckupMachine m;
    auto o = m.options();
    o.root = true;
    o.nft = m.program("nft", "table inet filter {\n\tchain input {\n\t\ttype filter hook input priority "
                             "filter; policy accept;\n\t\tct state established,related accept\n"
                             "\t\ttcp dport 22 accept\n\t\tcounter packets 3 bytes 180 drop\n\t}\n"
                             "\tchain output {\n\t\ttype filter hook output priority filter; policy "
                             "accept;\n\t}\n}\n");
    auto f = CheckupReader(o).read();
    EXPECT_EQ(f.firewall, true) << f.unknown["firewall"];
    EXPECT_EQ(f.firewallHow, "nftables rules filter incoming traffic");

    // A distribution's empty default table accepts everything: rules were read, and none filters.
    o.nft = m.program("nft2", "table inet filter {\n\tchain input {\n\t\ttype filter hook input priority "
                              "filter; policy accept;\n\t}\n\tchain output {\n\t\ttype filter hook output "
                              "priority filter; policy drop;\n\t}\n}\n");
    EXPECT_EQ(CheckupReader(o).read().firewall, false);

    o.nft = m.program("nft3", "Operation not permitted\n", 1);
    auto unread = CheckupReader(o).read();
    EXPECT_FALSE(unread.firewall);
    EXPECT_NE(unread.unknown["firewall"].find("nft could not list the rules (Operation not permitted)"),
              std::string::npos)
        << unread.unknown["firewall"];
    EXPECT_EQ(unread.unknown["firewall"].find("only by root"), std::string::npos);
}

TEST(CheckupSections, OutOfRangeReadingsWereShownAsNonsenseFigures) {
    // A stand-in table may say anything; shown, each figure keeps to what it can mean.
    CheckupFacts f;
    f.uptimeSeconds = -1800;
    f.cpuStall = 1e308;
    f.load1 = -3;
    f.cores = 4;
    f.watts = std::numeric_limits<double>::quiet_NaN();
    f.onBattery = true;
    f.charge = 7.5;
    auto checkup = buildCheckup(f, readerNow);
    auto valueOf = [&](CheckupArea area, std::string_view key) {
        for (auto& r : section(checkup, area).readings)
            if (r.id == key) return r.value;
        return std::string("(no reading)");
    };
    EXPECT_EQ(valueOf(CheckupArea::stability, "uptime"), "0 minutes");
    EXPECT_EQ(valueOf(CheckupArea::performance, "cpuStall"), "100% of the last minute");
    EXPECT_EQ(valueOf(CheckupArea::performance, "load").substr(0, 12), "0.00 on 4 co");
    EXPECT_EQ(valueOf(CheckupArea::energy, "draw"), "0.0 W");
    EXPECT_EQ(valueOf(CheckupArea::energy, "charge").substr(0, 4), "100%");
}
