// What one item's tree holds, summed by the walkers of a scan: counts, the bytes deleting it would
// and would not give back, the newest writes, and everything that stopped the walk or makes freeing
// it unsafe. A plain value; the walker that fills one owns it, and tallies are joined after the walk.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

// Why the system would not let an entry be read: its privacy or security protection (EPERM), plain
// permissions (EACCES), or anything else.
enum class Refusal { privacy, ownership, other };
VANTLE_ENUM_NAMES(Refusal, "privacy", "ownership", "other")
Refusal refusalOf(int errorNumber);

struct Tally {
    std::int64_t files = 0;
    std::int64_t folders = 0;
    std::int64_t links = 0;
    std::int64_t logicalBytes = 0;   // sum of file lengths
    std::int64_t allocatedBytes = 0; // space on disk, folders' own blocks included, each block once per scan
    std::int64_t reclaimableBytes = 0; // what deleting would give back
    std::int64_t pinnedBytes = 0;      // shared with a hard link or a clone elsewhere: would not come back
    std::optional<TimePoint> newestWrite;
    std::optional<TimePoint> newestFolderChange;
    std::int64_t meetingPoints = 0;     // sockets, where a running program may be listening
    std::vector<std::string> keepsakes; // files named like a login, relative to the anchor
    std::int64_t privacyRefusals = 0;   // refused by the system's privacy protection (EPERM)
    std::int64_t ownershipRefusals = 0; // refused by permissions (EACCES)
    std::int64_t otherErrors = 0;
    std::vector<std::string> refusedSamples; // a few refused paths, for the report
    std::vector<std::string> mountPoints;    // other disks mounted inside, never entered
    std::int64_t cloudOnlyFolders = 0;       // none on Linux: no file system here keeps folders only online
    std::int64_t closedLibraries = 0;        // packages measured whole without looking inside

    static constexpr std::size_t sampleLimit = 5;

    std::int64_t refusals() const { return privacyRefusals + ownershipRefusals + otherErrors; }
    // True when something inside could not be read or was not entered, so the size is a floor.
    bool isPartial() const { return refusals() > 0 || !mountPoints.empty(); }

    // Adds another walker's share of the same tree (or a sub-tree) to this one.
    void join(const Tally& other);
    void noteWrite(TimePoint at);
    void noteFolderChange(TimePoint at);
    void noteRefused(int errorNumber, const std::string& path);

    bool operator==(const Tally&) const = default;
};
VANTLE_RECORD_JSON(Tally, files, folders, links, logicalBytes, allocatedBytes, reclaimableBytes, pinnedBytes,
                   newestWrite, newestFolderChange, meetingPoints, keepsakes, privacyRefusals,
                   ownershipRefusals, otherErrors, refusedSamples, mountPoints, cloudOnlyFolders,
                   closedLibraries)

} // namespace vantle
