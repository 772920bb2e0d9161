#include "VantleLiteLive/HomeTrash.h"

#include "Platform/DirectoryReader.h"
#include "Platform/EntryMove.h"
#include "Platform/EntryStatus.h"
#include "Platform/RenameNoReplace.h"
#include "Platform/SystemError.h"
#include "Platform/UserEntryOpen.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/Uuid.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

bool inside(const fs::path& path, const fs::path& folder) {
    auto p = path.string(), f = folder.string();
    if (f == "/") return p.size() > 1 && p.front() == '/';
    return p.size() > f.size() + 1 && p.compare(0, f.size(), f) == 0 && p[f.size()] == '/';
}

std::string nameOf(const fs::path& path) {
    auto name = path.filename().string();
    return name.empty() ? path.string() : name;
}

// "report.pdf", then "report.2.pdf", "report.3.pdf", ...: the form file managers give a second item
// of the same name in the Trash.
std::string uniqueName(const std::string& name, int n) {
    if (n == 1) return name;
    fs::path p(name);
    return p.stem().string() + "." + std::to_string(n) + p.extension().string();
}

// A trash info file's Path key: RFC 2396 escaping of everything but unreserved bytes and "/", so the
// desktop's file manager reads the place back.
std::string percentEncoded(const std::string& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

// DeletionDate is local time without a zone: that is how the desktop's trash tools read it back.
std::string localDate(TimePoint at) {
    auto t = std::chrono::system_clock::to_time_t(at);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &tm);
    return buffer;
}

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        auto n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

std::string couldNotMove(const fs::path& item, int err) {
    return fillIn("{name} could not be moved to the Trash: {reason}",
                  {{"name", nameOf(item)}, {"reason", systemErrorText(err)}});
}

// The highest folder above `item` that still lies on the item's disk: the disk's top, where its
// own trash folder lives.
fs::path topOfDisk(const fs::path& item, dev_t device) {
    auto top = item.parent_path();
    while (top.has_parent_path() && top != top.root_path()) {
        struct stat st {};
        if (::lstat(top.parent_path().c_str(), &st) != 0 || st.st_dev != device) break;
        top = top.parent_path();
    }
    return top;
}

std::uint64_t treeBytes(int dirFd, int depth) {
    if (depth > 256) return 0;
    std::uint64_t total = 0;
    DirectoryReader reader(dirFd);
    DirectoryReader::Entry entry;
    while (reader.next(entry)) {
        if (entry.name == "." || entry.name == "..") continue;
        std::string name(entry.name);
        auto status = statusOf(dirFd, name.c_str());
        if (!status) continue;
        if (status->type == EntryStatus::Type::folder) {
            int fd = openatNoAtime(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (fd < 0) continue;
            UniqueFd child(fd);
            total += treeBytes(child.get(), depth + 1);
        } else if (status->type == EntryStatus::Type::file) {
            total += status->sizeBytes;
        }
    }
    return total;
}

} // namespace

