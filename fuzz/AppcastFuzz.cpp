// Feeds arbitrary bytes to the update feed reader: every input is read into items or refused, never
// a crash, a hang or an entity expansion; every item kept has an address, a build and a length.
#include "VantleEgress/Appcast.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view xml(reinterpret_cast<const char*>(data), size);
    auto items = vantle::readAppcast(xml);
    if (!items) return 0;
    for (const auto& item : *items) {
        if (item.url.empty() || item.build.empty() || item.length <= 0) std::abort();
        (void)vantle::compareVersions(item.build, "0.1.0");
    }
    (void)vantle::newestAbove(*items, "0.1.0");
    return 0;
}
