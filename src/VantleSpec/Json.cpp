#include "VantleSpec/Json.h"

namespace vantle {

std::expected<Json, std::string> readJson(std::string_view text, int depthLimit) {
    bool tooDeep = false;
    // The callback sees each value as it is parsed, with the number of containers open around it;
    // refusing a container past the limit makes the parser skip it instead of keeping it.
    auto keep = [&](int depth, Json::parse_event_t event, Json&) {
        if (depth >= depthLimit &&
            (event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start)) {
            tooDeep = true;
            return false;
        }
        return !tooDeep;
    };
    Json j = Json::parse(text, keep, /*allow_exceptions=*/false);
    if (tooDeep) return std::unexpected("nested deeper than " + std::to_string(depthLimit) + " levels");
    if (j.is_discarded()) return std::unexpected(std::string("not valid JSON"));
    return j;
}

} // namespace vantle
