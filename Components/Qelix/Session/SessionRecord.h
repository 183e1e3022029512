// What qelix itself notes of a run, in session.json: facts that no agent can write. A session that was recorded
// by an earlier qelix has fewer of them.
#pragma once

#include "Session/MachineFacts.h"
#include "Session/ProcessWatch.h"
#include "Session/TraceClasses.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

struct SessionRecord
{
    std::vector<std::string> m_command;
    pid_t m_programPid = 0;
    std::optional<uint64_t> m_tickNs;      // of the kernel's clock that drives the sampling timers
    std::map<MarkedPid, pid_t> m_parentOf; // of the processes that were seen alive; parents have the same mark
    std::optional<int> m_waitStatus;       // nothing: qelix did not see the program's end

    std::string m_program;      // the file that was executed
    std::string m_agentVersion; // empty: of an earlier qelix
    std::string m_agentBuildId; // hex digits
    MachineFacts m_machine;     // its texts are empty in sessions of an earlier qelix
    pid_t m_launcherPid = 0;    // qelix itself; 0 when something else starts the program
    std::string m_blockName;    // of the shared memory that steers the session
    std::optional<int64_t> m_rank;
    std::optional<uint64_t> m_intervalNs; // of the samples, as asked for; nothing: not sampled
    std::optional<uint32_t> m_depth;      // frames of a sample
    Thresholds m_thresholds = SameThresholds(std::nullopt);
    bool m_profileChildren = true;
    std::optional<ClockPair> m_start;
    std::optional<ClockPair> m_end;
    std::optional<uint64_t> m_budgetBytes;         // of the session directory
    bool m_isBudgetReached = false;                // collection was paused for it
    bool m_isStopped = false;                      // collection, while the program ran on
    std::optional<uint64_t> m_writerCpuNs;         // of the agents' writers, as last seen alive
    std::map<std::string, std::string> m_buildIds; // of the modules by path, hex digits

    std::string m_trouble; // why the file says less than it may, when it is read; empty: it says all
};

// Whole or not at all: a reader never finds half a file. False when it cannot be written.
bool WriteSessionRecord(const std::string& sessionPath, const SessionRecord& record);

// What the session's file says; empty when there is none or it cannot be understood, and then m_trouble tells
// so.
SessionRecord ReadSessionRecord(const std::string& sessionPath);

} // namespace qelix
