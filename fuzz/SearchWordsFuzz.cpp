// Search words as a person types them: any text parses into a query, with chips, in bounded time.
#include "FuzzInput.h"
#include "VantleLibrary/SearchParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace std::chrono;
    static const vantle::SearchParser parser(
        [] { return vantle::TimePoint(sys_days{2026y / November / 21} + 12h); },
        vantle::Calendar::fixed(seconds{3600}), "/home/u");
    (void)parser.parse(vantle::fuzz::text(data, size));
    return 0;
}
