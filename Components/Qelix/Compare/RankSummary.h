// What one rank of a job leaves for the table of all: small, and made once.
#pragma once

#include "Report/SessionFacts.h"
#include "Report/TimeKinds.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

struct RankedTime
{
    std::string m_name;
    uint64_t m_ns = 0;
};

struct RankSummary
{
    int64_t m_rank = 0;
    std::string m_host;
    uint64_t m_wallNs = 0; // from the first record to the last
    uint64_t m_processes = 0;
    uint64_t m_threads = 0;
    uint64_t m_threadNs = 0;             // wall times of all threads
    KindTimes m_timeNs = {};             // of all threads
    std::vector<RankedTime> m_locks;     // the longest waited for
    std::vector<RankedTime> m_functions; // the most CPU time in themselves
    bool m_isDamaged = false;
};

RankSummary SummaryOf(const SessionFacts& session);

// SESSION/summary.json, whole or not at all. Reads the session; false when it cannot be read or written.
bool WriteRankSummary(const std::string& session);

// What the file says; nothing when there is none, when it cannot be understood, or when the session was written
// to after it.
std::optional<RankSummary> ReadRankSummary(const std::string& session);

} // namespace qelix
