#include "VantleSpec/CheckupRecords.h"

#include "VantleSpec/Sentence.h"

#include <algorithm>

namespace vantle {

std::string checkupSummary(const std::vector<CheckupFinding>& findings) {
    using namespace checkup_summary;
    auto attention = std::ranges::count(findings, CheckupStatus::attention, &CheckupFinding::status);
    if (attention == 1) return std::string(oneNeedsAttention);
    if (attention > 1) return fillIn(manyNeedAttention, {{"count", std::to_string(attention)}});
    if (findings.size() == 1) return std::string(fineOneWorthALook);
    if (findings.size() > 1) return fillIn(fineManyWorthALook, {{"count", std::to_string(findings.size())}});
    return std::string(goodShape);
}

} // namespace vantle
