#include "VantleSpec/BusySentence.h"

#include "VantleSpec/Sentence.h"

#include <algorithm>

namespace vantle {

std::string busySentence(const ProcessRow& row, const AgentsReading& agents,
                         const std::optional<std::string>& known) {
    if (row.kind == ProcessKind::app) return std::string(BusySentences::openApp);
    if (row.agent) {
        auto found = std::ranges::find(agents.agents, *row.agent, &RunningAgent::id);
        // An agent the grouping named but did not describe is still named by its id.
        const std::string& name = found != agents.agents.end() ? found->name : *row.agent;
        return fillIn(BusySentences::agentAtWork, {{"agent", name}});
    }
    if (known && !known->empty()) return *known;
    if (row.kind == ProcessKind::system) return std::string(BusySentences::partOfSystem);
    return std::string(row.cpuPercent >= BusySentences::busyPercent ? BusySentences::startedBusy
                                                                    : BusySentences::startedInBackground);
}

} // namespace vantle
