#include "VantleVitals/CheckupReader.h"

#include "Platform/SystemError.h"
#include "VantleVitals/BoundedCommand.h"
#include "VantleVitals/PackageState.h"
#include "VantleVitals/ProcFs.h"
#include "VantleVitals/VitalsSampler.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <future>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace vantle {

namespace fs = std::filesystem;
using procfs::readLine;
using procfs::readNumber;
using procfs::readText;

namespace {

constexpr auto thirtyDays = std::chrono::hours(24 * 30);

std::vector<fs::path> entriesOf(const fs::path& folder, std::error_code& ec) {
    std::vector<fs::path> out;
    for (auto& entry : fs::directory_iterator(folder, ec))
        out.push_back(entry.path());
    std::ranges::sort(out);
    return out;
}

std::vector<std::string> linesOf(std::string_view text) {
    std::vector<std::string> out;
    std::istringstream in{std::string(text)};
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

std::string trim(std::string s) {
    auto b = s.find_first_not_of(" \t\r\n'\"");
    auto e = s.find_last_not_of(" \t\r\n'\"");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

std::string whyNot(const fs::path& file) {
    std::error_code ec;
    if (!fs::exists(file, ec)) return "there is no " + file.string();
    return file.string() + " could not be read";
}

TimePoint fromSeconds(double seconds) {
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(std::chrono::duration<double>(seconds)));
}

std::optional<TimePoint> changedAt(const fs::path& file) {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) return std::nullopt;
    return fromSeconds(double(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9);
}

// "some avg10=1.00 avg60=2.00 ..." -> the figure after `key` on the line that starts with `kind`.
std::optional<double> stallFigure(std::string_view text, std::string_view kind, std::string_view key) {
    for (auto& line : linesOf(text)) {
        if (!line.starts_with(kind)) continue;
        auto at = line.find(std::string(key) + "=");
        if (at == std::string::npos) return std::nullopt;
        try {
            return std::stod(line.substr(at + key.size() + 1));
        } catch (...) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

// One program asked in the background; the checkup gathers the answers at the end.
using Asked = std::future<std::expected<CommandOutput, std::string>>;

Asked ask(const fs::path& program, std::vector<std::string> args, std::chrono::milliseconds timeout) {
    if (program.empty())
        return std::async(std::launch::deferred, [] {
            return std::expected<CommandOutput, std::string>(std::unexpected("it is not asked here"));
        });
    args.insert(args.begin(), program.string());
    return std::async(std::launch::async,
                      [args = std::move(args), timeout] { return runBounded(args, timeout); });
}

// Whether `nft list ruleset` holds a chain on the input hook that drops or rejects something: an
// input chain that accepts everything (as a distribution's empty default table does) is no firewall.
bool filtersIncoming(std::string_view ruleset) {
    bool inInput = false;
    for (auto& line : linesOf(ruleset)) {
        auto t = trim(line);
        if (t.starts_with("chain ")) inInput = false;
        if (t.find("hook input") != std::string::npos) inInput = true;
        if (inInput && (t.find("policy drop") != std::string::npos || t.ends_with(" drop") || t == "drop" ||
                        t.find("reject") != std::string::npos))
            return true;
    }
    return false;
}

// The first line of a program's answer, for a reason shown to the user.
std::string firstLine(const std::string& text) {
    auto line = trim(text.substr(0, text.find('\n')));
    return line.empty() ? "no answer" : line;
}

std::string unescapeMount(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size()) {
            auto oct = s.substr(i + 1, 3);
            if (std::ranges::all_of(oct, [](char c) { return c >= '0' && c <= '7'; })) {
                out += char((oct[0] - '0') * 64 + (oct[1] - '0') * 8 + (oct[2] - '0'));
                i += 3;
                continue;
            }
        }
        out += s[i];
    }
    return out;
}

bool under(const fs::path& path, const std::string& mountPoint) {
    auto p = path.string();
    if (mountPoint == "/") return true;
    return p == mountPoint || p.starts_with(mountPoint + "/");
}

struct Mount {
    std::string point, fsType, source;
};

std::optional<Mount> mountOf(std::string_view mountinfo, const fs::path& path) {
    std::optional<Mount> best;
    for (auto& line : linesOf(mountinfo)) {
        std::istringstream in(line);
        std::string id, parent, devno, root, point;
        if (!(in >> id >> parent >> devno >> root >> point)) continue;
        std::string word;
        while (in >> word && word != "-") {
        }
        Mount m;
        if (!(in >> m.fsType >> m.source)) continue;
        m.point = unescapeMount(point);
        m.source = unescapeMount(m.source);
        // The last mount of the longest matching point is what the path really sits on.
        if (under(path, m.point) && (!best || m.point.size() >= best->point.size())) best = m;
    }
    return best;
}

// Whether a block device is dm-crypt, or sits on one, following its slaves down the stack.
std::optional<std::string> cryptBeneath(const fs::path& sysRoot, const std::string& name, int depth = 0) {
    if (depth > 8) return std::nullopt;
    auto device = sysRoot / "class/block" / name;
    if (auto uuid = readLine(device / "dm/uuid"); uuid && uuid->starts_with("CRYPT-")) {
        auto kind = uuid->starts_with("CRYPT-LUKS") ? "dm-crypt (LUKS)" : "dm-crypt";
        return std::string(kind) + " on " + name;
    }
    std::error_code ec;
    for (auto& slave : entriesOf(device / "slaves", ec))
        if (auto found = cryptBeneath(sysRoot, slave.filename().string(), depth + 1)) return found;
    return std::nullopt;
}

// A crash report's program: "_usr_bin_gedit.1000.crash" is gedit; "core.gedit.1000.<boot>.<pid>.<time>"
// is gedit.
std::string crashedProgram(const std::string& file) {
    if (file.starts_with("core.")) {
        auto rest = file.substr(5);
        return rest.substr(0, rest.find('.'));
    }
    auto stem = file.substr(0, file.find('.'));
    auto slash = stem.rfind('_');
    return slash == std::string::npos ? stem : stem.substr(slash + 1);
}

std::optional<TimePoint> parseLocalStamp(const std::string& text) {
    // "2024-05-01T10:00:00.123456" or "2024-05-01_10-00-01"; read as UTC, which is close enough for
    // a count of days.
    std::string t = text;
    if (t.size() >= 19 && t[10] == '_') {
        t[10] = 'T';
        t[13] = ':';
        t[16] = ':';
    }
    if (auto at = parseIsoDate(t)) return at;
    if (t.size() >= 19) return parseIsoDate(t.substr(0, 19) + "Z");
    return std::nullopt;
}

} // namespace

CheckupReader::CheckupReader(Options options) : options_(std::move(options)) {
    if (options_.configHome.empty()) options_.configHome = options_.home / ".config";
    if (options_.cacheHome.empty()) options_.cacheHome = options_.home / ".cache";
}

std::string CheckupReader::defaultRoute(std::string_view route, std::string_view ipv6Route) {
    for (auto& line : linesOf(route)) {
        std::istringstream in(line);
        std::string iface, destination, gateway, flags, refcnt, use, metric, mask;
        if (!(in >> iface >> destination >> gateway >> flags >> refcnt >> use >> metric >> mask)) continue;
        if (destination != "00000000" || mask != "00000000") continue;
        unsigned long g = 0;
        try {
            g = std::stoul(gateway, nullptr, 16);
            if (!(std::stoul(flags, nullptr, 16) & 1)) continue; // RTF_UP
        } catch (...) {
            continue;
        }
        // The kernel prints the address in the machine's byte order; on little-endian machines the
        // first octet is the lowest byte.
        return iface + " via " + std::to_string(g & 0xff) + "." + std::to_string(g >> 8 & 0xff) + "." +
               std::to_string(g >> 16 & 0xff) + "." + std::to_string(g >> 24 & 0xff);
    }
    for (auto& line : linesOf(ipv6Route)) {
        std::istringstream in(line);
        std::string destination, prefix, source, sourcePrefix, nextHop, metric, refcnt, use, flags, iface;
        if (!(in >> destination >> prefix >> source >> sourcePrefix >> nextHop >> metric >> refcnt >> use >>
              flags >> iface))
            continue;
        if (destination != std::string(32, '0') || prefix != "00" || iface == "lo") continue;
        return iface + " (IPv6)";
    }
    return "";
}

std::optional<bool> CheckupReader::unattendedUpgradeSetting(const std::vector<std::string>& files) {
    std::optional<bool> setting;
    for (auto& text : files)
        for (auto& line : linesOf(text)) {
            auto t = trim(line);
            if (t.starts_with("//") || t.starts_with("#")) continue;
            auto at = t.find("APT::Periodic::Unattended-Upgrade");
            if (at == std::string::npos) continue;
            auto quote = t.find('"', at);
            if (quote == std::string::npos) continue;
            auto value = t.substr(quote + 1, t.find('"', quote + 1) - quote - 1);
            setting = value != "0" && value != "false" && !value.empty();
        }
    return setting;
}

CheckupFacts CheckupReader::read() {
    const auto& o = options_;
    CheckupFacts f;
    auto now = o.clock();
    auto& unknown = f.unknown;

    // The programs answer while the files are read.
    auto failed = ask(o.systemctl, {"--failed", "--no-legend", "--plain", "--no-pager"}, o.commandTimeout);
    auto userFailed =
        ask(o.systemctl, {"--user", "--failed", "--no-legend", "--plain", "--no-pager"}, o.commandTimeout);
    auto firewalls = ask(o.systemctl, {"is-active", "nftables.service", "firewalld.service", "ufw.service"},
                         o.commandTimeout);
    auto nftRules =
        o.root ? ask(o.nft, {"list", "ruleset"}, o.commandTimeout) : ask({}, {}, o.commandTimeout);
    // Without a session and without the user's stored settings gsettings answers with the schema's
    // default, which says nothing about this machine's screen.
    const auto dconf = o.configHome / "dconf/user";
    const bool sessionSettings = !o.desktop.empty() || fs::exists(dconf);
    auto lockSetting =
        sessionSettings
            ? ask(o.gsettings, {"get", "org.gnome.desktop.screensaver", "lock-enabled"}, o.commandTimeout)
            : ask({}, {}, o.commandTimeout);
    auto dejaDup = ask(o.gsettings, {"get", "org.gnome.DejaDup", "last-backup"}, o.commandTimeout);
    // Only root and the adm and systemd-journal groups read the system journal; ask only when it can answer.
    bool journalReadable = o.root;
    for (auto folder : {o.varRoot / "log/journal", o.runRoot / "log/journal"}) {
        std::error_code ec;
        for (auto& machine : entriesOf(folder, ec))
            if (::access((machine / "system.journal").c_str(), R_OK) == 0) journalReadable = true;
    }
    Asked journal =
        journalReadable
            ? ask(o.journalctl, {"-k", "-b", "-p", "err", "-q", "-o", "cat", "--no-pager"}, o.commandTimeout)
            : ask({}, {}, o.commandTimeout);

    // age and system
    if (auto date = readLine(o.sysRoot / "class/dmi/id/bios_date");
        date && date->size() == 10 && (*date)[2] == '/') {
        f.firmwareDate = date->substr(6, 4) + "-" + date->substr(0, 2) + "-" + date->substr(3, 2);
    } else {
        unknown["firmwareDate"] = date ? "the firmware gives its date as \"" + *date + "\""
                                       : "this machine does not give its firmware's date";
    }
    {
        struct statx sx {};
        auto id = o.etcRoot / "machine-id";
        if (::statx(AT_FDCWD, id.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &sx) != 0)
            unknown["installed"] = whyNot(id);
        else if ((sx.stx_mask & STATX_BTIME) && sx.stx_btime.tv_sec > 0)
            f.installed = fromSeconds(double(sx.stx_btime.tv_sec));
        else
            unknown["installed"] = "the file system does not keep when " + id.string() + " was made";
    }
    if (auto release = readText(o.etcRoot / "os-release")) {
        for (auto& line : linesOf(*release))
            if (line.starts_with("PRETTY_NAME=")) f.distribution = trim(line.substr(12));
        if (!f.distribution) unknown["distribution"] = "/etc/os-release gives no PRETTY_NAME";
    } else {
        unknown["distribution"] = whyNot(o.etcRoot / "os-release");
    }
    if (auto kernel = readLine(o.procRoot / "sys/kernel/osrelease"))
        f.kernel = *kernel;
    else
        unknown["kernel"] = whyNot(o.procRoot / "sys/kernel/osrelease");
    {
        auto dmi = o.sysRoot / "class/dmi/id";
        auto vendor = readLine(dmi / "sys_vendor"), product = readLine(dmi / "product_name");
        if (product)
            f.model = vendor && !product->starts_with(*vendor) ? *vendor + " " + *product : *product;
        else
            unknown["model"] = "this machine does not give its model (no /sys/class/dmi/id)";
        auto version = readLine(dmi / "bios_version");
        if (version)
            f.firmware = readLine(dmi / "bios_vendor").value_or("") +
                         (readLine(dmi / "bios_vendor") ? " " : "") + *version +
                         (f.firmwareDate ? " (" + *f.firmwareDate + ")" : "");
        else
            unknown["firmware"] = "this machine does not give its firmware's version";
    }

    // performance
    auto stat = procfs::parseStat(readText(o.procRoot / "stat").value_or(""));
    if (!stat.cores.empty()) f.cores = int(stat.cores.size());
    if (auto load = readText(o.procRoot / "loadavg")) {
        try {
            f.load1 = std::stod(*load);
        } catch (...) {
            unknown["load1"] = "/proc/loadavg holds no load average";
        }
    } else {
        unknown["load1"] = whyNot(o.procRoot / "loadavg");
    }
    if (!f.cores && f.load1) {
        f.load1.reset();
        unknown["load1"] = "/proc/stat lists no processor cores";
    }
    if (auto cpu = readText(o.procRoot / "pressure/cpu")) {
        f.cpuStall = stallFigure(*cpu, "some", "avg60");
        if (!f.cpuStall) unknown["cpuStall"] = "/proc/pressure/cpu holds no figure for the last minute";
    } else {
        unknown["cpuStall"] = "this kernel keeps no pressure figures (/proc/pressure/cpu)";
    }
    {
        bool anyZone = false;
        std::error_code ec;
        for (auto& zone : entriesOf(o.sysRoot / "class/thermal", ec))
            if (zone.filename().string().starts_with("thermal_zone") &&
                readNumber(zone / "temp").value_or(0) > 0)
                anyZone = true;
        if (anyZone)
            f.thermal = VitalsSampler::thermalState(o.sysRoot);
        else
            unknown["thermal"] =
                "this machine shows no thermal zones (usual in containers and virtual machines)";
    }

    // memory
    if (auto text = readText(o.procRoot / "meminfo")) {
        auto m = procfs::parseMeminfo(*text);
        auto get = [&](const char* key) -> std::optional<std::uint64_t> {
            auto it = m.find(key);
            return it == m.end() ? std::nullopt : std::optional(it->second);
        };
        f.memoryTotal = get("MemTotal");
        f.memoryAvailable = get("MemAvailable");
        f.swapTotal = get("SwapTotal");
        if (auto free = get("SwapFree"); f.swapTotal && free)
            f.swapUsed = *f.swapTotal - std::min(*free, *f.swapTotal);
        if (!f.memoryTotal || !f.memoryAvailable) {
            f.memoryTotal.reset(), f.memoryAvailable.reset();
            unknown["memoryTotal"] = "/proc/meminfo gives no MemTotal or MemAvailable";
        }
        if (!f.swapUsed) unknown["swapUsed"] = "/proc/meminfo gives no swap figures";
        auto stall = readText(o.procRoot / "pressure/memory");
        std::optional<procfs::Pressure> pressure = stall ? procfs::parsePressure(*stall) : std::nullopt;
        if (pressure) f.memoryStall = pressure->someAvg10;
        if (f.memoryTotal)
            f.pressure = procfs::pressureLevel(pressure, *f.memoryAvailable, *f.memoryTotal);
        else
            unknown["pressure"] = unknown["memoryTotal"];
    } else {
        unknown["memoryTotal"] = unknown["pressure"] = unknown["swapUsed"] = whyNot(o.procRoot / "meminfo");
    }

    // storage
    auto volume = [&](const fs::path& path, const char* fact) -> std::optional<CheckupFacts::Volume> {
        struct statvfs v {};
        if (::statvfs(path.c_str(), &v) != 0) {
            unknown[fact] = whyNot(path);
            return std::nullopt;
        }
        return CheckupFacts::Volume{path.string(), std::uint64_t(v.f_blocks) * v.f_frsize,
                                    std::uint64_t(v.f_bavail) * v.f_frsize};
    };
    f.home = volume(o.home, "home");
    {
        struct stat h {
        }, r{};
        f.rootIsHome = ::stat(o.home.c_str(), &h) == 0 && ::stat(o.systemVolume.c_str(), &r) == 0 &&
                       h.st_dev == r.st_dev;
        if (!f.rootIsHome) f.root = volume(o.systemVolume, "root");
    }

    // battery and energy
    {
        std::error_code ec;
        auto supplies = entriesOf(o.sysRoot / "class/power_supply", ec);
        if (ec) {
            unknown["hasBattery"] = "this system shows no power supplies (" + ec.message() + ")";
        } else {
            auto power = VitalsSampler::power(o.sysRoot);
            f.hasBattery = power.hasBattery;
            if (power.hasBattery) {
                f.charge = power.charge;
                f.onBattery = !power.onAC;
                if (power.battery) {
                    f.batteryHealth = power.battery->health();
                    f.batteryCycles = power.battery->cycleCount;
                    f.batteryCondition = power.battery->condition;
                }
                if (!f.batteryHealth)
                    unknown["batteryHealth"] = "the battery does not give its full and design capacities";
                if (!f.batteryCycles) unknown["batteryCycles"] = "the battery does not count its cycles";
                for (auto& s : supplies) {
                    if (readLine(s / "type") != "Battery" || readLine(s / "scope") == "Device") continue;
                    if (readLine(s / "status") != "Discharging") {
                        unknown["watts"] = "the draw is shown only while running on the battery";
                        break;
                    }
                    if (auto uw = readNumber(s / "power_now"); uw && *uw > 0)
                        f.watts = double(*uw) / 1e6;
                    else if (auto ua = readNumber(s / "current_now"), uv = readNumber(s / "voltage_now");
                             ua && uv && *ua > 0 && *uv > 0)
                        f.watts = double(*ua) * double(*uv) / 1e12;
                    else
                        unknown["watts"] = "the battery does not give its power draw";
                    break;
                }
            } else {
                unknown["watts"] = "without a battery this machine does not give its power draw";
            }
        }
        if (auto profile = readLine(o.sysRoot / "firmware/acpi/platform_profile")) f.powerProfile = *profile;
    }

    // stability
    if (auto uptime = readText(o.procRoot / "uptime")) f.uptimeSeconds = procfs::parseUptime(*uptime);
    if (!f.uptimeSeconds) unknown["uptimeSeconds"] = whyNot(o.procRoot / "uptime");
    if (stat.bootTime) f.bootTime = fromSeconds(double(*stat.bootTime));
    {
        std::vector<CheckupFacts::Crash> crashes;
        bool anyFolder = false;
        std::string problem;
        for (auto [folder, suffix] :
             {std::pair{o.varRoot / "crash", ".crash"}, std::pair{o.varRoot / "lib/systemd/coredump", ""}}) {
            std::error_code ec;
            auto entries = entriesOf(folder, ec);
            if (ec) {
                if (ec != std::errc::no_such_file_or_directory)
                    problem = folder.string() + " could not be read (" + ec.message() + ")";
                continue;
            }
            anyFolder = true;
            for (auto& e : entries) {
                auto name = e.filename().string();
                if (*suffix ? !name.ends_with(suffix) : !name.starts_with("core.")) continue;
                auto at = changedAt(e);
                if (!at || now - *at > thirtyDays) continue;
                crashes.push_back({crashedProgram(name), *at, e.string()});
            }
        }
        std::ranges::sort(crashes, {}, &CheckupFacts::Crash::at);
        if (!problem.empty())
            unknown["crashes"] = problem;
        else if (!anyFolder)
            unknown["crashes"] = "no crash collector keeps reports here (no /var/crash, no systemd-coredump)";
        else
            f.crashes = std::move(crashes);
    }
    if (!journalReadable) {
        unknown["kernelOopses"] =
            "the system journal is readable only by root and the adm and systemd-journal groups";
    } else if (auto answer = journal.get(); !answer) {
        unknown["kernelOopses"] = "journalctl could not answer: " + answer.error();
    } else if (answer->status != 0) {
        unknown["kernelOopses"] = "journalctl could not answer: " + firstLine(answer->text);
    } else {
        int oopses = 0;
        for (auto& line : linesOf(answer->text))
            if (line.find("Oops") != std::string::npos || line.starts_with("BUG:") ||
                line.starts_with("kernel BUG") || line.starts_with("general protection fault"))
                ++oopses;
        f.kernelOopses = oopses;
    }
    {
        auto system = failed.get(), user = userFailed.get();
        if (!system)
            unknown["failedUnits"] = "systemctl could not answer: " + system.error();
        else if (system->status != 0)
            unknown["failedUnits"] = "systemctl could not answer: " + firstLine(system->text);
        else {
            std::vector<std::string> units;
            auto take = [&](const std::string& text, const char* suffix) {
                for (auto& line : linesOf(text)) {
                    std::istringstream in(line);
                    std::string unit;
                    in >> unit;
                    if (unit == "●" || unit == "*") in >> unit;
                    if (!unit.empty()) units.push_back(unit + suffix);
                }
            };
            take(system->text, "");
            // A user manager that does not answer (no session bus) leaves the system's list standing.
            if (user && user->status == 0) take(user->text, " (yours)");
            f.failedUnits = std::move(units);
        }
    }

    // startup
    {
        std::vector<CheckupFacts::StartupEntry> entries;
        std::error_code ec;
        auto autostart = o.configHome / "autostart";
        for (auto& e : entriesOf(autostart, ec)) {
            if (e.extension() != ".desktop") continue;
            auto text = readText(e);
            if (!text) continue;
            std::string name = e.stem().string();
            bool off = false;
            for (auto& line : linesOf(*text)) {
                if (line.starts_with("Name=")) name = trim(line.substr(5));
                if (line == "Hidden=true" || line == "X-GNOME-Autostart-enabled=false") off = true;
            }
            if (!off) entries.push_back({name, e.string(), false});
        }
        bool autostartMissing = ec == std::errc::no_such_file_or_directory;
        if (ec && !autostartMissing) {
            unknown["startupEntries"] = autostart.string() + " could not be read (" + ec.message() + ")";
        } else {
            std::error_code ignore;
            for (auto& wants : entriesOf(o.configHome / "systemd/user", ignore)) {
                if (!wants.filename().string().ends_with(".wants")) continue;
                std::error_code inner;
                for (auto& unit : entriesOf(wants, inner))
                    entries.push_back({unit.filename().string(), unit.string(), true});
            }
            f.startupEntries = std::move(entries);
        }
    }

    // security: the home's disk
    if (auto mountinfo = readText(o.procRoot / "self/mountinfo")) {
        if (auto m = mountOf(*mountinfo, o.home)) {
            if (m->fsType == "ecryptfs") {
                f.homeEncrypted = true, f.encryptionHow = "eCryptfs over " + m->source;
            } else if (m->source.starts_with("/dev/")) {
                std::string name = fs::path(m->source).filename().string();
                if (m->source.starts_with("/dev/mapper/")) {
                    std::error_code ec;
                    for (auto& dev : entriesOf(o.sysRoot / "class/block", ec))
                        if (readLine(dev / "dm/name") == name) name = dev.filename().string();
                }
                if (!fs::exists(o.sysRoot / "class/block" / name)) {
                    unknown["homeEncrypted"] =
                        m->source + " is not a disk this system lists in /sys/class/block";
                } else if (auto crypt = cryptBeneath(o.sysRoot, name)) {
                    f.homeEncrypted = true, f.encryptionHow = *crypt;
                } else {
                    f.homeEncrypted = false, f.encryptionHow = m->source + " has no dm-crypt beneath it";
                }
            } else {
                unknown["homeEncrypted"] = "the home folder is on " + m->fsType + " (" + m->source +
                                           "), which does not tell what disk lies beneath";
            }
        } else {
            unknown["homeEncrypted"] = "no mount holds the home folder in /proc/self/mountinfo";
        }
    } else {
        unknown["homeEncrypted"] = whyNot(o.procRoot / "self/mountinfo");
    }

    // security: the firewall
    {
        std::vector<std::string> on;
        if (auto ufw = readText(o.etcRoot / "ufw/ufw.conf"))
            for (auto& line : linesOf(*ufw))
                if (trim(line) == "ENABLED=yes") on.push_back("ufw enabled");
        for (auto table : {"net/ip_tables_names", "net/ip6_tables_names"})
            if (auto names = readText(o.procRoot / table))
                for (auto& n : linesOf(*names))
                    if (trim(n) == "filter" &&
                        std::ranges::find(on, "iptables filter rules loaded") == on.end())
                        on.push_back("iptables filter rules loaded");
        // As root the rules themselves are read: nft lists iptables-nft's tables too.
        auto rules = nftRules.get();
        const bool rulesRead = rules && rules->status == 0;
        if (rulesRead && filtersIncoming(rules->text)) on.push_back("nftables rules filter incoming traffic");
        auto services = firewalls.get();
        bool asked = services && !services->text.empty() &&
                     services->text.find("Failed") == std::string::npos &&
                     services->text.find("not been booted") == std::string::npos;
        if (asked) {
            auto states = linesOf(services->text);
            const char* names[] = {"nftables", "firewalld", "ufw"};
            for (size_t i = 0; i < 3 && i < states.size(); ++i)
                if (trim(states[i]) == "active") on.push_back(std::string(names[i]) + " running");
        }
        if (!on.empty()) {
            f.firewall = true;
            std::string how;
            for (auto& s : on)
                how += (how.empty() ? "" : ", ") + s;
            f.firewallHow = how;
        } else if (rulesRead) {
            f.firewall = false, f.firewallHow = "no nftables or iptables rule filters incoming traffic";
        } else if (asked) {
            f.firewall = false,
            f.firewallHow =
                "no nftables, firewalld or ufw service is running, and no iptables filter table is loaded";
        } else {
            const std::string systemctlSaid = "systemctl could not answer (" +
                                              (services ? firstLine(services->text) : services.error()) + ")";
            unknown["firewall"] = !o.root ? "nftables rules can be listed only by root, and " + systemctlSaid
                                          : "nft could not list the rules (" +
                                                (rules ? firstLine(rules->text) : rules.error()) + "), and " +
                                                systemctlSaid;
        }
    }

    // security: automatic updates
    {
        std::error_code ec;
        auto confs = entriesOf(o.etcRoot / "apt/apt.conf.d", ec);
        if (!ec) {
            std::vector<std::string> texts;
            for (auto& c : confs)
                if (auto t = readText(c)) texts.push_back(*t);
            auto setting = unattendedUpgradeSetting(texts);
            bool installed = fs::exists(o.varRoot / "lib/dpkg/info/unattended-upgrades.list");
            f.automaticUpdates = setting.value_or(false) && installed;
            f.automaticUpdatesHow = !installed ? "unattended-upgrades is not installed"
                                    : !setting ? "unattended-upgrades is installed but not switched on"
                                    : *setting ? "unattended-upgrades"
                                               : "unattended-upgrades is switched off";
        } else if (auto dnf = readText(o.etcRoot / "dnf/automatic.conf")) {
            bool apply = false;
            for (auto& line : linesOf(*dnf)) {
                auto t = trim(line);
                t.erase(std::remove(t.begin(), t.end(), ' '), t.end());
                if (t == "apply_updates=yes" || t == "apply_updates=True" || t == "apply_updates=true")
                    apply = true;
            }
            f.automaticUpdates = apply;
            f.automaticUpdatesHow =
                apply ? "dnf-automatic applies updates" : "dnf-automatic only downloads updates";
        } else {
            unknown["automaticUpdates"] = "neither apt nor dnf-automatic is set up on this system";
        }
    }

    // security: the screen lock
    if (auto kde = readText(o.configHome / "kscreenlockerrc")) {
        f.screenLock = kde->find("Autolock=false") == std::string::npos;
    } else if (!sessionSettings) {
        unknown["screenLock"] = "no desktop session is running and no desktop settings are kept in " +
                                dconf.string() + ", so only the setting's built-in default could be read";
    } else if (auto gnome = lockSetting.get(); gnome && gnome->status == 0) {
        auto v = trim(gnome->text);
        if (v == "true" || v == "false")
            f.screenLock = v == "true";
        else
            unknown["screenLock"] = "gsettings answered \"" + v + "\"";
    } else {
        unknown["screenLock"] = "the desktop's lock setting could not be read (" +
                                (gnome ? firstLine(gnome->text) : gnome.error()) + ")";
    }

    // updates
    if (auto packages = readPackageUpgrades(o.varRoot / "lib/dpkg/status", o.varRoot / "lib/apt/lists")) {
        f.upgrades = std::move(packages->upgrades);
        f.listsRead = packages->listsRead;
        if (!packages->unreadLists.empty())
            unknown["upgrades"] = "some package lists could not be read: " + packages->unreadLists.front();
        auto marker = o.runRoot / "reboot-required";
        f.rebootRequired = fs::exists(marker);
        if (*f.rebootRequired)
            if (auto pkgs = readText(o.runRoot / "reboot-required.pkgs")) {
                std::vector<std::string> names;
                for (auto& l : linesOf(*pkgs))
                    if (auto t = trim(l); !t.empty() && std::ranges::find(names, t) == names.end())
                        names.push_back(t);
                f.rebootFor = names;
            }
    } else {
        unknown["upgrades"] = packages.error();
        unknown["rebootRequired"] =
            "only Debian-family systems leave a reboot-required marker, and this one has no dpkg status";
    }

    // backups
    {
        std::vector<CheckupFacts::Backup> backups;
        if (auto d = dejaDup.get(); d && d->status == 0) {
            auto v = trim(d->text);
            if (!v.empty()) backups.push_back({"Déjà Dup", "its configured destination", parseIsoDate(v)});
        }
        if (fs::exists(o.etcRoot / "timeshift/timeshift.json") || fs::exists(o.etcRoot / "timeshift.json")) {
            std::error_code ec;
            auto snapshots = entriesOf(o.timeshiftSnapshots, ec);
            if (!ec) {
                std::optional<TimePoint> newest;
                for (auto& s : snapshots)
                    if (auto at = parseLocalStamp(s.filename().string()); at && (!newest || *at > *newest))
                        newest = at;
                backups.push_back({"Timeshift", o.timeshiftSnapshots.string(), newest});
            } else {
                unknown["timeshift"] =
                    o.timeshiftSnapshots.string() + " could not be read (" + ec.message() + ")";
            }
        }
        std::error_code ec;
        for (auto& repo : entriesOf(o.configHome / "borg/security", ec)) {
            auto location = readLine(repo / "location").value_or(repo.filename().string());
            std::optional<TimePoint> last;
            if (auto stamp = readLine(repo / "manifest-timestamp")) last = parseLocalStamp(*stamp);
            backups.push_back({"borg", location, last});
        }
        for (auto& repo : entriesOf(o.cacheHome / "restic", ec)) {
            if (!fs::is_directory(repo / "snapshots")) continue;
            std::optional<TimePoint> newest;
            std::error_code inner;
            for (auto& s : entriesOf(repo / "snapshots", inner))
                if (auto at = changedAt(s); at && (!newest || *at > *newest)) newest = at;
            backups.push_back({"restic", "repository " + repo.filename().string().substr(0, 8), newest});
        }
        if (backups.empty() && !unknown.contains("timeshift"))
            unknown["backups"] =
                "no backup tool this checkup knows (Déjà Dup, Timeshift, restic, borg) is set up for you";
        else if (backups.empty())
            unknown["backups"] = unknown["timeshift"];
        f.backups = std::move(backups);
    }

    // network
    {
        std::error_code ec;
        auto interfaces = entriesOf(o.sysRoot / "class/net", ec);
        if (ec) {
            unknown["interfacesUp"] =
                (o.sysRoot / "class/net").string() + " could not be read (" + ec.message() + ")";
        } else {
            std::vector<CheckupFacts::Interface> up;
            for (auto& i : interfaces) {
                auto name = i.filename().string();
                if (name == "lo" || readNumber(i / "type") == 772) continue;
                if (readLine(i / "operstate") != "up") continue;
                up.push_back({name, fs::exists(i / "wireless") || fs::exists(i / "phy80211")});
            }
            f.interfacesUp = std::move(up);
        }
        auto route = readText(o.procRoot / "net/route");
        auto route6 = readText(o.procRoot / "net/ipv6_route");
        if (route || route6)
            f.defaultRoute = defaultRoute(route.value_or(""), route6.value_or(""));
        else
            unknown["defaultRoute"] = whyNot(o.procRoot / "net/route");
    }
    return f;
}

} // namespace vantle
