// Search in plain words (parsing plus running the query) over a catalog reading of a large home,
// beside `find` answering the same question from the disk, in one run, warm cache for both. The
// catalog is read once beforehand, as the program keeps it; its walk has its own benchmark.
//
//   bench_library_search --home DIR [google benchmark flags]
//
// Make the home with `tools/make-demo-home DIR --files 300000`.
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/FileQueryRunner.h"
#include "VantleLibrary/SearchParser.h"

#include "BenchHome.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <spawn.h>
#include <string>
#include <sys/wait.h>

using namespace vantle;

namespace {

std::filesystem::path home;
Snapshot snapshot;
Reading reading;

const std::vector<std::string> phrases{
    "pdfs",
    "big videos from last month",
    "pdfs from gmail older than 6 months",
    "screenshots",
    "photos from last week",
    "invoice",
    "\"tax return\" 2023",
    "largest archives in downloads",
};

std::map<std::string, double> medianMs;
std::map<std::string, int> totals;

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values.empty() ? 0 : values[values.size() / 2];
}

void search(benchmark::State& state, const std::string& words) {
    SearchParser parser(systemClock(), Calendar{}, home);
    std::vector<double> ms;
    int total = 0;
    for (auto _ : state) {
        auto started = std::chrono::steady_clock::now();
        auto result = searchFiles(parser, words, snapshot, reading);
        ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
        total = result.total;
        benchmark::DoNotOptimize(result.items.data());
    }
    medianMs[words] = median(ms);
    totals[words] = total;
    state.counters["median_ms"] = medianMs[words];
    state.counters["matches"] = total;
}

// find over the catalog's scope: hidden names and the top-level Library pruned. Output to /dev/null.
void find(benchmark::State& state, const std::vector<std::string>& test, const std::string& label) {
    std::string library = (home / "Library").string();
    std::vector<std::string> args{"find",  home.string(), "(",      "-name", ".*",    "-o", "-path",
                                  library, ")",           "-prune", "-o",    "-type", "f"};
    args.insert(args.end(), test.begin(), test.end());
    args.push_back("-print");
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<double> ms;
    for (auto _ : state) {
        auto started = std::chrono::steady_clock::now();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        pid_t pid = 0;
        int spawned = posix_spawnp(&pid, "find", &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        int status = 0;
        if (spawned != 0 || ::waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
            state.SkipWithError("find failed");
        ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
    }
    medianMs["find " + label] = median(ms);
    state.counters["median_ms"] = medianMs["find " + label];
}

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    auto given = vantle::bench::takeHome(argc, argv, rest, "bench_library_search --home DIR   (make one with tools/make-demo-home DIR --files 300000)");
    if (!given) return 2;
    home = *given;
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());

    CancelFlag cancel;
    auto walked =
        DiskWalk{LibraryScope{home, {}}, 10'000'000, systemNow() + std::chrono::hours(1)}.run(cancel);
    snapshot = std::move(walked.snapshot);
    reading = walked.reading;

    for (const auto& words : phrases)
        benchmark::RegisterBenchmark(("files-search/vantle/" + words).c_str(),
                                     [words](benchmark::State& s) { search(s, words); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(21);
    // The same two questions asked of the disk.
    benchmark::RegisterBenchmark("files-search/find/pdfs",
                                 [](benchmark::State& s) {
                                     find(s, {"-iname", "*.pdf"}, "pdfs");
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
    benchmark::RegisterBenchmark("files-search/find/invoice",
                                 [](benchmark::State& s) {
                                     find(s, {"-iname", "*invoice*"}, "invoice");
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
    benchmark::RunSpecifiedBenchmarks();

    std::vector<double> all;
    std::printf("files-search: %zu catalogued entries\n", snapshot.facts.size());
    for (const auto& words : phrases) {
        all.push_back(medianMs[words]);
        std::printf("  %-40s median %7.2f ms, %d matches\n", words.c_str(), medianMs[words], totals[words]);
    }
    std::printf("  median over all searches: %.2f ms\n", median(all));
    for (std::string question : {"pdfs", "invoice"})
        std::printf("  %s: vantle %.2f ms, find %.0f ms, ratio vantle/find %.4f\n", question.c_str(),
                    medianMs[question], medianMs["find " + question],
                    medianMs[question] / medianMs["find " + question]);
    return 0;
}
