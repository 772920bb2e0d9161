#include "Vantle_Lite/LiteProduct.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;

TEST(LiteProduct, HealthRecordChoiceIsKeptInTheSettingsAndOffUntilChosen) {
    TempDir dir;
    dir.mkdir("home");
    VantleLite::Options options;
    options.sandbox = dir / "box";
    options.sandboxRule = SandboxRule{{dir / "home"}};
    {
        auto product = LiteProduct::make(*VantleLite::make(options));
        EXPECT_FALSE(product->keepsHealthRecord());
        product->setKeepsHealthRecord(true);
    }
    auto again = LiteProduct::make(*VantleLite::make(options));
    EXPECT_TRUE(again->keepsHealthRecord());
    EXPECT_EQ(again->settings().boolean("keepHealthRecord"), true);
}
