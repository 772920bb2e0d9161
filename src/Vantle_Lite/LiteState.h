// The observable start-up state: `starting` until the live services are built, then `ready` with
// the product model or `failed` with the sentence shown, exactly once and never back. Observers are
// told of the move on the thread that made it. Thread-safe.
#pragma once
#include "VantleLiteLive/VantleLite.h"
#include "Vantle_Lite/LiteLaunch.h"
#include "Vantle_Lite/LiteProduct.h"

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

namespace vantle {

class LiteState {
  public:
    struct Ready {
        std::shared_ptr<LiteProduct> product;
    };
    struct Failed {
        std::string sentence;
    };
    struct Starting {};
    using Phase = std::variant<Ready, Failed, Starting>;

    Phase phase() const;
    bool isStarting() const { return std::holds_alternative<Starting>(phase()); }

    // Moves out of `starting`; false (and nothing changes) when the phase has already moved.
    bool becomeReady(std::shared_ptr<LiteProduct> product);
    bool fail(std::string sentence);

    void observe(std::function<void(const Phase&)> observer);

  private:
    bool move(Phase next);

    Phase phase_ = Starting{};
    std::vector<std::function<void(const Phase&)>> observers_;
    mutable std::mutex mutex_;
};

// The start-up task: builds the options from the launch (only the sandbox is carried over), awaits
// the live wiring on a worker, and moves `state` to ready or failed. `base` lets tests set the seams.
std::future<void> beginStartUp(const LiteLaunch& launch, LiteState& state, VantleLite::Options base = {});

} // namespace vantle
