#include "VantleLibrary/FolderWatcher.h"

namespace vantle {

FolderWatcher::FolderWatcher(Options options)
    : core_(WatchCore::Settings{WatchCore::Mode::oneFolder,
                                options.folder,
                                options.latency,
                                ChangeTiming{.quiet = options.quiet,
                                             .longestWait = options.quiet * 5,
                                             .cooldown = ChangeTiming::Seconds(0)},
                                options.now,
                                {}}) {}

} // namespace vantle
