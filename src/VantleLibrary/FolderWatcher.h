// Tells listeners when the entries directly inside one folder change (the folder a page is showing),
// once the changes have been quiet for a moment. The same machinery as ChangeWatcher over one
// folder: one thread of its own; every public operation may be called from any thread.
#pragma once
#include "VantleLibrary/ChangeStream.h"
#include "VantleLibrary/WatchCore.h"

#include <filesystem>
#include <memory>

namespace vantle {

class FolderWatcher {
  public:
    using Seconds = ChangeTiming::Seconds;
    struct Options {
        std::filesystem::path folder;
        Seconds latency{1};
        Seconds quiet{1};
        Clock now = systemClock();
    };
    using Status = WatchCore::Status;

    // A folder that never goes quiet (a download being written) still signals, at most five quiet
    // times after its first change; repeated bursts are not slowed down, since a page showing the
    // folder wants every one.
    explicit FolderWatcher(Options options);

    bool start() { return core_.start(); }
    void stop() { core_.stop(); }
    std::shared_ptr<ChangeStream> subscribe() { return core_.subscribe(); }
    Status status() const { return core_.status(); }

  private:
    WatchCore core_;
};

} // namespace vantle
