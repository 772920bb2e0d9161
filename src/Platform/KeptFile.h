// The one reader of this program's own kept files (ledger, settings, summary, fingerprints, stand-in
// records, checkups): never follows a link, never blocks on a FIFO or device, accepts a regular file
// only and reads at most a stated bound, so a hostile file in the data folder can neither hang nor
// exhaust memory. Free functions returning owned strings; thread-safe.
#pragma once
#include <cstddef>
#include <expected>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <string_view>

namespace vantle {

// The bounds a kept file is read to. The ledger and the fingerprint cache grow with use; the rest
// are small records whose honest size is far below their bound.
inline constexpr std::size_t keptFileLargestBytes = 64u << 20;
inline constexpr std::size_t keptRecordBytes = 16u << 20;

struct KeptFileFailure {
    enum class Case { missing, notAFile, tooLarge, unreadable };
    Case what;
    int error = 0; // the errno for missing and unreadable
    std::string sentence;

    static constexpr std::string_view notAFileSentence = "{path} is not a regular file, so it was not read.";
    static constexpr std::string_view tooLargeSentence =
        "{path} is larger than {bound} bytes, so it was not read.";
    static constexpr std::string_view unreadableSentence = "{path} could not be read: {reason}";
};

// The whole file, when it is a regular file of at most `boundBytes`. A missing file is the `missing`
// case (most callers treat it as empty, with no note); a link, FIFO, device or folder is `notAFile`.
std::expected<std::string, KeptFileFailure> readKeptFile(const std::filesystem::path& file,
                                                         std::size_t boundBytes = keptRecordBytes);

// The same checks on a descriptor the caller opened (with O_NONBLOCK | O_NOFOLLOW): fstat says a
// regular file, then at most `boundBytes` are read from offset 0.
std::expected<std::string, KeptFileFailure> readKeptFd(int fd, const std::filesystem::path& file,
                                                       std::size_t boundBytes = keptRecordBytes);

// The flags every kept file is opened with, added to the access mode.
inline constexpr int keptFileOpenFlags = O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

} // namespace vantle
