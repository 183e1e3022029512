// From when until when a thread or a process was seen.
#pragma once

#include <algorithm>
#include <cstdint>

namespace qelix
{

struct LifeSpan
{
    uint64_t m_first = UINT64_MAX; // times of the records' clock
    uint64_t m_last = 0;
    bool m_isEnded = false; // it said so: what is later was not its own
};

// 0 is what a clock that failed says.
inline void SeeAt(LifeSpan* pSpan, uint64_t time)
{
    if (time != 0 && time != UINT64_MAX)
    {
        pSpan->m_first = std::min(pSpan->m_first, time);
        pSpan->m_last = std::max(pSpan->m_last, time);
    }
}

inline void Join(LifeSpan* pSpan, const LifeSpan& other)
{
    pSpan->m_first = std::min(pSpan->m_first, other.m_first);
    pSpan->m_last = std::max(pSpan->m_last, other.m_last);
    pSpan->m_isEnded = pSpan->m_isEnded || other.m_isEnded;
}

inline uint64_t LengthOf(const LifeSpan& span)
{
    return span.m_last > span.m_first ? span.m_last - span.m_first : 0;
}

} // namespace qelix
