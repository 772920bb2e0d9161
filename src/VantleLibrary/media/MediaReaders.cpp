// The part of the media facts that needs exiv2 and TagLib, built as a module of its own and loaded the
// first time a file's facts are read: most commands never read one, and the two libraries were a
// good part of every start. It exports one table (MediaReaders.h).
#include "VantleLibrary/MediaReaders.h"

#include <exiv2/exiv2.hpp>
#include <taglib/fileref.h>
#include <taglib/tiostream.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace vantle {

namespace {

// A read-only private mapping of the whole file. Pages are read only as the parser touches them, and
// a mapping of a descriptor opened with O_NOATIME leaves the access time alone as read() does.
class Mapping {
  public:
    explicit Mapping(int fd) {
        struct stat st {};
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) return;
        size_ = static_cast<std::size_t>(st.st_size);
        void* at = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
        if (at == MAP_FAILED) {
            size_ = 0;
            return;
        }
        data_ = static_cast<const unsigned char*>(at);
    }
    ~Mapping() {
        if (data_) ::munmap(const_cast<unsigned char*>(data_), size_);
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    const unsigned char* data() const { return data_; }
    std::size_t size() const { return size_; }

  private:
    const unsigned char* data_ = nullptr;
    std::size_t size_ = 0;
};

std::optional<std::string> trimmedText(const std::string& text) {
    auto begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return std::nullopt;
    auto end = text.find_last_not_of(" \t\r\n");
    return text.substr(begin, end - begin + 1);
}

// EXIF's "YYYY:MM:DD HH:MM:SS", in the camera's local time, with its offset ("+02:00") when the
// camera wrote one; without one it is read as this machine's local time, as photo viewers do.
std::optional<TimePoint> exifDate(const std::string& text, const std::optional<std::string>& offset) {
    std::tm tm{};
    int sec = 0;
    if (std::sscanf(text.c_str(), "%d:%d:%d %d:%d:%d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                    &tm.tm_min, &sec) != 6)
        return std::nullopt;
    if (tm.tm_year < 1900 || tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31)
        return std::nullopt;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    tm.tm_sec = sec;
    std::time_t at;
    int sign = 0, hours = 0, minutes = 0;
    char signChar = 0;
    if (offset && std::sscanf(offset->c_str(), "%c%d:%d", &signChar, &hours, &minutes) == 3 &&
        (signChar == '+' || signChar == '-')) {
        sign = signChar == '+' ? 1 : -1;
        at = ::timegm(&tm) - sign * (hours * 3600 + minutes * 60);
    } else {
        tm.tm_isdst = -1;
        at = std::mktime(&tm);
    }
    if (at == static_cast<std::time_t>(-1)) return std::nullopt;
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(std::chrono::seconds(at)));
}

void readExif(int fd, MediaFacts& out) {
    static std::once_flag quiet;
    // The library's own warnings about odd files would go to our standard error.
    std::call_once(quiet, [] { Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute); });
    Mapping map(fd);
    if (!map.data()) return;
    try {
        auto image = Exiv2::ImageFactory::open(map.data(), static_cast<long>(map.size()));
        if (!image.get()) return;
        image->readMetadata();
        const auto& exif = image->exifData();
        auto text = [&](const char* key) -> std::optional<std::string> {
            auto it = exif.findKey(Exiv2::ExifKey(key));
            if (it == exif.end()) return std::nullopt;
            return trimmedText(it->toString());
        };
        auto taken = text("Exif.Photo.DateTimeOriginal");
        if (!taken) taken = text("Exif.Photo.DateTimeDigitized");
        if (taken) out.contentCreated = exifDate(*taken, text("Exif.Photo.OffsetTimeOriginal"));
        out.cameraMake = text("Exif.Image.Make");
        out.cameraModel = text("Exif.Image.Model");
    } catch (...) {
        // Exiv2 reports a damaged or unknown file by throwing; such a file simply carries nothing.
    }
}

// TagLib reads through this instead of opening a path: every read is a pread on the caller's
// descriptor, and nothing can be written.
class DescriptorStream : public TagLib::IOStream {
  public:
    DescriptorStream(int fd, std::string name) : fd_(fd), name_(std::move(name)) {
        struct stat st {};
        length_ = ::fstat(fd, &st) == 0 ? static_cast<long>(st.st_size) : 0;
    }
    TagLib::FileName name() const override { return name_.c_str(); }
    TagLib::ByteVector readBlock(unsigned long length) override {
        if (position_ >= length_) return {};
        length = std::min<unsigned long>(length, static_cast<unsigned long>(length_ - position_));
        TagLib::ByteVector block(static_cast<unsigned int>(length), '\0');
        ssize_t n = ::pread(fd_, block.data(), length, position_);
        if (n <= 0) return {};
        block.resize(static_cast<unsigned int>(n));
        position_ += n;
        return block;
    }
    void writeBlock(const TagLib::ByteVector&) override {}
    void insert(const TagLib::ByteVector&, unsigned long, unsigned long) override {}
    void removeBlock(unsigned long, unsigned long) override {}
    bool readOnly() const override { return true; }
    bool isOpen() const override { return fd_ >= 0; }
    void seek(long offset, Position p) override {
        long base = p == Beginning ? 0 : p == Current ? position_ : length_;
        position_ = std::max(0L, base + offset);
    }
    long tell() const override { return position_; }
    long length() override { return length_; }
    void truncate(long) override {}

  private:
    int fd_;
    std::string name_;
    long length_ = 0;
    long position_ = 0;
};

std::optional<double> positiveSeconds(double value) {
    if (!std::isfinite(value) || value <= 0) return std::nullopt;
    return value;
}

std::optional<double> lengthOf(int fd, std::string_view name) {
    DescriptorStream stream(fd, std::string(name));
    TagLib::FileRef ref(&stream, true, TagLib::AudioProperties::Fast);
    if (ref.isNull() || !ref.audioProperties()) return std::nullopt;
    return positiveSeconds(ref.audioProperties()->lengthInMilliseconds() / 1000.0);
}

} // namespace

} // namespace vantle

extern "C" const vantle::MediaReaders* vantleMediaReaders() {
    static const vantle::MediaReaders readers{vantle::readExif, vantle::lengthOf};
    return &readers;
}
