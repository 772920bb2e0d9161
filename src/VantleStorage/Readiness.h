// The in-use checks run for an admitted item just before it is freed: whether its owner runs,
// whether a running program holds something in it, whether it changed lately, whether anything in
// it makes freeing unsafe, and whether it is old enough. Each finding has a sentence about the item
// and one about the rest of a category. Pure functions over values; thread-safe.
#pragma once
#include "VantleSpec/Time.h"
#include "VantleStorage/ItemFacts.h"
#include "VantleStorage/Rule.h"
#include "VantleStorage/RunningApps.h"

#include <span>
#include <string>
#include <string_view>

namespace vantle {

struct Readiness {
    enum class State { notNow, unknown, unreadable, ready };
    struct Reason {
        std::string said;
        bool ofTheRest = false; // spoken of the rest of a category, after some of it was handled
        bool operator==(const Reason&) const = default;
    };

    State state = State::ready;
    Reason reason;

    static Readiness ready() { return {}; }
    static Readiness notNow(Reason r) { return {State::notNow, std::move(r)}; }
    static Readiness unknown(Reason r) { return {State::unknown, std::move(r)}; }
    static Readiness unreadable(Reason r) { return {State::unreadable, std::move(r)}; }
    bool isReady() const { return state == State::ready; }
    bool operator==(const Readiness&) const = default;
};

// What an in-use check found, with its two wordings kept beside it.
enum class InUse {
    appRunning,
    processRunning,
    openFilesUnlisted,
    heldOpen,
    writtenRecently,
    unknownOwnerChangedToday,
    ageUnreadable,
    couldNotOpen,
    encryptedImage,
    loginLike,
    socket,
    cloudOnly,
    diskInside,
    partsUnreadable,
    readingRefused,
    needsFullDiskAccess,
    otherDisk,
    notOrdinary,
    link,
    tooYoung,
};

struct InUseWords {
    std::string_view aboutItem; // empty where the finding is only ever told of the rest
    std::string_view aboutRest;
};
InUseWords wordsOf(InUse finding);

// The sentence for a finding; `name` fills {name} (a process's or a login file's name).
std::string sentenceOf(InUse finding, bool ofTheRest, std::string_view name = {});

// What the check needs to know of the item now: its facts as just measured, where it really is,
// and whether it could be looked inside at all.
struct ItemNow {
    std::span<const std::string> parts; // relative to the home
    std::string realPath;               // read back from its descriptor
    ItemFacts facts;                    // measured just now
    std::uint64_t homeDevice = 0;
};

// Runs the in-use checks in their order; the first finding decides. `ofTheRest` picks the wording
// used once some of the same category was already handled.
Readiness checkReadiness(const Rule& rule, const ItemNow& item, const RunningApps& running, TimePoint now,
                         bool ofTheRest = false);

} // namespace vantle
