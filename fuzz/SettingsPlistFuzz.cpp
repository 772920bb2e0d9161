// Library/home.json as read at start-up: any bytes give settings or none, and what was read writes back.
#include "FuzzInput.h"
#include "Vantle_Lite/SettingsStore.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using vantle::FileSettingsStore;
    if (auto values = FileSettingsStore::fromPropertyList(vantle::fuzz::text(data, size)))
        (void)FileSettingsStore::toPropertyList(*values);
    return 0;
}
