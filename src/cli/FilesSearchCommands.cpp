// `vantle files search WORDS...`, `vantle files duplicates` and `vantle files sources`: searching the
// catalog in plain words, finding copies by content, and grouping files by where they came from.
// Each reads the catalog first (walking the home when the reading in hand is stale).
#include "cli/Commands.h"

#include "Platform/HugePages.h"
#include "VantleSpec/TerminalText.h"

#include "VantleLibrary/DuplicateScanJson.h"
#include "VantleLibrary/Duplicates.h"
#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/SearchParser.h"
#include "VantleLibrary/Sources.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace vantle::cli {

namespace {

constexpr std::string_view noWordsSentence =
    "Type what to look for, for example: vantle files search pdfs from last month";
constexpr std::string_view walkStoppedSentence = "Reading the home folder was stopped; nothing was searched.";

// Shows progress at most ten times a second: a terminal redrawn on every file slows the work down.
class ThrottledLine {
  public:
    void show(const std::function<std::string()>& text) {
        auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(100)) return;
        last_ = now;
        line_.show(text());
    }
    void clear() { line_.clear(); }

  private:
    ProgressLine line_;
    std::chrono::steady_clock::time_point last_{};
};

// The catalog's reading, with a progress line while the home is walked; nullopt when the user stopped it.
std::optional<Catalog::Result> readCatalog(VantleLite& live, CancelFlag& cancel) {
    ThrottledLine line;
    auto result = live.library->read(cancel, [&](const DiskWalk::Progress& p) {
        line.show([&] { return "Reading the home folder: " + groupedCount(p.entries) + " items…"; });
    });
    line.clear();
    if (cancel.isCancelled() || !result.snapshot) return std::nullopt;
    return result;
}

// Starts up, reads the catalog with Ctrl-C stopping it, and hands both to `work` (which may go on using
// the same cancel flag); a failed start-up or a stopped reading says so and does nothing more.
template <class Work> void withCatalog(CliContext& ctx, Work work) {
    auto* live = ctx.live();
    if (!live) return;
    CancelFlag cancel;
    InterruptGuard interrupt(cancel);
    auto read = readCatalog(*live, cancel);
    if (!read) return ctx.refuse(std::string(walkStoppedSentence));
    work(live, &*read, cancel);
}

std::string shownPath(const std::string& path, const std::filesystem::path& home) {
    auto prefix = home.string() + "/";
    // Every name shown on a terminal passes here.
    return terminalSafe(path.starts_with(prefix) ? "~/" + path.substr(prefix.size()) : path);
}

std::string localDate(const std::optional<TimePoint>& at) {
    if (!at) return "          ";
    auto t = std::chrono::system_clock::to_time_t(*at);
    std::tm local{};
    char text[16] = "";
    if (::localtime_r(&t, &local)) std::strftime(text, sizeof text, "%Y-%m-%d", &local);
    return text;
}

