// Library/summary.json as the library keeps it between runs.
#include "FuzzInput.h"
#include "VantleSpec/LibraryRecords.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto summary = vantle::decodeJson<vantle::LibrarySummary>(vantle::fuzz::text(data, size));
    if (summary) (void)vantle::encodeJson(*summary, 2);
    return 0;
}
