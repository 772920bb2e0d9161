// `vantle status` (the start-up record) and `vantle ledger` (every request that left this machine).
#include "cli/Commands.h"

#include "VantleSpec/TerminalText.h"

#include <iostream>
#include <map>

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
                           {"updates", live->updater->status().sentence()},
                           {"notes", live->notes}});
            return;
        }
        std::cout << "Home:         " << terminalSafe(live->home.string())
                  << (live->isSandbox ? " (a sandbox)" : "") << "\n"
                  << "Data folder:  " << terminalSafe(live->support.string()) << "\n"
                  << "Network:      "
                  << (live->offline ? "offline: nothing is sent anywhere"
                                    : "only the update check, each request in the ledger")
                  << "\n"
                  << "Updates:      " << live->updater->status().sentence() << "\n";
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
        // A request's two lines (leaving, then its result) share an id; requests running side by side
        // interleave in the file, so each request is shown with its own lines together.
        std::vector<std::string> order;
        std::map<std::string, std::vector<const LedgerEntry*>> byId;
        for (const auto& e : entries) {
            auto& lines = byId[e.id];
            if (lines.empty()) order.push_back(e.id);
            lines.push_back(&e);
        }
        for (const auto& id : order) {
            const auto& lines = byId[id];
            const LedgerEntry& first = *lines.front();
            std::cout << isoDate(first.at) << "  " << nameOf(first.purpose) << "  " << terminalSafe(first.method) << " "
                      << terminalSafe(first.url);
            if (first.framework) std::cout << "  via " << terminalSafe(*first.framework);
            if (first.failure) std::cout << "  (" << terminalSafe(*first.failure) << ")";
            std::cout << "\n";
            if (first.query) std::cout << "    searched for: " << terminalSafe(*first.query) << "\n";
            for (size_t i = 1; i < lines.size(); ++i) {
                const LedgerEntry& e = *lines[i];
                std::cout << "    " << isoDate(e.at) << "  ";
                if (e.status) std::cout << "status " << *e.status << ", ";
                std::cout << e.bytesSent << " bytes sent, " << e.bytesReceived << " received";
                if (e.redirectedFrom) std::cout << ", redirected from " << terminalSafe(*e.redirectedFrom);
                if (e.failure) std::cout << "  (" << terminalSafe(*e.failure) << ")";
                std::cout << "\n";
            }
        }
        if (unreadable > 0)
            std::cout << unreadable << (unreadable == 1 ? " line" : " lines")
                      << " of the ledger could not be read.\n";
    });
}

} // namespace vantle::cli
