#include "Report/TraceFacts.h"

#include "Reader/RecordFile.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>

namespace qelix
{
namespace
{

struct LockKey
{
    uint64_t m_address;
    const CallKind* m_pKind;
    bool operator==(const LockKey&) const = default;
};

struct LockKeyHash
{
    std::size_t operator()(const LockKey& key) const
    {
        return std::hash<uint64_t>{}(key.m_address ^ (uint64_t{key.m_pKind->m_subType} << 56));
    }
};

// A name that a thread was given at some time.
struct NameFact
{
    int32_t m_tid; // -1: another thread gave it to the one that has this handle
    uint64_t m_pthreadId;
    uint64_t m_time;
    std::string m_name;
};

struct Gathering
{
    ProcessFacts m_process;
    std::unordered_map<int32_t, ThreadFacts> m_threads;
    std::unordered_map<LockKey, LockFacts, LockKeyHash> m_locks;
    std::vector<NameFact> m_names;
    uint64_t m_lastTime = 0;
};

ThreadFacts* ThreadOf(Gathering* pGathering, int32_t tid)
{
    ThreadFacts& thread = pGathering->m_threads[tid];
    thread.m_tid = tid;
    return &thread;
}

void NoteTime(Gathering* pGathering, uint64_t time)
{
    if (time != ZORV_TIME_NOT_ENDED)
    {
        pGathering->m_lastTime = std::max(pGathering->m_lastTime, time);
    }
}

bool IsTimed(const ZorvUmtRecordHdr& hdr)
{
    return hdr.m_startTime != 0 && hdr.m_endTime != 0;
}

void AddCall(CallFacts* pFacts, const ZorvUmtRecordHdr& hdr)
{
    ++pFacts->m_calls;
    if (hdr.m_endTime == ZORV_TIME_NOT_ENDED)
    {
        ++pFacts->m_neverReturned;
        return;
    }
    if (!IsTimed(hdr))
    {
        ++pFacts->m_untimed;
        return;
    }
    const uint64_t duration = hdr.m_endTime - hdr.m_startTime;
    pFacts->m_totalNs = SaturatingAdd(pFacts->m_totalNs, duration);
    pFacts->m_longestNs = std::max(pFacts->m_longestNs, duration);
    AddDuration(&pFacts->m_durations, duration);
}

void AddThreadOfLock(std::vector<int32_t>* pTids, int32_t tid)
{
    const auto at = std::lower_bound(pTids->begin(), pTids->end(), tid);
    if (at == pTids->end() || *at != tid)
    {
        pTids->insert(at, tid);
    }
}

void TakeCall(Gathering* pGathering, const ZorvUmtRecordHdr& hdr, uint64_t address)
{
    const CallKind* pKind = FindCallKind(hdr.m_recType, hdr.m_subType);
    AddCall(&ThreadOf(pGathering, hdr.m_tid)->m_calls[pKind], hdr);
    if (pKind->m_isLock)
    {
        LockFacts& lock = pGathering->m_locks[LockKey{address, pKind}];
        lock.m_address = address;
        lock.m_pKind = pKind;
        AddCall(&lock.m_calls, hdr);
        AddThreadOfLock(&lock.m_tids, hdr.m_tid);
    }
    if (hdr.m_endTime == ZORV_TIME_NOT_ENDED)
    {
        pGathering->m_process.m_neverReturned.push_back({0, hdr.m_tid, pKind, address, hdr.m_startTime, 0});
    }
    NoteTime(pGathering, hdr.m_startTime);
    NoteTime(pGathering, hdr.m_endTime);
}

struct RecordTaker
{
    Gathering* m_pGathering;

    void operator()(const PthreadRecord& call) const
    {
        TakeCall(m_pGathering, call.m_hdr, call.m_body.m_lockAddress);
    }

    void operator()(const SyscallRecord& call) const
    {
        TakeCall(m_pGathering, call.m_hdr, 0);
    }

    void operator()(const TraceProcRecord& proc) const
    {
        NoteTime(m_pGathering, proc.m_hdr.m_startTime);
        m_pGathering->m_names.push_back({proc.m_hdr.m_tid, proc.m_body.m_pthreadId, proc.m_hdr.m_startTime,
                                         std::string(RecordName(proc.m_body))});
        if (proc.m_hdr.m_tid > 0)
        {
            ThreadOf(m_pGathering, proc.m_hdr.m_tid);
        }
    }

