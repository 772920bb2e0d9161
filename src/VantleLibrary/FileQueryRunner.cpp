#include "VantleLibrary/FileQueryRunner.h"

#include "VantleLibrary/ContentTypes.h"
#include "VantleLibrary/Sources.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <deque>
#include <unordered_map>

namespace vantle {

namespace {

using Sort = FileQuery::Sort;
using DateField = FileQuery::DateField;

// Names and terms are compared lower-cased with "_", "-" and "." read as spaces, so "tax return"
// finds "Tax_Return-2023.pdf". Every name of the catalog is folded on every search, hence a table.
constexpr auto foldTable = [] {
    std::array<char, 256> table{};
    for (int c = 0; c < 256; ++c)
        table[c] = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    table['_'] = table['-'] = table['.'] = ' ';
    return table;
}();

void normalizeInto(std::string_view text, std::string& out) {
    out.resize(text.size());
    for (size_t i = 0; i < text.size(); ++i)
        out[i] = foldTable[static_cast<unsigned char>(text[i])];
}

std::string normalized(std::string_view text) {
    std::string out;
    normalizeInto(text, out);
    return out;
}

bool containsFolded(std::string_view text, std::string_view part) {
    auto t = normalized(text), p = normalized(part);
    return t.find(p) != std::string::npos;
}

std::optional<TimePoint> dateOf(const Facts& f, DateField field) {
    switch (field) {
    case DateField::created:
        return f.contentCreated ? f.contentCreated : f.created;
    case DateField::modified:
        return f.modified;
    case DateField::added:
        return f.added;
    case DateField::opened:
        return f.lastUsed;
    case DateField::any:
        break;
    }
    return f.modified ? f.modified : f.added ? f.added : f.created;
}

// A query made ready once: terms normalized, what each file must pass, cheapest tests first.
struct Prepared {
    const FileQuery& query;
    std::vector<std::string> terms;
    std::string folderPrefix;
    bool nameOnly; // only name, date and place tests: folders may be answered too

    explicit Prepared(const FileQuery& q) : query(q) {
        for (const auto& t : q.terms)
            if (auto n = normalized(t); n.find_first_not_of(' ') != std::string::npos) terms.push_back(n);
        if (q.folder) {
            folderPrefix = *q.folder;
            if (!folderPrefix.ends_with('/')) folderPrefix += '/';
        }
        nameOnly = !terms.empty() && q.kinds.empty() && q.extensions.empty() && !q.screenshotsOnly &&
                   !q.minSize && !q.maxSize && !q.source && !q.camera && !q.minLength && !q.maxLength;
    }

    bool inDates(const Facts& f) const {
        if (!query.after && !query.before) return true;
        auto within = [&](const std::optional<TimePoint>& at) {
            return at && (!query.after || *at >= *query.after) && (!query.before || *at < *query.before);
        };
        if (query.dateField != DateField::any) return within(dateOf(f, query.dateField));
        return within(f.created) || within(f.contentCreated) || within(f.modified) || within(f.added) ||
               within(f.lastUsed);
    }

    bool test(const Facts& f, std::string& scratch) const {
        if (f.isFolder && !f.isPackage && !nameOnly) return false;
        if (query.screenshotsOnly && !f.isScreenshot) return false;
        if (query.minSize && f.size < *query.minSize) return false;
        if (query.maxSize && f.size > *query.maxSize) return false;
        if (!folderPrefix.empty() && !f.path.starts_with(folderPrefix)) return false;
        if (!query.kinds.empty() || !query.extensions.empty()) {
            // A file of any named kind or with any named extension: "photos and pdfs" is both.
            bool named = false;
            if (!query.extensions.empty()) {
                auto dot = f.name.rfind('.');
                if (dot != std::string::npos && dot > 0) {
                    normalizeInto(std::string_view(f.name).substr(dot + 1), scratch);
                    named = query.extensions.contains(scratch);
                }
            }
            if (!named) {
                auto kind = query.kinds.empty() ? std::nullopt : f.kind();
                if (!kind || !query.kinds.contains(*kind)) return false;
            }
        }
        if (!inDates(f)) return false;
        if (!terms.empty()) {
            normalizeInto(f.name, scratch);
            for (const auto& t : terms)
                if (scratch.find(t) == std::string::npos) return false;
        }
        if (query.source) {
            if (f.whereFroms.empty() || Sources::sourceKey(f.whereFroms) != *query.source) return false;
        }
        if (query.minLength && !(f.duration && *f.duration >= *query.minLength)) return false;
        if (query.maxLength && !(f.duration && *f.duration <= *query.maxLength)) return false;
        if (query.camera) {
            bool byMake = f.cameraMake && containsFolded(*f.cameraMake, *query.camera);
            bool byModel = f.cameraModel && containsFolded(*f.cameraModel, *query.camera);
            if (!byMake && !byModel) return false;
        }
        return true;
    }

