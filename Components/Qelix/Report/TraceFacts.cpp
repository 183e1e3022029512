#include "Report/TraceFacts.h"

#include "Reader/RecordFile.h"
#include "Report/ThreadNames.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <sys/syscall.h>
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
};

struct Gathering
{
    TraceFacts m_process;
    ProcessSymbols* m_pSymbols;
    std::unordered_map<int32_t, GatheredThread> m_threads;
    std::unordered_map<LockKey, LockFacts, LockKeyHash> m_locks;
    std::vector<NameFact> m_names;
    uint64_t m_lastTime = 0;
};

void NoteTime(Gathering* pGathering, uint64_t time)
{
    if (time != ZORV_TIME_NOT_ENDED)
    {
        pGathering->m_lastTime = std::max(pGathering->m_lastTime, time);
    }
}

std::string NameOfKey(ProcessSymbols* pSymbols, const CallKey& key, uint64_t time)
{
    return NameOfCall(pSymbols, *key.m_pKind, key.m_function, key.m_isNumber, time);
}

void AddThreadOfLock(std::vector<int32_t>* pTids, int32_t tid)
{
    const auto at = std::lower_bound(pTids->begin(), pTids->end(), tid);
    if (at == pTids->end() || *at != tid)
    {
        pTids->insert(at, tid);
    }
}

void TakeCall(Gathering* pGathering, const ZorvUmtRecordHdr& hdr, uint64_t function, uint64_t address)
{
    const CallKind* pKind = FindCallKind(hdr.m_recType, hdr.m_subType);
    const CallKey key{pKind, function, (hdr.m_flags & ZORV_UMT_FLAG_SYSCALL_ID) != 0};
    CallsOfKey& calls = pGathering->m_threads[hdr.m_tid].m_calls[key];
    if (calls.m_facts.m_calls == 0)
    {
        calls.m_firstTime = hdr.m_startTime;
    }
    AddCall(&calls.m_facts, hdr);
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
        pGathering->m_process.m_neverReturned.push_back(
            {0, hdr.m_tid, pKind, NameOfKey(pGathering->m_pSymbols, key, hdr.m_startTime), address,
             hdr.m_startTime, 0});
    }
    NoteTime(pGathering, hdr.m_startTime);
    NoteTime(pGathering, hdr.m_endTime);
}

struct RecordTaker
{
    Gathering* m_pGathering;

    void operator()(const PthreadRecord& call) const
    {
        TakeCall(m_pGathering, call.m_hdr, call.m_body.m_funcVa, call.m_body.m_lockAddress);
    }

    void operator()(const SyscallRecord& call) const
    {
        TakeCall(m_pGathering, call.m_hdr, call.m_body.m_funcVa, 0);
    }

    void operator()(const TraceProcRecord& proc) const
    {
        NoteTime(m_pGathering, proc.m_hdr.m_startTime);
        m_pGathering->m_names.push_back({proc.m_hdr.m_tid, proc.m_body.m_pthreadId, proc.m_hdr.m_startTime,
                                         std::string(RecordName(proc.m_body))});
        if (proc.m_hdr.m_tid > 0)
        {
            m_pGathering->m_threads[proc.m_hdr.m_tid];
        }
    }

    void operator()(const TraceThreadEndRecord& end) const
    {
        NoteTime(m_pGathering, end.m_hdr.m_startTime);
    }

    template <typename T> void operator()(const T&) const {}
};

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

void SettleThreads(Gathering* pGathering)
{
    TraceFacts& process = pGathering->m_process;
    std::unordered_map<int32_t, std::string> names = LastNames(std::move(pGathering->m_names));
    for (const auto& [tid, name] : names)
    {
        pGathering->m_threads[tid];
    }
    for (auto& [tid, gathered] : pGathering->m_threads)
    {
        ThreadFacts thread{tid, names[tid], NameCalls(pGathering->m_pSymbols, &gathered)};
        for (const NamedCalls& calls : thread.m_calls)
        {
            thread.m_totalNs = SaturatingAdd(thread.m_totalNs, calls.m_facts.m_totalNs);
        }
        process.m_totalNs = SaturatingAdd(process.m_totalNs, thread.m_totalNs);
        process.m_threads.push_back(std::move(thread));
    }
    process.m_name = names[static_cast<int32_t>(process.m_pid)];
    std::sort(process.m_threads.begin(), process.m_threads.end(),
              [](const ThreadFacts& a, const ThreadFacts& b)
              { return std::tuple(b.m_totalNs, a.m_tid) < std::tuple(a.m_totalNs, b.m_tid); });
}

void SettleLocks(Gathering* pGathering)
{
    TraceFacts& process = pGathering->m_process;
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

std::string NameOfCall(ProcessSymbols* pSymbols, const CallKind& kind, uint64_t function, bool isNumber,
                       uint64_t time)
{
    if (isNumber)
    {
        return function == SYS_futex ? "futex" : fmt::format("syscall({})", function);
    }
    const std::string name = CallName(pSymbols, function, time);
    return name.starts_with("0x") ? fmt::format("{} {}", kind.m_pName, name) : name;
}

TraceClass ClassOf(const CallKind& kind)
{
    // The classes of system calls have the numbers of the records' sub-types.
    static_assert(ZORV_CLASS_SLEEP == static_cast<int>(ZORV_SYSCALL_TYPE_SLEEP) &&
                  ZORV_CLASS_SYSCALL == static_cast<int>(ZORV_SYSCALL_TYPE_OTHER));
    return kind.m_recType == ZORV_UMT_RECORD_PTHREAD ? ZORV_CLASS_PTHREAD
                                                     : static_cast<TraceClass>(kind.m_subType);
}

TraceFacts ReadTraceFacts(const std::string& path, ProcessSymbols* pSymbols)
{
    Gathering gathering;
    gathering.m_pSymbols = pSymbols;
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        std::visit(RecordTaker{&gathering}, record.m_body);
    }
    TraceFacts& process = gathering.m_process;
    process.m_path = path;
    process.m_isEmpty = !pFile->m_header.m_isPresent;
    process.m_pid = pFile->m_header.m_pid;
    process.m_mpiRankId = pFile->m_header.m_mpiRankId;
    process.m_damage = pFile->m_damage;
    process.m_unreadBytes = pFile->m_unreadBytes;
    SettleThreads(&gathering);
    SettleLocks(&gathering);
    SettleNeverReturned(&gathering);
    return process;
}

} // namespace qelix
