// The facts a sandbox's checkup shows in place of this machine's: a table of made-up rows in
// `stand-in-checkup.json` in the sandbox's data folder, shown in turn, so that every status of
// every area can be shown on purpose (edit the table, or pick the row with `next`). The dates in
// a row are read as ages counted back from now (from `datesFrom`), so a row never goes stale.
// An actor: every operation holds its mutex.
#pragma once
#include "VantleVitals/CheckupReader.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

class StandInCheckup : public CheckupFactsSource {
  public:
    struct Record {
        TimePoint datesFrom{}; // the rows' dates are this far before "now" when shown
        std::vector<CheckupFacts> table;
        int next = 0; // the row the next checkup shows
        bool operator==(const Record&) const = default;
    };

    StandInCheckup(std::filesystem::path dataFolder, Clock clock = systemClock());

    CheckupFacts read() override;
    std::optional<std::string> standInSource() const override { return std::string(fileName); }

    Record record() const;
    std::optional<std::string> problem() const;

    // Rows: all well; worth a look; needs attention; nothing readable (a bare container).
    static std::vector<CheckupFacts> madeUpTable(TimePoint datesFrom);

    static constexpr std::string_view fileName = "stand-in-checkup.json";
    static constexpr std::string_view unreadableSentence =
        "The sandbox's stand-in checkup in {file} could not be read, so it is shown from the made-up table "
        "and not kept: {reason}";

  private:
    std::filesystem::path file_;
    Clock clock_;
    Record record_;
    bool keep_ = true;
    std::optional<std::string> problem_;
    mutable std::mutex mutex_;
};

VANTLE_RECORD_JSON(StandInCheckup::Record, datesFrom, table, next)

} // namespace vantle
