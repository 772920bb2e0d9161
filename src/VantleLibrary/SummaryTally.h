// The library at a glance, tallied from entries offered one at a time: counts and bytes per kind
// (kinds without files left out) with the `samples` most recently changed files of each. summaryOf
// is made with it, and the kept catalog index feeds it without being loaded. Not thread-safe; the
// summary it returns is the caller's.
#pragma once
#include "VantleLibrary/DiskWalk.h"
#include "VantleLibrary/Facts.h"
#include "VantleSpec/LibraryRecords.h"

#include <array>
#include <vector>

namespace vantle {

class SummaryTally {
  public:
    explicit SummaryTally(int samples);
    // Copies the entry only while it is among its kind's newest.
    void offer(const Facts& facts);
    LibrarySummary summary(TimePoint readAt, const Reading& reading) const;

  private:
    static constexpr auto kinds = allCases<LibraryKind>();
    size_t samples_;
    int files_ = 0;
    std::int64_t bytes_ = 0;
    std::array<CategorySummary, kinds.size()> byKind_{};
    std::array<std::vector<Facts>, kinds.size()> newest_; // newest first, at most samples_
};

} // namespace vantle
