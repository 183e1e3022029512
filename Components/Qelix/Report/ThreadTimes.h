// Where the time of threads went: what their calls and their samples tell, side by side.
#pragma once

#include "Report/SessionFacts.h"
#include "Report/TimeKinds.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qelix
{

// A thread, or several that have like names.
struct ThreadTimes
{
    const ProcessFacts* m_pProcess = nullptr; // of the first one
    int32_t m_tid = 0;                        // of the first one
    std::string m_name;                       // "worker-*" of several whose names differ in a number
    uint64_t m_threads = 1;
    uint64_t m_wallNs = 0; // of all together
    uint64_t m_calls = 0;
    KindTimes m_timeNs = {};
};

// A thread that no record saw end lasts as long as its process was seen.
//
// CPU time that a call burns, copying data or spinning, counts for both: then the kinds can be more than the
// wall time, and nothing is left as rest.
std::vector<ThreadTimes> TimesOfThreads(const SessionFacts& session); // longest wall time first

// Threads of one process name whose own names differ in the number at their end go together.
std::vector<ThreadTimes> GroupedByName(const std::vector<ThreadTimes>& threads);

// "worker-" of "worker-12" and of "worker-*"; the whole name where it has no number.
std::string NameWithoutNumber(const std::string& name);

// 0 where there is no time at all.
double ShareOf(const ThreadTimes& times, TimeKind kind);

} // namespace qelix
