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
                  return std::tie(b.m_count.m_selfNs, b.m_count.m_self, b.m_count.m_totalNs, b.m_count.m_total,
                                  a.m_pFunction->m_name, a.m_pFunction->m_module) <
                         std::tie(a.m_count.m_selfNs, a.m_count.m_self, a.m_count.m_totalNs, a.m_count.m_total,
                                  b.m_pFunction->m_name, b.m_pFunction->m_module);
              });
    return rows;
}

std::vector<ModuleRow> RankedModules(const Symbolizer& symbolizer, const FunctionCounts& counts)
{
    std::map<std::string, FunctionCount> countOf;
    for (const auto& [id, count] : counts)
    {
        FunctionCount& sum = countOf[symbolizer.m_functions[id].m_module];
        sum.m_self += count.m_self;
        sum.m_selfNs += count.m_selfNs;
    }
    std::vector<ModuleRow> rows;
    for (const auto& [path, count] : countOf)
    {
        if (count.m_self != 0)
        {
            rows.push_back({path, count.m_self, count.m_selfNs});
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const ModuleRow& a, const ModuleRow& b) { return a.m_selfNs > b.m_selfNs; });
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
                rows.push_back(
                    {&process, &thread, static_cast<double>(thread.m_samples) * NsPerSample(session, process)});
            }
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const ThreadRow& a, const ThreadRow& b) { return a.m_ns > b.m_ns; });
    return rows;
}

FunctionCounts FunctionsOf(const SessionFacts& session, const ThreadRow& thread)
{
    FunctionCounts counts;
    AddFunctions(&counts, thread.m_pThread->m_functions, NsPerSample(session, *thread.m_pProcess));
    return counts;
}

FunctionCounts FunctionsOf(const SessionFacts& session, const ProcessFacts& process)
{
    FunctionCounts counts;
    for (const ThreadSamples& thread : process.m_samples.m_threads)
    {
        AddFunctions(&counts, thread.m_functions, NsPerSample(session, process));
    }
    return counts;
}

FunctionCounts FunctionsOf(const SessionFacts& session)
{
    FunctionCounts counts;
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadSamples& thread : process.m_samples.m_threads)
        {
            AddFunctions(&counts, thread.m_functions, NsPerSample(session, process));
        }
    }
    return counts;
}

uint64_t SampledNs(const SessionFacts& session, const ProcessFacts& process, uint64_t samples)
{
    return WholeNs(static_cast<double>(samples) * NsPerSample(session, process));
}

double NsPerSample(const SessionFacts& session, const ProcessFacts& process)
{
    return NsPerSample(SampleClock{session.m_settings.m_intervalNs.value_or(0), session.m_periodNs},
                       session.m_log, process.m_samples.m_path, process.m_samples.m_allSamples);
}

double SampledNs(const SessionFacts& session)
{
    double nanoseconds = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        nanoseconds += static_cast<double>(process.m_samples.m_samples) * NsPerSample(session, process);
    }
    return nanoseconds;
}

} // namespace qelix
