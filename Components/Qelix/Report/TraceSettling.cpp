#include "Report/TraceGathering.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace qelix
{
namespace
{

bool IsLonger(const NamedCalls& a, const NamedCalls& b)
{
    return std::tie(b.m_facts.m_totalNs, a.m_pKind, a.m_name) <
           std::tie(a.m_facts.m_totalNs, b.m_pKind, b.m_name);
}

// One function can have had several addresses, and several objects can have a function of one name.
std::vector<NamedCalls> NameCalls(ProcessSymbols* pSymbols, GatheredThread* pThread)
{
    std::map<std::pair<const CallKind*, std::string>, CallFacts> byName;
    for (auto& [key, calls] : pThread->m_calls)
    {
        AddCalls(&byName[{key.m_pKind, NameOfKey(pSymbols, key, calls.m_firstTime)}], calls.m_facts);
    }
    pThread->m_calls.clear();
    std::vector<NamedCalls> named;
    for (auto& [key, facts] : byName)
    {
        named.push_back({key.first, key.second, std::move(facts)});
    }
    std::sort(named.begin(), named.end(), IsLonger);
    return named;
}

ThreadFacts SettleThread(TraceGathering* pGathering, int32_t tid, GatheredThread* pGathered)
{
    ThreadFacts thread;
    thread.m_tid = tid;
    thread.m_calls = NameCalls(pGathering->m_pSymbols, pGathered);
    thread.m_span = pGathered->m_span;
    for (const NamedCalls& calls : thread.m_calls)
    {
        uint64_t& timeNs = thread.m_timeNs[TimeKindOf(*calls.m_pKind)];
        timeNs = SaturatingAdd(timeNs, calls.m_facts.m_totalNs);
        thread.m_totalNs = SaturatingAdd(thread.m_totalNs, calls.m_facts.m_totalNs);
    }
    return thread;
}

void SettleThreads(TraceGathering* pGathering)
{
    TraceFacts& process = pGathering->m_process;
    std::unordered_map<int32_t, std::string> names = LastNames(std::move(pGathering->m_names));
    for (const auto& [tid, name] : names)
    {
        if (IsWanted(pGathering->m_filter, tid))
        {
            pGathering->m_threads[tid];
        }
    }
    for (auto& [tid, gathered] : pGathering->m_threads)
    {
        ThreadFacts thread = SettleThread(pGathering, tid, &gathered);
        thread.m_name = names[tid];
        process.m_totalNs = SaturatingAdd(process.m_totalNs, thread.m_totalNs);
        Join(&process.m_span, thread.m_span);
        process.m_threads.push_back(std::move(thread));
    }
    process.m_name = names[process.m_id.m_pid];
    std::sort(process.m_threads.begin(), process.m_threads.end(),
              [](const ThreadFacts& a, const ThreadFacts& b)
              { return std::tuple(b.m_totalNs, a.m_tid) < std::tuple(a.m_totalNs, b.m_tid); });
}

// A thread that is stuck has spent its time there, though no call of it has ended.
void AddToThread(TraceFacts* pProcess, const NeverReturned& call)
{
    for (ThreadFacts& thread : pProcess->m_threads)
    {
        if (thread.m_tid == call.m_tid)
        {
            uint64_t& timeNs = thread.m_timeNs[TimeKindOf(*call.m_pKind)];
            timeNs = SaturatingAdd(timeNs, call.m_atLeastNs);
        }
    }
}

void SettleNeverReturned(TraceGathering* pGathering)
{
    std::vector<NeverReturned>& calls = pGathering->m_process.m_neverReturned;
    const uint64_t end = std::min(pGathering->m_lastTime, pGathering->m_filter.m_to);
    for (NeverReturned& call : calls)
    {
        call.m_process = pGathering->m_process.m_id;
        const bool isTimed = call.m_startTime != 0 && call.m_startTime <= end;
        call.m_atLeastNs = isTimed ? end - call.m_startTime : 0;
        if (IsHeldByOne(*call.m_pKind))
        {
            call.m_lastAcquirer = LastAcquirer(pGathering->m_locks, call.m_address, call.m_pKind);
        }
        AddToThread(&pGathering->m_process, call);
        AddStuck(&pGathering->m_locks, call.m_address, call.m_pKind, call.m_atLeastNs);
    }
    std::sort(calls.begin(), calls.end(),
              [](const NeverReturned& a, const NeverReturned& b)
              { return std::tuple(a.m_startTime, a.m_tid) < std::tuple(b.m_startTime, b.m_tid); });
}

} // namespace

std::string NameOfKey(ProcessSymbols* pSymbols, const CallKey& key, uint64_t time)
{
    return NameOfCall(pSymbols, *key.m_pKind, key.m_function, key.m_isNumber, time);
}

void SettleTrace(TraceGathering* pGathering)
{
    TraceFacts& process = pGathering->m_process;
    SettleThreads(pGathering);
    SettleNeverReturned(pGathering);
    process.m_locks = SettledLocks(&pGathering->m_locks, process.m_id);
    process.m_foldedLocks = pGathering->m_locks.m_folded;
}

} // namespace qelix
