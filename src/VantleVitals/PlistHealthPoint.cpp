#include "VantleVitals/PlistHealthPoint.h"

#include <plist/plist.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace vantle {

namespace {

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistNode = std::unique_ptr<void, PlistFree>;

// Property-list dates count from 2001-01-01 UTC.
constexpr std::int64_t referenceDateOffsetSeconds = 978'307'200;

plist_t dateNode(TimePoint at) {
    using namespace std::chrono;
    const auto micros =
        duration_cast<microseconds>(at.time_since_epoch()).count() - referenceDateOffsetSeconds * 1'000'000;
    // Floor division keeps the microseconds non-negative for dates before the reference date.
    auto seconds = micros / 1'000'000;
    auto rest = micros % 1'000'000;
    if (rest < 0) {
        seconds -= 1;
        rest += 1'000'000;
    }
    return plist_new_date(static_cast<int32_t>(seconds), static_cast<int32_t>(rest));
}

void setReal(plist_t dict, const char* key, double value) {
    plist_dict_set_item(dict, key, plist_new_real(value));
}

plist_t appNode(const HealthPoint::App& app) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "name", plist_new_string(app.name.c_str()));
    setReal(dict, "cpu", app.cpu);
    plist_dict_set_item(dict, "memoryBytes", plist_new_uint(app.memoryBytes));
    if (app.watts) setReal(dict, "watts", *app.watts);
    return dict;
}

// Readers: each gives false when the key is missing or holds another type, so one bad field makes
// the whole point unreadable rather than quietly zero.
bool readReal(plist_t dict, const char* key, double& out) {
    plist_t node = plist_dict_get_item(dict, key);
    if (!node) return false;
    switch (plist_get_node_type(node)) {
    case PLIST_REAL:
        plist_get_real_val(node, &out);
        return true;
    case PLIST_UINT: { // a whole number written by another encoder is still a number
        uint64_t whole = 0;
        plist_get_uint_val(node, &whole);
        out = static_cast<double>(whole);
        return true;
    }
    default:
        return false;
    }
}

bool readOptionalReal(plist_t dict, const char* key, std::optional<double>& out) {
    out.reset();
    if (!plist_dict_get_item(dict, key)) return true;
    double value = 0;
    if (!readReal(dict, key, value)) return false;
    out = value;
    return true;
}

bool readUint(plist_t dict, const char* key, std::uint64_t& out) {
    plist_t node = plist_dict_get_item(dict, key);
    if (!node || plist_get_node_type(node) != PLIST_UINT) return false;
    plist_get_uint_val(node, &out);
    return true;
}

bool readString(plist_t dict, const char* key, std::string& out) {
    plist_t node = plist_dict_get_item(dict, key);
    if (!node || plist_get_node_type(node) != PLIST_STRING) return false;
    uint64_t length = 0; // the copying getter asserts on a NUL byte inside the string
    const char* text = plist_get_string_ptr(node, &length);
    if (!text) return false;
    out.assign(text, length);
    return true;
}

template <NamedEnum E> bool readState(plist_t dict, const char* key, E& out) {
    std::string name;
    if (!readString(dict, key, name)) return false;
    auto state = enumFromName<E>(name);
    if (!state) return false;
    out = *state;
    return true;
}

bool readDate(plist_t dict, const char* key, TimePoint& out) {
    plist_t node = plist_dict_get_item(dict, key);
    if (!node || plist_get_node_type(node) != PLIST_DATE) return false;
    int32_t seconds = 0, micros = 0;
    plist_get_date_val(node, &seconds, &micros);
    // libplist hands back whole seconds truncated toward zero and the fraction as a magnitude, so
    // before the reference date the fraction counts backwards.
    const std::int64_t fraction = seconds < 0 ? -std::int64_t(micros) : std::int64_t(micros);
    using namespace std::chrono;
    out = TimePoint(duration_cast<TimePoint::duration>(microseconds(
        (static_cast<std::int64_t>(seconds) + referenceDateOffsetSeconds) * 1'000'000 + fraction)));
    return true;
}

bool readApp(plist_t dict, HealthPoint::App& app) {
    return plist_get_node_type(dict) == PLIST_DICT && readString(dict, "name", app.name) &&
           readReal(dict, "cpu", app.cpu) && readUint(dict, "memoryBytes", app.memoryBytes) &&
           readOptionalReal(dict, "watts", app.watts);
}

} // namespace

std::vector<std::byte> encodeHealthPointPlist(const HealthPoint& point) {
    PlistNode root(plist_new_dict());
    plist_t dict = root.get();
    plist_dict_set_item(dict, "start", dateNode(point.start));
    setReal(dict, "seconds", point.seconds);
    setReal(dict, "cpu", point.cpu);
    setReal(dict, "cpuPeak", point.cpuPeak);
    setReal(dict, "memory", point.memory);
    setReal(dict, "memoryPeak", point.memoryPeak);
    plist_dict_set_item(dict, "pressure", plist_new_string(std::string(nameOf(point.pressure)).c_str()));
    setReal(dict, "pressureShare", point.pressureShare);
    plist_dict_set_item(dict, "swapBytes", plist_new_uint(point.swapBytes));
    setReal(dict, "networkIn", point.networkIn);
    setReal(dict, "networkOut", point.networkOut);
    setReal(dict, "diskRead", point.diskRead);
    setReal(dict, "diskWritten", point.diskWritten);
    plist_dict_set_item(dict, "thermal", plist_new_string(std::string(nameOf(point.thermal)).c_str()));
    if (point.charge) setReal(dict, "charge", *point.charge);
    plist_t apps = plist_new_array();
    for (const auto& app : point.apps)
        plist_array_append_item(apps, appNode(app));
    plist_dict_set_item(dict, "apps", apps);

    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bytes, &length);
    std::vector<std::byte> out;
    if (bytes) {
        const auto* first = reinterpret_cast<const std::byte*>(bytes);
        out.assign(first, first + length);
        plist_to_bin_free(bytes);
    }
    return out;
}

std::optional<HealthPoint> decodeHealthPointPlist(std::span<const std::byte> bytes) {
    if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
    plist_t raw = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &raw);
    PlistNode root(raw);
    plist_t dict = root.get();
    if (!dict || plist_get_node_type(dict) != PLIST_DICT) return std::nullopt;

    HealthPoint point;
    const bool ok =
        readDate(dict, "start", point.start) && readReal(dict, "seconds", point.seconds) &&
        readReal(dict, "cpu", point.cpu) && readReal(dict, "cpuPeak", point.cpuPeak) &&
        readReal(dict, "memory", point.memory) && readReal(dict, "memoryPeak", point.memoryPeak) &&
        readState(dict, "pressure", point.pressure) && readReal(dict, "pressureShare", point.pressureShare) &&
        readUint(dict, "swapBytes", point.swapBytes) && readReal(dict, "networkIn", point.networkIn) &&
        readReal(dict, "networkOut", point.networkOut) && readReal(dict, "diskRead", point.diskRead) &&
        readReal(dict, "diskWritten", point.diskWritten) && readState(dict, "thermal", point.thermal) &&
        readOptionalReal(dict, "charge", point.charge);
    if (!ok) return std::nullopt;

    plist_t apps = plist_dict_get_item(dict, "apps");
    if (!apps || plist_get_node_type(apps) != PLIST_ARRAY) return std::nullopt;
    const uint32_t count = plist_array_get_size(apps);
    point.apps.resize(count);
    for (uint32_t i = 0; i < count; ++i)
        if (!readApp(plist_array_get_item(apps, i), point.apps[i])) return std::nullopt;
    return point;
}

} // namespace vantle
