// What the media module (built from media/, linked with exiv2 and TagLib) gives the rest of the
// program: one table of functions, asked for by name once the module is loaded. The module and the
// program are built together, so the table may pass C++ values.
#pragma once
#include "VantleLibrary/MediaFacts.h"

#include <optional>
#include <string_view>

namespace vantle {

struct MediaReaders {
    // Fills in a photo's capture date and camera from its EXIF.
    void (*readExif)(int fd, MediaFacts& out);
    // A song's or video's playing time, as TagLib reads it.
    std::optional<double> (*lengthOf)(int fd, std::string_view name);
};

} // namespace vantle

extern "C" const vantle::MediaReaders* vantleMediaReaders();
