// Which records of a session a reading is to see.
#pragma once

#include "Session/TraceClasses.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace qelix
{

// Names are patterns of glob(7); a number is an id. An empty list asks for everything.
struct RecordFilter
{
    std::vector<std::string> m_threads;
    std::vector<std::string> m_processes;
    std::vector<TraceClass> m_classes;
    std::optional<uint64_t> m_from; // nanoseconds since the session's first record
    std::optional<uint64_t> m_to;
};

// The same for the records of one process, where names have become ids and times those of the records.
struct ProcessFilter
{
    std::optional<std::unordered_set<int32_t>> m_tids; // nothing: all threads
    std::vector<TraceClass> m_classes;
    uint64_t m_from = 0;
    uint64_t m_to = UINT64_MAX;
};

// Ids that are none belong to no thread that could be left out.
inline bool IsWanted(const ProcessFilter& filter, int32_t tid)
{
    return !filter.m_tids || tid <= 0 || filter.m_tids->contains(tid);
}

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& name, int64_t id);

// A call that reaches over an edge of the times asked for counts with what lies inside; false for one that lies
// outside. What has no end, or an unknown time, is left as it is.
bool CutToTimes(const ProcessFilter& filter, uint64_t* pStart, uint64_t* pEnd);

} // namespace qelix
