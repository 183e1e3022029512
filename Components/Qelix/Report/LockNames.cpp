#include "Report/LockNames.h"

#include <algorithm>
#include <fmt/format.h>
#include <tuple>

namespace qelix
{

std::vector<LockUse> UsesOf(const std::vector<LockFacts>& locks)
{
    std::vector<LockUse> uses;
    uses.reserve(locks.size());
    for (const LockFacts& lock : locks)
    {
        uses.push_back({lock.m_address, lock.m_firstTime});
    }
    return uses;
}

std::unordered_map<uint64_t, std::string> HeapNames(std::vector<LockUse> uses,
                                                    const std::vector<DataImage>& images)
{
    std::erase_if(uses, [&images](const LockUse& use) { return !DataName(images, use.m_address).empty(); });
    std::sort(uses.begin(), uses.end(),
              [](const LockUse& a, const LockUse& b)
              { return std::tuple(a.m_firstTime, a.m_address) < std::tuple(b.m_firstTime, b.m_address); });
    std::unordered_map<uint64_t, std::string> names;
    for (const LockUse& use : uses)
    {
        // One address can be waited for in two ways when its memory was used again.
        if (const auto [at, isNew] = names.try_emplace(use.m_address); isNew)
        {
            at->second = fmt::format("heap#{}", names.size());
        }
    }
    return names;
}

void NameLocks(TraceFacts* pProcess, const std::vector<LockUse>& uses, const std::vector<DataImage>& images)
{
    const std::unordered_map<uint64_t, std::string> heapNames = HeapNames(uses, images);
    const auto nameOf = [&](uint64_t address)
    {
        const auto found = heapNames.find(address);
        return found != heapNames.end() ? found->second : DataName(images, address);
    };
    for (LockFacts& lock : pProcess->m_locks)
    {
        lock.m_name = nameOf(lock.m_address);
        lock.m_isHeap = heapNames.contains(lock.m_address);
    }
    for (NeverReturned& call : pProcess->m_neverReturned)
    {
        if (call.m_pKind->m_isLock)
        {
            call.m_lockName = nameOf(call.m_address);
        }
    }
}

} // namespace qelix
