#include "VantleLiteLive/VantleLite.h"

#include "Platform/BeneathOpen.h"
#include "Platform/SystemError.h"
#include "Platform/UniqueFd.h"
#include "VantleEgress/LiteSilentLedger.h"
#include "VantleSpec/Sentence.h"
#include "VantleVitals/ActivityReader.h"
#include "VantleVitals/CheckupReader.h"
#include "VantleVitals/VitalsSampler.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

using Failure = VantleLite::Failure;

std::unexpected<Failure> couldNotMake(const fs::path& folder, int err) {
    return std::unexpected(Failure{Failure::Case::couldNotMake,
                                   fillIn(Failure::couldNotMakeSentence,
                                          {{"folder", folder.string()}, {"reason", systemErrorText(err)}})});
}

// The folders this start-up made, removed again (each only if still empty) when a later step fails,
// so a start-up that ends in failure leaves nothing behind.
struct MadeFolders {
    std::vector<fs::path> made;
    bool kept = false;
    ~MadeFolders() {
        if (kept) return;
        for (auto it = made.rbegin(); it != made.rend(); ++it)
            ::rmdir(it->c_str());
    }
};

// Makes a folder and its missing parents by path. Used for the places above the program's own folders
// (a sandbox's home, the data folder's parents), which the user may reach through links of their own,
// as dotfile managers make ~/.local and ~/.local/share.
// A failure names `named`: the folder start-up was asked to make.
std::expected<void, Failure> makeByPath(const fs::path& folder, MadeFolders& made, const fs::path& named) {
    std::vector<fs::path> missing;
    for (fs::path p = folder; !p.empty(); p = p.parent_path()) {
        struct stat st {};
        if (::stat(p.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) return couldNotMake(named, ENOTDIR);
            break;
        }
        if (errno != ENOENT) return couldNotMake(named, errno);
        missing.push_back(p);
        if (p == p.parent_path()) break;
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        if (::mkdir(it->c_str(), 0755) == 0)
            made.made.push_back(*it);
        else if (errno != EEXIST)
            return couldNotMake(named, errno);
    }
    return {};
}

// A sandbox's usual places, made beneath its home by descriptor. An entry that is already a link is
// left as it is: the sandbox rule has checked that it leads inside the sandbox, and nothing is made
// through it.
std::expected<void, Failure> makeSandboxPlace(int homeFd, const fs::path& home, const char* name,
                                              MadeFolders& made) {
    struct stat st {};
    if (::fstatat(homeFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode)) return {};
        return couldNotMake(home / name, EEXIST);
    }
    if (errno != ENOENT) return couldNotMake(home / name, errno);
    if (::mkdirat(homeFd, name, 0755) != 0) return couldNotMake(home / name, errno);
    made.made.push_back(home / name);
    return {};
}

