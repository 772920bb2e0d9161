// Library/fingerprints.json as the duplicate scan loads it; the cache reads only from a file.
#include "FuzzInput.h"
#include "VantleLibrary/FingerprintCache.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vantle::FingerprintCache cache(
        vantle::fuzz::scratchFile("fingerprints.json", vantle::fuzz::text(data, size)));
    cache.load();
    return 0;
}
