#include "VantleSpec/Json.h"
#include "VantleSpec/TerminalText.h"

#include <gtest/gtest.h>

using namespace vantle;

namespace {
std::string nested(int depth, char open, char close) {
    return std::string(depth, open) + std::string(depth, close);
}

struct Counted {
    int small = 0;
    std::optional<std::uint16_t> port;
    bool operator==(const Counted&) const = default;
};
VANTLE_RECORD_JSON(Counted, small, port)
} // namespace

TEST(JsonReading, ArrayNestedAHundredThousandDeepIsRefusedNotACrash) {
    auto read = readJson(nested(100'000, '[', ']'));
    ASSERT_FALSE(read);
    EXPECT_EQ(read.error(), "nested deeper than 64 levels");
    auto objects = readJson(std::string(100'000, '{').append("}"));
    EXPECT_FALSE(objects);
}

TEST(JsonReading, NestingUpToTheLimitIsKept) {
    auto read = readJson(nested(64, '[', ']'));
    ASSERT_TRUE(read) << read.error();
    EXPECT_FALSE(readJson(nested(65, '[', ']')));
    EXPECT_FALSE(readJson("{\"a\": [1, 2"));
}

TEST(JsonReading, NumberThatDoesNotFitItsFieldMakesTheRecordUnreadable) {
    EXPECT_FALSE(decodeJson<Counted>(R"({"small": 99999999999})")) << "would wrap to 1215752191";
    EXPECT_FALSE(decodeJson<Counted>(R"({"small": 2.5})"));
    EXPECT_FALSE(decodeJson<Counted>(R"({"small": 1, "port": 70000})"));
    EXPECT_FALSE(decodeJson<Counted>(R"({"small": 1, "port": -1})"));
    auto fits = decodeJson<Counted>(R"({"small": -2147483648, "port": 65535})");
    ASSERT_TRUE(fits) << fits.error();
    EXPECT_EQ(fits->small, -2147483648);
    EXPECT_EQ(fits->port, 65535);
}

TEST(TerminalText, ControlCharactersInNamesAreShownEscapedAsLsDoes) {
    EXPECT_EQ(terminalSafe("report.pdf"), "report.pdf");
    EXPECT_EQ(terminalSafe("Café ☕.txt"), "Café ☕.txt");
    EXPECT_EQ(terminalSafe("a\nb"), "a$'\\n'b");
    EXPECT_EQ(terminalSafe("\x1b]0;pwned\x07.txt"), "$'\\033']0;pwned$'\\a'.txt");
    EXPECT_EQ(terminalSafe("tab\t\r"), "tab$'\\t\\r'");
    EXPECT_EQ(terminalSafe("del\x7f"), "del$'\\177'");
    EXPECT_EQ(terminalSafe("bad\xff\xfe"), "bad$'\\377\\376'") << "bytes that are not UTF-8";
    EXPECT_EQ(terminalSafe("c1\xc2\x9b"
                           "x"),
              "c1$'\\302\\233'x")
        << "a C1 control spelled in UTF-8";
    EXPECT_EQ(terminalSafe("\xed\xa0\x80"), "$'\\355\\240\\200'") << "an encoded surrogate";
}
