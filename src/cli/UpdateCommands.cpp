// `vantle update check [--json]`: looks for a new version now, through the updater, and prints the
// status sentence the Settings page would show. A failed check exits 1 with its sentence on stderr.
#include "cli/Commands.h"

#include <iostream>

namespace vantle::cli {

void addUpdateCommands(CLI::App& app, CliContext& ctx) {
    auto* update = app.add_subcommand("update", "The update check");
    update->require_subcommand(1);
    auto* check =
        update->add_subcommand("check", "Look for a new version now; both requests go to the network ledger");
    auto* json = addJsonFlag(check);
    check->callback([&ctx, json] {
        auto* live = ctx.live();
        if (!live) return;
        auto status = live->updater->checkNow();
        if (*json) {
            Json out{{"status", status.name()}, {"sentence", status.sentence()}};
            if (!status.version.empty()) out["version"] = status.version;
            if (status.what == UpdateStatus::Case::upToDate) out["checked"] = isoDate(status.checked);
            printJson(out);
            if (status.what == UpdateStatus::Case::failed) ctx.exitCode = exitRefused;
            return;
        }
        if (status.what == UpdateStatus::Case::failed) return ctx.refuse(status.sentence());
        std::cout << status.sentence() << "\n";
    });
}

} // namespace vantle::cli
