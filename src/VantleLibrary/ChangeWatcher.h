// Listens to file-system events under the home folder and tells listeners, at a measured pace
// (ChangeTiming), that the library's picture has gone stale. It watches the home's top-level entries
// (names beginning with "." and "Library" left out, plus Library/Mobile Documents when present) and
// every folder below them, adds folders as they appear, and starts afresh when the top-level list
// changes or the event queue overflows (an overflow counts as a change). Owns one thread; every
// public operation may be called from any thread.
#pragma once
#include "VantleLibrary/ChangeStream.h"
#include "VantleLibrary/WatchCore.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>

namespace vantle {

class ChangeWatcher {
  public:
    using Seconds = ChangeTiming::Seconds;
    struct Options {
        std::filesystem::path home;
        Seconds latency{1};
        Seconds quiet{3};
        Seconds longestWait{15};
        Seconds cooldown{60};
        Clock now = systemClock();
    };
    using Status = WatchCore::Status;

    // `onSignal` runs on the watcher's thread at every signal, before the listeners' streams are told;
    // keep it short (the library uses it to mark its catalog stale).
    explicit ChangeWatcher(Options options, std::function<void(const ChangeSignal&)> onSignal = {});

    // False when the system gives no event queue: the watcher then stays silent.
    bool start() { return core_.start(); }
    void stop() { core_.stop(); }
    std::shared_ptr<ChangeStream> subscribe() { return core_.subscribe(); }
    Status status() const { return core_.status(); }

    static std::vector<std::string> topLevelPaths(const std::filesystem::path& home) {
        return WatchCore::topLevelPaths(home);
    }

  private:
    WatchCore core_;
};

} // namespace vantle
