// The catalog's disk walk beside `find -printf` reading the same facts (path, size, times) on the
// same home, in one run, warm cache for both. Prints each side's time and the ratio.
//
//   bench_library_walk --home DIR [google benchmark flags]
//
// Make the home with `tools/make-demo-home DIR --files 300000`.
#include "VantleLibrary/DiskWalk.h"

#include "BenchHome.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>

using namespace vantle;

namespace {

std::filesystem::path home;
std::int64_t lastEntries = 0;

void walkCatalog(benchmark::State& state) {
    for (auto _ : state) {
        CancelFlag cancel;
        DiskWalk walk{LibraryScope{home, {}}, 10'000'000, systemNow() + std::chrono::hours(1)};
        walk.threads = static_cast<int>(state.range(0));
        auto out = walk.run(cancel);
        if (!out.snapshot.isWhole) state.SkipWithError("the walk stopped at a limit");
        lastEntries = out.reading.entries;
        benchmark::DoNotOptimize(out.snapshot.facts.data());
    }
    state.counters["entries"] = static_cast<double>(lastEntries);
}

// find prints what the catalog reads from each entry's status, over the same entries: names
// beginning with "." and the top-level Library pruned, Library/Mobile Documents added. Its output
// goes to /dev/null.
// Returns find's exit status and adds its processor time (user + system) to `cpuSeconds`.
int runFind(bool sameScope, double* cpuSeconds = nullptr) {
    std::string root = home.string(), library = (home / "Library").string(),
                cloud = (home / "Library/Mobile Documents").string();
    std::vector<const char*> argv{"find", root.c_str()};
    if (sameScope && std::filesystem::exists(cloud)) argv.push_back(cloud.c_str());
    if (sameScope)
        for (const char* a : {"(", "-name", ".*", "-o", "-path", library.c_str(), ")", "-prune", "-o"})
            argv.push_back(a);
    for (const char* a : {"-printf", "%p\t%s\t%T@\t%A@\t%C@\t%y\n"})
        argv.push_back(a);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    int started = posix_spawnp(&pid, "find", &actions, nullptr, const_cast<char**>(argv.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (started != 0) return -1;
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    if (cpuSeconds)
        *cpuSeconds += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void walkFind(benchmark::State& state) {
    double cpu = 0;
    for (auto _ : state)
        if (runFind(state.range(0) == 1, &cpu) != 0) state.SkipWithError("find failed");
    // find's own processor time, per run: the benchmark's CPU column only sees this process.
    state.counters["find_cpu_ms"] = benchmark::Counter(cpu * 1e3 / static_cast<double>(state.iterations()));
}

class Collect : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, double> seconds, cpuSeconds;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs)
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                seconds[run.run_name.function_name] = run.GetAdjustedRealTime() / 1e3; // reported in ms
                auto found = run.counters.find("find_cpu_ms");
                cpuSeconds[run.run_name.function_name] =
                    found != run.counters.end() ? found->second.value / 1e3 : run.GetAdjustedCPUTime() / 1e3;
            }
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    auto given = vantle::bench::takeHome(argc, argv, rest, "bench_library_walk --home DIR   (make one with tools/make-demo-home DIR --files 300000)");
    if (!given) return 2;
    home = *given;
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());

    // Warm the cache for both sides alike: the whole home, hidden folders included.
    runFind(false);

    // Real time: find runs in another process, so CPU time of this one would flatter it.
    // The walk's own threads count in its processor time.
    benchmark::RegisterBenchmark("files-walk/vantle", walkCatalog)
        ->Arg(0)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MeasureProcessCPUTime()
        ->Iterations(5);
    benchmark::RegisterBenchmark("files-walk/vantle-one-thread", walkCatalog)
        ->Arg(1)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MeasureProcessCPUTime()
        ->Iterations(5);
    benchmark::RegisterBenchmark("files-walk/find", walkFind)
        ->Arg(1)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
    benchmark::RegisterBenchmark("files-walk/find-whole-home", walkFind)
        ->Arg(0)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
    Collect reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    auto ours = reporter.seconds.find("files-walk/vantle");
    auto peer = reporter.seconds.find("files-walk/find");
    if (ours == reporter.seconds.end() || peer == reporter.seconds.end()) return 1;
    double ourCpu = reporter.cpuSeconds["files-walk/vantle"],
           peerCpu = reporter.cpuSeconds["files-walk/find"];
    std::printf("files-walk: %lld entries (hidden names and Library left out on both sides)\n"
                "  elapsed:   vantle %.0f ms, find -printf %.0f ms, ratio %.2f\n"
                "  processor: vantle %.0f ms, find -printf %.0f ms, ratio %.2f\n"
                "  (vantle also reads each file's download-origin attributes, which find does not)\n",
                static_cast<long long>(lastEntries), ours->second * 1e3, peer->second * 1e3,
                ours->second / peer->second, ourCpu * 1e3, peerCpu * 1e3, ourCpu / peerCpu);
    return 0;
}
