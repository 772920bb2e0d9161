#include "VantleLibrary/SearchParser.h"

#include <gtest/gtest.h>

using namespace vantle;
using namespace std::chrono;
using Sort = FileQuery::Sort;
using DateField = FileQuery::DateField;
using Chips = std::vector<std::string>;

namespace {

// Sunday 15 March 2026, 12:00 UTC; the user is two hours ahead of UTC.
const TimePoint parseNow = sys_days{2026y / March / 15} + 12h;
const auto offset = hours(2);
TimePoint localMidnight(year_month_day day) {
    return sys_days{day} - offset;
}

ParsedSearch parse(std::string_view words) {
    SearchParser parser([] { return parseNow; }, Calendar::fixed(offset), "/home/u");
    return parser.parse(words);
}

} // namespace

TEST(SearchParser, KindWordsGiveTheirKindsExtensionsAndChips) {
    auto screenshots = parse("screenshots");
    EXPECT_TRUE(screenshots.query.screenshotsOnly);
    EXPECT_TRUE(screenshots.query.kinds.empty());
    EXPECT_EQ(screenshots.chips, Chips{"Screenshots"});
    EXPECT_TRUE(screenshots.query.terms.empty());

    auto pdfs = parse("pdfs");
    EXPECT_EQ(pdfs.query.extensions, std::set<std::string>{"pdf"});
    EXPECT_TRUE(pdfs.query.kinds.empty());
    EXPECT_EQ(pdfs.chips, Chips{"PDFs"});

    auto photos = parse("photos");
    EXPECT_EQ(photos.query.kinds, std::set{LibraryKind::images});
    EXPECT_EQ(photos.chips, Chips{"Images"});

    auto keynote = parse("keynote");
    EXPECT_EQ(keynote.query.extensions, std::set<std::string>{"key"});
    EXPECT_EQ(keynote.chips, Chips{"Keynote presentations"});
    auto presentations = parse("presentations");
    EXPECT_EQ(presentations.query.extensions, (std::set<std::string>{"key", "pptx", "ppt", "odp"}));
    EXPECT_EQ(presentations.chips, Chips{"Presentations"});

    // A broad word right after a narrow one only repeats it; separate kinds add up.
    auto keynotePresentations = parse("keynote presentations");
    EXPECT_EQ(keynotePresentations.query.extensions, std::set<std::string>{"key"});
    EXPECT_EQ(keynotePresentations.chips, Chips{"Keynote presentations"});
    auto photosAndVideos = parse("Photos and VIDEOS");
    EXPECT_EQ(photosAndVideos.query.kinds, (std::set{LibraryKind::images, LibraryKind::videos}));
    EXPECT_EQ(photosAndVideos.chips, (Chips{"Images", "Videos"}));
    EXPECT_TRUE(photosAndVideos.query.terms.empty());
}

TEST(SearchParser, LessCommonKindWordsGiveTheirChipsAndLeaveNoNameTerm) {
    const std::vector<std::pair<std::string_view, std::string>> expected{
        {"screengrab", "Screenshots"},
        {"selfies", "Images"},
        {"footage", "Videos"},
        {"podcasts", "Music"},
        {"paperwork", "Documents"},
        {"csv", "Spreadsheets"},
        {"decks", "Presentations"},
        {"docx", "Word documents"},
        {"zips", "Zip archives"},
        {"compressed", "Archives"},
        {"dmg", "Installers"},
        {"programs", "Apps"},
        {"epubs", "E-books"},
        {"blender", "Blender files"},
        {"fonts", "Fonts"},
        {"apk", "APKs"},
    };
    for (const auto& [word, chip] : expected) {
        auto parsed = parse(word);
        EXPECT_EQ(parsed.chips, Chips{chip}) << word;
        EXPECT_TRUE(parsed.query.terms.empty()) << word;
    }
    EXPECT_EQ(parse("csv").query.extensions,
              (std::set<std::string>{"xlsx", "xls", "numbers", "csv", "ods", "tsv"}));
    EXPECT_EQ(parse("dmg").query.extensions, (std::set<std::string>{"dmg", "pkg", "mpkg"}));
    EXPECT_EQ(parse("fonts").query.extensions, (std::set<std::string>{"ttf", "otf", "woff", "woff2"}));
    EXPECT_EQ(parse("programs").query.kinds, std::set{LibraryKind::apps});
}

