// The duplicate scan written while it is walked must be the very text the ordinary coder gives, so
// readers of `files duplicates --json` cannot tell which one printed it.
#include "VantleLibrary/DuplicateScanJson.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;

namespace {

std::string streamedScan(const DuplicateScan& scan, int indent) {
    std::string text;
    {
        JsonWriter out([&](std::string_view piece) { text += piece; }, indent);
        writeJson(out, scan);
    }
    return text;
}

FileItem scanJsonItem(std::string path, std::int64_t size) {
    FileItem item;
    item.name = path.substr(path.rfind('/') + 1);
    item.path = std::move(path);
    item.size = size;
    return item;
}

// Names of every awkward kind: quotes and backslashes, control characters, bytes that are not
// UTF-8, a character of the escape's own range, accents and emoji.
DuplicateScan awkwardScan() {
    DuplicateScan scan;
    scan.at = sys_days{2026y / November / 23} + 12h + 1min + 2s + 3ms;
    scan.candidates = 37'600;
    scan.bytesRead = 0;
    scan.seconds = 0.1234567;
    scan.missed = 2;
    scan.note = "Stopped at \"the deadline\"\n";

    DuplicateGroup first{"ab12", 16'384, {}};
    auto plain = scanJsonItem("/home/u/Documents/report.pdf", 16'384);
    plain.contentType = "application/pdf";
    plain.kind = LibraryKind::documents;
    plain.created = sys_days{1969y / December / 31} + 23h + 59min + 59s + 999ms;
    plain.modified = sys_days{2024y / February / 29};
    plain.sources = {"https://example.org/a?b=\"c\"", "mail \\ box"};
    plain.isScreenshot = true;
    first.items.push_back(plain);
    auto odd = scanJsonItem(std::string("/home/u/odd\x01\x1f\x7f\t\r\b\f name\xff\xfe.bin"), 16'384);
    odd.lastOpened = sys_days{2262y / January / 1};
    odd.added = sys_days{1700y / January / 1};
    odd.length = 2.0;
    first.items.push_back(odd);
    scan.groups.push_back(first);

    DuplicateGroup second{"cd34", 5, {}};
    auto escapeRange = scanJsonItem("/home/u/caf\xc3\xa9 \xef\x9e\x80 \xf0\x9f\x98\x80.txt", 5);
    escapeRange.length = 1e-05;
    second.items.push_back(escapeRange);
    // Past the first few dozen bytes, where a check made many bytes at a time meets it.
    second.items.push_back(scanJsonItem("/home/u/a folder with a long name, and more/copy \\ of \"it\"", 5));
    scan.groups.push_back(second);

    scan.sharing.push_back({"ab12", {{"/home/u/a", "/home/u/b"}, {}}, {"/home/u/c"}, 16'384});
    scan.sharing.push_back({"cd34", {}, {}, 0});
    return scan;
}

} // namespace

TEST(DuplicateScanJson, IsTheOrdinaryCodersTextForAwkwardNamesAndEveryOptional) {
    auto scan = awkwardScan();
    for (int indent : {2, 4, -1})
        EXPECT_EQ(streamedScan(scan, indent), dumpEscaped(Json(scan), indent)) << "indent " << indent;
}

TEST(DuplicateScanJson, IsTheOrdinaryCodersTextForAnEmptyOrIncompleteScan) {
    DuplicateScan empty;
    EXPECT_EQ(streamedScan(empty, 2), dumpEscaped(Json(empty), 2));

    DuplicateScan stopped;
    stopped.isComplete = false;
    stopped.seconds = std::numeric_limits<double>::infinity();
    stopped.groups.push_back({"ef", 1, {}});
    stopped.sharing.push_back({"ef", {{}}, {}, 0});
    EXPECT_EQ(streamedScan(stopped, 2), dumpEscaped(Json(stopped), 2));
}

TEST(JsonWriter, PlacesASmallTreeAtItsOwnDepth) {
    Json small = {{"a", {1, 2}}, {"b", Json::object()}, {"c", "line\nbreak"}};
    std::string text;
    {
        JsonWriter out([&](std::string_view piece) { text += piece; });
        out.beginArray();
        out.beginObject();
        out.key("small");
        out.value(small);
        out.endObject();
        out.endArray();
    }
    EXPECT_EQ(text, Json::array({{{"small", small}}}).dump(2));
}

TEST(JsonWriter, HandsOverALargeAnswerInPiecesThatJoinUp) {
    std::vector<std::string> pieces;
    DuplicateScan scan;
    for (int g = 0; g < 3'000; ++g)
        scan.groups.push_back({std::to_string(g), g, {scanJsonItem("/h/" + std::to_string(g), g)}});
    {
        JsonWriter out([&](std::string_view piece) { pieces.emplace_back(piece); });
        writeJson(out, scan);
    }
    ASSERT_GT(pieces.size(), 2u) << "the answer is not held whole before it is handed on";
    std::string joined;
    for (const auto& piece : pieces)
        joined += piece;
    EXPECT_EQ(joined, dumpEscaped(Json(scan), 2));
}
