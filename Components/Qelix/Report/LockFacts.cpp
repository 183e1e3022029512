#include "Report/LockFacts.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_MOST_LOCKS = 65536;

LockFacts& LockOf(LockTable* pTable, uint64_t address, const CallKind* pKind)
{
    LockFacts* pLast = pTable->m_pLast;
    if (pLast == nullptr || pLast->m_address != address || pLast->m_pKind != pKind)
    {
        pLast = &pTable->m_locks[LockKey{address, pKind}];
        pLast->m_address = address;
        pLast->m_pKind = pKind;
        pTable->m_pLast = pLast;
    }
    return *pLast;
}

LockWaiter& WaiterOf(LockFacts* pLock, int32_t tid)
{
    std::vector<LockWaiter>& waiters = pLock->m_waiters;
    const auto at =
        std::lower_bound(waiters.begin(), waiters.end(), tid,
                         [](const LockWaiter& waiter, int32_t value) { return waiter.m_tid < value; });
    return at != waiters.end() && at->m_tid == tid ? *at : *waiters.insert(at, {tid});
}

// Threads write their records in blocks, so these do not come in the order of their times.
void NoteAcquirer(LockFacts* pLock, int32_t tid, uint64_t time)
{
    LockAcquirer* pOldest = &pLock->m_lastAcquirers.front();
    for (LockAcquirer& acquirer : pLock->m_lastAcquirers)
    {
        if (acquirer.m_tid == tid)
        {
            acquirer.m_time = std::max(acquirer.m_time, time);
            return;
        }
        pOldest = acquirer.m_time < pOldest->m_time ? &acquirer : pOldest;
    }
    if (pOldest->m_time < time)
    {
        *pOldest = {tid, time};
    }
}

bool HasLongerTotal(const LockFacts* pA, const LockFacts* pB)
{
    return pA->m_calls.m_totalNs > pB->m_calls.m_totalNs;
}

// Locks that a thread never came back from stay: they are what is looked for after a hang.
void DropShortest(LockTable* pTable)
{
    std::vector<const LockFacts*> locks;
    for (const auto& [key, lock] : pTable->m_locks)
    {
        if (lock.m_calls.m_neverReturned == 0)
        {
            locks.push_back(&lock);
        }
    }
    const auto middle = locks.begin() + static_cast<std::ptrdiff_t>(locks.size() / 2);
    std::nth_element(locks.begin(), middle, locks.end(), HasLongerTotal);
    for (auto at = middle; at != locks.end(); ++at)
    {
        pTable->m_locks.erase(LockKey{(*at)->m_address, (*at)->m_pKind});
        ++pTable->m_folded;
    }
    pTable->m_pLast = nullptr;
}

} // namespace

bool IsHeldByOne(const CallKind& kind)
{
    return kind.m_recType == ZORV_UMT_RECORD_PTHREAD &&
           (kind.m_subType == ZORV_PTHREAD_LOCK_MUTEX || kind.m_subType == ZORV_PTHREAD_LOCK_RW ||
            kind.m_subType == ZORV_PTHREAD_LOCK_SPIN);
}

void AddLockCall(LockTable* pTable, const CallKind* pKind, const PthreadRecord& call)
{
    const ZorvUmtRecordHdr& hdr = call.m_hdr;
    LockFacts& lock = LockOf(pTable, call.m_body.m_lockAddress, pKind);
    AddCall(&lock.m_calls, hdr);
    LockWaiter& waiter = WaiterOf(&lock, hdr.m_tid);
    ++waiter.m_waits;
    if (hdr.m_startTime != 0 && hdr.m_startTime < lock.m_firstTime)
    {
        lock.m_firstTime = hdr.m_startTime;
        lock.m_firstTid = hdr.m_tid;
    }
    if (HasDuration(hdr))
    {
        const uint64_t duration = hdr.m_endTime - hdr.m_startTime;
        waiter.m_totalNs = SaturatingAdd(waiter.m_totalNs, duration);
        waiter.m_longestNs = std::max(waiter.m_longestNs, duration);
        lock.m_lastTime = std::max(lock.m_lastTime, hdr.m_endTime);
        if (IsHeldByOne(*pKind) && (call.m_body.m_retValue == 0 || call.m_body.m_retValue == EOWNERDEAD))
        {
            NoteAcquirer(&lock, hdr.m_tid, hdr.m_endTime);
        }
    }
    if (pTable->m_locks.size() > ZORV_MOST_LOCKS)
    {
        DropShortest(pTable);
    }
}

int32_t LastAcquirer(const LockTable& table, uint64_t address, const CallKind* pKind)
{
    const auto found = table.m_locks.find(LockKey{address, pKind});
    LockAcquirer last;
    if (found != table.m_locks.end())
    {
        for (const LockAcquirer& acquirer : found->second.m_lastAcquirers)
        {
            last = acquirer.m_time > last.m_time ? acquirer : last;
        }
    }
    return last.m_tid;
}

uint64_t WaitedNs(const LockFacts& lock)
{
    return SaturatingAdd(lock.m_calls.m_totalNs, lock.m_stuckNs);
}

void AddStuck(LockTable* pTable, uint64_t address, const CallKind* pKind, uint64_t nanoseconds)
{
    if (const auto found = pTable->m_locks.find(LockKey{address, pKind}); found != pTable->m_locks.end())
    {
        found->second.m_stuckNs = SaturatingAdd(found->second.m_stuckNs, nanoseconds);
    }
}

std::vector<LockFacts> SettledLocks(LockTable* pTable, const MarkedPid& process)
{
    std::vector<LockFacts> locks;
    locks.reserve(pTable->m_locks.size());
    for (auto& [key, lock] : pTable->m_locks)
    {
        lock.m_process = process;
        std::sort(lock.m_lastAcquirers.begin(), lock.m_lastAcquirers.end(),
                  [](const LockAcquirer& a, const LockAcquirer& b) { return a.m_time > b.m_time; });
        locks.push_back(std::move(lock));
    }
    pTable->m_locks.clear();
    pTable->m_pLast = nullptr;
    std::sort(locks.begin(), locks.end(), IsWorseLock);
    return locks;
}

bool IsWorseLock(const LockFacts& a, const LockFacts& b)
{
    return std::tuple(WaitedNs(b), a.m_process, a.m_address, a.m_pKind) <
           std::tuple(WaitedNs(a), b.m_process, b.m_address, b.m_pKind);
}

double MeanWaiters(const LockFacts& lock)
{
    return lock.m_lastTime <= lock.m_firstTime ? 0.0
                                               : static_cast<double>(lock.m_calls.m_totalNs) /
                                                     static_cast<double>(lock.m_lastTime - lock.m_firstTime);
}

} // namespace qelix
