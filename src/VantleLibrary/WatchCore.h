// What ChangeWatcher and FolderWatcher share: one thread that reads file-system events (inotify on
// Linux), paces them with a ChangeTiming and tells every listener's stream. Used only by those two
// watchers. Public operations may be called from any thread; the event loop and the timing run on
// the core's own thread.
#pragma once
#include "VantleLibrary/ChangeStream.h"
#include "VantleLibrary/ChangeTiming.h"
#include "VantleSpec/Time.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vantle {

class WatchCore {
  public:
    enum class Mode {
        homeTree,  // the home's top-level entries and everything below them, as ChangeWatcher describes
        oneFolder, // the entries directly inside one folder
    };

    struct Settings {
        Mode mode = Mode::homeTree;
        std::filesystem::path root;
        ChangeTiming::Seconds latency{1}; // while events keep coming, they are read at most this often
        ChangeTiming timing;
        Clock now = systemClock();
        std::function<void(const ChangeSignal&)> onSignal; // run on the core's thread, before the streams
    };

    struct Status {
        bool running = false;
        std::int64_t heard = 0;        // changes heard
        std::int64_t filesChanged = 0; // of those, changes to files (not folders)
        std::int64_t signals = 0;
        std::int64_t overflows = 0;     // times the event queue overflowed (each counted as one change)
        std::vector<std::string> paths; // the top-level entries watched (homeTree)
        std::size_t folders = 0;        // folders with a watch
        bool watchLimitReached = false; // the system's limit on watches stopped some folders being watched
    };

    explicit WatchCore(Settings settings);
    ~WatchCore();
    WatchCore(const WatchCore&) = delete;
    WatchCore& operator=(const WatchCore&) = delete;

    // Starts the thread; false (and silence) when the system gives no event queue. Starting twice is
    // harmless.
    bool start();
    // Stops the thread and ends every stream.
    void stop();
    std::shared_ptr<ChangeStream> subscribe();
    Status status() const;

    // The home's top-level entries to watch: every name not beginning with "." except "Library",
    // plus "Library/Mobile Documents" when it is a folder; sorted, as absolute paths. A home that
    // cannot be listed gives none.
    static std::vector<std::string> topLevelPaths(const std::filesystem::path& home);

  private:
    class Loop;
    void tell(const ChangeSignal& signal);

    Settings settings_;
    std::mutex lifecycle_;     // start and stop, one at a time; held while the thread is joined
    mutable std::mutex mutex_; // listeners and status; never held while telling a stream
    std::vector<std::weak_ptr<ChangeStream>> listeners_;
    Status status_;
    std::unique_ptr<Loop> loop_;
    std::thread thread_;
};

} // namespace vantle
