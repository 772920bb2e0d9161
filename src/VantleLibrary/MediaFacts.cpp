#include "VantleLibrary/MediaFacts.h"

#include "Platform/SharedLibrary.h"
#include "VantleLibrary/MediaReaders.h"

namespace vantle {

namespace {

bool typeStartsWith(std::string_view text, std::string_view head) {
    return text.substr(0, head.size()) == head;
}

bool isPhotoType(std::string_view type) {
    if (!typeStartsWith(type, "image/")) return false;
    // Formats with no EXIF of their own.
    for (auto none : {"image/gif", "image/bmp", "image/svg+xml", "image/x-icon", "image/vnd.microsoft.icon",
                      "image/x-xcf", "image/vnd.adobe.photoshop"})
        if (type == none) return false;
    return true;
}

bool isAudioType(std::string_view type) {
    return typeStartsWith(type, "audio/") && type != "audio/midi";
}

// The video containers TagLib reads a playing time from: MPEG-4 by its extension, and QuickTime and
// 3GPP by their content when they open with an ftyp box (as phones and current cameras write them).
// An Ogg video starts with its picture stream, which TagLib does not read, so it is not opened.
bool isVideoType(std::string_view type) {
    return type == "video/mp4" || type == "video/x-m4v" || type == "video/quicktime" || type == "video/3gpp";
}

// The readers, loaded once; null when the module is missing or unusable.
const MediaReaders* mediaReaders() {
    static const MediaReaders* const readers = []() -> const MediaReaders* {
        auto lib = SharedLibrary::open(VANTLE_MEDIA_MODULE);
        decltype(&vantleMediaReaders) entry = nullptr;
        if (!lib || !lib->bind(entry, "vantleMediaReaders")) return nullptr;
        return entry();
    }();
    return readers;
}

} // namespace

bool mayCarryMediaFacts(std::string_view contentType) {
    return isPhotoType(contentType) || isAudioType(contentType) || isVideoType(contentType);
}

std::optional<MediaFacts> readMediaFacts(int fd, std::string_view name, std::string_view contentType) {
    const auto* readers = mediaReaders();
    if (!readers) return std::nullopt;
    MediaFacts out;
    if (isPhotoType(contentType))
        readers->readExif(fd, out);
    else if (isAudioType(contentType) || isVideoType(contentType))
        out.duration = readers->lengthOf(fd, name);
    return out;
}

} // namespace vantle
