// A file's date or none, in one word instead of std::optional's two: a catalog holds five of them
// for each of hundreds of thousands of files. Reads like std::optional<TimePoint> and converts to
// and from it. The one moment it cannot hold, the clock's earliest (the year 1677), is what "none"
// is kept as; no file system gives it. A plain value.
#pragma once
#include "VantleSpec/Time.h"

#include <optional>

namespace vantle {

class OptionalTime {
  public:
    constexpr OptionalTime() = default;
    constexpr OptionalTime(std::nullopt_t) {}
    constexpr OptionalTime(TimePoint at) : at_(at) {}
    constexpr OptionalTime(const std::optional<TimePoint>& at) : at_(at.value_or(none)) {}

    constexpr bool has_value() const { return at_ != none; }
    constexpr explicit operator bool() const { return has_value(); }
    // Like std::optional's: only when there is a value.
    constexpr TimePoint operator*() const { return at_; }
    constexpr TimePoint value_or(TimePoint otherwise) const { return has_value() ? at_ : otherwise; }
    constexpr void reset() { at_ = none; }
    constexpr operator std::optional<TimePoint>() const {
        return has_value() ? std::optional(at_) : std::nullopt;
    }

    friend constexpr bool operator==(const OptionalTime&, const OptionalTime&) = default;
    template <class Duration>
    friend constexpr bool operator==(const OptionalTime& a,
                                     std::chrono::time_point<std::chrono::system_clock, Duration> b) {
        return a.has_value() && a.at_ == b;
    }

  private:
    static constexpr TimePoint none = TimePoint::min();
    TimePoint at_ = none;
};

} // namespace vantle
