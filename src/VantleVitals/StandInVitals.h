// The vitals and processes a sandbox shows in place of this machine's: a table of made-up readings
// shown in turn, the sandbox's stand-in processes as activity rows, and a record of what was asked,
// all kept in `stand-in-vitals.json` in the sandbox's data folder. An actor: every operation holds
// its mutex. Snapshots and samples it returns belong to the caller.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleVitals/VitalsReader.h"

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

class StandInVitals : public VitalsReader, public ActivitySource {
  public:
    // One reading handed out: when, and which row of the table it showed.
    struct Reading {
        TimePoint at{};
        int row = 0;
        bool operator==(const Reading&) const = default;
    };

    // One request to keep the machine awake (on) or to let it sleep again (off).
    struct KeepAwake {
        TimePoint at{};
        bool on = false;
        bool operator==(const KeepAwake&) const = default;
    };

    struct Record {
        // The readings shown in turn. Their times are set when shown, and their process lists are
        // the stand-in processes' when there are any.
        std::vector<VitalsSnapshot> table;
        std::vector<Reading> record; // the latest readings handed out, oldest first
        bool kept = false;           // whether the machine is being kept awake
        std::vector<KeepAwake> keptAwake;
        bool operator==(const Record&) const = default;
    };

    using Processes = std::function<std::vector<ProcessRow>()>;

    // Reads the record in `dataFolder`, or starts one with the made-up table. A file that cannot be
    // read as a record is left as it is: the made-up table is shown and nothing is written over it.
    StandInVitals(std::filesystem::path dataFolder, Processes processes, Clock clock = systemClock());

    VitalsSnapshot sample() override;
    ActivitySample read(const ActivityNeeds& needs = {}) override;
    void keepAwake(bool on);

    Record record() const;
    // Why the record is not being kept, when it is not.
    std::optional<std::string> problem() const;

    static std::vector<VitalsSnapshot> madeUpTable();

    static constexpr std::string_view fileName = "stand-in-vitals.json";
    static constexpr size_t readingsKept = 60;
    static constexpr std::string_view unreadableSentence =
        "The sandbox's stand-in vitals in {file} could not be read, so they are shown from the made-up table "
        "and not kept: {reason}";
    static constexpr std::string_view unwritableSentence =
        "The sandbox's stand-in vitals could not be kept: {reason}";

  private:
    void save();
    const VitalsSnapshot& row(int index) const { return record_.table[size_t(index) % record_.table.size()]; }

    std::filesystem::path file_;
    Processes processes_;
    Clock clock_;
    TimePoint started_;
    Record record_;
    int next_ = 0;
    std::optional<int> shown_;
    bool keep_ = true;
    std::optional<std::string> problem_;
    mutable std::mutex mutex_;
};

VANTLE_RECORD_JSON(StandInVitals::Reading, at, row)
VANTLE_RECORD_JSON(StandInVitals::KeepAwake, at, on)
VANTLE_RECORD_JSON(StandInVitals::Record, table, record, kept, keptAwake)

} // namespace vantle
