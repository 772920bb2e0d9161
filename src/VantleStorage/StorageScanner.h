// The storage scanner: measures, for every rule a scan includes, what the rule's patterns match in
// the home folder (and the system's areas), item by item, and what of it could really be freed.
// An actor: scans run one at a time, each on worker threads of its own; latest() may be called from
// any thread, also while a scan runs. Every scan result is the caller's own copy.
#pragma once
#include "VantleSpec/CancelFlag.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/RuleTable.h"
#include "VantleStorage/StorageScan.h"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct StorageScanError {
    enum class Kind { homeUnreadable };
    Kind kind = Kind::homeUnreadable;
    std::string message;

    static constexpr std::string_view homeUnreadableWords =
        "The home folder {path} could not be read, so storage was not measured. Tell the user; do not "
        "estimate any size.";
    static StorageScanError homeUnreadable(const std::filesystem::path& home);
};

// How far a scan has come, for a progress line.
struct ScanProgress {
    enum class Phase { finding, measuring, done };
    Phase phase = Phase::finding;
    std::size_t items = 0;    // items found so far
    std::int64_t entries = 0; // entries read inside them
    std::int64_t bytes = 0;   // space counted so far
};

class StorageScanner {
  public:
    struct Options {
        const RuleTable* table = nullptr; // the shipped table when null
        std::optional<std::filesystem::path> systemRoot = std::filesystem::path("/"); // none: no system areas
        Clock now = systemClock();
        std::size_t workers = 0; // folders walked at once; 0 takes four per processor
        // The place (relative to the home) a held slot was taken from, as the holding shelf recorded
        // it; a held item is named after it. Without an answer the slot's own place names it.
        std::function<std::optional<std::vector<std::string>>(std::string_view slot)> formerPlace;
    };
    using Progress = std::function<void(const ScanProgress&)>;

    StorageScanner();
    explicit StorageScanner(Options options);

    // Measures the rules of depth at most `depth` (and in `only`, when given) below `home`. A
    // background scan walks at idle disk priority, put back when it ends. Items in `holding` are
    // listed as held, never counted in a category. A cancelled scan comes back with complete false.
    // `progress` is called on the calling thread.
    std::expected<StorageScan, StorageScanError> scan(const std::filesystem::path& home, ScanDepth depth,
                                                      const std::optional<std::set<std::string>>& only,
                                                      bool inBackground,
                                                      const std::optional<std::filesystem::path>& holding,
                                                      CancelFlag& cancel, const Progress& progress = {});

    // The last scan that ran to its end.
    std::optional<StorageScan> latest() const;
    const RuleTable& table() const { return *options_.table; }

  private:
    std::mutex scanMutex_;           // one scan at a time
    mutable std::mutex latestMutex_; // so latest() answers while a scan runs
    Options options_;
    std::optional<StorageScan> latest_;
};

} // namespace vantle
