// The sentence beside a busy process wherever one is listed (the Health page's activity list, the
// menu bar panel): an open app, an agent at work, a program the system knows, part of the system, or
// a program the user started, busy now or quietly in the background. A pure function; thread-safe.
#pragma once
#include "VantleSpec/ActivityRecords.h"

#include <optional>
#include <string>
#include <string_view>

namespace vantle {

struct BusySentences {
    static constexpr std::string_view openApp = "An app you have open.";
    static constexpr std::string_view agentAtWork = "{agent} at work: an AI agent running on this Mac.";
    static constexpr std::string_view partOfSystem = "Part of macOS, busy right now.";
    static constexpr std::string_view startedBusy = "A program you started, busy right now.";
    static constexpr std::string_view startedInBackground =
        "A program you started, running in the background.";
    // From this share of one core (100 is a whole core) a program counts as busy right now.
    static constexpr double busyPercent = 50.0;
};

// Decided in order, the first that applies: an app the user has open; an agent the reading names;
// the known program's own description (`known`, when the caller has one); part of the system; else
// by its share of one core.
std::string busySentence(const ProcessRow& row, const AgentsReading& agents,
                         const std::optional<std::string>& known = std::nullopt);

} // namespace vantle
