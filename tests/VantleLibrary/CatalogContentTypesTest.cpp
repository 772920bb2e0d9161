#include "VantleLibrary/ContentTypes.h"

#include <gtest/gtest.h>

#include <set>

using namespace vantle;

TEST(ContentTypes, TheTableIsConsistent) {
    std::set<std::string_view> extensions;
    for (const auto& row : contentTypes()) {
        EXPECT_TRUE(extensions.insert(row.extension).second) << "twice: " << row.extension;
        EXPECT_EQ(lowerExtension("x." + std::string(row.extension)), row.extension) << "not lower case";
        // A MIME type shared by two rows must not mean two kinds, or the kind would depend on row order.
        EXPECT_EQ(kindOfContentType(row.mime), row.kind) << row.extension << " " << row.mime;
        EXPECT_EQ(contentTypeForExtension(row.extension), row.mime);
    }
    EXPECT_GT(extensions.size(), 100u);
}

TEST(ContentTypes, NamesAreReadByTheirLastExtensionIgnoringCase) {
    EXPECT_EQ(contentTypeForName("IMG_0001.JPG"), "image/jpeg");
    EXPECT_EQ(contentTypeForName("Report.Final.PDF"), "application/pdf");
    EXPECT_EQ(contentTypeForName("backup.tar.gz"), "application/gzip");
    EXPECT_EQ(contentTypeForName("Setup.AppImage"), "application/vnd.appimage");
    EXPECT_EQ(lowerExtension("Holiday.MOV"), "mov");

    for (auto name :
         {"README", ".bashrc", "trailing.", "", "a.averyveryverylongextension", "data.unknownext"}) {
        EXPECT_EQ(contentTypeForName(name), unknownContentType) << name;
        EXPECT_FALSE(kindOfContentType(contentTypeForName(name))) << name;
    }
    EXPECT_EQ(lowerExtension(".bashrc"), "");
    EXPECT_EQ(lowerExtension("a."), "");
}

TEST(ContentTypes, KindsComeFromTheContentType) {
    EXPECT_EQ(kindOfContentType(contentTypeForName("a.heic")), LibraryKind::images);
    EXPECT_EQ(kindOfContentType(contentTypeForName("a.mkv")), LibraryKind::videos);
    EXPECT_EQ(kindOfContentType(contentTypeForName("a.flac")), LibraryKind::music);
    EXPECT_EQ(kindOfContentType(contentTypeForName("a.key")), LibraryKind::documents);
    EXPECT_EQ(kindOfContentType(contentTypeForName("a.dmg")), LibraryKind::archives);
    EXPECT_EQ(kindOfContentType(contentTypeForName("Photos.app")), LibraryKind::apps);
    // Families the table does not list still have a kind by their MIME family.
    EXPECT_EQ(kindOfContentType("image/x-something-new"), LibraryKind::images);
    EXPECT_EQ(kindOfContentType("audio/x-new"), LibraryKind::music);
    EXPECT_EQ(kindOfContentType("text/x-csrc"), LibraryKind::documents);
    // ...but a listed text type with no kind keeps none.
    EXPECT_FALSE(kindOfContentType("text/calendar"));
    EXPECT_FALSE(kindOfContentType(folderContentType));
    EXPECT_FALSE(kindOfContentType(contentTypeForName("font.woff2")));
    EXPECT_TRUE(isAppBundleName("Safari.APP"));
    EXPECT_FALSE(isAppBundleName("apps"));
}
