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
    if (listed.empty() || hasMapped(exec.m_process, listed))
    {
        return std::nullopt;
    }
    const std::string reason = UntraceableReason(exec.m_path);
    return UnrecordedProcess{exec.m_process, exec.m_path,
                             reason.empty() ? "no agent was seen in it" : "it " + reason};
}

// The last exec of each process: the one that its files, if it has any, must be of.
std::map<MarkedPid, ExecFact> LastExecs(const std::vector<ExecFact>& execs)
{
    std::map<MarkedPid, ExecFact> last;
    for (const ExecFact& exec : execs)
    {
        ExecFact& known = last[exec.m_process];
        // What a vforked child said through its parent's log precedes what it said through its own.
        if (known.m_log != exec.m_process || exec.m_log == exec.m_process)
        {
            known = exec;
        }
    }
    return last;
}

using Children = std::map<MarkedPid, std::vector<MarkedPid>>;

void AddRows(const Children& childrenOf, const MarkedPid& process, unsigned depth, std::set<MarkedPid>* pSeen,
             std::vector<TreeRow>* pRows)
{
    if (!pSeen->insert(process).second)
    {
        return; // ids are used again, and files are damaged: no circle may hold us
    }
    pRows->push_back({process, depth});
    const auto children = childrenOf.find(process);
    if (children == childrenOf.end())
    {
        return;
    }
    for (const MarkedPid& child : children->second)
    {
        AddRows(childrenOf, child, depth + 1, pSeen, pRows);
    }
}

} // namespace

ProcessTree MakeProcessTree(const SessionRecord& record, const AgentLogFacts& log,
                            const std::vector<MarkedPid>& recorded, const HasMapped& hasMapped)
{
    ProcessTree tree{record.m_parentOf, {}};
    for (const ExecFact& exec : log.m_execs)
    {
        if (exec.m_process != exec.m_log)
        {
            tree.m_parentOf.emplace(exec.m_process, exec.m_log.m_pid);
        }
    }
    std::map<MarkedPid, UnrecordedProcess> unrecorded;
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

std::optional<MarkedPid> ParentOf(const ProcessTree& tree, const MarkedPid& process)
{
    const auto found = tree.m_parentOf.find(process);
    return found == tree.m_parentOf.end() ? std::nullopt
                                          : std::optional(MarkedPid{process.m_mark, found->second});
}

std::vector<TreeRow> TreeRows(const ProcessTree& tree, const std::vector<MarkedPid>& recorded)
{
    std::set<MarkedPid> processes(recorded.begin(), recorded.end());
    for (const UnrecordedProcess& process : tree.m_unrecorded)
    {
        processes.insert(process.m_process);
    }
    Children childrenOf;
    std::vector<MarkedPid> roots;
    for (const MarkedPid& process : processes)
    {
        const std::optional<MarkedPid> parent = ParentOf(tree, process);
        const bool isKnown = parent && processes.contains(*parent) && *parent != process;
        (isKnown ? childrenOf[*parent] : roots).push_back(process);
    }
    std::vector<TreeRow> rows;
    std::set<MarkedPid> seen;
    for (const MarkedPid& process : roots)
    {
        AddRows(childrenOf, process, 0, &seen, &rows);
    }
    for (const MarkedPid& process : processes) // those that only a circle of parents holds
    {
        AddRows(childrenOf, process, 0, &seen, &rows);
    }
    return rows;
}

} // namespace qelix
