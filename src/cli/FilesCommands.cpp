// `vantle files summary|lists [LIST] [--json]`: the file library at a glance and its smart lists;
// search, duplicates and sources are added beneath `files` by addFilesSearchCommands.
#include "cli/Commands.h"

#include "VantleSpec/TerminalText.h"

#include "VantleLibrary/DiskWalk.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"

#include <iomanip>
#include <iostream>
#include <memory>

namespace vantle::cli {

namespace {

constexpr std::string_view readingSentence = "Reading your files… {count} items";
constexpr std::string_view unknownListSentence = "There is no list called “{name}”. The lists are: {names}.";
constexpr std::string_view emptyListSentence = "Nothing is in {title} now.";
constexpr std::string_view duplicatesElsewhereNote = "Duplicates are found by `vantle files duplicates`.";

std::string filesCount(std::int64_t count) {
    return groupedCount(count) + (count == 1 ? " file" : " files");
}

// Runs long library work with a progress line on a terminal and Ctrl-C stopping it. Returns false
// (after refusing with the sentence) when the user stopped it.
template <class Work> bool withProgress(CliContext& ctx, Work work) {
    CancelFlag cancel;
    {
        InterruptGuard interrupt(cancel);
        ProgressLine line;
        work(cancel, [&](const DiskWalk::Progress& p) {
            line.show(fillIn(readingSentence, {{"count", groupedCount(p.entries)}}));
        });
    }
    if (!cancel.isCancelled()) return true;
    ctx.refuse(std::string(Reading::cancelledSentence));
    return false;
}

void printSummary(const LibrarySummary& summary) {
    std::cout << filesCount(summary.totalFiles) << ", " << fileBytes(summary.totalBytes) << " (read "
              << isoDate(summary.readAt) << ")\n";
    for (const auto& category : summary.categories) {
        std::cout << "  " << std::left << std::setw(11) << title(category.kind) << std::right << std::setw(14)
                  << filesCount(category.count) << "  " << std::setw(9) << fileBytes(category.bytes) << "\n";
        for (const auto& sample : category.samples)
            std::cout << "      " << terminalSafe(sample.path) << "\n";
    }
    if (summary.note) std::cout << terminalSafe(*summary.note) << "\n";
}

void printItems(const std::vector<FileItem>& items) {
    for (const auto& item : items)
        std::cout << std::right << std::setw(9) << fileBytes(item.size) << "  "
                  << (item.modified ? isoDate(*item.modified).substr(0, 10) : std::string(10, ' ')) << "  "
                  << terminalSafe(item.path) << "\n";
}

std::optional<SmartList> listNamed(const std::string& name) {
    for (auto list : allCases<SmartList>())
        if (name == nameOf(list) || name == title(list)) return list;
    return std::nullopt;
}

std::string listNames() {
    std::string names;
    for (auto list : allCases<SmartList>())
        names += (names.empty() ? "" : ", ") + std::string(nameOf(list));
    return names;
}

// Every list but duplicates as a card. The duplicates list needs a content scan, which has a
// command of its own.
std::vector<CleanUpCard> allLists(Library& library, const Catalog::Result& reading) {
    std::vector<CleanUpCard> cards;
    for (auto list : allCases<SmartList>())
        if (list != SmartList::duplicates)
            cards.push_back(library.smartLists().card(list, *reading.snapshot, reading.reading,
                                                      library.options().now(), library.options().samples));
    return cards;
}

} // namespace

void addFilesCommands(CLI::App& app, CliContext& ctx) {
    auto* files =
        app.add_subcommand("files", "Your files by kind, smart lists, search, duplicates and sources");
    files->require_subcommand(1);

    auto* summary = files->add_subcommand("summary", "Count your files by kind and size (Ctrl-C stops it)");
    auto* summaryJson = addJsonFlag(summary);
    summary->callback([&ctx, summaryJson] {
        auto* live = ctx.live();
        if (!live) return;
        LibrarySummary result;
        if (!withProgress(
                ctx, [&](auto& cancel, auto progress) { result = live->library->summary(cancel, progress); }))
            return;
        if (*summaryJson)
            printJson(Json(result));
        else
            printSummary(result);
    });

    auto* lists =
        files->add_subcommand("lists", "Show the smart lists, or the files of one list (Ctrl-C stops it)");
    auto name = std::make_shared<std::string>();
    auto limit = std::make_shared<int>(50);
    lists->add_option("list", *name, "One list's files: " + listNames());
    lists->add_option("--limit", *limit, "Most files shown for one list")->check(countFromOneTo(100'000));
    auto* listsJson = addJsonFlag(lists);
    lists->callback([&ctx, name, limit, listsJson] {
        std::optional<SmartList> chosen;
        if (!name->empty()) {
            chosen = listNamed(*name);
            if (!chosen || *chosen == SmartList::duplicates) {
                if (chosen) return ctx.refuse(std::string(duplicatesElsewhereNote));
                return ctx.refuse(fillIn(unknownListSentence, {{"name", *name}, {"names", listNames()}}));
            }
        }
        auto* live = ctx.live();
        if (!live) return;
        auto& library = *live->library;
        Catalog::Result reading;
        if (!withProgress(ctx,
                          [&](auto& cancel, auto progress) { reading = library.read(cancel, progress); }))
            return;

        if (chosen) {
            auto items = library.smartLists().items(*chosen, *reading.snapshot, library.options().now(),
                                                    static_cast<size_t>(*limit));
            if (*listsJson) return printJson(Json(items));
            std::cout << title(*chosen) << ": " << library.smartLists().detail(*chosen) << "\n";
            if (items.empty()) std::cout << fillIn(emptyListSentence, {{"title", title(*chosen)}}) << "\n";
            printItems(items);
        } else {
            auto cards = allLists(library, reading);
            if (*listsJson) return printJson(Json(cards));
            for (const auto& card : cards)
                std::cout << std::left << std::setw(20) << title(card.list) << std::right << std::setw(14)
                          << filesCount(card.count) << (card.isPartial ? "+" : " ") << " " << std::setw(9)
                          << fileBytes(card.bytes) << "  " << card.detail << "\n";
            std::cout << duplicatesElsewhereNote << "\n";
        }
        if (auto note = reading.reading.note()) std::cout << terminalSafe(*note) << "\n";
    });

    addFilesSearchCommands(*files, ctx);
}

} // namespace vantle::cli
