// Reading this machine: one vitals snapshot, one activity sample of every process, and the peer a
// user would reach for to list processes (`ps` with the same columns) over the same /proc in the
// same run. Compare BM_ActivityRead against BM_PeerPs for the ratio.
#include "VantleVitals/ActivityReader.h"
#include "VantleVitals/VitalsSampler.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vantle;

static void BM_ActivityRead(benchmark::State& state) {
    ActivityReader reader({.user = ::geteuid()});
    size_t rows = 0;
    for (auto _ : state) {
        auto sample = reader.read();
        rows = sample.rows.size();
        benchmark::DoNotOptimize(sample);
    }
    state.counters["processes"] = double(rows);
}
BENCHMARK(BM_ActivityRead)->Unit(benchmark::kMillisecond);

static void BM_VitalsSample(benchmark::State& state) {
    VitalsSampler sampler({});
    for (auto _ : state)
        benchmark::DoNotOptimize(sampler.sample());
}
BENCHMARK(BM_VitalsSample)->Unit(benchmark::kMillisecond);

static void BM_VitalsSampleWithProcesses(benchmark::State& state) {
    auto activity = std::make_shared<ActivityReader>(ActivityReader::Options{.user = ::geteuid()});
    VitalsSampler sampler({.activity = activity});
    for (auto _ : state)
        benchmark::DoNotOptimize(sampler.sample());
}
BENCHMARK(BM_VitalsSampleWithProcesses)->Unit(benchmark::kMillisecond);

// ps reading the same columns: pid, parent, owner, processor share, resident size, threads, name.
static void BM_PeerPs(benchmark::State& state) {
    const char* argv[] = {"ps", "-e", "-o", "pid,ppid,user,pcpu,rss,nlwp,comm", nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawnp(&pid, "ps", &actions, nullptr, const_cast<char**>(argv), environ) != 0) {
            state.SkipWithError("ps could not be started");
            break;
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK(BM_PeerPs)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
