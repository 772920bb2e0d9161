#include "VantleStorage/OwnersRecord.h"

#include "Platform/AtomicFile.h"
#include "Platform/UniqueFd.h"

#include <fcntl.h>
#include <memory>
#include <plist/plist.h>

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
    UniqueFd folder(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return std::nullopt;
    UniqueFd file(
        ::openat(folder.get(), "info.plist", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) return std::nullopt;
    auto text = readWholeFd(file.get());
    if (!text || text->empty() || text->size() > largestRecord) return std::nullopt;
    plist_t parsed = nullptr;
    plist_from_memory(text->data(), static_cast<uint32_t>(text->size()), &parsed);
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
