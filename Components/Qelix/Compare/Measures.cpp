#include "Compare/Difference.h"

#include "Compare/TimeTotals.h"
#include "Report/CpuFacts.h"

#include <algorithm>

namespace qelix
{
namespace
{

// Calls come one by one, each as long as chance has it: their number has its own variance, and with it the
// sum's is that of the durations' squares. Buckets of the histogram are narrow enough to stand for their mean.
Measure MeasureOfCalls(const CallFacts& facts)
{
    Measure measure{static_cast<double>(facts.m_totalNs), 0, 0, facts.m_calls};
    for (const DurationBucket& bucket : BucketsOf(facts.m_durations))
    {
        const auto mean = static_cast<double>(MeanOf(bucket));
        measure.m_variance += mean * mean * static_cast<double>(bucket.m_count);
        measure.m_longestVariance = std::max(measure.m_longestVariance, mean * mean);
    }
    return measure;
}

// Samples are counts: the variance of a count is the count.
Measure MeasureOfSamples(uint64_t samples, double ns)
{
    const double period = ns / static_cast<double>(std::max<uint64_t>(samples, 1));
    return {ns, ns * period, period * period, samples};
}

void Add(Measures* pMeasures, const MeasureKey& key, const Measure& more)
{
    Measure& sum = (*pMeasures)[key];
    sum.m_ns += more.m_ns;
    sum.m_variance += more.m_variance;
    sum.m_longestVariance = std::max(sum.m_longestVariance, more.m_longestVariance);
    sum.m_count += more.m_count;
}

void AddFunctions(Measures* pMeasures, const SessionFacts& session)
{
    Add(pMeasures, {"cpu", "(all)", ""}, MeasureOfSamples(SampleCount(session), SampledNs(session)));
    for (const auto& [id, count] : FunctionsOf(session))
    {
        if (count.m_self == 0)
        {
            continue; // what it called is told under its own name
        }
        const Function& function = session.m_pSymbolizer->m_functions[id];
        Add(pMeasures, {"function", function.m_name, ModuleName(function.m_module)},
            MeasureOfSamples(count.m_self, count.m_selfNs));
    }
}

void AddCalls(Measures* pMeasures, const SessionFacts& session)
{
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadFacts& thread : process.m_trace.m_threads)
        {
            for (const NamedCalls& calls : thread.m_calls)
            {
                const Measure measure = MeasureOfCalls(calls.m_facts);
                const char* pClass = TraceClassName(ClassOf(*calls.m_pKind));
                Add(pMeasures, {"wait", "(all)", FormOf(TimeKindOf(*calls.m_pKind)).m_pName}, measure);
                Add(pMeasures, {"call", calls.m_name, pClass}, measure);
            }
        }
    }
}

void AddLocks(Measures* pMeasures, const SessionFacts& session)
{
    for (const LockFacts& lock : session.m_locks)
    {
        Add(pMeasures, {"lock", lock.m_name, lock.m_pKind->m_pName}, MeasureOfCalls(lock.m_calls));
    }
}

void Scale(Measure* pMeasure, double whole)
{
    if (whole > 0)
    {
        pMeasure->m_ns /= whole;
        pMeasure->m_variance /= whole * whole;
        pMeasure->m_longestVariance /= whole * whole;
    }
}

void MakeShares(Measures* pMeasures, const SessionFacts& session)
{
    const auto threadTime = static_cast<double>(TotalsOf(session).m_threadNs);
    const auto cpuTime = SampledNs(session);
    for (auto& [key, measure] : *pMeasures)
    {
        Scale(&measure, key.m_kind == "function" ? cpuTime : threadTime);
    }
}

} // namespace

Measures MeasuresOf(const SessionFacts& session, bool asShares)
{
    Measures measures;
    AddFunctions(&measures, session);
    AddCalls(&measures, session);
    AddLocks(&measures, session);
    if (asShares)
    {
        MakeShares(&measures, session);
    }
    return measures;
}

} // namespace qelix
