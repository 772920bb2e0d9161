#include "VantleStorage/Tally.h"

#include <algorithm>
#include <cerrno>

namespace vantle {

namespace {
void keepLater(std::optional<TimePoint>& mine, std::optional<TimePoint> theirs) {
    if (theirs && (!mine || *theirs > *mine)) mine = theirs;
}

void appendUpTo(std::vector<std::string>& mine, const std::vector<std::string>& theirs, std::size_t limit) {
    for (const auto& s : theirs) {
        if (mine.size() >= limit) return;
        mine.push_back(s);
    }
}
} // namespace

void Tally::join(const Tally& other) {
    files += other.files;
    folders += other.folders;
    links += other.links;
    logicalBytes += other.logicalBytes;
    allocatedBytes += other.allocatedBytes;
    reclaimableBytes += other.reclaimableBytes;
    pinnedBytes += other.pinnedBytes;
    keepLater(newestWrite, other.newestWrite);
    keepLater(newestFolderChange, other.newestFolderChange);
    meetingPoints += other.meetingPoints;
    keepsakes.insert(keepsakes.end(), other.keepsakes.begin(), other.keepsakes.end());
    privacyRefusals += other.privacyRefusals;
    ownershipRefusals += other.ownershipRefusals;
    otherErrors += other.otherErrors;
    appendUpTo(refusedSamples, other.refusedSamples, sampleLimit);
    mountPoints.insert(mountPoints.end(), other.mountPoints.begin(), other.mountPoints.end());
    cloudOnlyFolders += other.cloudOnlyFolders;
    closedLibraries += other.closedLibraries;
}

void Tally::noteWrite(TimePoint at) {
    keepLater(newestWrite, at);
}
void Tally::noteFolderChange(TimePoint at) {
    keepLater(newestFolderChange, at);
}

Refusal refusalOf(int errorNumber) {
    // EPERM is what a privacy or security policy answers (the mandatory access controls here, the
    // privacy protection elsewhere); EACCES is plain permissions.
    if (errorNumber == EPERM) return Refusal::privacy;
    if (errorNumber == EACCES) return Refusal::ownership;
    return Refusal::other;
}

void Tally::noteRefused(int errorNumber, const std::string& path) {
    switch (refusalOf(errorNumber)) {
    case Refusal::privacy:
        ++privacyRefusals;
        break;
    case Refusal::ownership:
        ++ownershipRefusals;
        break;
    case Refusal::other:
        ++otherErrors;
        break;
    }
    if (refusedSamples.size() < sampleLimit) refusedSamples.push_back(path);
}

} // namespace vantle
