#include "VantleSpec/JsonBytes.h"
#include "VantleSpec/Json.h"
#include "VantleSpec/LibraryRecords.h"

#include <gtest/gtest.h>

using namespace vantle;

TEST(JsonBytes, EverydayNamesAreWrittenAsTheyAre) {
    for (std::string name :
         {"/home/ana/Photos/été 2024.jpg", "/h/日本語/ファイル.txt", "/h/emoji 🎉.png", "/h/tab\there"})
        EXPECT_EQ(escapeBytes(name), name);
    // Control characters are valid text: JSON's own \u escape keeps them.
    EXPECT_EQ(dumpEscaped(Json("a\nb\x1b")), R"("a\nb\u001b")");
}

TEST(JsonBytes, BytesThatAreNotUtf8BecomeOnePrivateCharacterEach) {
    EXPECT_EQ(escapeBytes("a\xff"), "a\xEF\x9F\xBF");               // U+F7FF
    EXPECT_EQ(escapeBytes("\x80z"), "\xEF\x9E\x80z");               // U+F780: a lone continuation byte
    EXPECT_EQ(escapeBytes("\xC3"), "\xEF\x9F\x83");                 // a sequence cut short
    EXPECT_EQ(escapeBytes("\xC0\xAF"), "\xEF\x9F\x80\xEF\x9E\xAF"); // an overlong "/" is not a slash
    EXPECT_EQ(escapeBytes("\xED\xA0\x80"), "\xEF\x9F\xAD\xEF\x9E\xA0\xEF\x9E\x80"); // a surrogate
}

TEST(JsonBytes, ANameHoldingTheEscapeCharacterItselfComesBackExact) {
    std::string name = "/h/\xEF\x9F\xBF-real-U+F7FF and \xff raw";
    auto escaped = escapeBytes(name);
    EXPECT_NE(escaped, name);
    EXPECT_EQ(unescapeBytes(escaped), name);
    // U+F700..U+F77F are outside the escape and pass through both ways.
    EXPECT_EQ(escapeBytes("\xEF\x9C\x80"), "\xEF\x9C\x80");
    EXPECT_EQ(unescapeBytes("\xEF\x9C\x80"), "\xEF\x9C\x80");
}

TEST(JsonBytes, ARecordWithANonUtf8PathDecodesToTheSameBytes) {
    FileItem item;
    item.path = "/h/Downloads/r\xe9sum\xe9.pdf"; // Latin-1, as an old archive leaves it
    item.name = "r\xe9sum\xe9.pdf";
    item.size = 5;
    auto text = encodeJson(item);
    EXPECT_TRUE(text.contains("r\xEF\x9F\xA9sum")) << text;
    auto back = decodeJson<FileItem>(text);
    ASSERT_TRUE(back) << back.error();
    EXPECT_EQ(back->path, item.path);
    EXPECT_EQ(back->name, item.name);
    // The same escape written by another program as \u sequences reads the same.
    auto spelled = decodeJson<FileItem>(
        R"({"path":"/h/r\uf7e9","name":"x","contentType":"","size":1,"sources":[],"isScreenshot":false})");
    ASSERT_TRUE(spelled) << spelled.error();
    EXPECT_EQ(spelled->path, "/h/r\xe9");
}
