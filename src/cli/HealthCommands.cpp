// `vantle health [--json] [--explain]`: the health score with its grade and what took points off
// it, and the main vitals of this machine (or of a sandbox's stand-in). The record's own commands
// (`history`, `seed-week`) hang beneath it.
#include "cli/Commands.h"

#include "VantleSpec/TerminalText.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "VantleSpec/HealthScoreKeeper.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <thread>

namespace vantle::cli {

namespace {

// The processor's share is measured between two readings; this is the gap on a real machine.
constexpr auto measuredOver = std::chrono::seconds(1);

// "0 bytes/s" rather than the formatter's "Zero KB/s", which reads oddly as a rate.
std::string rate(double bytesPerSecond) {
    auto bytes = std::int64_t(bytesPerSecond);
    return (bytes == 0 ? std::string("0 bytes") : fileBytes(bytes)) + "/s";
}

std::string duration(double seconds) {
    return durationInTwoUnits(seconds);
}

std::string processList(const std::vector<VitalsSnapshot::Process>& processes, bool byMemory) {
    std::string out;
    for (const auto& p : processes) {
        if (!out.empty()) out += ", ";
        out += terminalSafe(p.name) + " " +
               (byMemory ? memoryBytes(std::int64_t(p.memoryBytes)) : percent(p.cpuPercent / 100));
    }
    return out.empty() ? "none read" : out;
}

void printVitals(const VitalsSnapshot& s) {
    auto row = [](const char* title, const std::string& text) {
        std::cout << "  " << title << std::string(10 - std::string_view(title).size(), ' ') << text << "\n";
    };
    std::string processor = wholePercent(s.cpu.total * 100) + " busy";
    if (s.cpu.performanceCores && s.cpu.efficiencyCores)
        processor += " (performance cores " + wholePercent(*s.cpu.performanceCores * 100) +
                     ", efficiency cores " + wholePercent(*s.cpu.efficiencyCores * 100) + ")";
    processor +=
        ", " + std::to_string(s.cpu.perCore.size()) + (s.cpu.perCore.size() == 1 ? " core" : " cores");
    row("Processor", processor);
    const auto& m = s.memory;
    row("Memory",
        memoryBytes(std::int64_t(m.usedBytes)) + " of " + memoryBytes(std::int64_t(m.totalBytes)) +
            " in use, pressure " + std::string(nameOf(m.pressure)) +
            (m.swapUsedBytes ? ", " + memoryBytes(std::int64_t(m.swapUsedBytes)) + " swapped" : ""));
    if (s.disk.totalBytes)
        row("Disk", fileBytes(std::int64_t(s.disk.availableBytes)) + " of " +
                        fileBytes(std::int64_t(s.disk.totalBytes)) + " available");
    if (s.power.hasBattery) {
        std::string battery = s.power.charge ? wholePercent(*s.power.charge * 100) : "charge unknown";
        battery += s.power.isCharging ? ", charging" : s.power.onAC ? ", on power" : ", on battery";
        if (s.power.battery)
            if (auto health = s.power.battery->health())
                battery += "; holds " + percent(*health) + " of what it held new";
        row("Battery", battery);
    } else {
        row("Power", "no battery");
    }
    row("Heat", std::string(nameOf(s.thermal)));
    row("Network", "in " + rate(s.network.bytesInPerSecond) + ", out " + rate(s.network.bytesOutPerSecond));
    if (s.diskActivity)
        row("Disk I/O", "read " + rate(s.diskActivity->readPerSecond) + ", written " +
                            rate(s.diskActivity->writtenPerSecond));
    row("Up", duration(s.uptimeSeconds));
    row("Busiest", processList(s.topProcesses, false));
    row("Heaviest", processList(s.heaviestProcesses, true));
}

} // namespace

void addHealthCommands(CLI::App& app, CliContext& ctx) {
    auto* health =
        app.add_subcommand("health", "Show this machine's health score, what took points off it, and "
                                     "its main vitals");
    auto* json = addJsonFlag(health);
    auto* explain = health->add_flag("--explain")->description("Also show how the score is worked out");
    health->callback([&ctx, health, json, explain] {
        if (!health->get_subcommands().empty()) return; // `health history` and the like answer for themselves
        auto* live = ctx.live();
        if (!live) return;
        auto snapshot = live->vitals->sample();
        if (!live->standInVitals) {
            // A first reading measures the processor since start-up; the score wants it now.
            std::this_thread::sleep_for(measuredOver);
            snapshot = live->vitals->sample();
        }
        HealthScoreKeeper keeper;
        auto score = keeper.look(snapshot.at, HealthScore::Reading::of(snapshot));

        if (*json) {
            printJson(Json{{"score", score}, {"grade", score.grade()}, {"snapshot", snapshot}});
            return;
        }
        std::cout << "Health: " << score.value << " (" << nameOf(score.grade()) << ")"
                  << (live->standInVitals ? ", from the sandbox's stand-in readings" : "") << "\n";
        if (score.penalties.empty()) std::cout << "  Nothing takes points off.\n";
        for (const auto& p : score.penalties) {
            std::cout << "  -" << p.points << (p.points < 10 ? "   " : "  ") << p.line << "\n";
            if (p.help) std::cout << "       " << *p.help << "\n";
        }
        std::cout << "\n";
        printVitals(snapshot);
        if (live->standInVitals)
            if (auto problem = live->standInVitals->problem()) std::cout << "Note: " << *problem << "\n";
        if (*explain) {
            std::cout << "\n"
                      << HealthScore::explanationTitle << "\n"
                      << HealthScore::explanationHeader << "\n";
            for (const auto& row : HealthScore::explanation())
                std::cout << "  " << row.title << " (up to " << row.most << "): " << row.sentence << "\n";
        }
    });
    addHealthHistoryCommands(*health, ctx);
    addHealthRecordCommands(*health, ctx);
}

} // namespace vantle::cli
