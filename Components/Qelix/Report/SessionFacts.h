// All that a report says of a session; the text and the JSON form print the same facts.
#pragma once

#include "Report/TraceFacts.h"
#include "Session/AgentReports.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

struct SessionFacts
{
    std::string m_path;
    std::optional<uint64_t> m_thresholdNs; // shorter calls were not recorded
    std::vector<ProcessFacts> m_processes; // longest total first
    std::vector<LockFacts> m_locks;        // the ten of the whole session
    std::vector<AgentError> m_agentErrors;
    AgentLogFacts m_log;
};

// Fails when the path is no session directory.
SessionFacts ReadSessionFacts(const std::string& path);

bool IsDamaged(const SessionFacts& session);

} // namespace qelix
