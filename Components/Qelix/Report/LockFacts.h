// What the records of a process say of each object that threads wait for.
#pragma once

#include "Reader/RecordNames.h"
#include "Reader/Records.h"
#include "Report/CallFacts.h"
#include "Session/ProcessWatch.h"

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct LockWaiter
{
    int32_t m_tid = 0;
    uint64_t m_waits = 0;
    uint64_t m_totalNs = 0;
    uint64_t m_longestNs = 0;
};

struct LockAcquirer
{
    int32_t m_tid = 0;
    uint64_t m_time = 0; // when its call returned with the lock
};

struct LockFacts
{
    MarkedPid m_process;
    uint64_t m_address = 0;
    const CallKind* m_pKind = nullptr;
    std::string m_name; // of the variable; "heap#2" for the second one used of those that are in no variable
    bool m_isHeap = false;
    CallFacts m_calls;
    uint64_t m_stuckNs = 0;            // of calls that never returned, as far as the process was seen
    std::vector<LockWaiter> m_waiters; // by thread id
    uint64_t m_firstTime = UINT64_MAX; // of a call
    int32_t m_firstTid = 0;            // who made it
    uint64_t m_lastTime = 0;
    std::array<LockAcquirer, 3> m_lastAcquirers; // of locks that one thread holds; latest first once settled
};

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
        // Locks lie in rows of structures: their low bits alone would collide.
        return (key.m_address ^ (uint64_t{key.m_pKind->m_subType} << 56)) * 0x9E3779B97F4A7C15 >> 16;
    }
};

// While a file is read. Of very many locks the shortest waited for are dropped: a program may make one for each
// object that it allocates.
struct LockTable
{
    std::unordered_map<LockKey, LockFacts, LockKeyHash> m_locks;
    LockFacts* m_pLast = nullptr; // the one that was called last is often the next one too
    uint64_t m_folded = 0;
};

void AddLockCall(LockTable* pTable, const CallKind* pKind, const PthreadRecord& call);

// 0 when no record tells.
int32_t LastAcquirer(const LockTable& table, uint64_t address, const CallKind* pKind);

// What threads have lost to it, those that are stuck there included.
uint64_t WaitedNs(const LockFacts& lock);

void AddStuck(LockTable* pTable, uint64_t address, const CallKind* pKind, uint64_t nanoseconds);

// Longest total first.
std::vector<LockFacts> SettledLocks(LockTable* pTable, const MarkedPid& process);

// The longest waited for first; equal ones in the order of their addresses.
bool IsWorseLock(const LockFacts& a, const LockFacts& b);

// How many waited at a time on average, from the first wait's start to the last one's end.
double MeanWaiters(const LockFacts& lock);

// Can one thread hold it, so that who took it last may be who has it?
bool IsHeldByOne(const CallKind& kind);

} // namespace qelix
