// What is counted of calls, whatever they are grouped by.
#pragma once

#include "Reader/Records.h"
#include "Report/DurationHistogram.h"

#include <cstdint>

namespace qelix
{

// Only calls that returned, and whose times the clock could tell, have a duration.
struct CallFacts
{
    uint64_t m_calls = 0;
    uint64_t m_neverReturned = 0;
    uint64_t m_untimed = 0;
    uint64_t m_totalNs = 0;
    uint64_t m_longestNs = 0;
    DurationHistogram m_durations;
};

// It returned, and the clock told both times.
bool HasDuration(const ZorvUmtRecordHdr& hdr);

void AddCall(CallFacts* pFacts, const ZorvUmtRecordHdr& hdr);
void AddCalls(CallFacts* pFacts, const CallFacts& more);

// Of the calls that have a duration; 0 without any.
uint64_t MeanNs(const CallFacts& facts);

} // namespace qelix
