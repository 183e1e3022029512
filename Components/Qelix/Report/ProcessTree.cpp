#include "Report/ProcessTree.h"

#include "Session/ProgramCheck.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <optional>
#include <set>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr const char* ZORV_LEFT_OUT = "children were not to be recorded";

// The path as the kernel lists it among a process's mappings; empty when there is no such file.
std::string ListedPath(const std::string& path)
{
    char* pReal = realpath(path.c_str(), nullptr);
    const std::string real = pReal == nullptr ? "" : pReal;
    free(pReal);
    return real.substr(0, real.find(' ')); // the agent cuts it there
}

// An exec that failed, of a shell that looks along its PATH for example, names a file that is not there.
std::optional<UnrecordedProcess> UnrecordedExec(const ExecFact& exec, const HasMapped& hasMapped)
{
    if (!exec.m_path.starts_with('/') || access(exec.m_path.c_str(), X_OK) != 0)
    {
        return std::nullopt;
    }
    const std::string listed = ListedPath(ExecutedFile(exec.m_path));
    if (listed.empty() || hasMapped(exec.m_pid, listed))
    {
        return std::nullopt;
    }
    const std::string reason = UntraceableReason(exec.m_path);
    return UnrecordedProcess{exec.m_pid, exec.m_path,
                             reason.empty() ? "no agent was seen in it" : "it " + reason};
}

// The last exec of each process: the one that its files, if it has any, must be of.
std::map<pid_t, ExecFact> LastExecs(const std::vector<ExecFact>& execs)
{
    std::map<pid_t, ExecFact> last;
    for (const ExecFact& exec : execs)
    {
        ExecFact& known = last[exec.m_pid];
        // What a vforked child said through its parent's log precedes what it said through its own.
        if (known.m_logPid != exec.m_pid || exec.m_logPid == exec.m_pid)
        {
            known = exec;
        }
    }
    return last;
}

void AddRows(const std::map<pid_t, std::vector<pid_t>>& childrenOf, pid_t pid, unsigned depth,
             std::set<pid_t>* pSeen, std::vector<TreeRow>* pRows)
{
    if (!pSeen->insert(pid).second)
    {
        return; // ids are used again, and files are damaged: no circle may hold us
    }
    pRows->push_back({pid, depth});
    const auto children = childrenOf.find(pid);
    if (children == childrenOf.end())
    {
        return;
    }
    for (const pid_t child : children->second)
    {
        AddRows(childrenOf, child, depth + 1, pSeen, pRows);
    }
}

} // namespace

ProcessTree MakeProcessTree(const SessionRecord& record, const AgentLogFacts& log,
                            const std::vector<pid_t>& recorded, const HasMapped& hasMapped)
{
    ProcessTree tree{record.m_parentOf, {}};
    for (const ExecFact& exec : log.m_execs)
    {
        if (exec.m_pid != exec.m_logPid)
        {
            tree.m_parentOf.emplace(exec.m_pid, exec.m_logPid);
        }
    }
    std::map<pid_t, UnrecordedProcess> unrecorded;
    for (const auto& [child, parent] : log.m_leftOut)
    {
        tree.m_parentOf.emplace(child, parent);
        if (!std::binary_search(recorded.begin(), recorded.end(), child))
        {
            unrecorded[child] = {child, "", ZORV_LEFT_OUT};
        }
    }
    for (const auto& [pid, exec] : LastExecs(log.m_execs))
    {
        // An exec cuts an agent off in the middle, and execvp is not told: an agent that came to its end was
        // in the last image, whatever that was.
        if (log.m_ended.contains(pid))
        {
            continue;
        }
        if (std::optional<UnrecordedProcess> process = UnrecordedExec(exec, hasMapped))
        {
            process->m_reason = record.m_profileChildren ? process->m_reason : ZORV_LEFT_OUT;
            unrecorded[pid] = std::move(*process);
        }
    }
    for (auto& [pid, process] : unrecorded)
    {
        tree.m_unrecorded.push_back(std::move(process));
    }
    return tree;
}

std::vector<TreeRow> TreeRows(const ProcessTree& tree, const std::vector<pid_t>& recorded)
{
    std::set<pid_t> pids(recorded.begin(), recorded.end());
    for (const UnrecordedProcess& process : tree.m_unrecorded)
    {
        pids.insert(process.m_pid);
    }
    std::map<pid_t, std::vector<pid_t>> childrenOf;
    std::vector<pid_t> roots;
    for (const pid_t pid : pids)
    {
        const auto parent = tree.m_parentOf.find(pid);
        const bool isKnown =
            parent != tree.m_parentOf.end() && pids.contains(parent->second) && parent->second != pid;
        (isKnown ? childrenOf[parent->second] : roots).push_back(pid);
    }
    std::vector<TreeRow> rows;
    std::set<pid_t> seen;
    for (const pid_t pid : roots)
    {
        AddRows(childrenOf, pid, 0, &seen, &rows);
    }
    for (const pid_t pid : pids) // those that only a circle of parents holds
    {
        AddRows(childrenOf, pid, 0, &seen, &rows);
    }
    return rows;
}

} // namespace qelix
