#include "VantleLibrary/Facts.h"

#include "VantleLibrary/ContentTypes.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace vantle {
namespace {

std::optional<TimePoint> ms(const std::optional<TimePoint>& at) {
    if (!at) return std::nullopt;
    return toMilliseconds(*at);
}

// Attributes are read relative to the folder's descriptor where the kernel has the *xattrat calls
// (Linux 6.13), which saves looking up the whole path again for every file; else by path.
struct XattrArgs {
    std::uint64_t value;
    std::uint32_t size;
    std::uint32_t flags;
};
constexpr long getxattratCall = 464;
constexpr long listxattratCall = 465;
std::atomic<bool> atCallsMissing{false};

struct Place {
    int dirFd;
    const char* name; // relative to dirFd
    const char* path; // the same entry, absolute
};

bool atCallUnavailable() {
    // A container's system-call filter answers EPERM for calls it does not know.
    if (errno != ENOSYS && errno != EPERM) return false;
    atCallsMissing.store(true, std::memory_order_relaxed);
    return true;
}

ssize_t listAttributes(const Place& at, char* list, size_t size) {
    if (at.dirFd >= 0 && !atCallsMissing.load(std::memory_order_relaxed)) {
        long n = ::syscall(listxattratCall, at.dirFd, at.name, AT_SYMLINK_NOFOLLOW, list, size);
        if (n >= 0 || !atCallUnavailable()) return n;
    }
    return ::llistxattr(at.path, list, size);
}

ssize_t getAttribute(const Place& at, const char* attribute, char* value, size_t size) {
    if (at.dirFd >= 0 && !atCallsMissing.load(std::memory_order_relaxed)) {
        XattrArgs args{reinterpret_cast<std::uintptr_t>(value), static_cast<std::uint32_t>(size), 0};
        long n =
            ::syscall(getxattratCall, at.dirFd, at.name, AT_SYMLINK_NOFOLLOW, attribute, &args, sizeof args);
        if (n >= 0 || !atCallUnavailable()) return n;
    }
    return ::lgetxattr(at.path, attribute, value, size);
}

// One attribute's value, or nothing when it is missing, empty or unreadable.
std::optional<std::string> attribute(const Place& at, const char* name) {
    std::array<char, 4096> buffer;
    ssize_t n = getAttribute(at, name, buffer.data(), buffer.size());
    if (n <= 0) return std::nullopt;
    std::string value(buffer.data(), static_cast<size_t>(n));
    // Some writers include the C string's terminator in the value.
    while (!value.empty() && value.back() == '\0')
        value.pop_back();
    if (value.empty()) return std::nullopt;
    return value;
}

std::vector<std::string> splitTags(std::string_view text) {
    std::vector<std::string> tags;
    while (!text.empty()) {
        auto comma = text.find(',');
        auto tag = text.substr(0, comma);
        while (!tag.empty() && tag.front() == ' ')
            tag.remove_prefix(1);
        while (!tag.empty() && tag.back() == ' ')
            tag.remove_suffix(1);
        if (!tag.empty()) tags.emplace_back(tag);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    return tags;
}

} // namespace

// Most files carry no user attributes at all; one listing call tells, so the common case costs one
// system call instead of three lookups that fail.
AttributeFacts attributesOf(int dirFd, const char* name, const char* path) {
    AttributeFacts facts;
    const Place at{dirFd, name, path};
    std::array<char, 1024> names;
    ssize_t n = listAttributes(at, names.data(), names.size());
    // A list longer than the buffer: ask for each attribute by name instead.
    bool tooMany = n < 0 && errno == ERANGE;
    if (n <= 0 && !tooMany) return facts;
    std::string_view listed(names.data(), tooMany ? 0 : static_cast<size_t>(n));
    if (!tooMany && listed.find("user.xdg.") == std::string_view::npos) return facts;
    auto has = [&](std::string_view name) {
        if (tooMany) return true;
        for (size_t i = 0; i < listed.size();) {
            auto end = std::min(listed.find('\0', i), listed.size());
            if (listed.substr(i, end - i) == name) return true;
            i = end + 1;
        }
        return false;
    };
    if (has(originAttribute))
        if (auto origin = attribute(at, originAttribute)) facts.whereFroms.push_back(std::move(*origin));
    if (has(referrerAttribute))
        if (auto referrer = attribute(at, referrerAttribute);
            referrer && std::ranges::find(facts.whereFroms, *referrer) == facts.whereFroms.end())
            facts.whereFroms.push_back(std::move(*referrer));
    if (has(tagsAttribute))
        if (auto tags = attribute(at, tagsAttribute)) facts.tags = splitTags(*tags);
    return facts;
}

void AttributeFacts::applyTo(Facts& facts) const {
    facts.whereFroms = whereFroms;
    facts.tags = tags;
}

std::optional<LibraryKind> Facts::kind() const {
    if (isFolder && !isPackage) return std::nullopt;
    return kindOfContentType(contentType);
}

std::optional<TimePoint> Facts::lastTouched() const {
    std::optional<TimePoint> latest;
    for (const auto& at : {lastUsed, modified})
        if (at && (!latest || *at > *latest)) latest = at;
    return latest;
}

namespace {
// Every field but the path, the name and the sources, which the callers below copy or take over.
FileItem itemFields(const Facts& facts) {
    FileItem item;
    item.contentType = std::string(facts.contentType);
    item.kind = facts.kind();
    item.size = facts.size;
    item.created = ms(facts.created);
    item.modified = ms(facts.modified);
    item.lastOpened = ms(facts.lastUsed);
    item.added = ms(facts.added);
    item.isScreenshot = facts.isScreenshot;
    item.length = facts.duration;
    return item;
}
} // namespace

FileItem toFileItem(const Facts& facts) {
    auto item = itemFields(facts);
    item.path = facts.path;
    item.name = facts.name;
    item.sources = facts.whereFroms;
    return item;
}

FileItem toFileItem(Facts&& facts) {
    auto item = itemFields(facts);
    item.path = std::move(facts.path);
    item.name = std::move(facts.name);
    item.sources = std::move(facts.whereFroms);
    return item;
}

bool isScreenshotName(std::string_view name, std::string_view contentType) {
    if (kindOfContentType(contentType) != LibraryKind::images) return false;
    for (std::string_view prefix : {"Screenshot from ", "Screenshot_", "Screenshot ", "Screen Shot "})
        if (name.starts_with(prefix)) return true;
    return false;
}

Facts factsOf(std::string path, std::string_view name, const EntryStatus& status) {
    Facts facts;
    facts.path = std::move(path);
    facts.name = std::string(name);
    facts.isFolder = status.type == EntryStatus::Type::folder;
    facts.isPackage = facts.isFolder && isAppBundleName(name);
    facts.contentType =
        SharedText::naming(facts.isFolder && !facts.isPackage ? folderContentType : contentTypeForName(name));
    facts.size = static_cast<std::int64_t>(status.sizeBytes);
    facts.onDisk = static_cast<std::int64_t>(status.allocatedBytes);
    if (facts.isFolder) facts.size = facts.onDisk = 0; // a folder's own length says nothing about its files
    facts.created = status.born;
    facts.modified = status.modified;
    facts.added = status.born ? *status.born : status.changed;
    facts.lastUsed = status.accessed;
    facts.isScreenshot = !facts.isFolder && isScreenshotName(name, facts.contentType);
    return facts;
}

} // namespace vantle
