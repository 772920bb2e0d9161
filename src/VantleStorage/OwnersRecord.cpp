#include "VantleStorage/OwnersRecord.h"

#include "Platform/UniqueFd.h"
#include "Platform/UserEntryOpen.h"

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <memory>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace {
// A build folder's info.plist is a few hundred bytes; anything far larger is not Xcode's.
constexpr std::size_t largestRecord = 1 << 20;
// Property-list dates count from the first moment of 2001, UTC.
constexpr std::chrono::seconds plistEpoch{978'307'200};

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
} // namespace

std::optional<TimePoint> xcodeLastAccessed(int parentFd, const std::string& name) {
    // Reading Xcode's record is not the user opening the project: neither access time may move.
    UniqueFd folder(openatNoAtime(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY));
    if (!folder) return std::nullopt;
    auto file = openUserEntry(folder.get(), "info.plist", O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!file) return std::nullopt;
    // Only a regular file of a sensible size is read at all: a device or a huge sparse file in its
    // place must not be read whole.
    struct stat st {};
    if (::fstat(file->get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0 ||
        static_cast<std::uint64_t>(st.st_size) > largestRecord)
        return std::nullopt;
    std::string text(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        auto got = ::read(file->get(), text.data() + filled, text.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        filled += static_cast<std::size_t>(got);
    }
    text.resize(filled);
    if (text.empty()) return std::nullopt;
    plist_t parsed = nullptr;
    plist_from_memory(text.data(), static_cast<uint32_t>(text.size()), &parsed);
    std::unique_ptr<void, PlistFree> root(parsed);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
    plist_t date = plist_dict_get_item(root.get(), "LastAccessedDate");
    if (!date || plist_get_node_type(date) != PLIST_DATE) return std::nullopt;
    int32_t seconds = 0;
    int32_t micros = 0;
    plist_get_date_val(date, &seconds, &micros);
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(
        plistEpoch + std::chrono::seconds(seconds) + std::chrono::microseconds(micros)));
}

} // namespace vantle
