#include "VantleStorage/Readiness.h"

#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <chrono>

namespace vantle {

namespace {

using namespace std::chrono_literals;

constexpr auto quietTime = 10min;
constexpr auto unknownOwnerQuietTime = 24h;

constexpr std::string_view loginAboutItem =
    "It holds \"{name}\", which looks like a login or other data nothing rebuilds, so the whole folder is "
    "left alone.";
constexpr std::string_view tooYoungWords =
    "It was opened or changed {ago}; it is left alone for {days} days after that.";

std::string agoWords(TimePoint then, TimePoint now) {
    auto days = std::chrono::duration_cast<std::chrono::days>(now - then).count();
    if (days <= 0) return "today";
    return days == 1 ? "1 day ago" : std::to_string(days) + " days ago";
}

Readiness found(InUse finding, bool ofTheRest, std::string_view name = {}) {
    Readiness::Reason reason{sentenceOf(finding, ofTheRest, name),
                             ofTheRest || wordsOf(finding).aboutItem.empty()};
    switch (finding) {
    case InUse::openFilesUnlisted:
    case InUse::ageUnreadable:
    case InUse::partsUnreadable:
        return Readiness::unknown(std::move(reason));
    case InUse::couldNotOpen:
    case InUse::readingRefused:
    case InUse::needsFullDiskAccess:
        return Readiness::unreadable(std::move(reason));
    default:
        return Readiness::notNow(std::move(reason));
    }
}

} // namespace

InUseWords wordsOf(InUse finding) {
    switch (finding) {
    case InUse::appRunning:
        return {"Its app is running.", "The rest is in use by the app it belongs to."};
    case InUse::processRunning:
        return {"", "The rest is in use by {name}"};
    case InUse::openFilesUnlisted:
        return {"Vantle could not check which files are open, so it cannot tell whether this is in use.",
                "Vantle could not check which files are open, so it cannot tell whether the rest is in use."};
    case InUse::heldOpen:
        return {"A running program has a file open in it, runs from it or works in it.",
                "The rest is in use by a running program."};
    case InUse::writtenRecently:
        return {"It was written to in the last few minutes, so something is using it.",
                "The rest was written to in the last few minutes, so something is using it."};
    case InUse::unknownOwnerChangedToday:
        return {"It was written to in the last day and its name does not say which app owns it.",
                "The rest changed in the last day, and its name does not say which app owns it."};
    case InUse::ageUnreadable:
        return {"Vantle could not read when it was last used.",
                "Vantle could not read when the rest was last used."};
    case InUse::couldNotOpen:
        return {"Vantle could not open it to see whether it is still in use.",
                "Vantle could not open the rest to see whether it is still in use."};
    case InUse::encryptedImage:
        return {"It is an encrypted disk image, which people keep files of their own in.",
                "The rest is an encrypted disk image, which people keep files of their own in."};
    case InUse::loginLike:
        return {loginAboutItem,
                "The rest holds \"{name}\", which looks like a login or other data nothing rebuilds."};
    case InUse::socket:
        return {"It holds a socket, where a running program may be listening.",
                "The rest holds a socket, where a running program may be listening."};
    case InUse::cloudOnly:
        return {"Part of it is kept in the cloud.", "The rest is partly kept in the cloud."};
    case InUse::diskInside:
        return {"Another disk is attached inside it.", "The rest has another disk attached inside it."};
    case InUse::partsUnreadable:
        return {"Parts of it could not be read, so Vantle cannot tell whether it is in use.",
                "Parts of the rest could not be read, so Vantle cannot tell whether it is in use."};
    case InUse::readingRefused:
        return {"This Mac did not let Vantle read it.", "This Mac did not let Vantle read the rest."};
    case InUse::needsFullDiskAccess:
        return {"It can only be read with Full Disk Access.",
                "The rest can only be read with Full Disk Access."};
    case InUse::otherDisk:
        return {"", "The rest is on another disk than the home folder."};
    case InUse::notOrdinary:
        return {"It is not an ordinary file or folder.", "The rest is not an ordinary file or folder."};
    case InUse::link:
        return {"It is a link to somewhere else, and Vantle never follows a link.",
                "The rest is a link to somewhere else, and Vantle never follows a link."};
    case InUse::tooYoung:
        return {tooYoungWords, tooYoungWords};
    }
    return {};
}

std::string sentenceOf(InUse finding, bool ofTheRest, std::string_view name) {
    auto words = wordsOf(finding);
    auto chosen = ofTheRest || words.aboutItem.empty() ? words.aboutRest : words.aboutItem;
    return fillIn(chosen, {{"name", name}});
}

Readiness checkReadiness(const Rule& rule, const ItemNow& item, const RunningApps& running, TimePoint now,
                         bool ofTheRest) {
    const auto& pre = rule.precondition;
    const ItemFacts& facts = item.facts;
    const Tally& t = facts.tally;

    for (const auto& app : pre.apps)
        if (running.runs(app)) return found(InUse::appRunning, ofTheRest);
    for (const auto& process : pre.processes)
        if (running.runs(process)) return found(InUse::processRunning, true, process);
    if (auto owner = pre.owner.nameIn(item.parts); owner && running.runs(*owner))
        return found(InUse::appRunning, ofTheRest);

    if (facts.kind == EntryKind::link) return found(InUse::link, ofTheRest);
    if (facts.kind != EntryKind::file && facts.kind != EntryKind::folder)
        return found(InUse::notOrdinary, ofTheRest);
    if (facts.identity.device != item.homeDevice) return found(InUse::otherDisk, true);

    if (!running.seesOpenFiles) return found(InUse::openFilesUnlisted, ofTheRest);
    if (running.holdsInside(item.realPath)) return found(InUse::heldOpen, ofTheRest);

    if (!facts.wasInspected) return found(InUse::couldNotOpen, ofTheRest);
    if (t.privacyRefusals > 0) return found(InUse::needsFullDiskAccess, ofTheRest);
    if (t.ownershipRefusals > 0) return found(InUse::readingRefused, ofTheRest);
    if (t.otherErrors > 0) return found(InUse::partsUnreadable, ofTheRest);
    if (!t.mountPoints.empty()) return found(InUse::diskInside, ofTheRest);
    if (t.meetingPoints > 0) return found(InUse::socket, ofTheRest);
    if (!t.keepsakes.empty()) {
        const auto& keepsake = t.keepsakes.front();
        auto slash = keepsake.rfind('/');
        return found(InUse::loginLike, ofTheRest,
                     slash == std::string::npos ? keepsake : keepsake.substr(slash + 1));
    }
    if (facts.isEncryptedImage) return found(InUse::encryptedImage, ofTheRest);
    if (t.cloudOnlyFolders > 0) return found(InUse::cloudOnly, ofTheRest);

    auto lastChange = lastChangeOf(facts);
    if (!lastChange) return found(InUse::ageUnreadable, ofTheRest);
    if (now - *lastChange < quietTime) return found(InUse::writtenRecently, ofTheRest);
    if (rule.takesUnknownFolders && facts.kind == EntryKind::folder &&
        now - *lastChange < unknownOwnerQuietTime)
        return found(InUse::unknownOwnerChangedToday, ofTheRest);

    if (!pre.minimumAgeDays) return Readiness::ready();
    auto since = pre.ageSince(facts);
    if (!since) return found(InUse::ageUnreadable, ofTheRest);
    if (now - *since >= std::chrono::days(*pre.minimumAgeDays)) return Readiness::ready();
    Readiness young =
        Readiness::notNow({fillIn(tooYoungWords, {{"ago", agoWords(*since, now)},
                                                  {"days", std::to_string(*pre.minimumAgeDays)}}),
                           ofTheRest});
    return young;
}

} // namespace vantle
