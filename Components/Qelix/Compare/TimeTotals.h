// Where the time of all threads of a session went.
#pragma once

#include "Report/SessionFacts.h"
#include "Report/TimeKinds.h"

#include <cstdint>

namespace qelix
{

struct TimeTotals
{
    uint64_t m_threads = 0;
    uint64_t m_wallNs = 0;   // from the first record to the last
    uint64_t m_threadNs = 0; // wall times of all threads
    KindTimes m_timeNs = {}; // of all threads
};

TimeTotals TotalsOf(const SessionFacts& session);

} // namespace qelix