TEST(SearchParser, AMonthAFortnightOrACoupleOfDaysAloneAreDateWordsNotNameTerms) {
    auto month = parse("a month");
    EXPECT_TRUE(month.query.terms.empty());
    EXPECT_EQ(month.query.after, parseNow - days(30));
    EXPECT_EQ(month.chips, Chips{"Last month"});

    auto fortnight = parse("a fortnight");
    EXPECT_TRUE(fortnight.query.terms.empty());
    EXPECT_EQ(fortnight.query.after, parseNow - days(14));
    EXPECT_EQ(fortnight.chips, Chips{"Last fortnight"});

    auto couple = parse("couple of days");
    EXPECT_TRUE(couple.query.terms.empty());
    EXPECT_EQ(couple.query.after, parseNow - days(2));
    EXPECT_EQ(couple.chips, Chips{"Last 2 days"});

    // A unit on its own stays part of a name.
    EXPECT_EQ(parse("month report").query.terms, (std::vector<std::string>{"month", "report"}));
}

TEST(SearchParser, WholeSearchesReadIntoOneQuery) {
    auto big = parse("big videos from last month");
    EXPECT_EQ(big.query.kinds, std::set{LibraryKind::videos});
    EXPECT_EQ(big.query.minSize, 100'000'000);
    EXPECT_EQ(big.query.after, parseNow - days(30));
    EXPECT_FALSE(big.query.before);
    EXPECT_EQ(big.query.dateField, DateField::any);
    EXPECT_TRUE(big.query.terms.empty());
    EXPECT_EQ(big.chips, (Chips{"Videos", "Last month", "Over 100 MB"}));
    EXPECT_EQ(big.source, "big videos from last month");

    auto gmail = parse("pdfs from gmail older than 6 months");
    EXPECT_EQ(gmail.query.extensions, std::set<std::string>{"pdf"});
    EXPECT_EQ(gmail.query.source, "gmail");
    EXPECT_EQ(gmail.query.before, parseNow - days(180));
    EXPECT_FALSE(gmail.query.after);
    EXPECT_TRUE(gmail.query.terms.empty());
    EXPECT_EQ(gmail.chips, (Chips{"PDFs", "Older than 6 months", "From Gmail"}));

    auto drive = parse("show me the spreadsheets from Google Drive, newest first");
    EXPECT_EQ(drive.query.source, "gdrive");
    EXPECT_EQ(drive.query.sort, Sort::newest);
    EXPECT_EQ(drive.chips, (Chips{"Spreadsheets", "From Google Drive", "Newest first"}));
    EXPECT_TRUE(drive.query.terms.empty());

    EXPECT_EQ(parse("images via tweets").query.source, "x");
}

