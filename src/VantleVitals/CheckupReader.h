// Reads this machine for a checkup, area by area, from what a user without root may read: /proc,
// /sys, /etc, /var and /run (each a parameter, so tests point them at fixture trees), statvfs, the
// user's own configuration, and a few programs asked directly with a time bound (systemctl,
// journalctl, gsettings; none spawned through a shell). It writes nothing and sends nothing.
// Whatever cannot be read is left out of the facts with its reason. Safe from several threads:
// every read works on its own.
#pragma once
#include "VantleSpec/CheckupFacts.h"

#include <chrono>
#include <filesystem>

namespace vantle {

// Where a checkup's facts come from: this machine, or a sandbox's stand-in table.
class CheckupFactsSource {
  public:
    virtual ~CheckupFactsSource() = default;
    virtual CheckupFacts read() = 0;
    // Names the stand-in table in every reading's source; none for the real machine.
    virtual std::optional<std::string> standInSource() const { return std::nullopt; }
};

class CheckupReader : public CheckupFactsSource {
  public:
    struct Options {
        std::filesystem::path procRoot = "/proc";
        std::filesystem::path sysRoot = "/sys";
        std::filesystem::path etcRoot = "/etc";
        std::filesystem::path varRoot = "/var";
        std::filesystem::path runRoot = "/run";
        std::filesystem::path home;       // the user's home: its volume, its backups' records
        std::filesystem::path configHome; // XDG_CONFIG_HOME (home/.config when empty)
        std::filesystem::path cacheHome;  // XDG_CACHE_HOME (home/.cache when empty)
        std::filesystem::path systemVolume = "/";
        std::filesystem::path timeshiftSnapshots = "/timeshift/snapshots";
        // Programs asked what no file tells; an empty path is never asked (its facts stay unknown).
        std::filesystem::path systemctl = "/usr/bin/systemctl";
        std::filesystem::path journalctl = "/usr/bin/journalctl";
        std::filesystem::path gsettings = "/usr/bin/gsettings";
        std::filesystem::path nft = "/usr/sbin/nft"; // asked only as root: listing rules needs it
        // The desktop session this process runs in (XDG_CURRENT_DESKTOP), empty when there is none.
        std::string desktop;
        std::chrono::milliseconds commandTimeout{500};
        bool root = false; // whether this process may read what only root may (the journal)
        Clock clock = systemClock();
    };

    explicit CheckupReader(Options options);
    CheckupFacts read() override;

    // The default route from /proc/net/route (IPv4) or /proc/net/ipv6_route, "iface via gateway";
    // empty when there is none.
    static std::string defaultRoute(std::string_view route, std::string_view ipv6Route);
    // "1" in the last APT::Periodic::Unattended-Upgrade setting of the apt.conf.d files, in order.
    static std::optional<bool> unattendedUpgradeSetting(const std::vector<std::string>& files);

  private:
    Options options_;
};

} // namespace vantle
