// The duplicate scan beside `jdupes -r` and `rmlint` on the same home, in one run: each side cold (the
// files' pages dropped from memory, and for us no fingerprint cache) and warm (pages in memory; for
// us the cache of the previous scan). Our side includes reading the catalog, as `vantle files
// duplicates` does. Checks that every tool finds the same groups and that a second scan of the
// unchanged home reads nothing, then prints each side's time and the ratios.
//
//   bench_library_duplicates --home DIR [google benchmark flags]
//
// Make the home with `tools/make-demo-home DIR --dupes-gb 3`.
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/Duplicates.h"

#include "BenchHome.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <set>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vantle;

namespace {

std::filesystem::path home;
std::filesystem::path cacheFile;
std::vector<std::string> scopeFolders; // what our catalog covers, given to the peers
std::set<std::string> catalogued;      // every file our catalog lists
std::int64_t scannedBytes = 0;         // bytes of the files that share a size

using Groups = std::set<std::set<std::pair<dev_t, ino_t>>>; // one file per inode, so links count once
std::map<std::string, Groups> found;
std::map<std::string, std::int64_t> bytesRead;

// Groups as sets of files, keeping only what our catalog covers (the peers also look inside app
// bundles, which the catalog shows as one item) and dropping groups left with one file.
void addGroup(Groups& groups, const std::vector<std::string>& paths) {
    std::set<std::pair<dev_t, ino_t>> files;
    for (const auto& p : paths) {
        struct stat st {};
        if (catalogued.contains(p) && ::lstat(p.c_str(), &st) == 0) files.insert({st.st_dev, st.st_ino});
    }
    if (files.size() > 1) groups.insert(files);
}

// Drops the files' pages from memory, so the next read comes from the disk, without touching
// anything else on the machine.
void dropPages() {
    for (auto& entry : std::filesystem::recursive_directory_iterator(home))
        if (std::error_code error; entry.is_regular_file(error) && !entry.is_symlink()) {
            int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
            if (fd < 0) continue;
            ::fdatasync(fd);
            ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
            ::close(fd);
        }
}

DuplicateScan scanOnce() {
    CancelFlag cancel;
    DiskWalk walk{LibraryScope{home, {}}, 10'000'000, systemNow() + std::chrono::hours(1)};
    auto read = walk.run(cancel);
    Duplicates finder({cacheFile, std::chrono::hours(1), 1, systemClock()});
    return finder.scan(std::span<const Facts>(read.snapshot.facts), cancel); // as the library asks
}

void ours(benchmark::State& state, bool cold) {
    if (!cold) scanOnce(); // leaves the cache a warm run starts from
    DuplicateScan scan;
    for (auto _ : state) {
        if (cold) {
            state.PauseTiming();
            std::filesystem::remove(cacheFile);
            dropPages();
            state.ResumeTiming();
        }
        scan = scanOnce();
    }
    Groups groups;
    for (const auto& g : scan.groups) {
        std::vector<std::string> paths;
        for (const auto& item : g.items)
            paths.push_back(item.path);
        addGroup(groups, paths);
    }
    auto name = std::string(cold ? "cold" : "warm") + "/vantle";
    found[name] = groups;
    bytesRead[name] = scan.bytesRead;
    state.counters["MB_read"] = static_cast<double>(scan.bytesRead) / 1e6;
    state.counters["candidates"] = scan.candidates;
}

// Runs a peer and reads its groups from its output: paths one per line, groups split by blank lines.
bool runPeer(const std::vector<std::string>& args, Groups& groups) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addchdir_np(&actions,
                                         "/tmp"); // rmlint leaves nothing behind with -o, but be sure
    std::vector<char*> argv;
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    int started = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(n));
    ::close(out[0]);
    if (started != 0) return false;
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::istringstream lines(text);
    std::vector<std::string> group;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) {
            addGroup(groups, group);
            group.clear();
        } else {
            group.push_back(line);
        }
    }
    addGroup(groups, group);
    return WIFEXITED(status) && WEXITSTATUS(status) <= 1; // jdupes says 1 when it found nothing to do
}