TEST(SearchParser, DateWordsFollowTheUsersCalendar) {
    auto today = localMidnight(2026y / March / 15);
    auto yesterday = parse("yesterday");
    EXPECT_EQ(yesterday.query.after, today - days(1));
    EXPECT_EQ(yesterday.query.before, today);
    EXPECT_EQ(yesterday.chips, Chips{"Yesterday"});

    EXPECT_EQ(parse("today").query.after, today);
    // The week begins on Monday 9 March, the month on the 1st, the year on 1 January, in local time.
    auto week = parse("this week");
    EXPECT_EQ(week.query.after, localMidnight(2026y / March / 9));
    EXPECT_EQ(week.chips, Chips{"This week"});
    EXPECT_EQ(parse("this month").query.after, localMidnight(2026y / March / 1));
    EXPECT_EQ(parse("this year").query.after, localMidnight(2026y / January / 1));

    auto ago = parse("3 days ago");
    EXPECT_EQ(ago.query.after, today - days(3));
    EXPECT_EQ(ago.query.before, today - days(2));
    EXPECT_EQ(ago.chips, Chips{"3 days ago"});

    auto lastCouple = parse("last couple of weeks");
    EXPECT_EQ(lastCouple.query.after, parseNow - days(14));
    EXPECT_EQ(lastCouple.chips, Chips{"Last 2 weeks"});
    EXPECT_EQ(parse("last fortnight").query.after, parseNow - days(14));

    // A month without a year is the latest one that has begun.
    auto sinceMarch = parse("since march");
    EXPECT_EQ(sinceMarch.query.after, localMidnight(2026y / March / 1));
    EXPECT_EQ(sinceMarch.chips, Chips{"Since March"});
    EXPECT_EQ(parse("since april").query.after, localMidnight(2025y / April / 1));
    auto before = parse("before 2024");
    EXPECT_EQ(before.query.before, localMidnight(2024y / January / 1));
    EXPECT_EQ(before.chips, Chips{"Before 2024"});

    auto between = parse("between 2024-01-05 and 2024-02-01");
    EXPECT_EQ(between.query.after, localMidnight(2024y / January / 5));
    EXPECT_EQ(between.query.before, localMidnight(2024y / February / 2));
    EXPECT_EQ(between.chips, Chips{"Between 2024-01-05 and 2024-02-01"});

    auto inMonth = parse("photos in june 2025");
    EXPECT_EQ(inMonth.query.after, localMidnight(2025y / June / 1));
    EXPECT_EQ(inMonth.query.before, localMidnight(2025y / July / 1));

    auto atLeast = parse("at least 3 months old");
    EXPECT_EQ(atLeast.query.before, parseNow - days(90));
    EXPECT_EQ(atLeast.chips, Chips{"Older than 3 months"});
    EXPECT_EQ(parse("newer than a week").query.after, parseNow - days(7));
}

TEST(SearchParser, WordsAboutUseChooseTheDateField) {
    auto notOpened = parse("not opened in a year");
    EXPECT_EQ(notOpened.query.dateField, DateField::opened);
    EXPECT_EQ(notOpened.query.before, parseNow - days(365));
    EXPECT_EQ(notOpened.chips, Chips{"Not opened in a year"});

    auto unused = parse("unused apps");
    EXPECT_EQ(unused.query.kinds, std::set{LibraryKind::apps});
    EXPECT_EQ(unused.query.dateField, DateField::opened);
    EXPECT_EQ(unused.chips, (Chips{"Apps", "Not opened"}));

    auto unchanged = parse("unchanged documents");
    EXPECT_EQ(unchanged.query.dateField, DateField::modified);
    EXPECT_EQ(unchanged.chips, (Chips{"Documents", "Not changed"}));

    EXPECT_EQ(parse("photos edited this week").query.dateField, DateField::modified);
    EXPECT_EQ(parse("pictures made last year").query.dateField, DateField::created);

    auto downloaded = parse("downloaded last week");
    EXPECT_EQ(downloaded.query.dateField, DateField::added);
    EXPECT_EQ(downloaded.query.folder, "/home/u/Downloads");
    EXPECT_TRUE(downloaded.query.terms.empty());

    // Without a date the word says nothing about dates and stays a name term.
    EXPECT_EQ(parse("edited").query.terms, std::vector<std::string>{"edited"});
}

