#include "VantleLiteLive/VantleLite.h"

#include "Platform/BeneathOpen.h"
#include "Platform/SystemError.h"
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

// Makes a folder with its missing parents. Below the home it goes one component at a time from the
// home's descriptor and never through a link; a data folder elsewhere (XDG_DATA_HOME) is made by path.
std::expected<void, Failure> makeFolder(const fs::path& home, const fs::path& folder) {
    std::error_code ec;
    fs::create_directories(home, ec);
    if (ec) return couldNotMake(home == folder ? folder : home, ec.value());
    auto relative = folder.lexically_relative(home);
    if (relative.empty() || *relative.begin() == "..") {
        fs::create_directories(folder, ec);
        if (ec) return couldNotMake(folder, ec.value());
        return {};
    }
    auto root = openFolder(home);
    if (!root) return couldNotMake(folder, root.error());
    if (auto made = makeFoldersBeneath(root->get(), relative, 0755); !made) return couldNotMake(folder, made.error());
    return {};
}

std::expected<void, Failure> restrictToOwner(const fs::path& folder) {
    auto fd = openFolder(folder);
    if (!fd || ::fchmod(fd->get(), 0700) != 0)
        return std::unexpected(Failure{Failure::Case::couldNotRestrict, systemErrorText(fd ? errno : fd.error())});
    return {};
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

    // 2. Folders: a sandbox gets the usual places the Home pages show, then the data folder.
    if (live.isSandbox)
        for (auto name : {"Desktop", "Documents", "Downloads"})
            if (auto made = makeFolder(live.home, live.home / name); !made) return std::unexpected(made.error());
    if (auto made = makeFolder(live.home, live.support); !made) return std::unexpected(made.error());

    // 3. The data folder is the owner's alone.
    if (auto restricted = restrictToOwner(live.support); !restricted) return std::unexpected(restricted.error());

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

    // 6. The egress broker over the ledger (when not offline) comes with the network road.

    // 7. The file library. Linux has no metadata index: the catalog walks the disk.
    {
        Library::Options library;
        library.useSpotlight = false;
        library.duplicatesOnDemand = true;
        library.summaryFile = live.support / "Library" / "summary.json";
        library.fingerprintFile = live.support / "Library" / "fingerprints.json";
        live.library = std::make_shared<Library>(LibraryScope{live.home, live.profile.applicationFolders}, library);
        live.duplicates = std::make_shared<Duplicates>(
            Duplicates::Options{*library.fingerprintFile, library.duplicateTimeLimit, 1, library.now,
                                library.duplicateFreshness});
    }

    // 8. The storage services.
    {
        StorageScanner::Options storage;
        // A sandbox stands in for the whole machine, so the real machine's system areas are not its own.
        if (live.isSandbox) storage.systemRoot.reset();
        live.storageScanner = std::make_shared<StorageScanner>(std::move(storage));
        live.holding = live.support / "Holding";
    }

    // 9. The health services. In a sandbox the process list is the stand-in's.
    if (live.isSandbox) live.processes = std::make_shared<StandInProcesses>(live.support);
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
        live.vitals = std::make_shared<VitalsSampler>(VitalsSampler::Options{.volume = live.home, .activity = activity});
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
                return it != environment.end() && fs::path(it->second).is_absolute() ? fs::path(it->second) : live.home / fallback;
            };
            facts = std::make_shared<CheckupReader>(CheckupReader::Options{.home = live.home,
                                                                           .configHome = xdg("XDG_CONFIG_HOME", ".config"),
                                                                           .cacheHome = xdg("XDG_CACHE_HOME", ".cache"),
                                                                           .root = ::geteuid() == 0});
        }
        live.checkup = std::make_shared<CheckupService>(facts, live.support / "Health" / "checkups.json");
    }

    // 10. The stand-in apps and the machine's controls.
    if (live.isSandbox) {
        live.standInApps = std::make_shared<StandInApps>(live.support);
        live.mac = std::make_shared<StandInMac>(live.support);
    }

    // 11. The home trash and startup items.

    // 12. The updater.

    // 13. The stand-in load balancing.

    return live;
}

} // namespace vantle
