// What the library reads for one file or folder, and how that becomes the FileItem the Home shows.
// On Linux the facts come from statx (times, sizes) and the extended attributes browsers and file
// managers write (download origins, tags). Plain values; the functions are thread-safe.
#pragma once
#include "Platform/EntryStatus.h"
#include "VantleLibrary/OptionalTime.h"
#include "VantleLibrary/SharedText.h"
#include "VantleSpec/LibraryRecords.h"
#include "VantleSpec/Time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct Facts {
    std::string path;
    std::string name;
    SharedText contentType;  // shared by every file of the type
    std::int64_t size = 0;   // logical bytes
    std::int64_t onDisk = 0; // allocated bytes
    OptionalTime created;
    OptionalTime contentCreated; // capture date of a photo, read behind the walk
    OptionalTime modified;
    OptionalTime added;    // birth time, else the last status change
    OptionalTime lastUsed; // access time
    std::vector<std::string> whereFroms;
    bool isScreenshot = false;
    std::optional<SharedText> cameraMake; // shared: a home holds photos of a few cameras
    std::optional<SharedText> cameraModel;
    std::optional<double> duration;
    std::vector<std::string> tags;
    bool isFolder = false;
    bool isPackage = false; // a folder shown as one thing (an app bundle)

    // The kind, decided by the content type; folders have none.
    std::optional<LibraryKind> kind() const;
    // The latest sign of use: opened or changed. Lists of things left alone go by this. The birth
    // time is left out on purpose: a home copied or restored from a backup is "born" all at once,
    // while copies keep the other two; and a file arriving now is opened (made) now anyway.
    std::optional<TimePoint> lastTouched() const;
    bool operator==(const Facts&) const = default;
};

// Dates are cut to whole milliseconds, the precision stored files keep, so an item read back from
// Library/summary.json equals the one written.
FileItem toFileItem(const Facts& facts);
// The same, taking the strings over rather than copying them.
FileItem toFileItem(Facts&& facts);

// The names the desktop's screenshot tools give: "Screenshot from 2024-05-01 10-00-00.png",
// "Screenshot_20240501_100000.png", "Screenshot 2024-05-01 at 10.00.00.png" (and the older
// "Screen Shot ..."). Only images count.
bool isScreenshotName(std::string_view name, std::string_view contentType);

// Extended attributes where downloads record their origin, and where tags are kept.
inline constexpr const char* originAttribute = "user.xdg.origin.url";
inline constexpr const char* referrerAttribute = "user.xdg.referrer.url";
inline constexpr const char* tagsAttribute = "user.xdg.tags";

// Facts for one entry from its status alone. `path` is absolute. Download origins and tags are
// left empty: they cost a system call more per file, so they are read behind the walk (attributesOf).
Facts factsOf(std::string path, std::string_view name, const EntryStatus& status);

// What a file's extended attributes tell: where it was downloaded from, and its tags.
struct AttributeFacts {
    std::vector<std::string> whereFroms;
    std::vector<std::string> tags;
    bool empty() const { return whereFroms.empty() && tags.empty(); }
    void applyTo(Facts& facts) const;
    bool operator==(const AttributeFacts&) const = default;
};

// Reads them without following a link: `name` relative to the open folder `dirFd` where the kernel
// allows (dirFd may be -1), else by the absolute `path` of the same entry. An entry whose attributes
// cannot be read simply has none.
AttributeFacts attributesOf(int dirFd, const char* name, const char* path);

} // namespace vantle