std::uint64_t HomeTrash::bytesOf(const fs::path& item) {
    auto canonical = canonicalForm(item);
    auto parent = openFolderAt(canonical.parent_path());
    if (!parent) return 0;
    auto name = canonical.filename().string();
    auto status = statusOf(parent->get(), name.c_str());
    if (!status) return 0;
    if (status->type != EntryStatus::Type::folder)
        return status->type == EntryStatus::Type::file ? status->sizeBytes : 0;
    int fd = openatNoAtime(parent->get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return 0;
    UniqueFd folder(fd);
    return treeBytes(folder.get(), 0);
}

HomeTrash::HomeTrash(Options options)
    : options_(std::move(options)), canonicalHome_(canonicalForm(options_.home)) {}

std::optional<std::string> HomeTrash::refusal(const fs::path& path) const {
    std::lock_guard lock(mutex_);
    return refusalOf(canonicalForm(path));
}

std::optional<std::string> HomeTrash::refusalOf(const fs::path& canonical) const {
    auto name = nameOf(canonical);
    for (const auto& folder : options_.appFolders)
        if (inside(canonical, canonicalForm(folder)) && canonical.string().ends_with(".app"))
            return std::nullopt;
    if (canonical == canonicalHome_) return fillIn(ownFolder, {{"name", name}});
    if (!inside(canonical, canonicalHome_)) return fillIn(notInHome, {{"name", name}});
    for (const auto& library : options_.libraryFolders) {
        auto folder = canonicalHome_ / library;
        if (canonical == folder || inside(canonical, folder)) return fillIn(inLibrary, {{"name", name}});
    }
    for (const auto& own : options_.standardFolders)
        if (canonical == canonicalHome_ / own) return fillIn(ownFolder, {{"name", name}});
    return std::nullopt;
}

HomeTrash::Receipt HomeTrash::trash(const std::vector<fs::path>& paths) {
    std::lock_guard lock(mutex_);
    Receipt receipt{newUuid(), {}, {}};
    for (const auto& path : paths) {
        auto canonical = canonicalForm(path);
        if (auto refused = refusalOf(canonical)) {
            receipt.refused.push_back(*refused);
            continue;
        }
        struct stat st {};
        if (::lstat(canonical.c_str(), &st) != 0) {
            receipt.refused.push_back(fillIn(noLongerThere, {{"name", nameOf(canonical)}}));
            continue;
        }
        auto moved = moveOne(canonical);
        if (!moved) {
            receipt.refused.push_back(moved.error());
            continue;
        }
        if (options_.recordMove) options_.recordMove(moved->from);
        receipt.moved.push_back(std::move(*moved));
    }
    undoable_.push_back(receipt);
    return receipt;
}

std::expected<HomeTrash::Moved, std::string> HomeTrash::moveOne(const fs::path& canonical) {
    auto place = canonicalForm(options_.place);
    if (options_.layout == Layout::plain) return moveInto(canonical, place, {});

    // An item on another disk than the home's trash goes to that disk's own trash, so it is never
    // copied across disks; its Path is then written relative to the disk's top.
    struct stat item {
    }, trash{};
    if (::lstat(canonical.c_str(), &item) != 0) return std::unexpected(couldNotMove(canonical, errno));
    // The trash folder may not exist yet: the disk it will be made on is that of its nearest folder.
    auto existing = place;
    while (::stat(existing.c_str(), &trash) != 0) {
        if (!existing.has_parent_path() || existing == existing.parent_path())
            return std::unexpected(couldNotMove(canonical, errno));
        existing = existing.parent_path();
    }
    if (item.st_dev == trash.st_dev) return moveInto(canonical, place, {});
    auto top = topOfDisk(canonical, item.st_dev);
    return moveInto(canonical, top / (".Trash-" + std::to_string(::getuid())), top);
}

std::expected<HomeTrash::Moved, std::string>
HomeTrash::moveInto(const fs::path& canonical, const fs::path& trash, const fs::path& infoPathBase) {
    auto name = canonical.filename().string();
    auto parent = openFolderAt(canonical.parent_path());
    if (!parent) return std::unexpected(couldNotMove(canonical, parent.error()));
    bool plain = options_.layout == Layout::plain;
    // The trash folders are the user's alone: other users must not see what was thrown away.
    auto filesDir = openFolderAt(plain ? trash : trash / "files", true, 0700);
    if (!filesDir) return std::unexpected(couldNotMove(canonical, filesDir.error()));
    UniqueFd infoDir;
    if (!plain) {
        auto opened = openFolderAt(trash / "info", true, 0700);
        if (!opened) return std::unexpected(couldNotMove(canonical, opened.error()));
        infoDir = std::move(*opened);
    }
    auto recordedPath =
        infoPathBase.empty() ? canonical.string() : canonical.lexically_relative(infoPathBase).string();
    std::string info = "[Trash Info]\nPath=" + percentEncoded(recordedPath) +
                       "\nDeletionDate=" + localDate(options_.clock()) + "\n";

    for (int n = 1; n < 10000; ++n) {
        auto unique = uniqueName(name, n);
        std::string infoName = unique + ".trashinfo";
        if (!plain) {
            // The info file is made first and exclusively: it is what reserves the name, so two
            // programs trashing at once never take the same one.
            int fd = ::openat(infoDir.get(), infoName.c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
            if (fd < 0) {
                if (errno == EEXIST) continue;
                return std::unexpected(couldNotMove(canonical, errno));
            }
            UniqueFd infoFd(fd);
            if (!writeAll(fd, info) || ::fsync(fd) != 0) {
                int err = errno ? errno : EIO;
                ::unlinkat(infoDir.get(), infoName.c_str(), 0);
                return std::unexpected(couldNotMove(canonical, err));
            }
        }
        auto moved = renameNoReplace(parent->get(), name.c_str(), filesDir->get(), unique.c_str());
        if (moved) {
            Moved record{canonical, (plain ? trash : trash / "files") / unique, {}};
            if (!plain) record.info = trash / "info" / infoName;
            return record;
        }
        if (!plain) ::unlinkat(infoDir.get(), infoName.c_str(), 0);
        if (moved.error() != EEXIST) return std::unexpected(couldNotMove(canonical, moved.error()));
    }
    return std::unexpected(couldNotMove(canonical, EEXIST));
}

std::vector<HomeTrash::Moved> HomeTrash::putBack(const std::string& receiptId) {
    std::lock_guard lock(mutex_);
    std::vector<Moved> back;
    auto it =
        std::find_if(undoable_.begin(), undoable_.end(), [&](const Receipt& r) { return r.id == receiptId; });
    if (it == undoable_.end()) return back;
    auto receipt = std::move(*it);
    undoable_.erase(it);
    for (const auto& moved : receipt.moved) {
        auto trashDir = openFolderAt(moved.to.parent_path());
        if (!trashDir || !entryExists(trashDir->get(), moved.to.filename().string())) continue;
        auto home = openFolderAt(moved.from.parent_path(), true);
        if (!home || entryExists(home->get(), moved.from.filename().string())) continue;
        // No replace even if something appears at the former place between the check and the move.
        if (!renameNoReplace(trashDir->get(), moved.to.filename().c_str(), home->get(),
                             moved.from.filename().c_str()))
            continue;
        if (!moved.info.empty())
            if (auto info = openFolderAt(moved.info.parent_path()))
                ::unlinkat(info->get(), moved.info.filename().c_str(), 0);
        back.push_back(moved);
    }
    return back;
}

std::vector<HomeTrash::Receipt> HomeTrash::undoable() const {
    std::lock_guard lock(mutex_);
    return undoable_;
}

} // namespace vantle
