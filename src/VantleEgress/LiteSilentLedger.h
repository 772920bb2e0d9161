// The ledger of an offline run: nothing can be sent, so there is nothing to record. Its entries are
// always empty and its stream never yields. Thread-safe (stateless).
#pragma once
#include "VantleEgress/EgressLedgerReading.h"

namespace vantle {

class LiteSilentLedger final : public EgressLedgerReading {
  public:
    std::vector<LedgerEntry> entries() const override { return {}; }
    std::shared_ptr<LedgerStream> subscribe() override { return std::make_shared<LedgerStream>(); }
};

} // namespace vantle
