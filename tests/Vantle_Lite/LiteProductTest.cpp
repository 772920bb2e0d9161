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

TEST(LiteProduct, HealthRecordWasNotKeptWhileTheProgramRan) {
    TempDir dir;
    dir.mkdir("home");
    VantleLite::Options options;
    options.sandbox = dir / "box";
    options.sandboxRule = SandboxRule{{dir / "home"}};
    auto minutesKept = [&] {
        return VantleLite::make(options)->healthRecord->latest(HealthRecord::Table::minutes);
    };
    {
        // A product for one command never records: its seconds would replace the app's minute.
        auto command = LiteProduct::make(*VantleLite::make(options), LiteProduct::Lifetime::oneCommand);
        command->setKeepsHealthRecord(true);
    }
    EXPECT_FALSE(minutesKept());
    {
        auto program = LiteProduct::make(*VantleLite::make(options));
        ASSERT_TRUE(program->keepsHealthRecord());
    } // the open minute is written as the program ends
    EXPECT_TRUE(minutesKept()) << "the record is kept while the program runs and the choice is on";

    TempDir off;
    off.mkdir("home");
    options.sandbox = off / "box";
    options.sandboxRule = SandboxRule{{off / "home"}};
    { auto program = LiteProduct::make(*VantleLite::make(options)); }
    EXPECT_FALSE(minutesKept()) << "nothing is written until the user turns the record on";
}
