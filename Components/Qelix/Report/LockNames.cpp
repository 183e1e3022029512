#include "Report/LockNames.h"

#include <algorithm>
#include <fmt/format.h>
#include <unordered_map>

namespace qelix
{
namespace
{

using NamesByAddress = std::unordered_map<uint64_t, std::string>;

// Numbers last from one view of a session to the next: by first use, which no ranking changes.
void NumberHeapLocks(std::vector<LockFacts*> locks, NamesByAddress* pNames)
{
    std::sort(
        locks.begin(), locks.end(),
        [](const LockFacts* pA, const LockFacts* pB)
        { return std::tuple(pA->m_firstTime, pA->m_address) < std::tuple(pB->m_firstTime, pB->m_address); });
    for (LockFacts* pLock : locks)
    {
        // One address can be waited for in two ways when its memory was used again.
        std::string& name = (*pNames)[pLock->m_address];
        if (name.empty())
        {
            name = fmt::format("heap#{}", pNames->size());
        }
        pLock->m_name = name;
    }
}

} // namespace

void NameLocks(TraceFacts* pProcess, const std::vector<DataImage>& images)
{
    std::vector<LockFacts*> heap;
    NamesByAddress names;
    for (LockFacts& lock : pProcess->m_locks)
    {
        lock.m_name = DataName(images, lock.m_address);
        lock.m_isHeap = lock.m_name.empty();
        if (lock.m_isHeap)
        {
            heap.push_back(&lock);
        }
    }
    NumberHeapLocks(std::move(heap), &names);
    for (NeverReturned& call : pProcess->m_neverReturned)
    {
        if (call.m_pKind->m_isLock)
        {
            call.m_lockName = DataName(images, call.m_address);
            call.m_lockName = call.m_lockName.empty() ? names[call.m_address] : call.m_lockName;
        }
    }
}

} // namespace qelix
