// What the agents of a session said of themselves: the error files, meant for the launcher, and the logs.
#pragma once

#include <cstdint>
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

struct AgentLogFacts
{
    uint64_t m_logCount = 0;
    uint64_t m_lostTraceRecords = 0;
    uint64_t m_lostSampleRecords = 0;
    uint64_t m_errorLines = 0;
    std::string m_firstError;     // the first such line
    std::string m_firstErrorFile; // where it stands
};

AgentLogFacts ReadAgentLogs(const std::string& sessionPath);

} // namespace qelix
