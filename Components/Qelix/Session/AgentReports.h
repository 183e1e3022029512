// What the agents of a session said of themselves: the error files, meant for the launcher, and the logs.
#pragma once

#include "Session/ProcessWatch.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

struct AgentError
{
    std::string m_path;
    pid_t m_pid;        // of the process that wrote it
    std::string m_code; // as written: the digits of a ZorvAgentErrorMsg
};

std::vector<AgentError> ReadAgentErrors(const std::string& sessionPath);

// What happened and what to do, in words.
std::string ExplainAgentError(const AgentError& error);

// A process said that it was about to execute a file. Whether it did is not said.
struct ExecFact
{
    MarkedPid m_log; // whose log it stands in: a child of vfork(2) has its parent's
    MarkedPid m_process;
    std::string m_path;
};

struct AgentLogFacts
{
    uint64_t m_logCount = 0;
    uint64_t m_lostTraceRecords = 0;
    uint64_t m_lostSampleRecords = 0;
    uint64_t m_timerOverruns = 0;                  // expiries of sampling timers that no sample was made of
    std::map<MarkedPid, uint64_t> m_overrunsOf;    // the same by process
    std::map<MarkedPid, uint64_t> m_lostSamplesOf; // by process
    uint64_t m_unwritten = 0;                      // times that records could not be written into a file
    uint64_t m_errorLines = 0;
    std::string m_firstError;     // the first such line
    std::string m_firstErrorFile; // where it stands
    std::vector<ExecFact> m_execs;
    std::set<MarkedPid> m_ended;          // whose agent said at the end that it was done
    std::map<MarkedPid, pid_t> m_leftOut; // forked children that were not to be recorded, with their parents
};

AgentLogFacts ReadAgentLogs(const std::string& sessionPath);

} // namespace qelix
