// A download's origin as a browser wrote it into an extended attribute: any bytes, one origin or none.
#include "FuzzInput.h"
#include "VantleLibrary/Sources.h"

#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto text = vantle::fuzz::text(data, size);
    (void)vantle::Sources::readOrigin(text);
    std::vector<std::string> origins{std::string(text)};
    (void)vantle::Sources::familyOf(origins);
    return 0;
}
