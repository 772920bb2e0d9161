#include "VantleLibrary/SummaryTally.h"

#include <algorithm>

namespace vantle {

namespace {
// Newer first; equal dates by path, so the samples are the same whatever order the entries came in.
bool newer(const Facts& a, const Facts& b) {
    auto at = a.modified.value_or(TimePoint{}), bt = b.modified.value_or(TimePoint{});
    return at != bt ? at > bt : a.path < b.path;
}
} // namespace

SummaryTally::SummaryTally(int samples) : samples_(static_cast<size_t>(std::max(samples, 0))) {}

void SummaryTally::offer(const Facts& facts) {
    if (facts.isFolder && !facts.isPackage) return;
    ++files_;
    bytes_ += facts.size;
    auto kind = facts.kind();
    if (!kind) return;
    auto k = static_cast<size_t>(*kind);
    ++byKind_[k].count;
    byKind_[k].bytes += facts.size;
    auto& list = newest_[k];
    if (list.size() == samples_ && (samples_ == 0 || !newer(facts, list.back()))) return;
    list.insert(std::ranges::upper_bound(list, facts, newer), facts);
    if (list.size() > samples_) list.pop_back();
}

LibrarySummary SummaryTally::summary(TimePoint readAt, const Reading& reading) const {
    LibrarySummary summary;
    summary.totalFiles = files_;
    summary.totalBytes = bytes_;
    for (size_t k = 0; k < kinds.size(); ++k) {
        if (byKind_[k].count == 0) continue;
        auto category = byKind_[k];
        category.kind = kinds[k];
        for (const auto& facts : newest_[k])
            category.samples.push_back(toFileItem(facts));
        summary.categories.push_back(std::move(category));
    }
    summary.readAt = toMilliseconds(readAt);
    summary.isPartial = !reading.isComplete;
    summary.note = reading.note();
    return summary;
}

} // namespace vantle
