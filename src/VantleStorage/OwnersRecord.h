// An owner's own record of when an item was last used, where the owner keeps one: Xcode writes the
// date a project was last opened as LastAccessedDate in the info.plist of its build data folder.
// Read by descriptor below the item, never following a link. Pure; thread-safe.
#pragma once
#include "VantleSpec/Time.h"

#include <optional>
#include <string>

namespace vantle {

// The LastAccessedDate of the info.plist inside the folder `name` of `parentFd`; absent when there is
// no such file, it is not a property list, or it holds no date under that key.
std::optional<TimePoint> xcodeLastAccessed(int parentFd, const std::string& name);

} // namespace vantle
