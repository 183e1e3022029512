// What the locks of a process are called: after the variable that they are in, else by number.
#pragma once

#include "Report/TraceFacts.h"
#include "Symbols/DataSymbols.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

// When a lock was waited for first, as recorded; UINT64_MAX when no record tells.
struct LockUse
{
    uint64_t m_address;
    uint64_t m_firstTime;
};

std::vector<LockUse> UsesOf(const std::vector<LockFacts>& locks);

// Of all locks of a process those that lie in no variable, by address: "heap#2" is the second one used. They
// are the same in every view of a session and in every export.
std::unordered_map<uint64_t, std::string> HeapNames(std::vector<LockUse> uses,
                                                    const std::vector<DataImage>& images);

// Names the locks, and those of the calls that never returned. The uses are those of the whole process.
void NameLocks(TraceFacts* pProcess, const std::vector<LockUse>& uses, const std::vector<DataImage>& images);

} // namespace qelix
