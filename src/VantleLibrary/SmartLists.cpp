#include "VantleLibrary/SmartLists.h"

#include "VantleLibrary/ContentTypes.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Sentence.h"

#include <algorithm>
#include <array>

namespace vantle {

bool isInstallerExtension(std::string_view extension) {
    constexpr std::array<std::string_view, 8> installers{"dmg", "pkg", "mpkg", "deb",
                                                         "rpm", "msi", "exe",  "iso"};
    return std::ranges::find(installers, extension) != installers.end();
}

SmartLists::SmartLists(std::filesystem::path home, SmartListRules rules) : rules_(rules) {
    downloads_ = (home / "Downloads").string() + "/";
}

bool SmartLists::isCleanUpList(SmartList list) {
    return list != SmartList::recents && list != SmartList::screenshots;
}

std::string SmartLists::detail(SmartList list) const {
    auto days = [](std::chrono::days d) { return std::to_string(d.count()); };
    switch (list) {
    case SmartList::recents:
        return fillIn(detailSentence(list), {{"days", days(rules_.recentDays)}});
    case SmartList::largeFiles:
        return fillIn(detailSentence(list), {{"size", fileBytes(rules_.largeFileBytes)}});
    case SmartList::forgottenDownloads:
        return fillIn(detailSentence(list), {{"days", days(rules_.forgottenDays)}});
    case SmartList::oldScreenshots:
        return fillIn(detailSentence(list), {{"days", days(rules_.oldScreenshotDays)}});
    case SmartList::oldInstallers:
        return fillIn(detailSentence(list), {{"days", days(rules_.oldInstallerDays)}});
    case SmartList::bigOldVideos:
        return fillIn(detailSentence(list),
                      {{"size", fileBytes(rules_.bigVideoBytes)}, {"days", days(rules_.oldVideoDays)}});
    case SmartList::unusedApps:
        return fillIn(detailSentence(list), {{"days", days(rules_.unusedAppDays)}});
    case SmartList::screenshots:
    case SmartList::duplicates:
        break;
    }
    return std::string(detailSentence(list));
}

bool SmartLists::contains(SmartList list, const Facts& facts, TimePoint now) const {
    if (facts.isFolder && !facts.isPackage) return false;
    // Untouched for at least `age`; a file with no dates at all is not judged old.
    auto untouchedFor = [&](std::chrono::days age) {
        auto touched = facts.lastTouched();
        return touched && now - *touched >= age;
    };
    switch (list) {
    case SmartList::recents: {
        auto touched = facts.lastTouched();
        return touched && now - *touched < rules_.recentDays;
    }
    case SmartList::largeFiles:
        return facts.size >= rules_.largeFileBytes;
    case SmartList::screenshots:
        return facts.isScreenshot;
    case SmartList::duplicates:
        return false;
    case SmartList::forgottenDownloads:
        return facts.path.starts_with(downloads_) && untouchedFor(rules_.forgottenDays);
    case SmartList::oldScreenshots:
        return facts.isScreenshot && untouchedFor(rules_.oldScreenshotDays);
    case SmartList::oldInstallers:
        return !facts.isPackage && isInstallerExtension(lowerExtension(facts.name)) &&
               untouchedFor(rules_.oldInstallerDays);
    case SmartList::bigOldVideos:
        return facts.kind() == LibraryKind::videos && facts.size >= rules_.bigVideoBytes &&
               untouchedFor(rules_.oldVideoDays);
    case SmartList::unusedApps:
        return facts.kind() == LibraryKind::apps && untouchedFor(rules_.unusedAppDays);
    }
    return false;
}

namespace {

bool newestFirst(SmartList list) {
    return list == SmartList::recents || list == SmartList::screenshots;
}

void order(SmartList list, std::vector<const Facts*>& found, size_t keep) {
    keep = std::min(keep, found.size());
    auto byDate = [](const Facts* a, const Facts* b) {
        auto at = a->lastTouched().value_or(TimePoint{}), bt = b->lastTouched().value_or(TimePoint{});
        return at != bt ? at > bt : a->path < b->path;
    };
    auto bySize = [](const Facts* a, const Facts* b) {
        return a->size != b->size ? a->size > b->size : a->path < b->path;
    };
    auto end = found.begin() + static_cast<long>(keep);
    if (newestFirst(list))
        std::partial_sort(found.begin(), end, found.end(), byDate);
    else
        std::partial_sort(found.begin(), end, found.end(), bySize);
    found.resize(keep);
}

std::vector<const DuplicateGroup*> largestGroups(const DuplicateLook& look) {
    std::vector<const DuplicateGroup*> groups;
    for (const auto& group : look.groups)
        groups.push_back(&group);
    std::ranges::stable_sort(groups, [](auto* a, auto* b) { return a->freedBytes() > b->freedBytes(); });
    return groups;
}

} // namespace

std::vector<FileItem> SmartLists::items(SmartList list, const Snapshot& snapshot, TimePoint now, size_t limit,
                                        const DuplicateLook* duplicates) const {
    std::vector<FileItem> out;
    if (list == SmartList::duplicates) {
        if (!duplicates) return out;
        for (const auto* group : largestGroups(*duplicates))
            for (const auto& item : group->items) {
                if (out.size() >= limit) return out;
                out.push_back(item);
            }
        return out;
    }
    std::vector<const Facts*> found;
    for (const auto& facts : snapshot.facts)
        if (contains(list, facts, now)) found.push_back(&facts);
    order(list, found, limit);
    for (const auto* facts : found)
        out.push_back(toFileItem(*facts));
    return out;
}

CleanUpCard SmartLists::card(SmartList list, const Snapshot& snapshot, const Reading& reading, TimePoint now,
                             int samples, const DuplicateLook* duplicates) const {
    auto sampleCount = static_cast<size_t>(std::max(samples, 0));
    CleanUpCard card{list, 0, 0, {}, detail(list), !reading.isComplete};
    if (list == SmartList::duplicates) {
        if (!duplicates) return card;
        for (const auto* group : largestGroups(*duplicates)) {
            if (group->items.size() < 2) continue;
            card.count += static_cast<int>(group->items.size() - 1);
            card.bytes += group->freedBytes();
            // The copy shown is one that would go: the group keeps its first item.
            if (card.samples.size() < sampleCount) card.samples.push_back(group->items[1]);
        }
        card.isPartial = card.isPartial || !duplicates->isComplete;
        return card;
    }
    std::vector<const Facts*> found;
    for (const auto& facts : snapshot.facts)
        if (contains(list, facts, now)) {
            found.push_back(&facts);
            card.bytes += facts.size;
        }
    card.count = static_cast<int>(found.size());
    order(list, found, sampleCount);
    for (const auto* facts : found)
        card.samples.push_back(toFileItem(*facts));
    return card;
}

std::vector<CleanUpCard> SmartLists::cards(const Snapshot& snapshot, const Reading& reading, TimePoint now,
                                           int samples, const DuplicateLook* duplicates) const {
    std::vector<CleanUpCard> cards;
    for (auto list : allCases<SmartList>()) {
        if (!isCleanUpList(list)) continue;
        auto made = card(list, snapshot, reading, now, samples, duplicates);
        if (made.count > 0) cards.push_back(std::move(made));
    }
    return cards;
}

} // namespace vantle
