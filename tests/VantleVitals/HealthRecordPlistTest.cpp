#include "VantleVitals/PlistHealthPoint.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstring>

using namespace vantle;
using namespace std::chrono;

namespace {

HealthPoint fullPoint(TimePoint start) {
    HealthPoint p;
    p.start = start;
    p.seconds = 58.5;
    p.cpu = 0.125;
    p.cpuPeak = 0.875;
    p.memory = 0.5;
    p.memoryPeak = 0.625;
    p.pressure = VitalsSnapshot::Pressure::warning;
    p.pressureShare = 0.25;
    p.swapBytes = 5'000'000'000ULL;
    p.networkIn = 1234.5;
    p.networkOut = 99;
    p.diskRead = 4096;
    p.diskWritten = 8192.25;
    p.thermal = VitalsSnapshot::Thermal::serious;
    p.charge = 0.42;
    p.apps = {{"Browser", 150.5, 1ULL << 31, 3.5}, {"Editor", 2, 1024, std::nullopt}};
    return p;
}

struct PlistFree {
    void operator()(plist_t p) const { plist_free(p); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist parse(const std::vector<std::byte>& bytes) {
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), uint32_t(bytes.size()), &root);
    return Plist(root);
}

std::vector<std::byte> toBin(plist_t root) {
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    std::vector<std::byte> out(reinterpret_cast<std::byte*>(bytes),
                               reinterpret_cast<std::byte*>(bytes) + length);
    plist_to_bin_free(bytes);
    return out;
}

std::vector<std::byte> bytesOf(std::string_view text) {
    std::vector<std::byte> out(text.size());
    std::memcpy(out.data(), text.data(), text.size());
    return out;
}

} // namespace

TEST(HealthPointPlist, RoundTripsEveryFieldIncludingDatesOnEitherSideOf2001) {
    for (TimePoint start : {TimePoint(sys_days{2026y / March / 3} + 12h + 7min),
                            TimePoint(sys_days{2026y / March / 3} + 12h + 7min + 250ms),
                            TimePoint(sys_days{1999y / December / 31} + 23h + 59min + 59s + 500ms)}) {
        auto point = fullPoint(start);
        auto bytes = encodeHealthPointPlist(point);
        ASSERT_GE(bytes.size(), 8u);
        EXPECT_EQ(std::memcmp(bytes.data(), "bplist00", 8), 0) << "a binary property list";
        EXPECT_EQ(decodeHealthPointPlist(bytes), point) << isoDate(start);
    }
}

TEST(HealthPointPlist, KeysAreTheFieldNamesInOrderAndAbsentOptionalsAreLeftOut) {
    auto point = fullPoint(sys_days{2026y / March / 3});
    point.charge.reset();
    auto root = parse(encodeHealthPointPlist(point));
    ASSERT_TRUE(root);
    std::vector<std::string> keys;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(root.get(), &iter);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(root.get(), iter, &key, &value);
        if (!key) break;
        keys.emplace_back(key);
        free(key);
    }
    free(iter);
    EXPECT_EQ(keys, (std::vector<std::string>{"start", "seconds", "cpu", "cpuPeak", "memory", "memoryPeak",
                                              "pressure", "pressureShare", "swapBytes", "networkIn",
                                              "networkOut", "diskRead", "diskWritten", "thermal", "apps"}));
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(root.get(), "start")), PLIST_DATE);
    plist_t editor = plist_array_get_item(plist_dict_get_item(root.get(), "apps"), 1);
    EXPECT_EQ(plist_dict_get_item(editor, "watts"), nullptr);
    EXPECT_EQ(decodeHealthPointPlist(encodeHealthPointPlist(point)), point);
}

TEST(HealthPointPlist, WhatIsNotAPointDoesNotDecode) {
    const auto good = encodeHealthPointPlist(fullPoint(sys_days{2026y / March / 3}));
    EXPECT_FALSE(decodeHealthPointPlist({}));
    EXPECT_FALSE(decodeHealthPointPlist(bytesOf("not a property list")));
    EXPECT_FALSE(decodeHealthPointPlist(std::span(good).first(good.size() / 2))) << "cut short";

    auto altered = [&](auto change) {
        auto root = parse(good);
        change(root.get());
        return decodeHealthPointPlist(toBin(root.get()));
    };
    EXPECT_TRUE(altered([](plist_t) {})) << "the unaltered point decodes";
    EXPECT_FALSE(altered([](plist_t d) { plist_dict_remove_item(d, "cpu"); })) << "a missing field";
    EXPECT_FALSE(altered([](plist_t d) { plist_dict_set_item(d, "cpu", plist_new_string("busy")); }))
        << "a field of the wrong type";
    EXPECT_FALSE(altered([](plist_t d) { plist_dict_set_item(d, "thermal", plist_new_string("scorching")); }))
        << "an unknown state";
    EXPECT_FALSE(altered([](plist_t d) { plist_dict_set_item(d, "apps", plist_new_string("none")); }))
        << "apps that are not a list";
    EXPECT_FALSE(altered([](plist_t d) {
        plist_dict_remove_item(plist_array_get_item(plist_dict_get_item(d, "apps"), 0), "name");
    })) << "an app without a name";

    Plist array(plist_new_array());
    EXPECT_FALSE(decodeHealthPointPlist(toBin(array.get()))) << "a root that is not a dictionary";
}
