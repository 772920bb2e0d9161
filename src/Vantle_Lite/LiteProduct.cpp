#include "Vantle_Lite/LiteProduct.h"

namespace vantle {

std::shared_ptr<LiteProduct> LiteProduct::make(VantleLite live) {
    auto settings = std::make_unique<FileSettingsStore>(live.support / "Library" / "home.json");
    return std::make_shared<LiteProduct>(std::move(live), std::move(settings));
}

} // namespace vantle
