#include "Vantle_Lite/LiteState.h"

namespace vantle {

LiteState::Phase LiteState::phase() const {
    std::lock_guard lock(mutex_);
    return phase_;
}

bool LiteState::move(Phase next) {
    std::vector<std::function<void(const Phase&)>> observers;
    {
        std::lock_guard lock(mutex_);
        if (!std::holds_alternative<Starting>(phase_)) return false;
        phase_ = next;
        observers = observers_;
    }
    for (auto& observer : observers) observer(next);
    return true;
}

bool LiteState::becomeReady(std::shared_ptr<LiteProduct> product) { return move(Ready{std::move(product)}); }

bool LiteState::fail(std::string sentence) { return move(Failed{std::move(sentence)}); }

void LiteState::observe(std::function<void(const Phase&)> observer) {
    std::lock_guard lock(mutex_);
    observers_.push_back(std::move(observer));
}

std::future<void> beginStartUp(const LiteLaunch& launch, LiteState& state, VantleLite::Options base) {
    base.sandbox = launch.sandbox;
    return std::async(std::launch::async, [&state, options = std::move(base)] {
        auto live = VantleLite::make(options);
        if (live)
            state.becomeReady(LiteProduct::make(std::move(*live)));
        else
            state.fail(live.error().sentence);
    });
}

} // namespace vantle
