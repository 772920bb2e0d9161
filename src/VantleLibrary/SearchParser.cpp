#include "VantleLibrary/SearchParser.h"

#include "VantleLibrary/Sources.h"
#include "VantleSpec/ByteCount.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <tuple>

namespace vantle {

using namespace std::chrono;
using Sort = FileQuery::Sort;
using DateField = FileQuery::DateField;

namespace {

constexpr auto I = LibraryKind::images;
constexpr auto V = LibraryKind::videos;
constexpr auto M = LibraryKind::music;
constexpr auto D = LibraryKind::documents;
constexpr auto A = LibraryKind::archives;
constexpr auto P = LibraryKind::apps;

// The chip of a row that names a whole kind is the kind's title.
std::string titled(LibraryKind kind) {
    return std::string(title(kind));
}

const std::vector<SearchParser::KindWord> kindTable{
    {{"screenshot", "screenshots", "screengrab", "screengrabs", "screencap", "screencaps"},
     {},
     {},
     true,
     "Screenshots"},
    {{"photo", "photos", "image", "images", "picture", "pictures", "pic", "pics", "selfie", "selfies",
      "wallpaper", "wallpapers", "snaps"},
     {I},
     {},
     false,
     titled(I)},
    {{"video", "videos", "movie", "movies", "clip", "clips", "footage", "film", "films", "recording",
      "recordings"},
     {V},
     {},
     false,
     titled(V)},
    {{"music", "song", "songs", "track", "tracks", "audio", "podcast", "podcasts", "tunes", "sound",
      "sounds"},
     {M},
     {},
     false,
     titled(M)},
    {{"document", "documents", "doc", "docs", "paperwork"}, {D}, {}, false, titled(D)},
    {{"pdf", "pdfs"}, {}, {"pdf"}, false, "PDFs"},
    {{"spreadsheet", "spreadsheets", "excel", "sheet", "sheets", "xlsx", "csv", "csvs"},
     {},
     {"xlsx", "xls", "numbers", "csv", "ods", "tsv"},
     false,
     "Spreadsheets"},
    {{"presentation", "presentations", "slide", "slides", "deck", "decks", "powerpoint", "powerpoints",
      "pptx"},
     {},
     {"key", "pptx", "ppt", "odp"},
     false,
     "Presentations"},
    {{"keynote", "keynotes"}, {}, {"key"}, false, "Keynote presentations"},
    {{"docx"}, {}, {"docx", "doc", "odt", "rtf"}, false, "Word documents"},
    {{"zip", "zips"}, {}, {"zip"}, false, "Zip archives"},
    {{"archive", "archives", "compressed"}, {A}, {}, false, "Archives"},
    {{"installer", "installers", "dmg", "dmgs", "pkg", "pkgs"},
     {},
     {"dmg", "pkg", "mpkg"},
     false,
     "Installers"},
    {{"app", "apps", "application", "applications", "program", "programs"}, {P}, {}, false, titled(P)},
    {{"ebook", "ebooks", "epub", "epubs"}, {}, {"epub"}, false, "E-books"},
    {{"blend", "blends", "blender"}, {}, {"blend"}, false, "Blender files"},
    {{"font", "fonts"}, {}, {"ttf", "otf", "woff", "woff2"}, false, "Fonts"},
    {{"apk", "apks"}, {}, {"apk"}, false, "APKs"},
};

// Words that carry no meaning of their own in a search; dropped unless they are all there is.
constexpr std::array fillers{
    "a",     "an",   "the",   "my",     "all",   "any",    "some",   "of",    "with",    "and",
    "or",    "in",   "on",    "at",     "to",    "for",    "from",   "by",    "that",    "which",
    "are",   "is",   "were",  "was",    "i",     "me",     "show",   "find",  "get",     "list",
    "files", "file", "stuff", "things", "items", "please", "sorted", "order", "ordered", "folder",
    "than",  "only", "just",  "those",  "these", "via",    "where",  "look",
};

bool isOneOf(std::string_view word, std::initializer_list<std::string_view> words) {
    return std::ranges::find(words, word) != words.end();
}

std::string capitalized(std::string text) {
    if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 'a' + 'A');
    return text;
}

// A length of time named by words: how long, and how to say it alone ("a month", "6 months") and
// after "last" ("month", "6 months").
struct Span {
    seconds length{};
    seconds unit{};
    std::string words;
    std::string bare;
};

struct Unit {
    std::string_view singular, plural;
    seconds length;
};
// The scale of the date words: a month is 30 days and a year 365, as people mean "last month".
constexpr std::array units{
    Unit{"hour", "hours", hours(1)},   Unit{"day", "days", days(1)},
    Unit{"week", "weeks", days(7)},    Unit{"fortnight", "fortnights", days(14)},
    Unit{"month", "months", days(30)}, Unit{"year", "years", days(365)},
};

const Unit* unitOf(std::string_view word) {
    for (const auto& u : units)
        if (word == u.singular || word == u.plural) return &u;
    return nullptr;
}

const std::array<std::string_view, 12> monthNames{"january",   "february", "march",    "april",
                                                  "may",       "june",     "july",     "august",
                                                  "september", "october",  "november", "december"};

std::optional<unsigned> monthOf(std::string_view word) {
    for (unsigned m = 0; m < 12; ++m)
        if (word == monthNames[m] || (word.size() == 3 && monthNames[m].starts_with(word)) ||
            (word == "sept" && m == 8))
            return m + 1;
    return std::nullopt;
}

std::optional<int> wholeNumber(std::string_view text) {
    int value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// "1.5" or "10".
std::optional<double> decimal(std::string_view text) {
    if (text.empty() || text.front() == '.' || text.back() == '.') return std::nullopt;
    double value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < 0) return std::nullopt;
    return value;
}

std::optional<std::int64_t> byteUnit(std::string_view unit) {
    if (isOneOf(unit, {"b", "byte", "bytes"})) return 1;
    if (isOneOf(unit, {"k", "kb", "kilobyte", "kilobytes"})) return 1'000;
    if (isOneOf(unit, {"m", "mb", "meg", "megs", "megabyte", "megabytes"})) return 1'000'000;
    if (isOneOf(unit, {"g", "gb", "gig", "gigs", "gigabyte", "gigabytes"})) return 1'000'000'000;
    if (isOneOf(unit, {"t", "tb", "terabyte", "terabytes"})) return 1'000'000'000'000;
    if (unit == "kib") return 1LL << 10;
    if (unit == "mib") return 1LL << 20;
    if (unit == "gib") return 1LL << 30;
    return std::nullopt;
}

std::string numberWords(double n) {
    if (n == std::floor(n)) return std::to_string(static_cast<long long>(n));
    auto text = std::to_string(n);
    while (text.back() == '0')
        text.pop_back();
    return text;
}

} // namespace

