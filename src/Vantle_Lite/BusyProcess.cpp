#include "Vantle_Lite/BusyProcess.h"

#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "VantleSpec/Sentence.h"
#include "VantleVitals/KnownPrograms.h"

#include <algorithm>

namespace vantle {

std::string busySentence(const ProcessRow& row, const AgentsReading& agents) {
    if (row.kind == ProcessKind::app) return std::string(BusyWords::openApp);
    if (row.agent) {
        auto found = std::ranges::find(agents.agents, *row.agent, &RunningAgent::id);
        auto name = found != agents.agents.end() ? found->name : *row.agent;
        return fillIn(BusyWords::agent, {{"agent name", name}});
    }
    if (auto known = knownProgramDescription(row.name)) return std::string(*known);
    if (row.kind == ProcessKind::system) return std::string(BusyWords::system);
    return std::string(row.cpuPercent >= BusyWords::busyShare ? BusyWords::busy : BusyWords::background);
}

std::vector<ProcessRow> busyProcesses(const ActivitySample& sample, std::size_t limit, int self) {
    std::vector<ProcessRow> busy;
    for (const auto& row : sample.rows)
        if (row.cpuPercent >= BusyWords::shownFrom && row.pid != self && row.pid > 0) busy.push_back(row);
    std::ranges::sort(busy, [](const ProcessRow& a, const ProcessRow& b) {
        return a.cpuPercent != b.cpuPercent ? a.cpuPercent > b.cpuPercent : a.pid < b.pid;
    });
    if (busy.size() > limit) busy.resize(limit);
    return busy;
}

std::string quitQuestion(const ProcessRow& row) {
    // Another user's footprint is not known; its resident size is the figure there is.
    auto memory = row.memory ? row.memory : row.realMemory;
    return fillIn(BusyWords::quitQuestion, {{"name", row.app.value_or(row.name)},
                                            {"percent", wholeNumber(row.cpuPercent, 0, 1e6)},
                                            {"memory", memoryBytes(std::int64_t(memory))}});
}

std::string readingLine(const ActivityTotals& totals) {
    auto line = "Processor " + wholePercent(totals.cpu * 100) + " · Memory " +
                memoryBytes(std::int64_t(totals.memoryUsed)) + " of " +
                memoryBytes(std::int64_t(totals.memoryTotal));
    if (totals.pressure != VitalsSnapshot::Pressure::normal) line += BusyWords::memoryTight;
    return line;
}

} // namespace vantle
