#include "Report/ThreadTimes.h"

#include "Report/CpuFacts.h"

#include <algorithm>
#include <map>

namespace qelix
{
namespace
{

// What the two files of a process say of one thread.
struct ThreadSides
{
    const ThreadFacts* m_pTrace = nullptr;
    const ThreadSamples* m_pSamples = nullptr;
};

void SetRest(ThreadTimes* pTimes)
{
    uint64_t told = 0;
    pTimes->m_timeNs[ZORV_TIME_REST] = 0; // calls that do not wait are part of it
    for (const uint64_t time : pTimes->m_timeNs)
    {
        told = SaturatingAdd(told, time);
    }
    pTimes->m_timeNs[ZORV_TIME_REST] = pTimes->m_wallNs > told ? pTimes->m_wallNs - told : 0;
}

ThreadTimes TimesOf(const SessionFacts& session, const ProcessFacts& process, int32_t tid,
                    const ThreadSides& sides)
{
    ThreadTimes times;
    times.m_pProcess = &process;
    times.m_tid = tid;
    LifeSpan span;
    if (sides.m_pTrace != nullptr)
    {
        times.m_name = sides.m_pTrace->m_name;
        times.m_timeNs = sides.m_pTrace->m_timeNs;
        span = sides.m_pTrace->m_span;
        for (const NamedCalls& calls : sides.m_pTrace->m_calls)
        {
            times.m_calls += calls.m_facts.m_calls;
        }
    }
    if (sides.m_pSamples != nullptr)
    {
        times.m_name = times.m_name.empty() ? sides.m_pSamples->m_name : times.m_name;
        times.m_timeNs[ZORV_TIME_CPU] = SampledNs(session, process, sides.m_pSamples->m_samples);
        Join(&span, sides.m_pSamples->m_span);
    }
    if (!span.m_isEnded)
    {
        span.m_last = std::max(span.m_last, process.m_span.m_last);
    }
    times.m_wallNs = LengthOf(span);
    SetRest(&times);
    return times;
}

bool IsLonger(const ThreadTimes& a, const ThreadTimes& b)
{
    return a.m_wallNs > b.m_wallNs;
}

void AddTimes(ThreadTimes* pGroup, const ThreadTimes& times)
{
    ++pGroup->m_threads;
    pGroup->m_wallNs = SaturatingAdd(pGroup->m_wallNs, times.m_wallNs);
    pGroup->m_calls += times.m_calls;
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        pGroup->m_timeNs[kind] = SaturatingAdd(pGroup->m_timeNs[kind], times.m_timeNs[kind]);
    }
    if (pGroup->m_name != times.m_name)
    {
        pGroup->m_name = NameWithoutNumber(times.m_name) + '*';
    }
}

} // namespace

std::string NameWithoutNumber(const std::string& name)
{
    const std::size_t end = name.find_last_not_of("0123456789*");
    return end == std::string::npos ? name : name.substr(0, end + 1);
}

std::vector<ThreadTimes> TimesOfThreads(const SessionFacts& session)
{
    std::vector<ThreadTimes> threads;
    for (const ProcessFacts& process : session.m_processes)
    {
        std::map<int32_t, ThreadSides> sidesOf;
        for (const ThreadFacts& thread : process.m_trace.m_threads)
        {
            sidesOf[thread.m_tid].m_pTrace = &thread;
        }
        for (const ThreadSamples& thread : process.m_samples.m_threads)
        {
            sidesOf[thread.m_tid].m_pSamples = &thread;
        }
        for (const auto& [tid, sides] : sidesOf)
        {
            threads.push_back(TimesOf(session, process, tid, sides));
        }
    }
    std::stable_sort(threads.begin(), threads.end(), IsLonger);
    return threads;
}

std::vector<ThreadTimes> GroupedByName(const std::vector<ThreadTimes>& threads)
{
    std::map<std::pair<std::string, std::string>, std::size_t> groupOf;
    std::vector<ThreadTimes> groups;
    for (const ThreadTimes& thread : threads)
    {
        const auto [at, isNew] = groupOf.emplace(
            std::pair(thread.m_pProcess->m_name, NameWithoutNumber(thread.m_name)), groups.size());
        if (isNew)
        {
            groups.push_back(thread);
        }
        else
        {
            AddTimes(&groups[at->second], thread);
        }
    }
    std::stable_sort(groups.begin(), groups.end(), IsLonger);
    return groups;
}

double ShareOf(const ThreadTimes& times, TimeKind kind)
{
    return times.m_wallNs == 0
               ? 0.0
               : static_cast<double>(times.m_timeNs[kind]) / static_cast<double>(times.m_wallNs);
}

} // namespace qelix
