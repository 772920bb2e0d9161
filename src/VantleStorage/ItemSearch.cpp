#include "VantleStorage/ItemSearch.h"

#include "Platform/UserEntryOpen.h"

#include "Platform/DirectoryReader.h"
#include "Platform/SystemError.h"
#include "VantleSpec/CancelFlag.h"

#include <cerrno>
#include <fcntl.h>

namespace vantle {

ItemSearch::ItemSearch(const RuleMatcher& matcher, CancelFlag& cancel, std::optional<FileIdentity> skip)
    : matcher_(matcher), cancel_(cancel), skip_(skip) {}

bool ItemSearch::run(std::shared_ptr<const UniqueFd> anchorFd, const std::filesystem::path& anchorPath) {
    struct Folder {
        std::shared_ptr<const UniqueFd> fd;
        std::string path;
        RuleMatcher::Place place;
    };
    auto anchorStatus = statusOf(anchorFd->get(), "");
    if (!anchorStatus) {
        rootError_ = anchorStatus.error();
        return false;
    }
    const std::uint64_t device = anchorStatus->device;
    std::string rootPath = anchorPath.string();
    if (rootPath.size() > 1 && rootPath.back() == '/') rootPath.pop_back();
    std::vector<Folder> pending{{std::move(anchorFd), rootPath == "/" ? "" : rootPath, matcher_.root()}};
    bool atRoot = true;

    auto noteGap = [&](const std::string& path, int error) {
        gaps_.push_back({path, refusalOf(error), systemErrorText(error)});
    };

    while (!pending.empty()) {
        if (cancel_.isCancelled()) return true;
        Folder folder = std::move(pending.back());
        pending.pop_back();
        DirectoryReader reader(folder.fd->get());
        DirectoryReader::Entry entry;
        while (reader.next(entry)) {
            auto step = matcher_.step(folder.place, entry.name);
            if (!step.rule && !step.inside) continue;
            std::string path = folder.path + "/" + std::string(entry.name);
            auto status = statusOf(folder.fd->get(), entry.name.data());
            if (!status) {
                if (status.error() != ENOENT) noteGap(path, status.error());
                continue;
            }
            bool isFolder = status->type == EntryStatus::Type::folder;
            if (isFolder && skip_ && *skip_ == FileIdentity{status->device, status->inode}) continue;
            if (step.rule) {
                items_.push_back({*step.rule, matcher_.anchor(), folder.place.partsWith(entry.name),
                                  std::string(entry.name), path, *status, folder.fd, step.inside});
            }
            if (!step.inside || !isFolder) continue;
            if (status->device != device) {
                // An item on another disk records it itself; a folder on the way is noted here.
                if (!step.rule) mountPoints_.push_back(path);
                continue;
            }
            int fd = openatNoAtime(folder.fd->get(), entry.name.data(), O_RDONLY | O_DIRECTORY);
            if (fd < 0) {
                if (errno != ENOENT) noteGap(path, errno);
                continue;
            }
            pending.push_back(
                {std::make_shared<const UniqueFd>(fd), std::move(path), std::move(*step.inside)});
        }
        if (reader.error() != 0) {
            if (atRoot) {
                rootError_ = reader.error();
                return false;
            }
            noteGap(folder.path.empty() ? "/" : folder.path, reader.error());
        }
        atRoot = false;
    }
    return true;
}

} // namespace vantle
