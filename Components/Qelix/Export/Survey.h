// What must be known of a session before its records are handed on: which processes and threads it has, what
// they are called, and between which times. One pass over its files; the memory is that of the threads.
#pragma once

#include "Reader/Damage.h"
#include "Report/ProcessFiles.h"
#include "Session/MachineFacts.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

// Times are nanoseconds of the machine's monotonic clock, as recorded; in a merged session, of the first
// host's.
struct TimeSpan
{
    uint64_t m_first = UINT64_MAX;
    uint64_t m_last = 0;
};

void Widen(TimeSpan* pSpan, uint64_t time);

struct SurveyedThread
{
    std::string m_name; // the last one it had; empty when no record tells
    uint64_t m_calls = 0;
    uint64_t m_samples = 0;
};

struct SurveyedProcess
{
    std::string m_key; // "HOST_PID", what the names of its files have in common
    ProcessFiles m_files;
    int64_t m_pid = 0;
    int64_t m_shownPid = 0; // the same, or one that no process has where several of the session have this one
    int32_t m_rank = 0;
    std::string m_name; // of its main thread
    std::map<int32_t, SurveyedThread> m_threads;
    std::vector<uint64_t> m_events; // codes of the counters
    TimeSpan m_span;
    int64_t m_clockShiftNs = 0; // to be added to its times, which the span has already
};

struct SessionSurvey
{
    std::string m_path;
    std::vector<SurveyedProcess> m_processes; // by key
    TimeSpan m_span;
    uint64_t m_periodNs = 0;           // CPU time that a sample stands for
    std::optional<ClockPair> m_clocks; // what the calendar showed when the first session began
    std::vector<Damage> m_damages;
};

// Takes a session, or a folder of sessions named rank=N. Fails when the path is neither.
SessionSurvey SurveySession(const std::string& path);

} // namespace qelix
