#include "Report/ThreadNames.h"

#include <algorithm>

namespace qelix
{
namespace
{

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

} // namespace

std::unordered_map<int32_t, std::string> LastNames(std::vector<NameFact> names)
{
    std::unordered_map<int32_t, std::string> last;
    std::stable_sort(names.begin(), names.end(),
                     [](const NameFact& a, const NameFact& b) { return a.m_time < b.m_time; });
    ResolveRenamed(&names);
    for (NameFact& name : names)
    {
        if (name.m_tid > 0)
        {
            last[name.m_tid] = std::move(name.m_name);
        }
    }
    return last;
}

} // namespace qelix
