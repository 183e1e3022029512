// What one trace file says of its process, gathered in one pass over the file.
#pragma once

#include "Reader/Damage.h"
#include "Reader/RecordNames.h"
#include "Report/CallFacts.h"
#include "Report/LifeSpan.h"
#include "Report/LockFacts.h"
#include "Report/RecordFilter.h"
#include "Report/TimeKinds.h"
#include "Session/TraceClasses.h"
#include "Symbols/Symbolizer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

// The calls of one function.
struct NamedCalls
{
    const CallKind* m_pKind = nullptr;
    std::string m_name;
    CallFacts m_facts;
};

struct ThreadFacts
{
    int32_t m_tid = 0;
    std::string m_name;              // the last one it had; empty when no record tells
    std::vector<NamedCalls> m_calls; // longest total first
    uint64_t m_totalNs = 0;
    LifeSpan m_span;
    KindTimes m_timeNs = {}; // of its calls, also of one that never returned; nothing for CPU and rest
};

struct NeverReturned
{
    MarkedPid m_process;
    int32_t m_tid = 0;
    const CallKind* m_pKind = nullptr;
    std::string m_name;     // of the function
    uint64_t m_address = 0; // of a pthread call
    uint64_t m_startTime = 0;
    uint64_t m_atLeastNs = 0;    // until the last time that its process recorded
    int32_t m_lastAcquirer = 0;  // of the lock, as far as records tell; 0: unknown
    std::string m_lockName = {}; // empty where it is no lock
};

struct TraceFacts
{
    std::string m_path; // of the trace file
    bool m_isEmpty = false;
    bool m_isCutOff = false; // its last record is no thread's end
    MarkedPid m_id;          // its number is 0 where the file does not tell
    int32_t m_mpiRankId = 0;
    std::string m_name; // of its main thread
    uint64_t m_totalNs = 0;
    LifeSpan m_span;
    std::vector<ThreadFacts> m_threads;         // longest total first
    std::vector<LockFacts> m_locks;             // longest total first
    uint64_t m_foldedLocks = 0;                 // left out of m_locks, which would have become too many
    std::vector<NeverReturned> m_neverReturned; // by start time
    std::optional<Damage> m_damage;
    uint64_t m_unreadBytes = 0;
};

// Functions go by the names that pSymbols has for them.
TraceFacts ReadTraceFacts(const std::string& path, ProcessSymbols* pSymbols, const ProcessFilter& filter = {});

// What was called: a function by its address, or a system call by its number.
std::string NameOfCall(ProcessSymbols* pSymbols, const CallKind& kind, uint64_t function, bool isNumber,
                       uint64_t time);

// The class that a kind of call was recorded for.
TraceClass ClassOf(const CallKind& kind);

} // namespace qelix
