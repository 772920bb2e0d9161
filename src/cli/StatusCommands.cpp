// `vantle status` (the start-up record) and `vantle ledger` (every request that left this machine).
#include "cli/Commands.h"

#include "VantleSpec/TerminalText.h"

#include <iostream>

namespace vantle::cli {

void addStatusCommands(CLI::App& app, CliContext& ctx) {
    auto* cmd =
        app.add_subcommand("status", "Start up and show the home, the data folder and start-up notes");
    auto* json = addJsonFlag(cmd);
    cmd->callback([&ctx, json] {
        auto* live = ctx.live();
        if (!live) return;
        if (*json) {
            printJson(Json{{"home", live->home.string()},
                           {"support", live->support.string()},
                           {"isSandbox", live->isSandbox},
                           {"offline", live->offline},
                           {"notes", live->notes}});
            return;
        }
        std::cout << "Home:         " << terminalSafe(live->home.string())
                  << (live->isSandbox ? " (a sandbox)" : "") << "\n"
                  << "Data folder:  " << terminalSafe(live->support.string()) << "\n"
                  << "Network:      "
                  << (live->offline ? "offline: nothing is sent anywhere"
                                    : "only the update check, each request in the ledger")
                  << "\n";
        for (const auto& note : live->notes)
            std::cout << "Note: " << terminalSafe(note) << "\n";
    });
}

void addLedgerCommands(CLI::App& app, CliContext& ctx) {
    auto* cmd =
        app.add_subcommand("ledger", "List every request that left this machine, from the network ledger");
    auto* json = addJsonFlag(cmd);
    cmd->callback([&ctx, json] {
        auto* live = ctx.live();
        if (!live) return;
        auto entries = live->ledger->entries();
        int unreadable = live->ledgerWriter ? live->ledgerWriter->unreadableLines() : 0;
        if (*json) {
            printJson(Json{{"entries", entries}, {"unreadableLines", unreadable}});
            return;
        }
        if (live->offline && !live->ledgerWriter)
            std::cout << "Vantle Lite is offline: nothing can be sent.\n";
        if (entries.empty()) std::cout << "Nothing has left this machine.\n";
        for (const auto& e : entries) {
            std::cout << isoDate(e.at) << "  " << nameOf(e.purpose) << "  " << terminalSafe(e.method) << " "
                      << terminalSafe(e.url);
            if (e.status) std::cout << "  " << *e.status;
            if (e.failure) std::cout << "  (" << terminalSafe(*e.failure) << ")";
            std::cout << "\n";
        }
        if (unreadable > 0)
            std::cout << unreadable << (unreadable == 1 ? " line" : " lines")
                      << " of the ledger could not be read.\n";
    });
}

} // namespace vantle::cli