void peer(benchmark::State& state, const std::string& tool, bool cold) {
    std::vector<std::string> args;
    if (tool == "jdupes")
        args = {"jdupes", "-r", "-q", "-A"}; // -A: hidden names left out, as ours
    else
        args = {"rmlint", "-T", "df", "-o", "fdupes:stdout"}; // hidden names are left out by default
    args.insert(args.end(), scopeFolders.begin(), scopeFolders.end());
    Groups groups;
    if (!cold) runPeer(args, groups);
    for (auto _ : state) {
        if (cold) {
            state.PauseTiming();
            dropPages();
            state.ResumeTiming();
        }
        groups.clear();
        if (!runPeer(args, groups)) state.SkipWithError((tool + " failed").c_str());
    }
    found[std::string(cold ? "cold/" : "warm/") + tool] = groups;
}

class Collect : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, double> seconds;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs)
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                seconds[run.run_name.function_name] = run.GetAdjustedRealTime() / 1e3; // reported in ms
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    auto given = vantle::bench::takeHome(argc, argv, rest, "bench_library_duplicates --home DIR   (make one with tools/make-demo-home DIR --dupes-gb 3)");
    if (!given) return 2;
    home = *given;
    cacheFile = std::filesystem::temp_directory_path() /
                ("bench-fingerprints-" + std::to_string(::getpid()) + ".json");
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());

    // The peers look where the catalog looks: the home's top-level folders, without hidden names
    // and the Library (except the cloud documents inside it).
    for (const auto& entry : std::filesystem::directory_iterator(home)) {
        auto name = entry.path().filename().string();
        if (!name.starts_with('.') && name != "Library") scopeFolders.push_back(entry.path().string());
    }
    if (std::filesystem::exists(home / "Library/Mobile Documents"))
        scopeFolders.push_back((home / "Library/Mobile Documents").string());
    {
        CancelFlag cancel;
        DiskWalk walk{LibraryScope{home, {}}, 10'000'000, systemNow() + std::chrono::hours(1)};
        auto read = walk.run(cancel);
        for (const auto& f : read.snapshot.facts)
            if (!f.isFolder) catalogued.insert(f.path);
        for (const auto& item : Duplicates::candidatesOf(read.snapshot.facts))
            scannedBytes += item.size;
    }

    for (bool cold : {true, false}) {
        auto temperature = std::string(cold ? "cold" : "warm");
        benchmark::RegisterBenchmark(("files-dupes/" + temperature + "/vantle").c_str(),
                                     [cold](benchmark::State& s) { ours(s, cold); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(3);
        for (std::string tool : {"jdupes", "rmlint"})
            benchmark::RegisterBenchmark(("files-dupes/" + temperature + "/" + tool).c_str(),
                                         [tool, cold](benchmark::State& s) { peer(s, tool, cold); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->Iterations(3);
    }
    Collect reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::filesystem::remove(cacheFile);

    std::printf("files-dupes: %zu catalogued files, %.2f GB in files that share a size\n", catalogued.size(),
                static_cast<double>(scannedBytes) / 1e9);
    bool agree = true;
    for (const auto& [name, groups] : found) {
        bool same = groups == found["cold/vantle"];
        agree = agree && same;
        std::printf("  %-13s %4zu groups%s\n", name.c_str(), groups.size(),
                    same ? "" : "  (DIFFERENT from vantle)");
    }
    for (std::string temperature : {"cold", "warm"}) {
        auto mine = reporter.seconds["files-dupes/" + temperature + "/vantle"];
        std::printf("  %s: vantle %.0f ms (read %.1f MB)", temperature.c_str(), mine * 1e3,
                    static_cast<double>(bytesRead[temperature + "/vantle"]) / 1e6);
        for (std::string tool : {"jdupes", "rmlint"}) {
            auto theirs = reporter.seconds["files-dupes/" + temperature + "/" + tool];
            std::printf(", %s %.0f ms (ratio vantle/%s %.2f)", tool.c_str(), theirs * 1e3, tool.c_str(),
                        mine / theirs);
        }
        std::printf("\n");
    }
    std::printf("  groups %s; a second scan of the unchanged home read %lld bytes\n",
                agree ? "agree" : "DIFFER", static_cast<long long>(bytesRead["warm/vantle"]));
    return agree && bytesRead["warm/vantle"] == 0 ? 0 : 1;
}
