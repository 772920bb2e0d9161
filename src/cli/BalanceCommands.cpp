// `vantle balance [--yes] [--json]`: reads the machine, lists what could be moved to the background
// or quit (ticked where the program would choose it), asks, carries out the ticked ones, and reports
// the figures before and after with the health score's change.
#include "cli/Commands.h"

#include <iostream>
#include <thread>
#include <unistd.h>

namespace vantle::cli {

namespace {

ScoredReading readNow(VantleLite& live, const LoadTiming& timing) {
    // A sandbox's processes are made up: none of them is looked up in this machine's /proc.
    auto proc = live.isSandbox ? live.support / "no-proc" : std::filesystem::path("/proc");
    return readForBalance(*live.activity, *live.vitals, ::getpid(), proc, timing.before,
                          [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); });
}

} // namespace

void addBalanceCommands(CLI::App& app, CliContext& ctx) {
    auto* balance = app.add_subcommand(
        "balance",
        "Move heavy background work to the background band (and the efficiency cores, where the "
        "processor has them), and ask before quitting apps you aren't using.\nPutting moves back is "
        "the desktop app's Undo: it cannot reach across two runs of this command, so what is moved "
        "here stays in the background until it ends.");
    auto* yes = balance->add_flag("--yes")->description("Carry out the ticked suggestions without asking");
    auto* json = addJsonFlag(balance);
    balance->callback([&ctx, yes, json] {
        auto* live = ctx.live();
        if (!live) return;
        LoadTiming timing;
        if (live->isSandbox) {
            // A sandbox's figures are made up: there is nothing to wait for.
            timing.before = timing.settle = timing.after = timing.quitWindow = std::chrono::milliseconds(0);
        }
        auto before = readNow(*live, timing);
        auto found = findCandidates(before.reading);
        std::vector<BalanceCandidate> chosen;
        for (const auto& c : found.candidates)
            if (c.preferred) chosen.push_back(c);
        if (!*json) {
            if (found.nothing) std::cout << *found.nothing << "\n";
            for (const auto& c : found.candidates)
                std::cout << (c.preferred ? "[x] " : "[ ] ") << c.why << "\n";
        }
        if (chosen.empty()) {
            if (*json)
                printJson(Json{{"candidates", found.candidates}, {"report", Json::array()}});
            else if (!found.candidates.empty())
                std::cout << "Nothing is ticked, so nothing was changed.\n";
            return;
        }
        if (!confirmChange(ctx, "Balance the load?", bool(*yes), "Nothing was changed.")) return;
        auto balanced = carryOut(
            before, chosen, *live->balance, timing, [&] { return readNow(*live, timing); },
            [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); });
        auto report = reportOf(balanced);
        if (*json) {
            printJson(Json{{"candidates", found.candidates}, {"report", report}});
        } else {
            for (const auto& line : report)
                std::cout << line << "\n";
        }
        if (balanced.moved.empty() && balanced.quit.empty()) ctx.exitCode = exitRefused;
    });
}

} // namespace vantle::cli
