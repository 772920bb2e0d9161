// Numbers for people. Every figure that reaches text (the CLI, the checkup and score lines, the
// health summaries) goes through here and is clamped to what it can mean, so a nonsense value read
// from a kept file or a stand-in shows as the nearest sensible figure, never as a wrapped number or
// a 300-digit one. Byte counts have their own formatter (ByteCount.h). Pure functions; thread-safe.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace vantle {

// A whole share of something that cannot pass its whole (busy, free, battery health), in percent
// points clamped to 0..100: "42%". Not a number shows 0%.
std::string wholePercent(double percentPoints);

// A whole number within [lowest, highest], rounded half away from zero: "1234". Not a number shows
// `lowest`. Counts use the default range: never below zero.
std::string wholeNumber(double n, double lowest = 0, double highest = 1e15);

// "1 item", "3 items": a count never below zero.
std::string countWords(std::int64_t n, std::string_view one, std::string_view many);

// A figure with `decimals` places within [lowest, highest]: "1.25".
std::string decimalFigure(double value, int decimals, double lowest, double highest);

// A duration in its largest whole unit: "3 days", "1 hour", "12 minutes"; never below zero nor
// past a century.
std::string durationWords(double seconds);

// A duration in its two largest units: "3 days 4 hours", "2 hours 5 minutes", "12 minutes";
// clamped as durationWords.
std::string durationInTwoUnits(double seconds);

} // namespace vantle
