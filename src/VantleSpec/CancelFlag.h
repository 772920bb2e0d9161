// Asks long work (scans, walks, hashing) to stop. Set from any thread (or a signal handler); the
// worker reads it between folders or items and returns what it has, marked incomplete.
#pragma once
#include <atomic>

namespace vantle {

class CancelFlag {
  public:
    void cancel() noexcept { cancelled_.store(true, std::memory_order_relaxed); }
    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }
    void reset() noexcept { cancelled_.store(false, std::memory_order_relaxed); }

  private:
    std::atomic<bool> cancelled_{false};
};

} // namespace vantle
