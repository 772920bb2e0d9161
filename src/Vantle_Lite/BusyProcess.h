// What the menu bar panel says about the machine right now: which processes are busy, the sentence
// of each one's kind, the question before quitting one, and the short reading line. Pure functions
// over an activity sample; thread-safe. Returned values are the caller's.
#pragma once
#include "VantleSpec/ActivityRecords.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

struct BusyWords {
    static constexpr std::string_view openApp = "An app you have open.";
    static constexpr std::string_view agent = "{agent name} at work: an AI agent running on this Mac.";
    static constexpr std::string_view system = "Part of macOS, busy right now.";
    static constexpr std::string_view busy = "A program you started, busy right now.";
    static constexpr std::string_view background = "A program you started, running in the background.";
    static constexpr std::string_view quitQuestion =
        "{name} is using {percent}% of a core and {memory} of memory. It quits as its own Quit command "
        "does: with unsaved work it asks you first.";
    static constexpr std::string_view memoryTight = " · memory is tight";

    // From this share of one core (100 is a whole core) a program of the user's is busy right now.
    static constexpr double busyShare = 50.0;
    // Below this share a process is not shown as busy at all.
    static constexpr double shownFrom = 5.0;
};

// The sentence of a busy process's kind, the first that applies: an app the user has open, an AI
// agent at work (named from the sample's agents), a known program's description, part of the
// system, else a program of the user's by its share of one core.
std::string busySentence(const ProcessRow& row, const AgentsReading& agents = {});

// The processes using the machine now, busiest first, at most `limit`; `self` (this program) left out.
std::vector<ProcessRow> busyProcesses(const ActivitySample& sample, std::size_t limit, int self = 0);

// The question's message before quitting a busy process.
std::string quitQuestion(const ProcessRow& row);

// "Processor 23% · Memory 9.1 GB of 16 GB", with " · memory is tight" while memory is under pressure.
std::string readingLine(const ActivityTotals& totals);

} // namespace vantle
