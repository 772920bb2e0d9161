#include "VantleLibrary/Library.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::TempDir;

// A search as the user types must not walk the home once per key: after a change is heard it still
// answers from the reading in hand, and only the next read() walks again.
TEST(LibraryFind, AnswersFromTheReadingInHandEvenWhenAChangeMadeItStale) {
    TempDir home, data;
    home.write("Documents/tax return 2025.pdf", "pdf");
    home.write("Downloads/tax-form.zip", "zip");
    Library::Options options;
    options.useSpotlight = false;
    options.catalogFile = data / "Library/catalog.index";
    Library library(LibraryScope{home.path(), {}}, options);
    CancelFlag cancel;
    FileQuery query;
    query.terms = {"tax"};
    query.sort = FileQuery::Sort::name;

    auto first = library.find(query, cancel); // nothing read yet: this one walks
    ASSERT_TRUE(first);
    ASSERT_EQ(first->items.size(), 2u);

    home.write("Desktop/tax notes.txt", "new");
    library.catalog().noteChanges();
    auto typed = library.find(query, cancel);
    ASSERT_TRUE(typed);
    EXPECT_EQ(typed->items.size(), 2u) << "answered from the reading in hand, without a walk";

    library.read(cancel); // what the Home page does when it hears the change
    auto after = library.find(query, cancel);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->items.size(), 3u);
}
