// Figures for people keep to what they can mean, whatever a kept file or a stand-in said.
#include "VantleSpec/Figures.h"
#include "VantleSpec/ByteCount.h"

#include <gtest/gtest.h>

#include <limits>

using namespace vantle;

TEST(Figures, NonsenseValuesWereShownAsWrappedOrEndlessNumbers) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(wholePercent(1e308), "100%");
    EXPECT_EQ(wholePercent(-5), "0%");
    EXPECT_EQ(wholePercent(nan), "0%");
    EXPECT_EQ(wholePercent(41.5), "42%");
    EXPECT_EQ(wholeNumber(-3), "0") << "a count is never below zero";
    EXPECT_EQ(wholeNumber(1e308), "1000000000000000");
    EXPECT_EQ(countWords(-2, "item", "items"), "0 items");
    EXPECT_EQ(countWords(1, "item", "items"), "1 item");
    EXPECT_EQ(decimalFigure(1e308, 1, 0, 1e5), "100000.0");
    EXPECT_EQ(decimalFigure(nan, 2, 0, 10), "0.00");
    EXPECT_EQ(durationWords(-1800), "0 minutes");
    EXPECT_EQ(durationWords(1e308), "36500 days") << "at most a century";
    EXPECT_EQ(durationWords(2 * 3600 + 59), "2 hours");
    EXPECT_EQ(durationInTwoUnits(-60), "0 minutes");
    EXPECT_EQ(durationInTwoUnits(86400 + 3 * 3600 + 120), "1 day 3 hours");
    EXPECT_EQ(fileBytes(-5'000'000), "Zero KB") << "a byte count is never below none";
    EXPECT_EQ(percent(1e308), "1000000%");
}
