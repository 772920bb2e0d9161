// The work the walkers of one scan share: the items to size at the start, then folders that a busy
// walker hands over when another walker has run dry, so one huge item does not leave the other cores
// idle. take() blocks until there is work, and ends (nullopt) once every walker is waiting with
// nothing left, or after stop(). All members may be called from several threads.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>

namespace vantle {

template <class Task> class WorkQueue {
  public:
    explicit WorkQueue(std::size_t walkers) : walkers_(walkers == 0 ? 1 : walkers) {}

    void push(Task task) {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        wake_.notify_one();
    }

    // Whether some walker is waiting for work: the cue for a busy walker to hand some over. A relaxed
    // read; a late answer only costs a little balance.
    bool hungry() const { return waiting_.load(std::memory_order_relaxed) > 0; }

    std::optional<Task> take() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (finished_) return std::nullopt;
            if (!tasks_.empty()) {
                Task task = std::move(tasks_.front());
                tasks_.pop_front();
                return task;
            }
            // The last walker to run dry finds nobody left who could still add work.
            if (waiting_.load(std::memory_order_relaxed) + 1 == walkers_) {
                finished_ = true;
                wake_.notify_all();
                return std::nullopt;
            }
            waiting_.fetch_add(1, std::memory_order_relaxed);
            wake_.wait(lock);
            waiting_.fetch_sub(1, std::memory_order_relaxed);
        }
    }

    // Ends the work early (a cancelled scan): every take() returns nullopt from now on.
    void stop() {
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
            tasks_.clear();
        }
        wake_.notify_all();
    }

  private:
    const std::size_t walkers_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    std::atomic<std::size_t> waiting_{0};
    bool finished_ = false;
};

} // namespace vantle
