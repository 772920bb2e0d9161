#include "VantleLibrary/ChangeWatcher.h"

namespace vantle {

ChangeWatcher::ChangeWatcher(Options options, std::function<void(const ChangeSignal&)> onSignal)
    : core_(WatchCore::Settings{WatchCore::Mode::homeTree, options.home, options.latency,
                                ChangeTiming{.quiet = options.quiet,
                                             .longestWait = options.longestWait,
                                             .cooldown = options.cooldown},
                                options.now, std::move(onSignal)}) {}

} // namespace vantle