TEST(SearchParser, SizeWordsGiveBoundsInFileStyleBytes) {
    auto over = parse("videos over 1.5gb");
    EXPECT_EQ(over.query.minSize, 1'500'000'000);
    EXPECT_EQ(over.chips, (Chips{"Videos", "Over 1.5 GB"}));
    auto under = parse("files smaller than 500 kb");
    EXPECT_EQ(under.query.maxSize, 500'000);
    EXPECT_EQ(under.chips, Chips{"Under 500 KB"});
    EXPECT_EQ(parse("at most 2 MB").query.maxSize, 2'000'000);

    // An adjective's size depends on what is sought.
    auto huge = parse("huge files");
    EXPECT_EQ(huge.query.minSize, 1'000'000'000);
    EXPECT_EQ(huge.chips, Chips{"Over 1 GB"});
    auto tinyPhotos = parse("tiny photos");
    EXPECT_EQ(tinyPhotos.query.maxSize, 100'000);
    EXPECT_EQ(tinyPhotos.chips, (Chips{"Images", "Under 100 KB"}));
}

TEST(SearchParser, OrderPlaceSourceAndCameraWords) {
    auto largest = parse("largest videos");
    EXPECT_EQ(largest.query.sort, Sort::largest);
    EXPECT_EQ(largest.chips, (Chips{"Videos", "Largest first"}));
    auto recent = parse("recent photos");
    EXPECT_EQ(recent.query.sort, Sort::newest);
    EXPECT_EQ(recent.query.after, parseNow - days(30));
    EXPECT_EQ(parse("photos alphabetically").query.sort, Sort::name);

    auto downloads = parse("pdfs in downloads");
    EXPECT_EQ(downloads.query.folder, "/home/u/Downloads");
    EXPECT_EQ(downloads.chips, (Chips{"PDFs", "Downloads"}));
    EXPECT_EQ(parse("documents").query.kinds, std::set{LibraryKind::documents});
    EXPECT_EQ(parse("documents").query.folder, std::nullopt);
    EXPECT_EQ(parse("photos in documents").query.folder, "/home/u/Documents");
    auto icloud = parse("from icloud drive");
    EXPECT_EQ(icloud.query.folder, "/home/u/Library/Mobile Documents/com~apple~CloudDocs");
    EXPECT_EQ(icloud.chips, Chips{"iCloud Drive"});
    EXPECT_FALSE(icloud.query.source);
    EXPECT_EQ(parse("from icloud").query.source, "icloud");

    auto camera = parse("photos camera Canon");
    EXPECT_EQ(camera.query.camera, "Canon");
    EXPECT_EQ(camera.chips, (Chips{"Images", "Camera: Canon"}));
    EXPECT_EQ(parse("pictures taken with a Pixel").query.camera, "Pixel");
}

TEST(SearchParser, LeftoverWordsAreNameTermsAndQuotesStayWhole) {
    auto quoted = parse("\"Tax Return\" 2023 pdf");
    EXPECT_EQ(quoted.query.terms, (std::vector<std::string>{"Tax Return", "2023"}));
    EXPECT_EQ(quoted.query.extensions, std::set<std::string>{"pdf"});
    EXPECT_EQ(quoted.query.sort, Sort::relevance);
    EXPECT_EQ(parse("\u201cq3 plan\u201d").query.terms, std::vector<std::string>{"q3 plan"});

    auto plain = parse("invoice march");
    EXPECT_EQ(plain.query.terms, (std::vector<std::string>{"invoice", "march"}));
    EXPECT_TRUE(plain.chips.empty());

    EXPECT_TRUE(parse("show me all the photos, please!").query.terms.empty());
    EXPECT_EQ(parse("the").query.terms, std::vector<std::string>{"the"}) << "a lone filler is still a search";
    EXPECT_EQ(parse("from").query.terms, std::vector<std::string>{"from"});
    auto empty = parse("   ");
    EXPECT_TRUE(empty.query.terms.empty());
    EXPECT_TRUE(empty.chips.empty());
    EXPECT_EQ(empty.query.sort, Sort::newest);
    EXPECT_EQ(parse("photos").query.limit, 100);

    // Numbers too large to be a time or a size stay words instead of running off the clock.
    auto farBack = parse("3000 years ago");
    EXPECT_FALSE(farBack.query.after);
    EXPECT_EQ(farBack.query.terms, (std::vector<std::string>{"3000", "years", "ago"}));
    EXPECT_FALSE(parse("over 99999999 tb").query.minSize);
}
