// The writer thread, as the rest of the agent sees it.
#pragma once

#include "ZorvMetadataTypes.h"
#include "ZorvUserModeTraceHelpers.h"

// There is something to write: ends the writer's rest, if it rests and if that is worth a system call now.
void ZorvUmaNudgeWriter(ZorvUmaProfileInfo* pProfileInfo);
// Ends the writer's rest, now and for good: finalisation waits for the thread to end.
void ZorvUmaWakeWriter(ZorvUmaProfileInfo* pProfileInfo);

// The writer's own: its rests between passes that found nothing, and the longest of them.
void ZorvUmaRestBetweenPasses(ZorvUmaProfileInfo* pProfileInfo, long* pRestNs);
long ZorvUmaLongestRest(const ZorvUmaProfileInfo* pProfileInfo);
// The first rest after work. A thread that fills a buffer every 50 us leaves the waking to the writer's own
// clock then: it would cost the thread as much as a hundred records.
constexpr long ZORV_BUSY_REST_NS = 500000;

inline bool ZorvUmaIsFlushing(const ZorvUmaProfileInfo* pProfileInfo)
{
    return __atomic_load_n(&pProfileInfo->m_isFlush, __ATOMIC_SEQ_CST);
}
