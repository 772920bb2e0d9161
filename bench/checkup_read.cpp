// A whole checkup of this machine: every area read (files, statvfs, the package lists, and the
// programs asked with their time bound), turned into sections, findings and a score, and kept in a
// temporary Health/checkups.json. It must finish in under a second on an ordinary machine; the
// package lists are the largest read, so they are also timed on their own.
#include "VantleSpec/CheckupScoring.h"
#include "VantleVitals/CheckupSections.h"
#include "VantleVitals/CheckupService.h"
#include "VantleVitals/PackageState.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <unistd.h>

using namespace vantle;

namespace {

CheckupReader::Options thisMachine() {
    const char* home = std::getenv("HOME");
    return {.home = home ? home : "/", .root = ::geteuid() == 0};
}

} // namespace

static void BM_CheckupRead(benchmark::State& state) {
    CheckupReader reader(thisMachine());
    for (auto _ : state)
        benchmark::DoNotOptimize(reader.read());
}
BENCHMARK(BM_CheckupRead)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_CheckupWholeRun(benchmark::State& state) {
    auto folder =
        std::filesystem::temp_directory_path() / ("vantle-bench-checkup-" + std::to_string(::getpid()));
    CheckupService service(std::make_shared<CheckupReader>(thisMachine()), folder / "Health/checkups.json");
    size_t findings = 0;
    for (auto _ : state)
        findings = service.run().findings.size();
    state.counters["findings"] = double(findings);
    std::filesystem::remove_all(folder);
}
BENCHMARK(BM_CheckupWholeRun)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_PackageUpgrades(benchmark::State& state) {
    size_t upgrades = 0;
    for (auto _ : state) {
        auto read = readPackageUpgrades("/var/lib/dpkg/status", "/var/lib/apt/lists");
        upgrades = read ? read->upgrades.size() : 0;
    }
    state.counters["upgrades"] = double(upgrades);
}
BENCHMARK(BM_PackageUpgrades)->Unit(benchmark::kMillisecond);

static void BM_BuildAndScore(benchmark::State& state) {
    auto facts = CheckupReader(thisMachine()).read();
    auto now = systemNow();
    for (auto _ : state)
        benchmark::DoNotOptimize(buildCheckup(facts, now));
}
BENCHMARK(BM_BuildAndScore)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
