#include "VantleStorage/CleanPlan.h"

namespace vantle {

std::int64_t CleanPlan::bytes() const {
    std::int64_t total = 0;
    for (const auto& item : items)
        total += item.bytes;
    return total;
}

CleanRefusal CleanRefusal::atCarryingOut() const {
    CleanRefusal out = *this;
    for (auto at = out.message.find("planned"); at != std::string::npos; at = out.message.find("planned", at))
        out.message.replace(at, 7, "touched");
    return out;
}

} // namespace vantle
