// Turns what a checkup read (`CheckupFacts`) into the checkup the Health page shows: one section a
// area with its verdict, readings and items, the findings that say what to do, and the score.
// A section's status is its worst reading or item (attention, then note, then good); a section
// where nothing could be read is unknown. Pure functions; the result belongs to the caller.
#pragma once
#include "VantleSpec/CheckupFacts.h"
#include "VantleSpec/CheckupRecords.h"

namespace vantle {

struct CheckupBuildOptions {
    // Set in a sandbox: every reading's source then names the stand-in table it came from.
    std::optional<std::string> standInSource;
};

MacCheckup buildCheckup(const CheckupFacts& facts, TimePoint now, const CheckupBuildOptions& options = {});

} // namespace vantle