struct SearchParser::State {
    std::vector<std::string> tokens;   // lower-cased
    std::vector<std::string> original; // as typed, for name terms and camera names
    std::vector<bool> used;
    std::set<LibraryKind> kinds;
    std::set<std::string> extensions;
    std::vector<std::string> kindLabels;
    bool screenshots = false;
    std::optional<TimePoint> after, before;
    std::optional<std::string> dateLabel;
    DateField field = DateField::any;
    std::optional<std::string> fieldWord;
    std::optional<std::int64_t> minSize, maxSize;
    std::optional<std::string> sizeLabel;
    bool sizeFromAdjective = false;
    std::optional<std::string> folder;
    std::optional<std::string> source;
    std::optional<std::string> camera;
    std::optional<double> minLength, maxLength; // playing time, seconds
    std::optional<std::string> lengthLabel;
    std::optional<Sort> sort;
    bool downloaded = false;
    size_t lastKindEnd = std::string::npos;
    bool lastKindWasNarrow = false;

    // Not in the query itself, but needed to word it.
    std::optional<std::string> folderLabel;
    std::optional<std::string> sourceLabel;
    bool sortSaid = false; // by an order word, so it gets a chip
    enum class Adjective { none, tiny, small, large, huge } adjective = Adjective::none;
    std::vector<std::string> quoted;

    size_t size() const { return tokens.size(); }
    bool isFree(size_t i) const { return i < tokens.size() && !used[i]; }
    // The token at i if it is still free, else nothing.
    std::string_view at(size_t i) const {
        return isFree(i) ? std::string_view(tokens[i]) : std::string_view{};
    }
    void take(size_t from, size_t count) {
        for (size_t i = from; i < from + count && i < used.size(); ++i)
            used[i] = true;
    }
};

