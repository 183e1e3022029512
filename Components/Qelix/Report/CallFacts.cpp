#include "Report/CallFacts.h"

#include <algorithm>

namespace qelix
{

bool HasDuration(const ZorvUmtRecordHdr& hdr)
{
    return hdr.m_endTime != ZORV_TIME_NOT_ENDED && hdr.m_startTime != 0 && hdr.m_endTime != 0;
}

void AddCall(CallFacts* pFacts, const ZorvUmtRecordHdr& hdr)
{
    ++pFacts->m_calls;
    if (hdr.m_endTime == ZORV_TIME_NOT_ENDED)
    {
        ++pFacts->m_neverReturned;
        return;
    }
    if (!HasDuration(hdr))
    {
        ++pFacts->m_untimed;
        return;
    }
    const uint64_t duration = hdr.m_endTime - hdr.m_startTime;
    pFacts->m_totalNs = SaturatingAdd(pFacts->m_totalNs, duration);
    pFacts->m_longestNs = std::max(pFacts->m_longestNs, duration);
    AddDuration(&pFacts->m_durations, duration);
}

void AddCalls(CallFacts* pFacts, const CallFacts& more)
{
    pFacts->m_calls += more.m_calls;
    pFacts->m_neverReturned += more.m_neverReturned;
    pFacts->m_untimed += more.m_untimed;
    pFacts->m_totalNs = SaturatingAdd(pFacts->m_totalNs, more.m_totalNs);
    pFacts->m_longestNs = std::max(pFacts->m_longestNs, more.m_longestNs);
    AddDurations(&pFacts->m_durations, more.m_durations);
}

uint64_t MeanNs(const CallFacts& facts)
{
    return facts.m_durations.m_count == 0 ? 0 : facts.m_totalNs / facts.m_durations.m_count;
}

} // namespace qelix