    // Lower is better: the name (without its extension) is a term, starts with one, has one at a word
    // start, or only contains them.
    int relevance(const Facts& f) const {
        auto name = normalized(f.name);
        auto extension = lowerExtension(f.name);
        auto stem = name.substr(0, name.size() - (extension.empty() ? 0 : extension.size() + 1));
        int best = 3;
        for (const auto& t : terms) {
            if (stem == t || name == t)
                best = std::min(best, 0);
            else if (name.starts_with(t))
                best = std::min(best, 1);
            else if (name.find(" " + t) != std::string::npos)
                best = std::min(best, 2);
        }
        return best;
    }
};

// The matches' order and cut: every order ends on the path, so equal keys still come out the same
// way every time.
QueryAnswer answerOf(const Prepared& prepared, std::vector<const Facts*>& found) {
    const auto& query = prepared.query;
    QueryAnswer answer;
    answer.total = static_cast<int>(found.size());
    auto dateKey = [&](const Facts* f) { return dateOf(*f, query.dateField).value_or(TimePoint::min()); };
    auto nameKey = [](const Facts* f) { return normalized(f->name); };
    auto kindKey = [](const Facts* f) {
        auto k = f->kind();
        return k ? static_cast<int>(*k) : 99; // files of no kind last
    };
    std::unordered_map<const Facts*, int> relevance;
    if (query.sort == Sort::relevance)
        for (auto* f : found)
            relevance.emplace(f, prepared.relevance(*f));
    auto before = [&](const Facts* a, const Facts* b) {
        switch (query.sort) {
        case Sort::newest:
            if (dateKey(a) != dateKey(b)) return dateKey(a) > dateKey(b);
            break;
        case Sort::oldest:
            if (dateKey(a) != dateKey(b)) return dateKey(a) < dateKey(b);
            break;
        case Sort::largest:
            if (a->size != b->size) return a->size > b->size;
            break;
        case Sort::smallest:
            if (a->size != b->size) return a->size < b->size;
            break;
        case Sort::name:
        case Sort::nameDescending: {
            auto x = nameKey(a), y = nameKey(b);
            if (x != y) return query.sort == Sort::name ? x < y : x > y;
            break;
        }
        case Sort::kind:
        case Sort::kindDescending: {
            auto x = kindKey(a), y = kindKey(b);
            if (x != y) return query.sort == Sort::kind ? x < y : x > y;
            auto n = nameKey(a), m = nameKey(b);
            if (n != m) return n < m;
            break;
        }
        case Sort::relevance: {
            auto x = relevance.at(a), y = relevance.at(b);
            if (x != y) return x < y;
            if (dateKey(a) != dateKey(b)) return dateKey(a) > dateKey(b);
            break;
        }
        }
        return a->path < b->path;
    };
    auto keep = std::min(found.size(), static_cast<size_t>(std::max(query.limit, 0)));
    std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(keep), found.end(), before);
    answer.items.reserve(keep);
    for (size_t i = 0; i < keep; ++i)
        answer.items.push_back(toFileItem(*found[i]));
    return answer;
}

SearchResult finished(SearchResult result, QueryAnswer answer, const Reading& reading,
                      std::chrono::steady_clock::time_point started) {
    result.items = std::move(answer.items);
    result.total = answer.total;
    result.note = reading.note();
    auto owed = [&](std::string_view sentence) {
        result.note = result.note ? *result.note + " " + std::string(sentence) : std::string(sentence);
    };
    if (reading.attributesPending && usesAttributeFacts(result.parsed.query))
        owed(Reading::attributesPendingSentence);
    if (reading.mediaPending && usesMediaFacts(result.parsed.query)) owed(Reading::mediaPendingSentence);
    auto elapsed = std::chrono::steady_clock::now() - started;
    result.parsed.milliseconds =
        static_cast<int>(std::lround(std::chrono::duration<double, std::milli>(elapsed).count()));
    return result;
}

} // namespace

bool usesMediaFacts(const FileQuery& query) {
    bool byDate = (query.after || query.before) && (query.dateField == FileQuery::DateField::any ||
                                                    query.dateField == FileQuery::DateField::created);
    return query.camera || query.minLength || query.maxLength || byDate;
}

bool usesAttributeFacts(const FileQuery& query) {
    return query.source.has_value();
}

QueryAnswer runQuery(const FileQuery& query, std::span<const Facts> facts) {
    Prepared prepared(query);
    std::vector<const Facts*> found;
    std::string scratch;
    for (const auto& f : facts)
        if (prepared.test(f, scratch)) found.push_back(&f);
    return answerOf(prepared, found);
}

struct QueryMatcher::State {
    explicit State(const FileQuery& query) : prepared(query) {}
    Prepared prepared;
    std::deque<Facts> matches; // copies: what was offered does not outlive the call
    std::string scratch;
};

QueryMatcher::QueryMatcher(FileQuery query)
    : query_(std::move(query)), state_(std::make_unique<State>(query_)) {}
QueryMatcher::~QueryMatcher() = default;

void QueryMatcher::offer(const Facts& facts) {
    if (state_->prepared.test(facts, state_->scratch)) state_->matches.push_back(facts);
}

QueryAnswer QueryMatcher::answer() const {
    std::vector<const Facts*> found;
    found.reserve(state_->matches.size());
    for (const auto& f : state_->matches)
        found.push_back(&f);
    return answerOf(state_->prepared, found);
}

SearchResult searchFiles(const SearchParser& parser, std::string_view words, const Snapshot& snapshot,
                         const Reading& reading, int limit) {
    auto started = std::chrono::steady_clock::now();
    SearchResult result;
    result.parsed = parser.parse(words, limit);
    auto answer = runQuery(result.parsed.query, snapshot.facts);
    return finished(std::move(result), std::move(answer), reading, started);
}

std::optional<SearchResult> searchFiles(const SearchParser& parser, std::string_view words, int limit,
                                        const OfferEach& offerEach) {
    auto started = std::chrono::steady_clock::now();
    SearchResult result;
    result.parsed = parser.parse(words, limit);
    QueryMatcher matcher(result.parsed.query);
    auto reading = offerEach([&](const Facts& f) { matcher.offer(f); });
    if (!reading) return std::nullopt;
    return finished(std::move(result), matcher.answer(), *reading, started);
}

} // namespace vantle
