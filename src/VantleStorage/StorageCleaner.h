// The storage cleaner: turns a request (categories to delete, or item ids to set aside) into a plan
// against a recent scan, and carries a shown plan out item by item: each item passes the item guard
// and the in-use checks once more immediately before it is deleted bottom-up by descriptors or moved
// onto the holding shelf. What fails is left exactly as it was and told in words. An actor: one plan
// is carried out at a time; plans and receipts are the caller's own values.
#pragma once
#include "VantleSpec/CancelFlag.h"
#include "VantleSpec/Time.h"
#include "VantleStorage/CleanPlan.h"
#include "VantleStorage/CleanReceipt.h"
#include "VantleStorage/HoldingShelf.h"
#include "VantleStorage/ItemGuard.h"
#include "VantleStorage/Readiness.h"
#include "VantleStorage/RuleTable.h"
#include "VantleStorage/RunningApps.h"
#include "VantleStorage/StorageScan.h"

#include <expected>
#include <filesystem>
#include <functional>
#include <mutex>
#include <span>
#include <string>

namespace vantle {

class StorageCleaner {
  public:
    struct Options {
        const RuleTable* table = nullptr; // the shipped table when null
        Clock now = systemClock();
        // What runs now; read again before each item. Reads /proc for the home's owner when empty.
        std::function<RunningApps()> running;
    };

    // An item as admitted and measured just before it is freed.
    struct Checked {
        ItemGuard::Admitted admitted;
        ItemFacts measurement;
        TimePoint measuredAt;
    };

    struct Progress {
        std::size_t done = 0;
        std::size_t count = 0;
        std::string name; // the item being freed now
    };

    static constexpr auto scanLifetime = std::chrono::minutes(15);
    static constexpr auto planLifetime = std::chrono::minutes(8);

    StorageCleaner(std::filesystem::path home, Options options);

    // A plan deleting every item of `categories` (class A categories freed by removal) in `scan`.
    std::expected<CleanPlan, CleanRefusal> planRemoval(const StorageScan& scan,
                                                       std::span<const std::string> categories) const;
    // A plan moving the chosen items (class B, by id) onto `shelf`.
    std::expected<CleanPlan, CleanRefusal> planSetAside(const StorageScan& scan,
                                                        std::span<const std::string> itemIds,
                                                        const HoldingShelf& shelf) const;

    // Carries out `plan`, exactly as shown; a plan older than 8 minutes is refused whole. Stops before
    // the next item once `cancel` is set. `shelf` is needed for plans that set items aside.
    std::expected<CleanReceipt, CleanRefusal>
    carryOut(const CleanPlan& plan, CancelFlag& cancel, HoldingShelf* shelf = nullptr,
             const std::function<void(const Progress&)>& progress = {});

    // The categories that can be cleared, for the refusals' lists.
    std::string clearableIds() const;
    const RuleTable& table() const { return *options_.table; }

  private:
    RunningApps runningNow() const;
    std::expected<void, CleanRefusal> checkHolding(const HoldingShelf& shelf) const;

    std::filesystem::path home_;
    Options options_;
    std::mutex mutex_;
};

} // namespace vantle
