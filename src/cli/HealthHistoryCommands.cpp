// `vantle health history [--span day|month|year] [--json]`: the health record read back, one row an
// hour, a day or a month. `vantle health seed-week`: a made-up week in a sandbox's empty record, so
// the history has something to show.
#include "cli/Commands.h"

#include "VantleSpec/TerminalText.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "VantleSpec/Sentence.h"
#include "VantleVitals/HealthHistory.h"

#include <ctime>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

namespace vantle::cli {

namespace {

using Span = HealthHistory::Span;

constexpr std::string_view emptySentence = "Health's record holds nothing for the last {span} yet.";
constexpr std::string_view headingSentence =
    "Health's record for the last {span}: {count} {grain}, {from} to {to}.";
constexpr std::string_view seededSentence = "Put a made-up week into the sandbox's record: {hours} hours, "
                                            "{quarters} quarter hours and {minutes} minutes.";

std::string localTime(TimePoint at, const char* format) {
    std::time_t t = std::chrono::system_clock::to_time_t(at);
    std::tm local{};
    localtime_r(&t, &local);
    char text[64];
    return std::strftime(text, sizeof text, format, &local) ? std::string(text) : std::string();
}

std::string rowLabel(Span span, TimePoint at) {
    switch (span) {
    case Span::day:
        return localTime(at, "%a %H:%M");
    case Span::month:
        return localTime(at, "%a %e %b");
    case Span::year:
        break;
    }
    return localTime(at, "%b %Y");
}

std::string grainOf(Span span, std::size_t count) {
    const char* grain = span == Span::day ? "minute" : span == Span::month ? "quarter hour" : "hour";
    return std::string(grain) + (count == 1 ? "" : "s");
}

std::string withThousands(std::size_t n) {
    auto digits = std::to_string(n);
    for (int i = int(digits.size()) - 3; i > 0; i -= 3)
        digits.insert(std::size_t(i), ",");
    return digits;
}

std::string busyWithPeak(double average, double peak) {
    return wholePercent(average * 100) + " (peak " + wholePercent(peak * 100) + ")";
}

void printRows(Span span, const std::vector<HealthPoint>& rows) {
    const char* rowTitle = span == Span::day ? "Hour" : span == Span::month ? "Day" : "Month";
    std::cout << std::left << std::setw(12) << rowTitle << std::setw(17) << "Processor" << std::setw(17)
              << "Memory" << std::setw(10) << "Pressure" << std::setw(9) << "Heat" << std::setw(11) << "Swap"
              << "Battery\n";
    for (const auto& row : rows) {
        std::cout << std::setw(12) << rowLabel(span, row.start) << std::setw(17)
                  << busyWithPeak(row.cpu, row.cpuPeak) << std::setw(17)
                  << busyWithPeak(row.memory, row.memoryPeak) << std::setw(10) << nameOf(row.pressure)
                  << std::setw(9) << nameOf(row.thermal) << std::setw(11)
                  << memoryBytes(std::int64_t(row.swapBytes))
                  << (row.charge ? wholePercent(*row.charge * 100) : "") << "\n";
    }
}

void printOverall(Span span, const HealthPoint& overall) {
    std::cout << "\nOver the " << nameOf(span) << ": processor " << busyWithPeak(overall.cpu, overall.cpuPeak)
              << ", memory " << busyWithPeak(overall.memory, overall.memoryPeak);
    if (overall.pressure != VitalsSnapshot::Pressure::normal)
        std::cout << ", under pressure " << wholePercent(overall.pressureShare * 100)
                  << " of the time (at worst " << nameOf(overall.pressure) << ")";
    if (overall.thermal != VitalsSnapshot::Thermal::nominal)
        std::cout << ", heat at worst " << nameOf(overall.thermal);
    std::cout << ".\n";
    if (!overall.apps.empty()) {
        std::cout << "Busiest: ";
        for (std::size_t i = 0; i < overall.apps.size(); ++i) {
            const auto& app = overall.apps[i];
            // An app's share is of one core, as the activity list shows it.
            std::cout << (i ? ", " : "") << terminalSafe(app.name) << " " << percent(app.cpu / 100);
        }
        std::cout << "\n";
    }
}

} // namespace

void addHealthHistoryCommands(CLI::App& health, CliContext& ctx) {
    auto* history =
        health.add_subcommand("history", "Show Health's record of this machine for a day, a month or a year");
    auto span = std::make_shared<std::string>("day");
    history
        ->add_option("--span", *span,
                     "How far back: day (by the minute), month (by the quarter hour) or year "
                     "(by the hour)")
        ->check(CLI::IsMember({"day", "month", "year"}))
        ->capture_default_str();
    auto* json = addJsonFlag(history);
    history->callback([&ctx, span, json] {
        auto* live = ctx.live();
        if (!live) return;
        const Span chosen = enumFromName<Span>(*span).value_or(Span::day);
        const auto reading = live->healthHistory->read(chosen);
        // An empty reading of a record that could not be opened is not "nothing yet".
        if (reading.points.empty())
            if (auto problem = live->healthRecord->problem()) return ctx.refuse(*problem);
        if (*json) return printJson(Json(reading));
        if (reading.points.empty()) {
            std::cout << fillIn(emptySentence, {{"span", nameOf(chosen)}}) << "\n";
            return;
        }
        const auto count = reading.points.size();
        std::cout << fillIn(headingSentence,
                            {{"span", nameOf(chosen)},
                             {"count", withThousands(count)},
                             {"grain", grainOf(chosen, count)},
                             {"from", localTime(reading.points.front().start, "%a %e %b %H:%M")},
                             {"to", localTime(reading.points.back().start, "%a %e %b %H:%M")}})
                  << "\n\n";
        printRows(chosen, HealthHistory::rows(reading));
        if (auto overall = HealthHistory::overall(reading)) printOverall(chosen, *overall);
    });

    auto* seed =
        health.add_subcommand("seed-week", "Put a made-up week into a sandbox's empty health record");
    seed->callback([&ctx] {
        auto* live = ctx.live();
        if (!live) return;
        using Refusal = HealthRecord::SeedRefusal;
        if (!live->isSandbox) return ctx.refuse(Refusal::of(Refusal::Kind::notASandbox).sentence);
        const auto week = HealthHistory::madeUpWeek(systemNow());
        if (auto seeded = live->healthRecord->seed(week.hours, week.quarters, week.minutes); !seeded)
            return ctx.refuse(seeded.error().sentence);
        std::cout << fillIn(seededSentence, {{"hours", withThousands(week.hours.size())},
                                             {"quarters", withThousands(week.quarters.size())},
                                             {"minutes", withThousands(week.minutes.size())}})
                  << "\n";
    });
}

} // namespace vantle::cli
