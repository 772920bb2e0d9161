// What the activity reader finds per process: the rows of the activity list, the machine's totals at
// the same moment, and the known agents grouped from them. Plain values owned by whoever holds them;
// safe to copy between threads.
#pragma once
#include "VantleSpec/Json.h"
#include "VantleSpec/Time.h"
#include "VantleSpec/VitalsRecords.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

enum class ProcessKind { app, background, system };
VANTLE_ENUM_NAMES(ProcessKind, "app", "background", "system")

// The tabs of the activity list, each a ranking.
enum class ActivityTab { cpu, memory, energy, disk, network, agents };
VANTLE_ENUM_NAMES(ActivityTab, "cpu", "memory", "energy", "disk", "network", "agents")

struct ProcessRow {
    std::int32_t pid = 0;
    std::int32_t parent = 0;
    std::string name;
    std::optional<std::string> app;
    std::optional<std::string> path;
    std::optional<std::string> bundleID;
    std::string user;
    bool isOwn = false;
    ProcessKind kind = ProcessKind::background;
    std::optional<std::string> agent;
    double cpuPercent = 0; // 100 is one whole core
    double cpuSeconds = 0;
    std::int32_t threads = 0;
    double idleWakeups = 0;       // per second
    std::uint64_t memory = 0;     // footprint
    std::uint64_t realMemory = 0; // resident
    std::optional<double> watts;
    double energyImpact = 0;
    bool preventsSleep = false;
    double diskReadPerSecond = 0;
    double diskWrittenPerSecond = 0;
    std::uint64_t diskReadTotal = 0;
    std::uint64_t diskWrittenTotal = 0;
    double networkInPerSecond = 0;
    double networkOutPerSecond = 0;
    std::uint64_t networkInTotal = 0;
    std::uint64_t networkOutTotal = 0;
    std::optional<TimePoint> started;
    bool operator==(const ProcessRow&) const = default;
};
VANTLE_RECORD_JSON(ProcessRow, pid, parent, name, app, path, bundleID, user, isOwn, kind, agent, cpuPercent,
                   cpuSeconds, threads, idleWakeups, memory, realMemory, watts, energyImpact, preventsSleep,
                   diskReadPerSecond, diskWrittenPerSecond, diskReadTotal, diskWrittenTotal,
                   networkInPerSecond, networkOutPerSecond, networkInTotal, networkOutTotal, started)

struct ActivityTotals {
    TimePoint date{};
    double cpu = 0; // busy fractions of the whole processor
    double cpuUser = 0;
    double cpuSystem = 0;
    std::uint64_t memoryUsed = 0;
    std::uint64_t memoryTotal = 0;
    std::uint64_t compressed = 0;
    std::uint64_t swapUsed = 0;
    VitalsSnapshot::Pressure pressure = VitalsSnapshot::Pressure::normal;
    std::optional<double> watts;
    double diskReadPerSecond = 0;
    double diskWrittenPerSecond = 0;
    double networkInPerSecond = 0;
    double networkOutPerSecond = 0;
    std::int32_t processes = 0;
    std::int32_t threads = 0;
    bool operator==(const ActivityTotals&) const = default;
};
VANTLE_RECORD_JSON(ActivityTotals, date, cpu, cpuUser, cpuSystem, memoryUsed, memoryTotal, compressed,
                   swapUsed, pressure, watts, diskReadPerSecond, diskWrittenPerSecond, networkInPerSecond,
                   networkOutPerSecond, processes, threads)

enum class AgentLoad { none, light, moderate, heavy };
VANTLE_ENUM_NAMES(AgentLoad, "none", "light", "moderate", "heavy")

struct AgentSession {
    ProcessRow root;
    std::vector<ProcessRow> processes; // the root's descendants
    bool operator==(const AgentSession&) const = default;
};
VANTLE_RECORD_JSON(AgentSession, root, processes)

struct RunningAgent {
    std::string id;
    std::string name;
    std::string about;
    std::optional<std::string> appPath;
    std::vector<AgentSession> sessions;
    bool operator==(const RunningAgent&) const = default;
};
VANTLE_RECORD_JSON(RunningAgent, id, name, about, appPath, sessions)

struct AgentsReading {
    std::vector<RunningAgent> agents;
    double processorShare = 0;
    std::uint64_t memory = 0;
    double memoryShare = 0;
    std::optional<double> watts;
    AgentLoad load = AgentLoad::none;
    bool operator==(const AgentsReading&) const = default;
};
VANTLE_RECORD_JSON(AgentsReading, agents, processorShare, memory, memoryShare, watts, load)

struct ActivitySample {
    std::vector<ProcessRow> rows;
    ActivityTotals totals;
    AgentsReading agents;
    bool operator==(const ActivitySample&) const = default;
};
VANTLE_RECORD_JSON(ActivitySample, rows, totals, agents)

// What a reader must gather for the page that asks; both cost extra reads.
struct ActivityNeeds {
    bool network = false; // per-process network counters
    bool agents = false;  // agent grouping
    bool operator==(const ActivityNeeds&) const = default;
};
VANTLE_RECORD_JSON(ActivityNeeds, network, agents)

struct ProcessDetails {
    std::optional<std::string> signer;
    bool isSigned = false;
    bool isApple = false;
    std::optional<std::string> parentName;
    std::vector<std::int32_t> ports; // listening ports
    std::optional<std::string> about;
    std::optional<std::string> busyBecause;
    std::optional<std::string> protectedBecause; // why it must not be quit
    bool operator==(const ProcessDetails&) const = default;
};
VANTLE_RECORD_JSON(ProcessDetails, signer, isSigned, isApple, parentName, ports, about, busyBecause,
                   protectedBecause)

enum class QuitOutcome { refused, quit, stillRunning };
VANTLE_ENUM_NAMES(QuitOutcome, "refused", "quit", "stillRunning")

} // namespace vantle
