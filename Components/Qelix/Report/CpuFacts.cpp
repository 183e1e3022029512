#include "Report/CpuFacts.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace qelix
{

std::vector<FunctionRow> RankedFunctions(const Symbolizer& symbolizer, const FunctionCounts& counts)
{
    std::vector<FunctionRow> rows;
    for (const auto& [id, count] : counts)
    {
        rows.push_back({&symbolizer.m_functions[id], count});
    }
    std::sort(rows.begin(), rows.end(),
              [](const FunctionRow& a, const FunctionRow& b)
              {
                  return std::tie(b.m_count.m_self, b.m_count.m_total, a.m_pFunction->m_name,
                                  a.m_pFunction->m_module) < std::tie(a.m_count.m_self, a.m_count.m_total,
                                                                      b.m_pFunction->m_name,
                                                                      b.m_pFunction->m_module);
              });
    return rows;
}

std::vector<ModuleRow> RankedModules(const Symbolizer& symbolizer, const FunctionCounts& counts)
{
    std::map<std::string, uint64_t> selfOf;
    for (const auto& [id, count] : counts)
    {
        selfOf[symbolizer.m_functions[id].m_module] += count.m_self;
    }
    std::vector<ModuleRow> rows;
    for (const auto& [path, self] : selfOf)
    {
        if (self != 0)
        {
            rows.push_back({path, self});
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const ModuleRow& a, const ModuleRow& b) { return a.m_self > b.m_self; });
    return rows;
}

std::vector<ThreadRow> RankedThreads(const SessionFacts& session)
{
    std::vector<ThreadRow> rows;
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadSamples& thread : process.m_samples.m_threads)
        {
            if (thread.m_samples != 0)
            {
                rows.push_back({&process, &thread});
            }
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const ThreadRow& a, const ThreadRow& b)
                     { return a.m_pThread->m_samples > b.m_pThread->m_samples; });
    return rows;
}

FunctionCounts FunctionsOf(const ProcessSamples& process)
{
    FunctionCounts counts;
    for (const ThreadSamples& thread : process.m_threads)
    {
        AddFunctions(&counts, thread.m_functions);
    }
    return counts;
}

FunctionCounts FunctionsOf(const SessionFacts& session)
{
    FunctionCounts counts;
    for (const ProcessFacts& process : session.m_processes)
    {
        AddFunctions(&counts, FunctionsOf(process.m_samples));
    }
    return counts;
}

uint64_t SampledNs(const SessionFacts& session, uint64_t samples)
{
    uint64_t nanoseconds;
    return __builtin_mul_overflow(samples, session.m_periodNs, &nanoseconds) ? UINT64_MAX : nanoseconds;
}

} // namespace qelix
