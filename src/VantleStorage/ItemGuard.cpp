#include "VantleStorage/ItemGuard.h"

#include "Platform/BeneathOpen.h"
#include "Platform/RenameNoReplace.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <fcntl.h>

namespace vantle {

namespace {

// Places nothing here ever changes, whatever a rule's wildcard reaches: keys, keychains, password
// stores and synced cloud folders. Compared one component at a time, ignoring case.
constexpr std::array<std::string_view, 7> neverChanged = {
    ".ssh", ".gnupg", "Keychains", ".password-store", "Mobile Documents", "CloudStorage", ".pki",
};

bool sameFolded(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::ranges::equal(a, b, [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string withoutDataVolume(std::string path) {
    constexpr std::string_view dataVolume = "/System/Volumes/Data/";
    if (path.starts_with(dataVolume)) path.erase(0, dataVolume.size() - 1);
    return path;
}

std::vector<std::string> componentsOf(std::string_view relative) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= relative.size()) {
        auto slash = relative.find('/', start);
        auto end = slash == std::string_view::npos ? relative.size() : slash;
        if (end > start) out.emplace_back(relative.substr(start, end - start));
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return out;
}

} // namespace

std::expected<UniqueFd, int> openHomeFolder(const std::filesystem::path& home) {
    if (!home.is_absolute()) return std::unexpected(EINVAL);
    UniqueFd root(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) return std::unexpected(errno);
    return openBeneath(root.get(), home.lexically_normal().relative_path(), O_RDONLY | O_DIRECTORY);
}

ItemGuard::ItemGuard(const RuleTable& table, std::filesystem::path home)
    : table_(&table), home_(std::move(home)) {}

std::expected<ItemGuard::Admitted, ItemGuard::Refusal>
ItemGuard::admit(std::string_view ruleId, std::span<const std::string> parts, FileIdentity scanned,
                 std::optional<TimePoint> scannedBirth, EntryKind scannedKind) const {
    auto refuse = [](std::string_view words, bool lasting, std::string_view rule = {}) {
        return std::unexpected(Refusal{fillIn(words, {{"rule", rule}}), lasting});
    };
    // 1. Only rules that let the system free anything.
    auto index = table_->indexOf(ruleId);
    if (!index || !(*table_)[*index].letsSystemFree()) return refuse(neverDeletesWords, true);
    const Rule& rule = (*table_)[*index];
    // 2. Components a rule could have produced.
    if (parts.size() < 2 ||
        !std::ranges::all_of(parts, [](const std::string& p) { return isValidComponent(p); }))
        return refuse(badLocationWords, true);
    // 3. The rule still matches them.
    if (!table_->matches(*index, parts)) return refuse(ruleMismatchWords, true, rule.title);
    // 4. Never inside a place nothing here changes.
    for (const auto& part : parts)
        for (auto never : neverChanged)
            if (sameFolded(part, never)) return refuse(neverChangedPlaceWords, true);
    // 5. The item the scan saw was not a link.
    if (scannedKind == EntryKind::link) return refuse(isLinkWords, true);

    Admitted out;
    out.ruleIndex = *index;
    out.rule = &rule;
    out.name = parts.back();
    // 6. The home folder, no link anywhere on its path.
    auto home = openHomeFolder(home_);
    if (!home) return refuse(homeUnopenedWords, false);
    out.home.descriptor = std::move(*home);
    auto homeStatus = statusOf(out.home.get(), "");
    if (!homeStatus) return refuse(homeUnopenedWords, false);
    out.homeDevice = homeStatus->device;
    // 7. Each folder on the way, relative to the one before, never through a link.
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        int fd = ::openat(out.parent(), parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) return refuse(wayBrokenWords, false);
        out.way.push_back(Folder{UniqueFd(fd)});
    }
    // 8. The item's status through its parent.
    auto status = statusOf(out.parent(), out.name.c_str());
    if (!status) return refuse(goneWords, false);
    out.status = *status;
    // 5 and 9. A link is never followed, whenever it became one.
    if (status->type == EntryStatus::Type::link) return refuse(becameLinkWords, false);
    if (status->type != EntryStatus::Type::file && status->type != EntryStatus::Type::folder)
        return refuse(notOrdinaryWords, false);
    // 10. On the home folder's disk.
    if (status->device != out.homeDevice) return refuse(otherDiskWords, false);
    auto parentPath = pathOfDescriptor(out.parent());
    auto homePath = pathOfDescriptor(out.home.get());
    if (!parentPath || !homePath) return refuse(replacedWhileCheckingWords, false);
    out.realPath = withoutDataVolume(*parentPath) + "/" + out.name;
    if (status->type == EntryStatus::Type::folder) {
        // 11. Opened as the folder it was a moment ago.
        int fd = ::openat(out.parent(), out.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) return refuse(notAFolderNowWords, false);
        out.folder = Folder{UniqueFd(fd)};
        auto opened = statusOf(out.folder->get(), "");
        if (!opened || opened->device != status->device || opened->inode != status->inode)
            return refuse(replacedWhileCheckingWords, false);
        // 12. Where it really is still lies where the rule allows.
        auto real = pathOfDescriptor(out.folder->get());
        if (!real) return refuse(outsideRuleWords, false, rule.title);
        out.realPath = withoutDataVolume(*real);
    }
    auto homeReal = withoutDataVolume(*homePath);
    std::string_view real = out.realPath;
    if (!real.starts_with(homeReal + "/") ||
        !table_->matches(*index, componentsOf(real.substr(homeReal.size() + 1))))
        return refuse(outsideRuleWords, false, rule.title);
    // 13. The very item the scan measured.
    if (FileIdentity{status->device, status->inode} != scanned) return refuse(notScannedItemWords, false);
    // Kept dates are whole milliseconds, so the two are compared at that grain.
    if (scannedBirth && status->born && toMilliseconds(*status->born) != toMilliseconds(*scannedBirth))
        return refuse(notScannedItemWords, false);
    return out;
}

} // namespace vantle
