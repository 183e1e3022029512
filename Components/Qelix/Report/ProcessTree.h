// Which process started which, and which ran without the agent, as far as the session tells.
#pragma once

#include "Session/AgentReports.h"
#include "Session/SessionRecord.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

struct UnrecordedProcess
{
    pid_t m_pid = 0;
    std::string m_program; // what it executed; empty when it only forked
    std::string m_reason;
};

struct ProcessTree
{
    std::map<pid_t, pid_t>
        m_parentOf; // a process that is not in here has an unknown parent, or none in the session
    std::vector<UnrecordedProcess> m_unrecorded; // by id
};

// Was this file seen, with code to execute, in the process?
using HasMapped = std::function<bool(pid_t pid, const std::string& file)>;

ProcessTree MakeProcessTree(const SessionRecord& record, const AgentLogFacts& log,
                            const std::vector<pid_t>& recorded, const HasMapped& hasMapped);

struct TreeRow
{
    pid_t m_pid;
    unsigned m_depth;
};

// Every process, recorded or not, each behind its parent and one deeper; siblings by id.
std::vector<TreeRow> TreeRows(const ProcessTree& tree, const std::vector<pid_t>& recorded);

} // namespace qelix
