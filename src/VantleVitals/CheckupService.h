// The checkup as the health services offer it: reads the facts (this machine's, or a sandbox's
// stand-ins), turns them into a `MacCheckup`, and keeps the last checkup and the recent scores for
// the trend in `Health/checkups.json` (written atomically, at most `pointsKept` points, oldest
// dropped first). An actor: every operation holds its mutex. What it returns belongs to the caller.
#pragma once
#include "VantleSpec/CheckupRecords.h"
#include "VantleVitals/CheckupReader.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

// The layout of Health/checkups.json.
struct KeptCheckups {
    std::optional<MacCheckup> last;
    std::vector<CheckupPoint> points; // oldest first
    bool operator==(const KeptCheckups&) const = default;
};
VANTLE_RECORD_JSON(KeptCheckups, last, points)

class CheckupService {
  public:
    CheckupService(std::shared_ptr<CheckupFactsSource> source, std::filesystem::path file,
                   Clock clock = systemClock(), size_t pointsKept = defaultPointsKept);

    // Reads the machine now, keeps the result, and returns it.
    MacCheckup run();
    KeptCheckups kept() const;
    // Why the past checkups are not being kept, when they are not.
    std::optional<std::string> problem() const;

    static constexpr size_t defaultPointsKept = 120;
    static constexpr size_t largestFile = 8 << 20; // a larger file is not ours to parse
    static constexpr std::string_view unreadableSentence =
        "The past checkups in {file} could not be read, so the trend starts afresh: {reason}";
    static constexpr std::string_view unwritableSentence = "This checkup could not be kept: {reason}";

  private:
    std::shared_ptr<CheckupFactsSource> source_;
    std::filesystem::path file_;
    Clock clock_;
    size_t pointsKept_;
    KeptCheckups kept_;
    std::optional<std::string> problem_;
    mutable std::mutex mutex_;
};

} // namespace vantle
