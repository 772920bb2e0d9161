// `vantle storage scan [--everything] [--json]`: measures what takes up space and what can be freed,
// prints the report, and keeps it in the data folder for later runs.
#include "cli/Commands.h"

#include "VantleSpec/TerminalText.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"
#include "VantleStorage/StorageReport.h"

#include <iostream>
#include <memory>

namespace vantle::cli {

namespace {
// The report's lines as written, each made safe for the terminal (names of found items among them).
void printReportText(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        auto end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::cout << terminalSafe(std::string_view(text).substr(start, end - start)) << "\n";
        start = end + 1;
    }
}
} // namespace

namespace {

constexpr std::string_view stoppedSentence =
    "The storage scan was stopped before it finished. Nothing was kept; the last report stays as it was.";
constexpr std::string_view notKeptNote = "The report could not be kept in {file}: {reason}";

// "1,234,567": counts on a progress line are read at a glance.
std::string grouped(std::int64_t n) {
    auto digits = std::to_string(n);
    for (auto at = static_cast<std::ptrdiff_t>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(at, ",");
    return digits;
}

std::string progressText(const ScanProgress& progress) {
    switch (progress.phase) {
    case ScanProgress::Phase::finding:
        return "Finding what each category holds…";
    case ScanProgress::Phase::measuring:
        return "Measuring " + grouped(static_cast<std::int64_t>(progress.items)) +
               (progress.items == 1 ? " item: " : " items: ") + grouped(progress.entries) + " entries, " +
               fileBytes(progress.bytes);
    case ScanProgress::Phase::done:
        return "Writing the report…";
    }
    return {};
}

} // namespace

void addStorageCommands(CLI::App& app, CliContext& ctx) {
    auto* storage =
        app.add_subcommand("storage", "Measure what takes up disk space and what can be freed safely");
    storage->require_subcommand(1);

    auto* scan = storage->add_subcommand(
        "scan", "Measure what is taking up disk space and what can be freed safely (Ctrl-C stops it)");
    auto everything = std::make_shared<bool>(false);
    scan->add_flag("--everything", *everything,
                   "Also measure your own folders and the system's areas, which takes about a minute");
    auto* json = addJsonFlag(scan);
    scan->callback([&ctx, everything, json] {
        auto* live = ctx.live();
        if (!live) return;
        CancelFlag cancel;
        std::expected<StorageScan, StorageScanError> result;
        {
            InterruptGuard interrupt(cancel);
            ProgressLine line;
            result = live->storageScanner->scan(live->home, *everything ? ScanDepth::full : ScanDepth::rules,
                                                std::nullopt, false, live->holding, cancel,
                                                [&](const ScanProgress& p) { line.show(progressText(p)); });
        }
        if (!result) return ctx.refuse(result.error().message);
        if (!result->complete) return ctx.refuse(std::string(stoppedSentence));

        auto report = makeStorageReport(*result, live->storageScanner->table(),
                                        StorageAbilities{true, true, true}, systemNow());
        if (auto kept = keepStorageReport(live->support, report, *result); !kept)
            std::cerr << fillIn(notKeptNote, {{"file", storageReportFile(live->support).string()},
                                              {"reason", kept.error()}})
                      << "\n";
        if (*json)
            printJson(Json(report));
        else
            printReportText(storageReportText(report));
    });
    addStorageCleanCommands(*storage, ctx);
}

} // namespace vantle::cli
