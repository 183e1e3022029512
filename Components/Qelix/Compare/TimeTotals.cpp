#include "Compare/TimeTotals.h"

#include "Report/ThreadTimes.h"

namespace qelix
{

TimeTotals TotalsOf(const SessionFacts& session)
{
    TimeTotals totals;
    totals.m_wallNs = LengthOf(session.m_span);
    for (const ThreadTimes& times : TimesOfThreads(session))
    {
        ++totals.m_threads;
        totals.m_threadNs = SaturatingAdd(totals.m_threadNs, times.m_wallNs);
        for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
        {
            totals.m_timeNs[kind] = SaturatingAdd(totals.m_timeNs[kind], times.m_timeNs[kind]);
        }
    }
    return totals;
}

} // namespace qelix
