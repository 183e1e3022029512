// What is to be known of a process before its records are chosen or handed on: which threads it has, what they
// and its locks are called, and between which times. One pass over its files; the memory is that of the threads
// and locks.
#pragma once

#include "Reader/Damage.h"
#include "Report/ClockShift.h"
#include "Report/LockNames.h"
#include "Report/ProcessFiles.h"

#include <cstdint>
#include <map>
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
    std::vector<uint64_t> m_events;  // codes of the counters
    std::vector<LockUse> m_lockUses; // of all its locks
    TimeSpan m_span;
    double m_nsPerSample = 0;   // of CPU time; told by the session, not by the files
    int64_t m_clockShiftNs = 0; // to be added to its times, which the span has already
};

// The key is what the names of the files have in common. Damages are added to those that there are.
SurveyedProcess SurveyProcess(const std::string& key, const ProcessFiles& files, const ClockShifts& shifts,
                              std::vector<Damage>* pDamages);

// Of all the files: the first time that a record of theirs tells; 0 without any.
uint64_t FirstTime(const std::map<std::string, ProcessFiles>& filesOf, const ClockShifts& shifts);

} // namespace qelix
