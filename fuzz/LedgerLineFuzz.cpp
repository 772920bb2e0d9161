// A ledger line as read back at start-up: whatever the bytes, decoding gives an entry or a reason.
#include "FuzzInput.h"
#include "VantleSpec/LedgerEntry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto entry = vantle::decodeLedgerLine(vantle::fuzz::text(data, size));
    if (entry) (void)vantle::encodeJson(*entry);
    return 0;
}