// The data folder: its parent is resolved once (links above it are the user's to make), the folder
// itself is made beneath that descriptor, must not be a link, and is restricted to its owner through
// its own descriptor. Gives the data folder's resolved path.
std::expected<fs::path, Failure> makeDataFolder(const fs::path& support, MadeFolders& made) {
    auto parent = support.parent_path();
    auto name = support.filename();
    if (auto madeParent = makeByPath(parent, made, support); !madeParent)
        return std::unexpected(madeParent.error());
    UniqueFd parentFd(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parentFd) return couldNotMake(support, errno);
    std::error_code ec;
    auto resolvedParent = fs::canonical(parent, ec);
    if (ec) return couldNotMake(support, ec.value());
    if (::mkdirat(parentFd.get(), name.c_str(), 0700) == 0)
        made.made.push_back(resolvedParent / name);
    else if (errno != EEXIST)
        return couldNotMake(support, errno);

    // A folder its owner cannot read (mode 000) is still the owner's to restrict: it is opened as a
    // path only, and its mode set through the descriptor's /proc name.
    UniqueFd folder(::openat(parentFd.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return couldNotMake(support, errno);
    auto byDescriptor = "/proc/self/fd/" + std::to_string(folder.get());
    if (::chmod(byDescriptor.c_str(), 0700) != 0)
        return std::unexpected(
            Failure{Failure::Case::couldNotRestrict,
                    fillIn(Failure::couldNotRestrictSentence,
                           {{"folder", support.string()}, {"reason", systemErrorText(errno)}})});
    return resolvedParent / name;
}

// A sandbox keeps the layout it has everywhere; a real Linux run keeps the freedesktop Trash (so the
// file manager shows and restores what moved), guards the XDG places where apps keep their files as
// it guards Library, and turns XDG autostart entries off and on.
void wireTrashAndStartup(VantleLite& live) {
    HomeTrash::Options trash{
        .home = live.home, .appFolders = live.profile.applicationFolders, .place = live.profile.trashFolder};
    StartupItems::Options startup{.agents = live.profile.launchAgentsFolder,
                                  .turnedOff = live.support / "Turned Off"};
    if (live.isSandbox) {
        std::weak_ptr<StandInMac> mac = live.mac;
        trash.recordMove = [mac](const fs::path& item) {
            if (auto m = mac.lock()) m->moveToTrash(item);
        };
    } else {
        trash.layout = HomeTrash::Layout::freedesktop;
        trash.libraryFolders = {"Library", ".config", ".local", ".cache"};
        trash.standardFolders.insert(trash.standardFolders.end(), {"Videos", "Public", "Templates"});
        startup.extension = ".desktop";
        startup.serviceFolders = {live.profile.launchAgentsFolder.parent_path() / "systemd" / "user"};
    }
    live.trash = std::make_shared<HomeTrash>(std::move(trash));
    live.startup = std::make_shared<StartupItems>(std::move(startup));
    // The desktop's autostart folder on a real run; a sandbox keeps its own, as its home's .config.
    auto autostart = live.isSandbox ? live.home / ".config" / "autostart" : live.profile.launchAgentsFolder;
    live.openAtLogin = std::make_shared<OpenAtLogin>(live.home, autostart / OpenAtLogin::fileName);
}

} // namespace

std::expected<VantleLite, VantleLite::Failure> VantleLite::make(const Options& options) {
    VantleLite live;

    // 1. Home and data folder: the real home, or a sandbox that passed the rule.
    if (options.sandbox) {
        auto rule = options.sandboxRule ? *options.sandboxRule : SandboxRule::forThisMachine();
        auto accepted = rule.check(*options.sandbox);
        if (!accepted) return std::unexpected(Failure{Failure::Case::notASandbox, accepted.error().sentence});
        live.home = *accepted;
        live.isSandbox = true;
        live.profile = PlatformProfile::sandbox(live.home);
    } else {
        live.home = options.realHome ? standardizedPath(*options.realHome) : currentUserHome();
        live.profile = PlatformProfile::linuxReal(live.home, processEnvironment());
    }
    if (options.support) live.profile.dataFolder = standardizedPath(*options.support);
    live.support = live.profile.dataFolder;

    // 2 and 3. Folders: a sandbox gets the usual places the Home pages show, then the data folder,
    // which is the owner's alone.
    MadeFolders made;
    if (live.isSandbox) {
        if (auto homeMade = makeByPath(live.home, made, live.home); !homeMade)
            return std::unexpected(homeMade.error());
        // A sandbox named through a link of its own works as the folder does: the rule has checked
        // the folder it leads to, and from here on that folder is the home.
        std::error_code ec;
        if (auto real = fs::canonical(live.home, ec); !ec && real != live.home) {
            live.home = real;
            live.profile = PlatformProfile::sandbox(live.home);
            if (!options.support) live.support = live.profile.dataFolder;
        }
        UniqueFd homeFd(::open(live.home.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!homeFd) return couldNotMake(live.home, errno);
        for (auto name : {"Desktop", "Documents", "Downloads"})
            if (auto place = makeSandboxPlace(homeFd.get(), live.home, name, made); !place)
                return std::unexpected(place.error());
    }
    auto dataFolder = makeDataFolder(live.support, made);
    if (!dataFolder) return std::unexpected(dataFolder.error());
    live.support = *dataFolder;
    live.profile.dataFolder = *dataFolder;
    made.kept = true;

    // 4. Cloud-only files: Linux has no dataless files, so there is no download to stop and no note.

    // 5. The network ledger, or the silent one and a whole run offline.
    if (auto ledger = EgressLedger::open(live.support / "egress-ledger.jsonl")) {
        live.ledgerWriter = *ledger;
        live.ledger = *ledger;
    } else {
        live.notes.push_back(fillIn(ledgerNotOpenedNote, {{"reason", ledger.error().reason}}));
        live.ledger = std::make_shared<LiteSilentLedger>();
    }
    live.offline = options.offline || !live.ledgerWriter;

    // 6. The network road: the egress broker over the ledger, with the fixed limits.
    if (!live.offline)
        live.broker = std::make_shared<EgressBroker>(live.ledgerWriter, EgressBroker::Options{});

    // 7. The file library. Linux has no metadata index: the catalog walks the disk and keeps what it
    // walked as its own index.
    {
        Library::Options library;
        library.useSpotlight = false;
        library.duplicatesOnDemand = true;
        if (options.oneShot) library.duplicateFreshness = std::chrono::seconds(0);
        library.summaryFile = live.support / "Library" / "summary.json";
        library.catalogFile = live.support / "Library" / "catalog.index";
        library.fingerprintFile = live.support / "Library" / "fingerprints.json";
        live.library =
            std::make_shared<Library>(LibraryScope{live.home, live.profile.applicationFolders}, library);
    }

    // 8. The storage services.
    {
        live.holding = live.support / "Holding";
        // The shipped table lives for the whole run; it is only borrowed.
        auto shipped = std::shared_ptr<const RuleTable>(&RuleTable::shared(), [](const RuleTable*) {});
        live.storageRules = shipped;
        if (!live.profile.placeRules.empty()) {
            // The rows are part of the program; a bad one is a build fault, so the shipped table stands.
            if (auto rules = RuleTable::compile(shippedRules(), live.profile.placeRules))
                live.storageRules = std::make_shared<const RuleTable>(std::move(*rules));
        }
        live.holdingShelf = std::make_shared<HoldingShelf>(
            live.home, live.holding, live.support / "Library" / "holding.json", *live.storageRules);
        StorageScanner::Options storage;
        storage.table = live.storageRules.get();
        // A sandbox stands in for the whole machine, so the real machine's system areas are not its own.
        if (live.isSandbox) storage.systemRoot.reset();
        // A held item is named after the place the shelf says it was taken from.
        storage.formerPlace = [shelf = std::weak_ptr<HoldingShelf>(live.holdingShelf)](
                                  std::string_view slot) -> std::optional<std::vector<std::string>> {
            if (auto held = shelf.lock())
                for (const auto& entry : held->entries())
                    if (entry.slot == slot) return entry.parts;
            return std::nullopt;
        };
        live.storageScanner = std::make_shared<StorageScanner>(std::move(storage));
        // Running programs are read from this machine's process table, in a sandbox too: a real
        // program holding a sandbox file open is as much in the way as anywhere else.
        StorageCleaner::Options cleaning;
        cleaning.table = live.storageRules.get();
        live.storageCleaner = std::make_shared<StorageCleaner>(live.home, std::move(cleaning));
    }

    // 9. The health services. In a sandbox the process list is the stand-in's.
    if (live.isSandbox) {
        live.processes = std::make_shared<StandInProcesses>(live.support);
        if (auto note = live.processes->note()) live.notes.push_back(*note);
    }
    // The record opens lazily; its recorder is started by whoever reads its on/off setting.
    live.healthRecord = std::make_shared<HealthRecord>(live.support / "Health");
    live.healthHistory = std::make_shared<HealthHistory>(live.healthRecord);
    if (live.isSandbox && !options.realReadingsOnSandbox) {
        std::weak_ptr<StandInProcesses> standIns = live.processes;
        live.standInVitals = std::make_shared<StandInVitals>(live.support, [standIns] {
            std::vector<ProcessRow> rows;
            if (auto processes = standIns.lock())
                for (auto& p : processes->processes()) {
                    ProcessRow r{.pid = p.pid, .name = p.name, .app = p.app, .user = p.user, .kind = p.kind};
                    r.isOwn = p.kind != ProcessKind::system;
                    r.cpuPercent = r.energyImpact = p.cpuPercent;
                    r.threads = p.threads;
                    r.realMemory = p.memoryBytes;
                    r.memory = r.isOwn ? p.memoryBytes : 0; // another user's footprint is not known
                    rows.push_back(std::move(r));
                }
            return rows;
        });
        live.vitals = live.standInVitals;
        live.activity = live.standInVitals;
    } else {
        auto dataHome = live.home / ".local/share";
        auto activity = std::make_shared<ActivityReader>(ActivityReader::Options{
            .user = ::geteuid(),
            .apps = ActivityReader::installedApps({"/usr/share/applications", dataHome / "applications"})});
        live.activity = activity;
        live.vitals = std::make_shared<VitalsSampler>(
            VitalsSampler::Options{.volume = live.home, .activity = activity});
    }

    // The checkup reads this machine (as its user: nothing it reads needs root), or in a sandbox the
    // stand-in table; either way its past checkups are kept in Health/checkups.json.
    {
        std::shared_ptr<CheckupFactsSource> facts;
        if (live.isSandbox && !options.realReadingsOnSandbox) {
            live.standInCheckup = std::make_shared<StandInCheckup>(live.support);
            facts = live.standInCheckup;
        } else {
            auto environment = processEnvironment();
            auto xdg = [&](const char* name, const char* fallback) {
                auto it = environment.find(name);
                return it != environment.end() && fs::path(it->second).is_absolute() ? fs::path(it->second)
                                                                                     : live.home / fallback;
            };
            facts = std::make_shared<CheckupReader>(CheckupReader::Options{
                .home = live.home,
                .configHome = xdg("XDG_CONFIG_HOME", ".config"),
                .cacheHome = xdg("XDG_CACHE_HOME", ".cache"),
                .desktop = environment.contains("XDG_CURRENT_DESKTOP") ? environment.at("XDG_CURRENT_DESKTOP")
                                                                       : std::string(),
                .root = ::geteuid() == 0});
        }
        live.checkup = std::make_shared<CheckupService>(facts, live.support / "Health" / "checkups.json");
    }

    // 10. The stand-in apps and the machine's controls.
    if (live.isSandbox) {
        live.standInApps = std::make_shared<StandInApps>(live.support);
        live.mac = std::make_shared<StandInMac>(live.support);
        for (const auto& note : {live.standInApps->note(), live.mac->note()})
            if (note) live.notes.push_back(*note);
        live.machine = std::make_shared<StandInMachine>(live.mac);
    } else {
        live.machine = std::make_shared<SessionMachine>(processEnvironment());
    }
    // The opener shows what the Home pages show: the home's files and the installed apps. Offline it
    // hands nothing over that would reach the network; in a sandbox the stand-in apps record it all.
    {
        Opener::Options opener;
        opener.workspace = makeDesktopWorkspace(live.profile.applicationFolders);
        opener.places = {live.home};
        opener.places.insert(opener.places.end(), live.profile.applicationFolders.begin(),
                             live.profile.applicationFolders.end());
        opener.appFolders = live.profile.applicationFolders;
        if (!live.offline) opener.ledger = live.ledgerWriter;
        opener.fence = live.standInApps;
        live.opener = std::make_shared<Opener>(std::move(opener));
    }

    // 11. The home trash and startup items.
    wireTrashAndStartup(live);

    // 12. The updater, over the same ledger: the feed through the network road, the download through
    // a second broker whose only difference is room (and time) for a whole update archive.
    {
        AppUpdater::Options updates;
        updates.source = options.updates;
        updates.folder = live.support / "Updates";
        updates.build = VANTLE_VERSION; // Linux has no bundle; the build is the project's version
        if (live.broker) {
            updates.feedBroker = live.broker;
            EgressBroker::Options download;
            download.limits.maximumResponseBytes = AppUpdater::maximumUpdateBytes;
            download.limits.timeout = std::chrono::minutes(10);
            updates.downloadBroker = std::make_shared<EgressBroker>(live.ledgerWriter, std::move(download));
        }
        live.updater = std::make_shared<AppUpdater>(std::move(updates));
    }

    // 13. The stand-in load balancing; a real run moves this user's processes itself.
    if (live.isSandbox) {
        auto balance = std::make_shared<StandInBalance>(live.support);
        if (auto note = balance->note()) live.notes.push_back(*note);
        live.balance = std::move(balance);
    } else
        live.balance = std::make_shared<LinuxProcessControls>(
            LinuxProcessControls::Options{.user = ::geteuid(), .efficiencyCores = efficiencyCores()});

    return live;
}

} // namespace vantle
