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

// A large kept file's bytes: the file mapped read-only, or where it cannot be, read into memory taken
// from the system in one piece (large pages where it allows), not a string that is zeroed and then
// faulted in a page at a time. For a kept file of tens of megabytes read on every run (the catalog
// index), that setting up cost more than the read. Move-only; may be read from several threads once made.
class KeptBytes {
  public:
    KeptBytes() = default;
    ~KeptBytes();
    KeptBytes(KeptBytes&& other) noexcept;
    KeptBytes& operator=(KeptBytes&& other) noexcept;
    KeptBytes(const KeptBytes&) = delete;
    KeptBytes& operator=(const KeptBytes&) = delete;

    std::string_view view() const { return {static_cast<const char*>(base_), size_}; }
    // Gives the memory of the bytes before `offset` back to the system, in whole pages, as a reader
    // that has decoded them moves on; they read as zeros afterwards. Not while another thread reads.
    void letGoBefore(std::size_t offset);

  private:
    friend std::expected<KeptBytes, KeptFileFailure> readLargeKeptFile(const std::filesystem::path&,
                                                                       std::size_t);
    void* base_ = nullptr;
    std::size_t mapped_ = 0;
    std::size_t size_ = 0;
};

// readKeptFile's checks and answers, into KeptBytes.
std::expected<KeptBytes, KeptFileFailure> readLargeKeptFile(const std::filesystem::path& file,
                                                            std::size_t boundBytes);

// The flags every kept file is opened with, added to the access mode.
inline constexpr int keptFileOpenFlags = O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

} // namespace vantle
