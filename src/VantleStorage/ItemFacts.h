// What the scan learned about one item that the cleaner needs later: what kind of entry it is, which
// file it was (device and inode, so a replacement is caught), its tree's tally and its dates. Plain
// values, freely copied.
#pragma once
#include "Platform/EntryStatus.h"
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/Tally.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace vantle {

enum class EntryKind { file, folder, link, other };
VANTLE_ENUM_NAMES(EntryKind, "file", "folder", "link", "other")

inline EntryKind kindOf(EntryStatus::Type type) {
    switch (type) {
    case EntryStatus::Type::file:
        return EntryKind::file;
    case EntryStatus::Type::folder:
        return EntryKind::folder;
    case EntryStatus::Type::link:
        return EntryKind::link;
    default:
        return EntryKind::other;
    }
}

// Which file an item was when it was seen: the same path with another identity is another file.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    bool operator==(const FileIdentity&) const = default;
};
VANTLE_RECORD_JSON(FileIdentity, device, inode)

struct ItemFacts {
    EntryKind kind = EntryKind::other;
    FileIdentity identity;
    Tally tally;
    std::optional<TimePoint> modified;     // the item's own last change
    std::optional<TimePoint> added;        // arrival in its folder: birth time, else status change
    std::optional<TimePoint> ownersRecord; // the owner's own record of last use, where it keeps one
    bool wasInspected = false;             // the scan looked inside (false for links, other disks)
    std::optional<TimePoint> opened;       // last access
    bool isEncryptedImage = false;         // a disk image whose contents are encrypted
    std::optional<TimePoint> born;         // when it came to be, where the file system keeps it
    bool operator==(const ItemFacts&) const = default;
};
VANTLE_RECORD_JSON(ItemFacts, kind, identity, tally, modified, added, ownersRecord, wasInspected, opened,
                   isEncryptedImage, born)

// The item's last change: the newest of its own change and of everything written inside it; none
// when no date was read.
inline std::optional<TimePoint> lastChangeOf(const ItemFacts& facts) {
    std::optional<TimePoint> out;
    for (const auto& d : {facts.modified, facts.tally.newestWrite, facts.tally.newestFolderChange})
        if (d && (!out || *d > *out)) out = d;
    return out;
}

} // namespace vantle

template <> struct std::hash<vantle::FileIdentity> {
    std::size_t operator()(const vantle::FileIdentity& id) const noexcept {
        return std::hash<std::uint64_t>{}(id.inode * 0x9E3779B97F4A7C15ULL ^ id.device);
    }
};
