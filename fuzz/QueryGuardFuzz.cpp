// Feeds arbitrary bytes to the query guard as search words: it must answer every input with the
// words or a refusal, never crash or hang, and a refusal always carries its sentence.
#include "VantleEgress/QueryGuard.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const vantle::QueryGuard guard("margo");
    std::string_view words(reinterpret_cast<const char*>(data), size);
    auto checked = guard.check(words);
    if (!checked && checked.error().sentence.empty()) std::abort();
    if (checked && checked->size() > words.size()) std::abort();
    return 0;
}
