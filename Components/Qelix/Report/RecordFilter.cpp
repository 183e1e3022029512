#include "Report/RecordFilter.h"

#include <algorithm>
#include <fmt/format.h>
#include <fnmatch.h>

namespace qelix
{

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& name, int64_t id)
{
    const std::string number = fmt::format("{}", id);
    return patterns.empty() ||
           std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::string& pattern)
                       { return pattern == number || fnmatch(pattern.c_str(), name.c_str(), 0) == 0; });
}

bool CutToTimes(const ProcessFilter& filter, uint64_t* pStart, uint64_t* pEnd)
{
    if (*pStart == 0 || *pEnd == 0)
    {
        return filter.m_from == 0 && filter.m_to == UINT64_MAX; // nobody knows when it was
    }
    if (*pStart >= filter.m_to || *pEnd < filter.m_from)
    {
        return false;
    }
    *pStart = std::max(*pStart, filter.m_from);
    *pEnd = *pEnd == UINT64_MAX ? *pEnd : std::min(*pEnd, filter.m_to);
    return true;
}

} // namespace qelix
