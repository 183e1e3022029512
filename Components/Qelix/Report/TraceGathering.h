// Private to the reading of trace files: what is gathered of a process until its last record has been seen.
#pragma once

#include "Report/ThreadNames.h"
#include "Report/TraceFacts.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct CallKey
{
    const CallKind* m_pKind;
    uint64_t m_function; // an address, or a system call's number
    bool m_isNumber;
    bool operator==(const CallKey&) const = default;
};

struct CallKeyHash
{
    std::size_t operator()(const CallKey& key) const
    {
        return std::hash<uint64_t>{}(key.m_function ^ (uint64_t{key.m_pKind->m_subType} << 56));
    }
};

struct CallsOfKey
{
    uint64_t m_firstTime = 0; // what lay at the function's address is asked for this time
    CallFacts m_facts;
};

struct GatheredThread
{
    std::unordered_map<CallKey, CallsOfKey, CallKeyHash> m_calls;
    LifeSpan m_span;
};

struct TraceGathering
{
    TraceFacts m_process;
    ProcessSymbols* m_pSymbols;
    const ProcessFilter& m_filter;
    std::unordered_map<int32_t, GatheredThread> m_threads;
    int32_t m_lastTid = 0; // a thread's records come in blocks
    GatheredThread* m_pLastThread = nullptr;
    LockTable m_locks;
    std::vector<NameFact> m_names;
    uint64_t m_lastTime = 0;
    uint64_t m_lastOfAll = 0; // the same of every thread, asked for or not
    uint64_t m_lastEnd = 0;   // of a thread
};

std::string NameOfKey(ProcessSymbols* pSymbols, const CallKey& key, uint64_t time);

// After the last record: names, totals and order, in the gathering's process.
void SettleTrace(TraceGathering* pGathering);

} // namespace qelix