namespace {

using State = SearchParser::State;

// Splits the words into quoted phrases (kept whole) and single tokens without surrounding punctuation.
void tokenize(std::string_view text, State& s) {
    std::string rest;
    for (size_t i = 0; i < text.size();) {
        // Straight quotes and the curly ones a keyboard or phone may put in.
        size_t quoteBytes = text[i] == '"'                                                     ? 1
                            : (text.substr(i, 3) == "\u201c" || text.substr(i, 3) == "\u201d") ? 3
                                                                                               : 0;
        if (quoteBytes == 0) {
            rest += text[i++];
            continue;
        }
        size_t start = i + quoteBytes, end = start;
        while (end < text.size() && text[end] != '"' && text.substr(end, 3) != "\u201d" &&
               text.substr(end, 3) != "\u201c")
            ++end;
        auto phrase = text.substr(start, end - start);
        while (!phrase.empty() && phrase.front() == ' ')
            phrase.remove_prefix(1);
        while (!phrase.empty() && phrase.back() == ' ')
            phrase.remove_suffix(1);
        if (!phrase.empty()) s.quoted.emplace_back(phrase);
        i = end < text.size() ? end + (text[end] == '"' ? 1 : 3) : end;
        rest += ' ';
    }
    std::string word;
    auto flush = [&] {
        constexpr std::string_view edges = ".!?()[]{}:'`";
        auto begin = word.find_first_not_of(edges);
        if (begin != std::string::npos) {
            auto last = word.find_last_not_of(edges);
            auto trimmed = word.substr(begin, last - begin + 1);
            std::string lower = trimmed;
            std::ranges::transform(lower, lower.begin(), [](unsigned char c) {
                return c < 0x80 ? static_cast<char>(std::tolower(c)) : static_cast<char>(c);
            });
            s.original.push_back(std::move(trimmed));
            s.tokens.push_back(std::move(lower));
        }
        word.clear();
    };
    for (char c : rest) {
        if (c == ' ' || c == '\t' || c == '\n' || c == ',' || c == ';')
            flush();
        else
            word += c;
    }
    flush();
    s.used.assign(s.tokens.size(), false);
}

// A count at token i: digits, a number word, "a"/"an", "couple [of]", "few". Returns how many tokens.
std::optional<std::pair<double, size_t>> countAt(const State& s, size_t i) {
    auto word = s.at(i);
    if (word.empty()) return std::nullopt;
    // Counts beyond ten thousand (years, at most) are not about time: "2023" is a year, not a count.
    if (auto n = decimal(word)) return *n <= 10'000 ? std::optional(std::pair(*n, size_t{1})) : std::nullopt;
    static constexpr std::array<std::string_view, 13> named{"zero", "one",    "two",   "three", "four",
                                                            "five", "six",    "seven", "eight", "nine",
                                                            "ten",  "eleven", "twelve"};
    for (size_t n = 1; n < named.size(); ++n)
        if (word == named[n]) return std::pair(static_cast<double>(n), size_t{1});
    if (word == "a" || word == "an") {
        // "a couple of weeks", "a few days"
        if (auto inner = countAt(s, i + 1); inner && (s.at(i + 1) == "couple" || s.at(i + 1) == "few"))
            return std::pair(inner->first, inner->second + 1);
        return std::pair(1.0, size_t{1});
    }
    if (word == "couple" || word == "few") {
        size_t taken = s.at(i + 1) == "of" ? 2 : 1;
        return std::pair(word == "couple" ? 2.0 : 3.0, taken);
    }
    return std::nullopt;
}

// A length of time at token i: "[count] unit" ("6 months", "a week", "fortnight").
std::optional<std::pair<Span, size_t>> spanAt(const State& s, size_t i) {
    double count = 1;
    size_t taken = 0;
    if (auto c = countAt(s, i)) std::tie(count, taken) = *c;
    const Unit* unit = unitOf(s.at(i + taken));
    // Without a count only the singular names one unit ("last month"); "months" alone says no length.
    if (unit && taken == 0 && s.at(i) == unit->plural) return std::nullopt;
    // A century is as far back as file dates go; more would also run off the clock's range.
    if (!unit || unit->length * count > days(36'500)) return std::nullopt;
    ++taken;
    Span span{duration_cast<seconds>(unit->length * count), unit->length, {}, {}};
    span.bare =
        count == 1 ? std::string(unit->singular) : numberWords(count) + " " + std::string(unit->plural);
    span.words = count == 1 ? "a " + span.bare : span.bare;
    return std::pair(span, taken);
}

// The scale an adjective means depends on what is sought: a big photo is not a big video.
std::int64_t adjectiveBytes(State::Adjective adjective, const State& s) {
    bool smallKinds = !s.kinds.empty() || !s.extensions.empty() || s.screenshots;
    for (auto k : s.kinds)
        if (k == V || k == P || k == A) smallKinds = false;
    for (const auto& e : s.extensions)
        if (isOneOf(e, {"dmg", "pkg", "mpkg", "zip", "apk", "blend"})) smallKinds = false;
    const std::int64_t mb = 1'000'000;
    switch (adjective) {
    case State::Adjective::huge:
        return smallKinds ? 100 * mb : 1'000 * mb;
    case State::Adjective::large:
        return smallKinds ? 10 * mb : 100 * mb;
    case State::Adjective::small:
        return smallKinds ? 1 * mb : 10 * mb;
    case State::Adjective::tiny:
        return smallKinds ? 100'000 : 1 * mb;
    case State::Adjective::none:
        break;
    }
    return 0;
}

} // namespace

SearchParser::SearchParser(Clock now, Calendar calendar, std::filesystem::path home)
    : now_(std::move(now)), calendar_(std::move(calendar)), home_(std::move(home)) {}

std::span<const SearchParser::KindWord> SearchParser::kindWords() {
    return kindTable;
}

namespace {

// Dates in the user's calendar.
struct Dates {
    const Calendar& calendar;
    TimePoint now;

    year_month_day localDay(TimePoint at) const {
        return year_month_day{floor<days>(at + calendar.utcOffset(at))};
    }
    TimePoint startOf(year_month_day day) const {
        auto utc = sys_days{day};
        return utc - calendar.utcOffset(utc - calendar.utcOffset(utc));
    }
    TimePoint today() const { return calendar.startOfDay(now); }
    TimePoint startOfWeek() const {
        auto day = localDay(now);
        auto back = (weekday{sys_days{day}}.iso_encoding() - 1);
        return startOf(year_month_day{sys_days{day} - days(back)});
    }
    TimePoint startOfMonth() const {
        auto d = localDay(now);
        return startOf(d.year() / d.month() / 1);
    }
    TimePoint startOfYear() const { return startOf(localDay(now).year() / January / 1); }
};

// A moment or stretch named by words after "since", "before", "between", "in": start and end.
struct Period {
    TimePoint start, end;
    std::string words; // as shown in a chip
    size_t tokens = 0;
};

std::optional<Period> periodAt(const State& s, size_t i, const Dates& dates) {
    auto word = s.at(i);
    if (word.empty()) return std::nullopt;
    auto today = dates.today();
    if (word == "today") return Period{today, dates.now, "today", 1};
    if (word == "yesterday") return Period{today - days(1), today, "yesterday", 1};
    if (word == "last" || word == "previous" || word == "past")
        if (auto span = spanAt(s, i + 1))
            return Period{dates.now - span->first.length, dates.now, "last " + span->first.bare,
                          1 + span->second};
    if (word == "this") {
        auto unit = s.at(i + 1);
        if (unit == "week") return Period{dates.startOfWeek(), dates.now, "this week", 2};
        if (unit == "month") return Period{dates.startOfMonth(), dates.now, "this month", 2};
        if (unit == "year") return Period{dates.startOfYear(), dates.now, "this year", 2};
    }
    if (auto span = spanAt(s, i); span && s.at(i + span->second) == "ago") {
        auto at = dates.now - span->first.length;
        return Period{at, at, span->first.words + " ago", span->second + 1};
    }
    // 2024-03-01, 2024-03, 2024
    if (word.size() >= 4 && std::isdigit(static_cast<unsigned char>(word[0]))) {
        auto year = wholeNumber(word.substr(0, 4));
        if (!year || *year < 1970 || *year > 2200) return std::nullopt;
        if (word.size() == 4) {
            auto y = std::chrono::year{*year};
            return Period{dates.startOf(y / January / 1), dates.startOf((y + years(1)) / January / 1),
                          std::string(word), 1};
        }
        if (word.size() == 7 && word[4] == '-')
            if (auto m = wholeNumber(word.substr(5, 2)); m && *m >= 1 && *m <= 12) {
                auto ym = std::chrono::year{*year} / std::chrono::month(static_cast<unsigned>(*m));
                return Period{dates.startOf(ym / 1), dates.startOf((ym + months(1)) / 1), std::string(word),
                              1};
            }
        if (word.size() == 10 && word[4] == '-' && word[7] == '-') {
            auto m = wholeNumber(word.substr(5, 2));
            auto d = wholeNumber(word.substr(8, 2));
            if (m && d) {
                year_month_day day{std::chrono::year{*year}, std::chrono::month(static_cast<unsigned>(*m)),
                                   std::chrono::day(static_cast<unsigned>(*d))};
                if (day.ok())
                    return Period{dates.startOf(day), dates.startOf(year_month_day{sys_days{day} + days(1)}),
                                  std::string(word), 1};
            }
        }
        return std::nullopt;
    }
    // "march", "march 2024": a month without a year is the latest one that has begun.
    if (auto m = monthOf(word)) {
        auto month = std::chrono::month{*m};
        auto current = dates.localDay(dates.now);
        auto year = current.year();
        size_t taken = 1;
        std::string words = capitalized(std::string(monthNames[*m - 1]));
        if (auto y = wholeNumber(s.at(i + 1)); y && *y >= 1970 && *y <= 2200) {
            year = std::chrono::year{*y};
            words += " " + std::to_string(*y);
            taken = 2;
        } else if (month > current.month()) {
            year -= years(1);
        }
        auto ym = year / month;
        return Period{dates.startOf(ym / 1), dates.startOf((ym + months(1)) / 1), words, taken};
    }
    return std::nullopt;
}

void setDate(State& s, std::optional<TimePoint> after, std::optional<TimePoint> before, std::string label) {
    if (s.dateLabel) return; // the first date the words give stands
    s.after = after;
    s.before = before;
    s.dateLabel = capitalized(std::move(label));
}

void readDates(State& s, const Dates& dates) {
    const auto year = days(365);
    for (size_t i = 0; i < s.size(); ++i) {
        auto word = s.at(i);
        if (word.empty() || s.dateLabel) continue;
        // Whole stretches named on their own: "today", "last month", "this week", "3 days ago".
        if (isOneOf(word, {"today", "tonight"})) {
            setDate(s, dates.today(), std::nullopt, "today");
            s.take(i, 1);
        } else if (isOneOf(word, {"yesterday", "last", "previous", "past", "this"}) || spanAt(s, i)) {
            if (auto span = spanAt(s, i); span && s.at(i + span->second) == "old") {
                setDate(s, std::nullopt, dates.now - span->first.length, "older than " + span->first.words);
                s.take(i, span->second + 1);
                continue;
            }
            auto period = periodAt(s, i, dates);
            if (!period) {
                // "a month", "a fortnight", "couple of days" on their own: that stretch up to now. A
                // bare unit ("month") or number ("6 months") alone is too often part of a name.
                auto span = spanAt(s, i);
                if (span && isOneOf(word, {"a", "an", "couple", "few", "fortnight"})) {
                    setDate(s, dates.now - span->first.length, std::nullopt, "last " + span->first.bare);
                    s.take(i, span->second);
                }
                continue;
            }
            bool ago = period->words.ends_with(" ago");
            if (ago) {
                // "3 days ago": that day; "2 weeks ago": the week around that moment.
                auto span = spanAt(s, i)->first;
                bool inDays = span.unit == days(1);
                auto from = inDays ? dates.today() - span.length : period->start - span.unit / 2;
                auto to = inDays ? from + days(1) : period->start + span.unit / 2;
                setDate(s, from, to, period->words);
            } else {
                setDate(s, period->start, word == "yesterday" ? std::optional(period->end) : std::nullopt,
                        period->words);
            }
            s.take(i, period->tokens);
        } else if (isOneOf(word, {"recent", "recently", "lately"})) {
            setDate(s, dates.now - days(30), std::nullopt, "recent");
            if (word == "recent") s.sort = Sort::newest; // an order word after it still wins
            s.take(i, 1);
        } else if (isOneOf(word, {"since", "after", "before", "until", "till"})) {
            auto period = periodAt(s, i + 1, dates);
            if (!period) continue;
            if (word == "since")
                setDate(s, period->start, std::nullopt, "since " + period->words);
            else if (word == "after")
                setDate(s, period->end, std::nullopt, "after " + period->words);
            else
                setDate(s, std::nullopt, period->start, "before " + period->words);
            s.take(i, 1 + period->tokens);
        } else if (word == "between") {
            auto first = periodAt(s, i + 1, dates);
            if (!first || s.at(i + 1 + first->tokens) != "and") continue;
            auto second = periodAt(s, i + 2 + first->tokens, dates);
            if (!second) continue;
            auto [from, to] =
                std::minmax(*first, *second, [](auto& a, auto& b) { return a.start < b.start; });
            setDate(s, from.start, to.end == to.start ? to.end + days(1) : to.end,
                    "between " + first->words + " and " + second->words);
            s.take(i, 2 + first->tokens + second->tokens);
        } else if (isOneOf(word, {"in", "from", "during"})) {
            // "in march", "from 2023": only calendar periods, so "from gmail" stays a source.
            auto next = s.at(i + 1);
            if (!monthOf(next) && !(next.size() >= 4 && std::isdigit(static_cast<unsigned char>(next[0]))))
                continue;
            auto period = periodAt(s, i + 1, dates);
            if (!period) continue;
            setDate(s, period->start, period->end, period->words);
            s.take(i, 1 + period->tokens);
        } else if (isOneOf(word, {"older", "newer", "younger", "earlier"}) && s.at(i + 1) == "than") {
            bool older = word == "older" || word == "earlier";
            if (auto span = spanAt(s, i + 2)) {
                if (older)
                    setDate(s, std::nullopt, dates.now - span->first.length,
                            "older than " + span->first.words);
                else
                    setDate(s, dates.now - span->first.length, std::nullopt, "last " + span->first.bare);
                s.take(i, 2 + span->second);
            } else if (auto period = periodAt(s, i + 2, dates)) {
                if (older)
                    setDate(s, std::nullopt, period->start, "older than " + period->words);
                else
                    setDate(s, period->end, std::nullopt, "newer than " + period->words);
                s.take(i, 2 + period->tokens);
            }
        } else if ((word == "at" && isOneOf(s.at(i + 1), {"least", "most"})) || word == "over") {
            // "at least 3 months old"; without a time unit these are size words.
            size_t skip = word == "at" ? 2 : 1;
            auto span = spanAt(s, i + skip);
            if (!span) continue;
            bool older = s.at(i + 1) != "most";
            if (older)
                setDate(s, std::nullopt, dates.now - span->first.length, "older than " + span->first.words);
            else
                setDate(s, dates.now - span->first.length, std::nullopt, "last " + span->first.bare);
            s.take(i, skip + span->second);
            if (s.at(i + skip + span->second) == "old") s.take(i + skip + span->second, 1);
        } else if (isOneOf(word, {"ages", "old"}) && !(word == "old" && s.at(i + 1) == "than")) {
            setDate(s, std::nullopt, dates.now - year, "older than a year");
            s.take(i, s.at(i + 1) == "ago" ? 2 : 1);
        } else {
            // Things left alone: "not opened in 6 months", "unused", "forgotten".
            DateField field = DateField::any;
            std::string label;
            size_t taken = 1;
            if (word == "not" || word == "never") {
                auto verb = s.at(i + 1);
                if (isOneOf(verb, {"changed", "edited", "modified", "updated"}))
                    field = DateField::modified, label = "not changed";
                else if (isOneOf(verb, {"opened", "used", "viewed", "played", "watched", "open"}))
                    field = DateField::opened, label = "not opened";
                else if (verb == "touched")
                    field = DateField::opened, label = "not touched";
                else
                    continue;
                taken = 2;
            } else if (isOneOf(word, {"unchanged", "unedited"})) {
                field = DateField::modified, label = "not changed";
            } else if (isOneOf(word, {"unopened", "unused", "forgotten"})) {
                field = DateField::opened, label = "not opened";
            } else if (word == "untouched") {
                field = DateField::opened, label = "not touched";
            } else {
                continue;
            }
            auto length = days(180);
            size_t at = i + taken;
            if (isOneOf(s.at(at), {"in", "for", "since", "within"}))
                if (auto span = spanAt(s, at + 1)) {
                    length = duration_cast<days>(span->first.length);
                    label += " in " + span->first.words;
                    taken += 1 + span->second;
                }
            setDate(s, std::nullopt, dates.now - length, label);
            s.field = field;
            s.fieldWord = std::string(word == "not" || word == "never" ? s.at(i + 1) : word);
            s.take(i, taken);
        }
    }
}

// "from gmail", "via whatsapp": a source family.
void readSources(State& s) {
    for (size_t i = 0; i + 1 < s.size(); ++i) {
        if (!isOneOf(s.at(i), {"from", "via"})) continue;
        size_t at = i + 1;
        if (isOneOf(s.at(at), {"my", "the"})) ++at;
        std::vector<std::string> rest;
        for (size_t j = at; j < s.size() && s.isFree(j); ++j)
            rest.push_back(s.tokens[j]);
        auto match = Sources::matchWords(rest);
        // "from icloud drive" is the folder, not files downloaded from iCloud.
        if (!match || (match->key == "icloud" && s.at(at + 1) == "drive")) continue;
        s.source = std::string(match->key);
        s.sourceLabel = "From " + std::string(Sources::nameOf(match->key));
        s.take(i, at - i + match->tokens);
        return;
    }
}

// "camera canon", "taken with a pixel", "shot on iphone".
void readCamera(State& s) {
    for (size_t i = 0; i < s.size(); ++i) {
        size_t nameAt = 0;
        if (s.at(i) == "camera")
            nameAt = i + 1;
        else if (isOneOf(s.at(i), {"taken", "shot"}) && isOneOf(s.at(i + 1), {"with", "on", "by"}))
            nameAt = i + 2;
        else
            continue;
        size_t skip = isOneOf(s.at(nameAt), {"a", "an", "my", "the"}) ? 1 : 0;
        if (!s.isFree(nameAt + skip)) continue;
        s.camera = s.original[nameAt + skip];
        s.take(i, nameAt + skip + 1 - i);
        return;
    }
}

// Playing time: "longer than 10 minutes", "shorter than 30 seconds", "over an hour long",
// "at most 3 minutes long". Without "longer"/"shorter" the trailing "long" is needed, so "over 2
// hours" stays free for the date words.
void readLengths(State& s) {
    struct Unit {
        std::initializer_list<std::string_view> words;
        double seconds;
        std::string_view one, many;
    };
    static const Unit units[] = {{{"s", "sec", "secs", "second", "seconds"}, 1, "second", "seconds"},
                                 {{"min", "mins", "minute", "minutes"}, 60, "minute", "minutes"},
                                 {{"h", "hr", "hrs", "hour", "hours"}, 3600, "hour", "hours"}};
    auto unitOf = [&](std::string_view word) -> const Unit* {
        for (const auto& u : units)
            if (isOneOf(word, u.words)) return &u;
        return nullptr;
    };
    // An amount at token i: "10 minutes", "10min", "an hour", "1.5 hours". Seconds, words, tokens.
    auto amountAt = [&](size_t i) -> std::optional<std::tuple<double, std::string, size_t>> {
        auto word = s.at(i);
        if (word.empty()) return std::nullopt;
        double count = 0;
        const Unit* unit = nullptr;
        size_t taken = 2;
        if (isOneOf(word, {"a", "an", "one"})) {
            count = 1, unit = unitOf(s.at(i + 1));
        } else {
            auto split = word.find_first_not_of("0123456789.");
            if (split == 0) return std::nullopt;
            auto number = decimal(word.substr(0, split));
            if (!number) return std::nullopt;
            count = *number;
            if (split == std::string_view::npos) {
                unit = unitOf(s.at(i + 1));
            } else {
                unit = unitOf(word.substr(split));
                taken = 1;
            }
        }
        if (!unit || count <= 0 || count > 100'000) return std::nullopt;
        auto text =
            count == 1 ? "1 " + std::string(unit->one) : numberWords(count) + " " + std::string(unit->many);
        if (isOneOf(word, {"a", "an"})) text = std::string(word) + " " + std::string(unit->one);
        return std::tuple(count * unit->seconds, text, taken);
    };
    for (size_t i = 0; i < s.size(); ++i) {
        auto word = s.at(i);
        if (word.empty()) continue;
        size_t lead = 0;
        bool atLeast = true, needsLong = false;
        if (isOneOf(word, {"longer", "shorter"}) && s.at(i + 1) == "than") {
            lead = 2, atLeast = word == "longer";
        } else if (isOneOf(word, {"over", "under"})) {
            lead = 1, atLeast = word == "over", needsLong = true;
        } else if (word == "at" && isOneOf(s.at(i + 1), {"least", "most"})) {
            lead = 2, atLeast = s.at(i + 1) == "least", needsLong = true;
        } else {
            continue;
        }
        auto amount = amountAt(i + lead);
        if (!amount) continue;
        auto [seconds, text, taken] = *amount;
        size_t end = i + lead + taken;
        bool saysLong = s.at(end) == "long";
        if (needsLong && !saysLong) continue;
        (atLeast ? s.minLength : s.maxLength) = seconds;
        s.lengthLabel = (atLeast ? "Longer than " : "Shorter than ") + text;
        s.take(i, lead + taken + (saysLong ? 1 : 0));
    }
}

void readSizes(State& s) {
    // A size at token i: "10mb", "10 mb", "1.5 gb". Returns bytes and tokens.
    auto sizeAt = [&](size_t i) -> std::optional<std::pair<std::int64_t, size_t>> {
        auto word = s.at(i);
        if (word.empty()) return std::nullopt;
        auto split = word.find_first_not_of("0123456789.");
        if (split == 0) return std::nullopt;
        auto number = decimal(word.substr(0, split));
        if (!number) return std::nullopt;
        auto unit = split == std::string_view::npos ? byteUnit(s.at(i + 1)) : byteUnit(word.substr(split));
        if (!unit || *number * static_cast<double>(*unit) > 1e18) return std::nullopt;
        return std::pair(static_cast<std::int64_t>(std::llround(*number * static_cast<double>(*unit))),
                         size_t{split == std::string_view::npos ? 2u : 1u});
    };
    for (size_t i = 0; i < s.size(); ++i) {
        auto word = s.at(i);
        if (word.empty()) continue;
        size_t lead = 0;
        bool atLeast = true;
        if (isOneOf(word, {"over", "above", "bigger", "larger", "greater", "more", "heavier"})) {
            lead = s.at(i + 1) == "than" ? 2 : 1;
        } else if (isOneOf(word, {"under", "below", "smaller", "less", "lighter"})) {
            lead = s.at(i + 1) == "than" ? 2 : 1;
            atLeast = false;
        } else if (word == "at" && isOneOf(s.at(i + 1), {"least", "most"})) {
            lead = 2;
            atLeast = s.at(i + 1) == "least";
        }
        if (auto size = sizeAt(i + lead)) {
            (atLeast ? s.minSize : s.maxSize) = size->first;
            s.sizeLabel = (atLeast ? "Over " : "Under ") + fileBytes(size->first);
            s.sizeFromAdjective = false;
            s.take(i, lead + size->second);
            continue;
        }
        using Adj = State::Adjective;
        Adj adjective = isOneOf(word, {"huge", "giant", "massive", "enormous", "gigantic"}) ? Adj::huge
                        : isOneOf(word, {"large", "heavy", "big"})                          ? Adj::large
                        : word == "tiny"                                                    ? Adj::tiny
                        : isOneOf(word, {"small", "little"})                                ? Adj::small
                                                                                            : Adj::none;
        if (adjective != Adj::none && !s.sizeLabel) {
            s.adjective = adjective;
            s.sizeFromAdjective = true;
            s.take(i, 1);
        }
    }
}

void readOrder(State& s) {
    for (size_t i = 0; i < s.size(); ++i) {
        auto word = s.at(i);
        std::optional<Sort> sort;
        size_t taken = 1;
        if (isOneOf(word, {"newest", "latest"}))
            sort = Sort::newest;
        else if (isOneOf(word, {"oldest", "earliest", "first"}))
            sort = Sort::oldest;
        else if (isOneOf(word, {"largest", "biggest", "heaviest"}))
            sort = Sort::largest;
        else if (word == "smallest")
            sort = Sort::smallest;
        else if (isOneOf(word, {"alphabetical", "alphabetically", "name", "a-z"}))
            sort = Sort::name;
        else if (word == "z-a")
            sort = Sort::nameDescending;
        else if (word == "by" && isOneOf(s.at(i + 1), {"size", "date", "kind", "type"})) {
            auto what = s.at(i + 1);
            sort = what == "size" ? Sort::largest : what == "date" ? Sort::newest : Sort::kind;
            taken = 2;
        }
        if (!sort) continue;
        // "newest first", "largest first": the "first" belongs to the order word before it.
        if (word != "first" && s.at(i + taken) == "first") ++taken;
        s.sort = sort;
        s.sortSaid = true;
        s.take(i, taken);
    }
}

void readPlaces(State& s, const std::filesystem::path& home) {
    for (size_t i = 0; i < s.size() && !s.folder; ++i) {
        auto word = s.at(i);
        bool placed = i > 0 && isOneOf(s.at(i - 1), {"in", "on", "from", "inside", "under", "within", "my"});
        std::string label;
        std::filesystem::path folder;
        size_t taken = 1;
        if (word == "desktop")
            label = "Desktop", folder = home / "Desktop";
        else if (word == "downloads")
            label = "Downloads", folder = home / "Downloads";
        // "documents" alone is the kind; as a place it needs a preposition or "folder".
        else if (word == "documents" && (placed || s.at(i + 1) == "folder"))
            label = "Documents", folder = home / "Documents";
        else if (word == "icloud") {
            label = "iCloud Drive", folder = home / SearchParser::iCloudDriveFolder;
            if (s.at(i + 1) == "drive") taken = 2;
        } else
            continue;
        s.folder = folder.string();
        s.folderLabel = label;
        s.take(placed ? i - 1 : i, placed ? taken + 1 : taken);
        if (s.at(i + taken) == "folder") s.take(i + taken, 1);
    }
}

void readKinds(State& s) {
    for (size_t i = 0; i < s.size(); ++i) {
        auto word = s.at(i);
        if (word.empty()) continue;
        for (const auto& row : kindTable) {
            if (std::ranges::find(row.words, word) == row.words.end()) continue;
            bool narrow = !row.extensions.empty();
            // "keynote presentations", "pdf documents": the second word only repeats the first.
            if (i == s.lastKindEnd && s.lastKindWasNarrow) {
                s.take(i, 1);
                s.lastKindEnd = i + 1;
                break;
            }
            s.kinds.insert(row.kinds.begin(), row.kinds.end());
            for (auto e : row.extensions)
                s.extensions.emplace(e);
            s.screenshots = s.screenshots || row.screenshots;
            if (std::ranges::find(s.kindLabels, row.label) == s.kindLabels.end())
                s.kindLabels.push_back(row.label);
            s.lastKindEnd = i + 1;
            s.lastKindWasNarrow = narrow;
            s.take(i, 1);
            break;
        }
    }
}

// Words about when the file was changed, opened, arrived or made choose which date counts.
void readFieldWords(State& s) {
    for (size_t i = 0; i < s.size(); ++i) {
        auto word = s.at(i);
        if (word.empty()) continue;
        std::optional<DateField> field;
        if (isOneOf(word, {"changed", "edited", "modified", "updated"}))
            field = DateField::modified;
        else if (isOneOf(word, {"opened", "used", "viewed", "played", "watched", "listened"}))
            field = DateField::opened;
        else if (isOneOf(word, {"added", "downloaded", "received", "arrived", "saved"}))
            field = DateField::added;
        else if (isOneOf(word, {"made", "created", "taken", "shot"}))
            field = DateField::created;
        if (!field) continue;
        if (word == "downloaded") s.downloaded = true;
        // Without a date the word says nothing about dates; only "downloaded" still means something.
        if (!s.dateLabel && word != "downloaded") continue;
        if (s.dateLabel && !s.fieldWord) {
            s.field = *field;
            s.fieldWord = std::string(word);
        }
        s.take(i, 1);
    }
}

} // namespace

ParsedSearch SearchParser::parse(std::string_view words, int limit) const {
    State s;
    tokenize(words, s);
    Dates dates{calendar_, now_()};

    // Phrases first, so their words are not read again on their own ("from last month" is a date,
    // "from gmail" a source, "at least 10mb" a size).
    readCamera(s);
    readSources(s);
    readLengths(s);
    readDates(s, dates);
    readSizes(s);
    readPlaces(s, home_);
    readKinds(s);
    readOrder(s);
    readFieldWords(s);
    if (s.downloaded && !s.folder && !s.source) {
        s.folder = (home_ / "Downloads").string();
        s.folderLabel = "Downloads";
    }
    if (s.sizeFromAdjective) {
        auto bytes = adjectiveBytes(s.adjective, s);
        bool least = s.adjective == State::Adjective::large || s.adjective == State::Adjective::huge;
        (least ? s.minSize : s.maxSize) = bytes;
        s.sizeLabel = (least ? "Over " : "Under ") + fileBytes(bytes);
    }

    FileQuery q;
    q.kinds = s.kinds;
    q.extensions = s.extensions;
    q.screenshotsOnly = s.screenshots;
    q.after = s.after;
    q.before = s.before;
    q.dateField = s.field;
    q.minSize = s.minSize;
    q.maxSize = s.maxSize;
    q.folder = s.folder;
    q.source = s.source;
    q.camera = s.camera;
    q.minLength = s.minLength;
    q.maxLength = s.maxLength;
    q.limit = limit;
    q.terms = s.quoted;
    bool understood = std::ranges::find(s.used, true) != s.used.end();
    for (size_t i = 0; i < s.size(); ++i) {
        if (s.used[i]) continue;
        bool filler = std::ranges::find(fillers, std::string_view(s.tokens[i])) != fillers.end();
        // Filler words are dropped only when something else was understood or named.
        if (filler && (understood || !q.terms.empty() || s.size() > 1)) continue;
        q.terms.push_back(s.original[i]);
    }
    if (q.terms.empty() && !understood)
        for (size_t i = 0; i < s.size(); ++i)
            q.terms.push_back(s.original[i]);
    q.sort = s.sort.value_or(q.terms.empty() ? Sort::newest : Sort::relevance);

    ParsedSearch parsed;
    parsed.query = std::move(q);
    parsed.source = std::string(words);
    auto& chips = parsed.chips;
    chips = s.kindLabels;
    if (s.dateLabel) chips.push_back(*s.dateLabel);
    if (s.sizeLabel) chips.push_back(*s.sizeLabel);
    if (s.lengthLabel) chips.push_back(*s.lengthLabel);
    if (s.folderLabel) chips.push_back(*s.folderLabel);
    if (s.sourceLabel) chips.push_back(*s.sourceLabel);
    if (s.camera) chips.push_back("Camera: " + *s.camera);
    if (s.sortSaid) {
        switch (*s.sort) {
        case Sort::newest:
            chips.push_back("Newest first");
            break;
        case Sort::oldest:
            chips.push_back("Oldest first");
            break;
        case Sort::largest:
            chips.push_back("Largest first");
            break;
        case Sort::smallest:
            chips.push_back("Smallest first");
            break;
        case Sort::name:
            chips.push_back("By name");
            break;
        case Sort::nameDescending:
            chips.push_back("By name, Z to A");
            break;
        case Sort::kind:
        case Sort::kindDescending:
            chips.push_back("By kind");
            break;
        case Sort::relevance:
            break;
        }
    }
    return parsed;
}

} // namespace vantle