std::string padLeft(const std::string& text, size_t width) {
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string oneDecimal(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string countOf(std::int64_t n, std::string_view one, std::string_view many) {
    return groupedCount(n) + " " + std::string(n == 1 ? one : many);
}

void printSearch(const SearchResult& result, const std::filesystem::path& home) {
    const auto& query = result.parsed.query;
    if (!result.parsed.chips.empty()) {
        std::cout << "Understood: ";
        for (size_t i = 0; i < result.parsed.chips.size(); ++i)
            std::cout << (i ? " · " : "") << terminalSafe(result.parsed.chips[i]);
        std::cout << "\n";
    }
    if (!query.terms.empty()) {
        std::cout << "Names containing: ";
        for (size_t i = 0; i < query.terms.size(); ++i)
            std::cout << (i ? ", " : "") << '"' << terminalSafe(query.terms[i]) << '"';
        std::cout << "\n";
    }
    std::cout << countOf(result.total, "file", "files");
    if (result.total > static_cast<int>(result.items.size()))
        std::cout << ", the first " << result.items.size() << " shown";
    std::cout << " (" << result.parsed.milliseconds << " ms)\n";
    for (const auto& item : result.items)
        std::cout << padLeft(fileBytes(item.size), 10) << "  " << localDate(item.modified) << "  "
                  << shownPath(item.path, home) << "\n";
    if (result.note) std::cout << terminalSafe(*result.note) << "\n";
}

void printDuplicates(const DuplicateScan& scan, const std::filesystem::path& home) {
    if (scan.groups.empty()) {
        std::cout << "No duplicates found";
    } else {
        std::cout << countOf(static_cast<std::int64_t>(scan.groups.size()), "group", "groups")
                  << " of identical files; removing the extra copies would free "
                  << fileBytes(scan.freeableBytes());
    }
    std::cout << ".\n";
    for (size_t g = 0; g < scan.groups.size(); ++g) {
        const auto& group = scan.groups[g];
        const auto& sharing = scan.sharing[g];
        std::cout << "\n"
                  << group.items.size() << " copies of " << fileBytes(group.size) << ", frees "
                  << fileBytes(sharing.freeable) << "  (SHA-256 " << group.fingerprint.substr(0, 12)
                  << "…)\n";
        for (const auto& item : group.items) {
            std::string remark;
            for (const auto& names : sharing.hardLinks)
                if (std::ranges::find(names, item.path) != names.end() && names.front() != item.path)
                    remark = "  (another name of " + shownPath(names.front(), home) + ")";
            if (remark.empty() && std::ranges::find(sharing.clones, item.path) != sharing.clones.end())
                remark = "  (a clone: shares its blocks)";
            std::cout << "  " << shownPath(item.path, home) << remark << "\n";
        }
    }
    std::cout << "\nCompared " << countOf(scan.candidates, "file", "files") << " that share a size; read "
              << (scan.bytesRead == 0 ? std::string("nothing (every file was known)")
                                      : fileBytes(scan.bytesRead))
              << " in " << oneDecimal(scan.seconds) << " s.\n";
    if (scan.note) std::cout << terminalSafe(*scan.note) << "\n";
}

void printSources(const std::vector<SourceGroup>& groups, const std::filesystem::path& home) {
    if (groups.empty()) {
        std::cout << "No file says where it came from. Browsers record it for what they download.\n";
        return;
    }
    size_t width = 0;
    for (const auto& g : groups)
        width = std::max(width, g.name.size());
    for (const auto& g : groups) {
        std::cout << terminalSafe(g.name) << std::string(width - g.name.size() + 2, ' ')
                  << padLeft(countOf(g.count, "file", "files"), 12) << padLeft(fileBytes(g.bytes), 11)
                  << "\n";
        for (const auto& item : g.samples)
            std::cout << "    " << shownPath(item.path, home) << "\n";
    }
}

std::string duplicateProgress(const DuplicateProgress& p) {
    switch (p.phase) {
    case DuplicateProgress::Phase::recording:
        return "Comparing sizes: " + groupedCount(static_cast<std::int64_t>(p.done)) + " of " +
               groupedCount(static_cast<std::int64_t>(p.total)) + " files…";
    case DuplicateProgress::Phase::sampling:
        return "Sampling " + groupedCount(static_cast<std::int64_t>(p.done)) + " of " +
               groupedCount(static_cast<std::int64_t>(p.total)) + " files…";
    case DuplicateProgress::Phase::hashing:
        return "Reading " + groupedCount(static_cast<std::int64_t>(p.done)) + " of " +
               groupedCount(static_cast<std::int64_t>(p.total)) + " files whole, " + fileBytes(p.bytesRead) +
               " so far…";
    }
    return {};
}

} // namespace

void addFilesSearchCommands(CLI::App& files, CliContext& ctx) {
    auto* search =
        files.add_subcommand("search", "Find files by describing them, e.g. \"big videos from last month\"");
    auto words = std::make_shared<std::vector<std::string>>();
    auto limit = std::make_shared<int>(100);
    search->add_option("words", *words, "What to look for, in plain words")->expected(0, -1);
    search->add_option("--limit", *limit, "Show at most this many files")->check(countFromOneTo(100'000));
    auto* searchJson = addJsonFlag(search);
    search->callback([&ctx, words, limit, searchJson] {
        auto text =
            std::accumulate(words->begin(), words->end(), std::string(),
                            [](std::string a, const std::string& b) { return a.empty() ? b : a + " " + b; });
        if (text.find_first_not_of(" \t") == std::string::npos)
            return ctx.refuse(std::string(noWordsSentence));
        auto* live = ctx.live();
        if (!live) return;
        CancelFlag cancel;
        InterruptGuard interrupt(cancel);
        const auto& options = live->library->options();
        SearchParser parser(options.now, options.calendar, live->home);
        // A fresh kept index is searched in place; only a stale one costs a walk, with its progress.
        // A search by camera, playing time or date waits for those facts when they are still being
        // read: this one answer is all the command gives, so it should not be missing files.
        ThrottledLine line;
        Catalog::MediaProgressFn mediaProgress = [&](std::size_t read, std::size_t toRead) {
            line.show([&] {
                return "Reading photos, songs and videos: " + groupedCount(static_cast<std::int64_t>(read)) +
                       " of " + groupedCount(static_cast<std::int64_t>(toRead)) + "…";
            });
        };
        auto result = live->library->search(
            parser, text, *limit, cancel,
            [&](const DiskWalk::Progress& p) {
                line.show([&] { return "Reading the home folder: " + groupedCount(p.entries) + " items…"; });
            },
            &mediaProgress);
        line.clear();
        if (!result) return ctx.refuse(std::string(walkStoppedSentence));
        if (*searchJson)
            printJson(Json(*result));
        else
            printSearch(*result, live->home);
    });

    auto* duplicates =
        files.add_subcommand("duplicates", "Find files whose contents are identical (Ctrl-C stops it)");
    auto* duplicatesJson = addJsonFlag(duplicates);
    duplicates->callback([&ctx, duplicatesJson] {
        // A scan makes and drops tens of thousands of small records (the catalog's entries, each
        // candidate's status, the groups): a page fault for every 4 KiB was a third of an unchanged rescan.
        growHeapInLargePages();
        auto* live = ctx.live();
        if (!live) return;
        live->library->duplicates().readCacheAhead();
        ThrottledLine line;
        auto progress = [&](const DuplicateProgress& p) { line.show([&] { return duplicateProgress(p); }); };
        auto print = [&](const DuplicateScan& scan) {
            line.clear();
            if (*duplicatesJson)
                printJsonStreamed([&](JsonWriter& out) { writeJson(out, scan); });
            else
                printDuplicates(scan, live->home);
        };
        // A fresh kept index is read in place, with no list of the catalog's entries made; otherwise
        // the catalog is read, and walked if need be, first.
        {
            CancelFlag cancel;
            InterruptGuard interrupt(cancel);
            if (auto scan = live->library->findDuplicatesInKeptIndex(cancel, progress)) return print(*scan);
        }
        withCatalog(ctx, [&](VantleLite*, Catalog::Result* read, CancelFlag& cancel) {
            print(live->library->findDuplicates(cancel, progress, read));
        });
    });

    auto* sources =
        files.add_subcommand("sources", "Group downloaded files by the site, mail or app they came from");
    auto* sourcesJson = addJsonFlag(sources);
    sources->callback([&ctx, sourcesJson] {
        withCatalog(ctx, [&](VantleLite* live, Catalog::Result* walked, CancelFlag& cancel) {
            // Where files came from is read behind the walk: waited for here, with the walk's own
            // reading let go so that they are added to it rather than to a copy.
            *walked = {};
            auto read = live->library->catalog().readWithAttributes(cancel);
            auto groups = Sources::groups(read.snapshot->facts, live->library->options().samples);
            if (*sourcesJson)
                printJson(Json(groups));
            else
                printSources(groups, live->home);
            if (auto partial = read.reading.note(); partial && !*sourcesJson) std::cout << *partial << "\n";
        });
    });
}

} // namespace vantle::cli
