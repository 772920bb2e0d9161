// Photos' capture dates and cameras (their EXIF, read by exiv2) and the playing time of songs and
// videos (TagLib: every common audio format, and MPEG-4 and QuickTime video), read from a descriptor the
// caller opened without moving the access time: no library is ever given a path to open itself. The functions
// return plain values and may be called from several threads at once. The two libraries live in the
// media module, loaded on the first read.
#pragma once
#include "VantleSpec/Time.h"

#include <optional>
#include <string>
#include <string_view>

namespace vantle {

struct MediaFacts {
    std::optional<TimePoint> contentCreated; // when the photo was taken
    std::optional<std::string> cameraMake;
    std::optional<std::string> cameraModel;
    std::optional<double> duration; // playing time in seconds
    bool operator==(const MediaFacts&) const = default;
};

// Whether files of this content type can carry any of these facts; only those are ever opened.
bool mayCarryMediaFacts(std::string_view contentType);

// Reads what the open regular file `fd` of `contentType` carries. `name` only names the file to the
// libraries (they guess a format by its extension); nothing is opened by it. A file that carries
// nothing, or that the libraries cannot read, gives empty facts. Nothing at all when the media module
// cannot be loaded: the file was not read, and must not be kept as carrying nothing.
std::optional<MediaFacts> readMediaFacts(int fd, std::string_view name, std::string_view contentType);

} // namespace vantle
