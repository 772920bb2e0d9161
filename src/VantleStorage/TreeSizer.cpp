#include "VantleStorage/TreeSizer.h"

#include "Platform/DirectoryReader.h"
#include "Platform/SharedExtents.h"
#include "Platform/UserEntryOpen.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>

namespace vantle {

namespace {

// Files that hold a login or other data nothing rebuilds. Entries with a folder must end the path.
constexpr std::array<std::string_view, 6> loginLikePaths = {
    ".cargo/credentials.toml",          ".cargo/config.toml", ".cache/huggingface/token",
    ".cache/huggingface/stored_tokens", "credentials.json",   ".credentials.json",
};

bool looksLikeLogin(std::string_view folderPath, std::string_view name) {
    for (std::string_view known : loginLikePaths) {
        auto slash = known.rfind('/');
        std::string_view knownName = slash == std::string_view::npos ? known : known.substr(slash + 1);
        if (knownName != name) continue;
        if (slash == std::string_view::npos) return true;
        // "/x/.cargo" must end the folder path for ".cargo/credentials.toml".
        std::string_view knownFolder = known.substr(0, slash);
        if (folderPath.size() > knownFolder.size() && folderPath.ends_with(knownFolder) &&
            folderPath[folderPath.size() - knownFolder.size() - 1] == '/')
            return true;
    }
    return false;
}

std::string joined(const std::string& folder, std::string_view name) {
    std::string out;
    out.reserve(folder.size() + 1 + name.size());
    out += folder;
    out += '/';
    out += name;
    return out;
}

} // namespace

TreeSizer::TreeSizer(ScanLedger& ledger, std::span<const SizingTarget> targets)
    : ledger_(ledger), targets_(targets), tallies_(targets.size()) {}

void TreeSizer::run(WorkQueue<SizingTask>& queue) {
    std::deque<SizingTask> pending;
    while (auto task = queue.take()) {
        pending.push_back(std::move(*task));
        while (!pending.empty()) {
            if (ledger_.cancelled()) {
                pending.clear();
                queue.stop();
                return;
            }
            SizingTask next = std::move(pending.back());
            pending.pop_back();
            walkFolder(next, pending);
            // The oldest waiting folder is the shallowest, so likely the most work to hand over.
            if (pending.size() > 1 && queue.hungry()) {
                queue.push(std::move(pending.front()));
                pending.pop_front();
            }
        }
    }
}

void TreeSizer::countFolder(Tally& tally, const EntryStatus& status) {
    // A folder's own blocks go with it when it is deleted; folders are never hard-linked or cloned.
    ++tally.folders;
    tally.noteFolderChange(status.modified);
    auto blocks = static_cast<std::int64_t>(status.allocatedBytes);
    tally.allocatedBytes += blocks;
    tally.reclaimableBytes += blocks;
}

void TreeSizer::countEntry(std::size_t item, int dirFd, const char* name, const EntryStatus& status,
                           const std::string& folderPath) {
    Tally& tally = tallies_[item];
    const SizingTarget& target = targets_[item];
    if (status.type == EntryStatus::Type::socket) {
        ++tally.meetingPoints;
        return;
    }
    ++tally.files;
    tally.noteWrite(status.modified);
    if (target.notesKeepsakes && looksLikeLogin(folderPath, name)) {
        auto full = joined(folderPath, name);
        tally.keepsakes.push_back(full.size() > target.anchorPathLength ? full.substr(target.anchorPathLength)
                                                                        : full);
    }
    if (status.links > 1 && !ledger_.noteHardLink({status.device, status.inode}, item, status.links,
                                                  static_cast<std::int64_t>(status.allocatedBytes)))
        return;
    tally.logicalBytes += static_cast<std::int64_t>(status.sizeBytes);

    auto allocated = static_cast<std::int64_t>(status.allocatedBytes);
    std::int64_t counted = allocated; // what this meeting adds to the scan's space
    std::int64_t pinned = 0;
    if (status.links > 1) {
        // Another name for the same blocks may stay behind, so deleting this one need not free them.
        pinned = allocated;
    } else if (target.sharesBlocks && allocated > 0 && status.type == EntryStatus::Type::file) {
        // Reading extents does not touch the access time, but opening must not either on file systems
        // that count an open as a use.
        auto file = openUserEntry(dirFd, name, O_RDONLY | O_NONBLOCK | O_NOCTTY);
        if (file) {
            if (auto extents = sharedExtents(file->get())) {
                for (const auto& extent : *extents) {
                    auto length = static_cast<std::int64_t>(extent.lengthBytes);
                    // Blocks a clone shares are on disk once: the first copy met carries them, and
                    // they are pinned, since deleting one copy leaves the others holding them.
                    if (ledger_.firstClone(status.device, extent.physical))
                        pinned += length;
                    else
                        counted -= length;
                }
                counted = std::max<std::int64_t>(counted, 0);
                pinned = std::min(pinned, counted);
            }
        }
    }
    tally.allocatedBytes += counted;
    tally.pinnedBytes += pinned;
    tally.reclaimableBytes += counted - pinned;
}

void TreeSizer::walkFolder(SizingTask& task, std::deque<SizingTask>& pending) {
    Tally& tally = tallies_[task.item];
    const SizingTarget& target = targets_[task.item];
    int fd = openatNoAtime(task.parent->get(), task.name.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) {
        // Gone since its parent was read: nothing left to count.
        if (errno != ENOENT) tally.noteRefused(errno, task.path);
        return;
    }
    auto self = std::make_shared<const UniqueFd>(fd);
    // The parent is no longer needed by this task; dropping it lets it close once its last child ran.
    task.parent.reset();

    DirectoryReader reader(fd, bufferBytes);
    DirectoryReader::Entry entry;
    std::int64_t entries = 0;
    std::int64_t bytesBefore = tally.allocatedBytes;
    while (reader.next(entry)) {
        ++entries;
        std::optional<RuleMatcher::Place> inside;
        if (task.place) {
            auto step = target.matcher->step(*task.place, entry.name);
            if (step.rule) continue; // an item of its own, measured under its own rule
            inside = std::move(step.inside);
        }
        if (entry.type == DT_LNK) {
            ++tally.links;
            continue;
        }
        // d_name is NUL-terminated in the reader's buffer.
        const char* name = entry.name.data();
        auto status = statusOf(fd, name);
        if (!status) {
            if (status.error() != ENOENT) tally.noteRefused(status.error(), joined(task.path, entry.name));
            continue;
        }
        switch (status->type) {
        case EntryStatus::Type::link:
            ++tally.links;
            break;
        case EntryStatus::Type::folder: {
            if (status->device != target.device) {
                tally.mountPoints.push_back(joined(task.path, entry.name));
                break;
            }
            if (ledger_.isClaimed({status->device, status->inode})) break;
            countFolder(tally, *status);
            pending.push_back(
                {task.item, self, std::string(entry.name), joined(task.path, entry.name), std::move(inside)});
            break;
        }
        default:
            if (status->device != target.device) {
                tally.mountPoints.push_back(joined(task.path, entry.name));
                break;
            }
            countEntry(task.item, fd, name, *status, task.path);
            break;
        }
    }
    if (reader.error() != 0) tally.noteRefused(reader.error(), task.path);
    ledger_.noteProgress(entries, tally.allocatedBytes - bytesBefore);
}

Tally TreeSizer::measureFolder(ScanLedger& ledger, int parentFd, const std::string& name,
                               const std::string& path, bool notesKeepsakes) {
    auto status = statusOf(parentFd, name.c_str());
    Tally tally;
    if (!status) {
        tally.noteRefused(status.error(), path);
        return tally;
    }
    if (status->type != EntryStatus::Type::folder) {
        tally.otherErrors++;
        return tally;
    }
    UniqueFd parent(::fcntl(parentFd, F_DUPFD_CLOEXEC, 0));
    SizingTarget target{.device = status->device,
                        .anchorPathLength = path.size() - std::min(path.size(), name.size()),
                        .sharesBlocks = parent && fileSystemSharesBlocks(parent.get()),
                        .notesKeepsakes = notesKeepsakes};
    TreeSizer sizer(ledger, std::span(&target, 1));
    WorkQueue<SizingTask> queue(1);
    queue.push({0, std::make_shared<const UniqueFd>(std::move(parent)), name, path, std::nullopt});
    sizer.run(queue);
    tally = std::move(sizer.tallies()[0]);
    countFolder(tally, *status);
    return tally;
}

} // namespace vantle