    void operator()(const TraceThreadEndRecord& end) const
    {
        NoteTime(m_pGathering, end.m_hdr.m_startTime);
    }

    template <typename T> void operator()(const T&) const {}
};

// Handles are used again after a thread's end: the one meant is the last that had it before the renaming.
// The main thread's first record has no handle, so a name that others give to it can stay unresolved.
void ResolveRenamed(std::vector<NameFact>* pNames)
{
    std::unordered_map<uint64_t, int32_t> tidOfHandle;
    for (NameFact& name : *pNames) // by time
    {
        if (name.m_tid > 0)
        {
            tidOfHandle[name.m_pthreadId] = name.m_tid;
        }
        else if (const auto found = tidOfHandle.find(name.m_pthreadId); found != tidOfHandle.end())
        {
            name.m_tid = found->second;
        }
    }
}

void SettleNames(Gathering* pGathering)
{
    std::vector<NameFact>& names = pGathering->m_names;
    std::stable_sort(names.begin(), names.end(),
                     [](const NameFact& a, const NameFact& b) { return a.m_time < b.m_time; });
    ResolveRenamed(&names);
    for (NameFact& name : names)
    {
        if (name.m_tid > 0)
        {
            ThreadOf(pGathering, name.m_tid)->m_name = std::move(name.m_name);
        }
    }
}

void SettleThreads(Gathering* pGathering)
{
    ProcessFacts& process = pGathering->m_process;
    for (auto& [tid, thread] : pGathering->m_threads)
    {
        for (const auto& [pKind, calls] : thread.m_calls)
        {
            thread.m_totalNs = SaturatingAdd(thread.m_totalNs, calls.m_totalNs);
        }
        process.m_totalNs = SaturatingAdd(process.m_totalNs, thread.m_totalNs);
        if (tid == process.m_pid)
        {
            process.m_name = thread.m_name;
        }
        process.m_threads.push_back(std::move(thread));
    }
    std::sort(process.m_threads.begin(), process.m_threads.end(),
              [](const ThreadFacts& a, const ThreadFacts& b)
              { return std::tuple(b.m_totalNs, a.m_tid) < std::tuple(a.m_totalNs, b.m_tid); });
}

void SettleLocks(Gathering* pGathering)
{
    ProcessFacts& process = pGathering->m_process;
    for (auto& [key, lock] : pGathering->m_locks)
    {
        lock.m_pid = process.m_pid;
        process.m_locks.push_back(std::move(lock));
    }
    std::sort(process.m_locks.begin(), process.m_locks.end(), IsWorseLock);
}

void SettleNeverReturned(Gathering* pGathering)
{
    std::vector<NeverReturned>& calls = pGathering->m_process.m_neverReturned;
    for (NeverReturned& call : calls)
    {
        call.m_pid = pGathering->m_process.m_pid;
        const bool isTimed = call.m_startTime != 0 && call.m_startTime <= pGathering->m_lastTime;
        call.m_atLeastNs = isTimed ? pGathering->m_lastTime - call.m_startTime : 0;
    }
    std::sort(calls.begin(), calls.end(),
              [](const NeverReturned& a, const NeverReturned& b)
              { return std::tuple(a.m_startTime, a.m_tid) < std::tuple(b.m_startTime, b.m_tid); });
}

} // namespace

bool IsWorseLock(const LockFacts& a, const LockFacts& b)
{
    return std::tuple(b.m_calls.m_totalNs, a.m_pid, a.m_address, a.m_pKind) <
           std::tuple(a.m_calls.m_totalNs, b.m_pid, b.m_address, b.m_pKind);
}

ProcessFacts ReadTraceFacts(const std::string& path)
{
    Gathering gathering;
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        std::visit(RecordTaker{&gathering}, record.m_body);
    }
    ProcessFacts& process = gathering.m_process;
    process.m_path = path;
    process.m_isEmpty = !pFile->m_header.m_isPresent;
    process.m_pid = pFile->m_header.m_pid;
    process.m_mpiRankId = pFile->m_header.m_mpiRankId;
    process.m_damage = pFile->m_damage;
    process.m_unreadBytes = pFile->m_unreadBytes;
    SettleNames(&gathering);
    SettleThreads(&gathering);
    SettleLocks(&gathering);
    SettleNeverReturned(&gathering);
    return process;
}

} // namespace qelix
