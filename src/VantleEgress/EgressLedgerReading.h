// How the rest of the program reads the network ledger: every entry so far, and a stream of new
// entries as they are written. Implemented by EgressLedger and by LiteSilentLedger (offline).
// Both operations may be called from any thread.
#pragma once
#include "VantleSpec/LedgerEntry.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace vantle {

// An unbounded queue of entries fed by the ledger, read by one consumer. The ledger holds it weakly:
// dropping the last shared_ptr ends the subscription.
class LedgerStream {
  public:
    // Waits up to `timeout` for the next entry; nullopt when none came.
    std::optional<LedgerEntry> next(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        if (!ready_.wait_for(lock, timeout, [&] { return !queue_.empty(); })) return std::nullopt;
        auto entry = std::move(queue_.front());
        queue_.pop_front();
        return entry;
    }
    std::optional<LedgerEntry> tryNext() { return next(std::chrono::milliseconds(0)); }

    void deliver(const LedgerEntry& entry) {
        {
            std::lock_guard lock(mutex_);
            queue_.push_back(entry);
        }
        ready_.notify_one();
    }

  private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<LedgerEntry> queue_;
};

class EgressLedgerReading {
  public:
    virtual ~EgressLedgerReading() = default;
    // All entries, in file order (copies).
    virtual std::vector<LedgerEntry> entries() const = 0;
    // A stream of every entry written from now on.
    virtual std::shared_ptr<LedgerStream> subscribe() = 0;
};

} // namespace vantle
