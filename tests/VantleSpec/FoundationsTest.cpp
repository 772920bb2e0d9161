#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Json.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/Time.h"

#include <gtest/gtest.h>

#include <limits>

using namespace vantle;
using namespace std::chrono;

namespace vantle {
enum class Colour { red, green };
VANTLE_ENUM_NAMES(Colour, "red", "green")
struct Sample {
    std::string name;
    std::optional<int> count;
    TimePoint at;
    Colour colour = Colour::red;
    bool operator==(const Sample&) const = default;
};
VANTLE_RECORD_JSON(Sample, name, count, at, colour)
} // namespace vantle

TEST(IsoDate, WritesUtcWithMillisecondsAndReadsItBack) {
    TimePoint at = sys_days{2026y / November / 21} + 19h + 13min + 5s + 123ms;
    EXPECT_EQ(isoDate(at), "2026-11-21T19:13:05.123Z");
    EXPECT_EQ(parseIsoDate("2026-11-21T19:13:05.123Z"), at);
    EXPECT_EQ(parseIsoDate("2026-11-21T20:13:05.123+01:00"), at);
    EXPECT_EQ(parseIsoDate("2026-11-21T19:13:05Z"), at - 123ms);
    EXPECT_EQ(isoDate(sys_days{1999y / December / 31} + 23h + 59min + 59s + 999ms),
              "1999-12-31T23:59:59.999Z");
}

TEST(IsoDate, WritesTheCalendarsEdgesAndTheClocksLimits) {
    EXPECT_EQ(isoDate(sys_days{2000y / February / 29} + 123ms), "2000-02-29T00:00:00.123Z");
    EXPECT_EQ(isoDate(sys_days{2100y / March / 1} - 1ms), "2100-02-28T23:59:59.999Z");
    EXPECT_EQ(isoDate(TimePoint{} - 1ms), "1969-12-31T23:59:59.999Z");
    // Below the millisecond the fraction is cut toward 1970, as toMilliseconds keeps stored dates.
    EXPECT_EQ(isoDate(TimePoint{} - 1ns), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(isoDate(sys_days{1900y / January / 1} + 1h + 2min + 3s + 4ms), "1900-01-01T01:02:03.004Z");
    EXPECT_EQ(isoDate(TimePoint::min()), "1677-09-21T00:12:43.146Z");
    EXPECT_EQ(isoDate(TimePoint::max()), "2262-04-11T23:47:16.854Z");
}

TEST(IsoDate, ReadsBackEveryWrittenDateToTheMillisecond) {
    // Steps of a prime number of seconds plus odd milliseconds meet every month, weekday and hour
    // from before 1970 to after 2100.
    for (auto at = TimePoint{sys_days{1890y / January / 1}}; at < sys_days{2130y / January / 1};
         at += 86'413s * 97 + 7ms) {
        auto text = isoDate(at);
        ASSERT_EQ(parseIsoDate(text), at) << text;
    }
}

TEST(IsoDate, RefusesWhatIsNotADate) {
    for (auto bad : {"", "yesterday", "2026-13-01T00:00:00Z", "2026-02-30T00:00:00Z", "2026-11-21T19:13:05",
                     "2026-11-21T19:13:05.Z", "2026-11-21T19:13:05Zjunk", "2026-11-21T25:00:00Z"})
        EXPECT_FALSE(parseIsoDate(bad)) << bad;
}

TEST(ByteCount, FileStyleCountsInThousands) {
    EXPECT_EQ(fileBytes(0), "Zero KB");
    EXPECT_EQ(fileBytes(1), "1 byte");
    EXPECT_EQ(fileBytes(999), "999 bytes");
    EXPECT_EQ(fileBytes(1000), "1 KB");
    EXPECT_EQ(fileBytes(1500), "2 KB");
    EXPECT_EQ(fileBytes(999'600), "1 MB"); // rounds up into the next unit, never "1000 KB"
    EXPECT_EQ(fileBytes(1'500'000), "1.5 MB");
    EXPECT_EQ(fileBytes(19'990'000'000), "19.99 GB");
    EXPECT_EQ(fileBytes(2'000'000'000'000), "2 TB");
}

TEST(ByteCount, MemoryStyleCountsInPowersOf1024) {
    EXPECT_EQ(memoryBytes(1024), "1 KB");
    EXPECT_EQ(memoryBytes(1000), "1000 bytes");
    EXPECT_EQ(memoryBytes(8LL << 30), "8 GB");
    EXPECT_EQ(memoryBytes(1536LL << 20), "1.5 GB");
    EXPECT_EQ(percent(0.425), "43%");
    EXPECT_EQ(percent(0.0), "0%");
}

TEST(Sentence, FillsNamedPlacesAndLeavesUnknownOnes) {
    EXPECT_EQ(fillIn("{path} is not a sandbox: {reason}.", {{"path", "/x"}, {"reason", "no"}}),
              "/x is not a sandbox: no.");
    EXPECT_EQ(fillIn("keep {this} as it is", {{"path", "/x"}}), "keep {this} as it is");
}

TEST(RecordJson, KeysInDeclarationOrderAndAbsentOptionalsLeftOut) {
    Sample s{"a", std::nullopt, sys_days{2026y / January / 2} + 3h, Colour::green};
    EXPECT_EQ(encodeJson(s), R"({"name":"a","at":"2026-01-02T03:00:00.000Z","colour":"green"})");
    s.count = 4;
    EXPECT_EQ(encodeJson(s), R"({"name":"a","count":4,"at":"2026-01-02T03:00:00.000Z","colour":"green"})");
    EXPECT_EQ(decodeJson<Sample>(encodeJson(s)), s);
}

TEST(RecordJson, MalformedInputIsAnErrorValue) {
    EXPECT_FALSE(decodeJson<Sample>("{"));
    EXPECT_FALSE(decodeJson<Sample>(R"({"name":"a","at":"soon","colour":"red"})"));
    EXPECT_FALSE(decodeJson<Sample>(R"({"name":"a","at":"2026-01-02T03:00:00Z","colour":"blue"})"));
    EXPECT_FALSE(decodeJson<Sample>(R"({"at":"2026-01-02T03:00:00Z","colour":"red"})"));
    EXPECT_FALSE(decodeJson<Sample>(R"([1,2])"));
    EXPECT_TRUE(
        decodeJson<Sample>(R"({"name":"a","count":null,"at":"2026-01-02T03:00:00Z","colour":"red"})"));
}

TEST(ByteCount, PercentOfAnOutOfRangeReadingIsClampedNotWrapped) {
    EXPECT_EQ(percent(0.425), "43%");
    EXPECT_EQ(percent(1.875), "188%") << "a process may use more than one core";
    EXPECT_EQ(percent(1e308), "1000000%") << "was shown as -9223372036854775808%";
    EXPECT_EQ(percent(-0.5), "0%");
    EXPECT_EQ(percent(std::numeric_limits<double>::quiet_NaN()), "0%");
}
