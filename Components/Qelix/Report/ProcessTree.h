// Which process started which, and which ran without the agent, as far as the session tells.
#pragma once

#include "Session/AgentReports.h"
#include "Session/SessionRecord.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

struct UnrecordedProcess
{
    MarkedPid m_process;
    std::string m_program; // what it executed; empty when it only forked
    std::string m_reason;
};

struct ProcessTree
{
    // A process that is not in here has an unknown parent, or none in the session. Parents have the same mark.
    std::map<MarkedPid, pid_t> m_parentOf;
    std::vector<UnrecordedProcess> m_unrecorded; // by id
};

// Was this file seen, with code to execute, in the process?
using HasMapped = std::function<bool(const MarkedPid& process, const std::string& file)>;

ProcessTree MakeProcessTree(const SessionRecord& record, const AgentLogFacts& log,
                            const std::vector<MarkedPid>& recorded, const HasMapped& hasMapped);

std::optional<MarkedPid> ParentOf(const ProcessTree& tree, const MarkedPid& process);

struct TreeRow
{
    MarkedPid m_process;
    unsigned m_depth;
};

// Every process, recorded or not, each behind its parent and one deeper; siblings by id.
std::vector<TreeRow> TreeRows(const ProcessTree& tree, const std::vector<MarkedPid>& recorded);

} // namespace qelix
