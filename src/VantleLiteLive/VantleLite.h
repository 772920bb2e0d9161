// The record of live services built once at start-up, and the start-up sequence that builds it
// (`VantleLite::make`). The front ends reach every service only through this record. Built on one
// thread; the services it holds are each thread-safe on their own.
#pragma once
#include "VantleEgress/AppUpdater.h"
#include "VantleEgress/EgressBroker.h"
#include "VantleEgress/EgressLedger.h"
#include "VantleEgress/EgressLedgerReading.h"
#include "VantleLibrary/Library.h"
#include "VantleLiteLive/HomeTrash.h"
#include "VantleLiteLive/LoadBalance.h"
#include "VantleLiteLive/MachineControls.h"
#include "VantleLiteLive/OpenAtLogin.h"
#include "VantleLiteLive/Opener.h"
#include "VantleLiteLive/PlatformProfile.h"
#include "VantleLiteLive/SandboxRule.h"
#include "VantleLiteLive/StandInApps.h"
#include "VantleLiteLive/StandInMac.h"
#include "VantleLiteLive/StandInProcesses.h"
#include "VantleLiteLive/StartupItems.h"
#include "VantleStorage/HoldingShelf.h"
#include "VantleStorage/StorageCleaner.h"
#include "VantleStorage/StorageScanner.h"
#include "VantleVitals/CheckupService.h"
#include "VantleVitals/HealthHistory.h"
#include "VantleVitals/HealthRecord.h"
#include "VantleVitals/StandInCheckup.h"
#include "VantleVitals/StandInVitals.h"
#include "VantleVitals/VitalsReader.h"

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vantle {

struct VantleLite {
    struct Options {
        std::optional<std::filesystem::path> sandbox;
        std::optional<std::filesystem::path> support; // replaces the data folder when given
        bool offline = false;                         // no network road at all
        // A command-line run asks each thing once and ends: no answer is kept to be given again.
        bool oneShot = false;
        std::set<int> standInProcesses;                 // live pids the stand-in process list may act on
        bool realReadingsOnSandbox = false;             // a sandbox still reads this machine's vitals
        UpdateSource updates = UpdateSource::builtIn(); // where the update check looks

        // Seams for tests: the home of a real run and the folders a sandbox is checked against.
        std::optional<std::filesystem::path> realHome;
        std::optional<SandboxRule> sandboxRule;
    };

    struct Failure {
        enum class Case { notASandbox, couldNotMake, couldNotRestrict };
        Case what;
        std::string sentence;

        static constexpr std::string_view couldNotMakeSentence =
            "Vantle Lite could not make {folder}: {reason}";
        static constexpr std::string_view couldNotRestrictSentence =
            "Vantle Lite could not keep {folder} to its owner alone: {reason}";
        static constexpr std::string_view title = "Vantle Lite could not start";
    };

    // Start-up notes: things that lowered what the program can do without stopping it.
    static constexpr std::string_view ledgerNotOpenedNote =
        "The network ledger could not be opened ({reason}), so Vantle Lite is offline.";

    std::filesystem::path home;
    std::filesystem::path support; // the data folder
    bool isSandbox = false;
    PlatformProfile profile;
    // The file library (step 7): catalog, kept summary, smart lists, duplicate finder, watcher.
    std::shared_ptr<Library> library;
    // storage: the storage services (step 8)
    // The storage rule table of this run: the shipped rows, plus the profile's rows on a real Linux run.
    std::shared_ptr<const RuleTable> storageRules;
    std::shared_ptr<StorageScanner> storageScanner; // its report is kept in Library/storage.json
    std::filesystem::path holding;                  // the holding folder: items set aside, never counted
    std::shared_ptr<HoldingShelf> holdingShelf;     // what is held there, kept in Library/holding.json
    std::shared_ptr<StorageCleaner> storageCleaner; // plans and carries out deleting and setting aside
    // vitals, health, checkup, activity: the health services (step 9)
    std::shared_ptr<HealthRecord>
        healthRecord; // Health/record.sqlite in the data folder, opened on first use
    std::shared_ptr<HealthHistory> healthHistory;   // reads healthRecord back for a day, a month or a year
    std::shared_ptr<VitalsReader> vitals;           // this machine's readings, or the sandbox's stand-in
    std::shared_ptr<ActivitySource> activity;       // the process list with processor shares and rates
    std::shared_ptr<StandInVitals> standInVitals;   // in a sandbox that shows made-up readings; else null
    std::shared_ptr<CheckupService> checkup;        // the checkup, kept in Health/checkups.json
    std::shared_ptr<StandInCheckup> standInCheckup; // in a sandbox that shows made-up readings; else null
    std::shared_ptr<EgressLedgerReading> ledger;    // the silent ledger when offline
    std::shared_ptr<EgressLedger> ledgerWriter;     // null when the ledger could not be opened
    std::shared_ptr<EgressBroker> broker;           // the network road (step 6); null when offline
    std::shared_ptr<Opener> opener;                 // everything handed to another app goes through it
    std::shared_ptr<AppUpdater> updater;            // over the data folder's Updates folder (step 12)
    // trash, startup: with their own work
    std::shared_ptr<StandInMac> mac; // stand-in in a sandbox; the real machine's controls come later
    std::shared_ptr<StandInProcesses> processes; // stand-in in a sandbox; a real run reads /proc
    std::shared_ptr<StandInApps> standInApps;
    std::shared_ptr<HomeTrash> trash;         // (step 11) moves to the Trash with receipts
    std::shared_ptr<StartupItems> startup;    // (step 11) turns the user's startup items off and on
    std::shared_ptr<OpenAtLogin> openAtLogin; // (step 11) this program's own autostart entry
    std::shared_ptr<MachineControls> machine; // (step 10) restart: the stand-in's or the session's
    std::shared_ptr<ProcessControls> balance; // (step 13) moves and quits: the stand-in's in a sandbox
    std::vector<std::string> notes;

    // True when nothing may be sent for this whole run.
    bool offline = false;

    static std::expected<VantleLite, Failure> make(const Options& options);
};

} // namespace vantle
