#include "VantleSpec/Time.h"

#include <cstdio>
#include <ctime>

namespace vantle {

namespace {
// Writes `value` as exactly `width` digits ending just before `end`.
void putDigits(char* end, unsigned value, int width) {
    for (int i = 0; i < width; ++i, value /= 10)
        *--end = static_cast<char>('0' + value % 10);
}
} // namespace

std::string isoDate(TimePoint at) {
    std::string out(isoDateLength, '\0');
    isoDate(at, out.data());
    return out;
}

// By hand rather than through snprintf: a duplicate list or a catalog answer writes tens of
// thousands of dates, and the format parsing cost more than everything else in printing them.
void isoDate(TimePoint at, char* p) {
    using namespace std::chrono;
    auto ms = time_point_cast<milliseconds>(at);
    auto days = floor<std::chrono::days>(ms);
    year_month_day ymd{days};
    auto inDay = static_cast<unsigned>((ms - days).count()); // below 86,400,000
    // A TimePoint spans about 1678 to 2262, so the year always has four digits.
    putDigits(p + 4, static_cast<unsigned>(int(ymd.year())), 4);
    p[4] = '-';
    putDigits(p + 7, unsigned(ymd.month()), 2);
    p[7] = '-';
    putDigits(p + 10, unsigned(ymd.day()), 2);
    p[10] = 'T';
    putDigits(p + 13, inDay / 3'600'000, 2);
    p[13] = ':';
    putDigits(p + 16, inDay / 60'000 % 60, 2);
    p[16] = ':';
    putDigits(p + 19, inDay / 1000 % 60, 2);
    p[19] = '.';
    putDigits(p + 23, inDay % 1000, 3);
    p[23] = 'Z';
}

namespace {
bool digits(std::string_view s, size_t pos, size_t n, int& out) {
    if (pos + n > s.size()) return false;
    int v = 0;
    for (size_t i = pos; i < pos + n; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        v = v * 10 + (s[i] - '0');
    }
    out = v;
    return true;
}
} // namespace

std::optional<TimePoint> parseIsoDate(std::string_view s) {
    using namespace std::chrono;
    int y, mo, d, h, mi, se;
    if (!digits(s, 0, 4, y) || s.size() < 19 || s[4] != '-' || !digits(s, 5, 2, mo) || s[7] != '-' ||
        !digits(s, 8, 2, d) || (s[10] != 'T' && s[10] != 't' && s[10] != ' ') || !digits(s, 11, 2, h) ||
        s[13] != ':' || !digits(s, 14, 2, mi) || s[16] != ':' || !digits(s, 17, 2, se))
        return std::nullopt;
    year_month_day ymd{year{y}, month{unsigned(mo)}, day{unsigned(d)}};
    if (!ymd.ok() || h > 23 || mi > 59 || se > 60) return std::nullopt;
    size_t pos = 19;
    nanoseconds fraction{0};
    if (pos < s.size() && s[pos] == '.') {
        ++pos;
        size_t start = pos;
        long long scale = 100'000'000, ns = 0;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
            ns += (s[pos] - '0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == start) return std::nullopt;
        fraction = nanoseconds{ns};
    }
    minutes offset{0};
    if (pos < s.size() && (s[pos] == 'Z' || s[pos] == 'z')) {
        ++pos;
    } else if (pos < s.size() && (s[pos] == '+' || s[pos] == '-')) {
        int oh, om;
        if (!digits(s, pos + 1, 2, oh) || pos + 3 >= s.size() || s[pos + 3] != ':' ||
            !digits(s, pos + 4, 2, om))
            return std::nullopt;
        offset = minutes{oh * 60 + om} * (s[pos] == '-' ? -1 : 1);
        pos += 6;
    } else {
        return std::nullopt;
    }
    if (pos != s.size()) return std::nullopt;
    // Whole seconds first, where no year of four digits can overflow, so a date the clock cannot
    // hold (year 9999 in nanoseconds) is refused instead of wrapping to another century.
    auto whole = sys_days{ymd} + hours{h} + minutes{mi} + seconds{se} - offset;
    if (whole <= floor<seconds>(TimePoint::min()) || whole >= floor<seconds>(TimePoint::max()))
        return std::nullopt;
    return time_point_cast<TimePoint::duration>(whole) + duration_cast<TimePoint::duration>(fraction);
}

} // namespace vantle
