// What reading photos' EXIF and songs' and videos' lengths costs beside the catalog's walk. The
// catalog publishes the walk's snapshot first and reads these facts behind it, so "walk-alone" is
// what a user waits for and the other two are the work done afterwards on a worker: every media file
// read (a first walk, nothing kept) and the entries kept from the first (a second walk, nothing
// changed). Warm cache for all three. Also times TagLib's length reading over the home's audio and
// video files.
//
//   bench_library_media --home DIR [google benchmark flags]
//
// Make the home with `tools/make-demo-home DIR --files 300000`.
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/MediaFacts.h"
#include "VantleLibrary/MediaIndex.h"

#include "BenchHome.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

using namespace vantle;

namespace {

std::filesystem::path home;
std::filesystem::path keptFile;

Snapshot walkOnce() {
    CancelFlag cancel;
    DiskWalk walk{LibraryScope{home, {}}, 10'000'000, systemNow() + std::chrono::hours(1)};
    return walk.run(cancel).snapshot;
}

void walkAlone(benchmark::State& state) {
    for (auto _ : state) {
        auto snapshot = walkOnce();
        benchmark::DoNotOptimize(snapshot.facts.data());
    }
}

void walkFirst(benchmark::State& state) {
    MediaIndex::Filled filled;
    for (auto _ : state) {
        auto snapshot = walkOnce();
        MediaIndex index(std::nullopt); // nothing kept: every media file is read
        CancelFlag cancel;
        filled = index.fill(snapshot.facts, cancel);
        filled.applyTo(snapshot.facts);
    }
    state.counters["read"] = static_cast<double>(filled.read);
}

void walkSecond(benchmark::State& state) {
    {
        auto snapshot = walkOnce();
        MediaIndex index(keptFile);
        CancelFlag cancel;
        index.fill(snapshot.facts, cancel);
        (void)index.keep();
    }
    MediaIndex::Filled filled;
    for (auto _ : state) {
        auto snapshot = walkOnce();
        MediaIndex index(keptFile); // loaded as a new run would
        CancelFlag cancel;
        filled = index.fill(snapshot.facts, cancel);
        filled.applyTo(snapshot.facts);
    }
    state.counters["kept"] = static_cast<double>(filled.kept);
    state.counters["read"] = static_cast<double>(filled.read);
}

std::vector<std::pair<std::string, std::string>> mediaFiles(std::string_view prefix, std::size_t most) {
    std::vector<std::pair<std::string, std::string>> out;
    for (auto it = std::filesystem::recursive_directory_iterator(home);
         it != std::filesystem::recursive_directory_iterator() && out.size() < most; ++it) {
        auto name = it->path().filename().string();
        auto ext = it->path().extension().string();
        if (it->is_regular_file() &&
            (prefix == "audio" ? (ext == ".mp3" || ext == ".wav" || ext == ".flac" || ext == ".m4a")
                               : (ext == ".mp4" || ext == ".mov" || ext == ".mkv")))
            out.emplace_back(it->path().string(), name);
    }
    return out;
}

void lengthReader(benchmark::State& state) {
    const bool audio = state.range(0) == 0;
    auto files = mediaFiles(audio ? "audio" : "video", 2000);
    // Any type of the kind will do: the reader goes by the name's extension.
    const std::string_view type = audio ? "audio/mpeg" : "video/mp4";
    std::size_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (const auto& [path, name] : files) {
            int fd = ::open(path.c_str(), O_RDONLY | O_NOATIME | O_CLOEXEC);
            if (fd < 0) continue;
            auto facts = readMediaFacts(fd, name, type);
            found += facts && facts->duration.has_value();
            ::close(fd);
        }
    }
    state.counters["files"] = static_cast<double>(files.size());
    state.counters["with_length"] = static_cast<double>(found);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest;
    auto given = vantle::bench::takeHome(argc, argv, rest, "bench_library_media --home DIR");
    if (!given) return 2;
    home = *given;
    keptFile = std::filesystem::temp_directory_path() / ("vantle-bench-media-" + std::to_string(::getpid()));
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    walkOnce(); // warm the cache for all alike

    for (auto [name, fn] : {std::pair{"media/walk-alone", &walkAlone},
                            {"media/walk-first", &walkFirst},
                            {"media/walk-second", &walkSecond}})
        benchmark::RegisterBenchmark(name, fn)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
    benchmark::RegisterBenchmark("length/taglib", lengthReader)
        ->Arg(0)
        ->Arg(1)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove(keptFile);
    return 0;
}
