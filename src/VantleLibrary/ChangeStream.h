// One listener's own stream of "the library changed" signals from a watcher. Signals the listener
// has not taken yet are merged into one, so a slow listener never falls behind. Safe from several
// threads: the watcher pushes from its thread, the listener takes from its own.
#pragma once
#include "VantleSpec/Time.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

namespace vantle {

struct ChangeSignal {
    TimePoint at{};
    std::int64_t changes = 0; // changes heard since the previous signal
    bool operator==(const ChangeSignal&) const = default;
};

class ChangeStream {
  public:
    // The next signal, waiting at most `timeout`; none when none came or the stream ended.
    std::optional<ChangeSignal> next(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        signalled_.wait_for(lock, timeout, [&] { return pending_.has_value() || ended_; });
        return take();
    }
    // The pending signal, without waiting.
    std::optional<ChangeSignal> poll() {
        std::lock_guard lock(mutex_);
        return take();
    }
    // The watcher stopped: no signal will come after the pending one.
    bool ended() const {
        std::lock_guard lock(mutex_);
        return ended_;
    }

    void push(const ChangeSignal& signal) {
        {
            std::lock_guard lock(mutex_);
            if (pending_) {
                pending_->at = signal.at;
                pending_->changes += signal.changes;
            } else {
                pending_ = signal;
            }
        }
        signalled_.notify_all();
    }
    void end() {
        {
            std::lock_guard lock(mutex_);
            ended_ = true;
        }
        signalled_.notify_all();
    }

  private:
    std::optional<ChangeSignal> take() { return std::exchange(pending_, std::nullopt); }

    mutable std::mutex mutex_;
    std::condition_variable signalled_;
    std::optional<ChangeSignal> pending_;
    bool ended_ = false;
};

} // namespace vantle
