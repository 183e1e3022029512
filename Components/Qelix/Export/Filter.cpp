#include "Export/Filter.h"

namespace qelix
{
namespace
{

uint64_t TimeBehind(uint64_t first, uint64_t distance)
{
    return distance > UINT64_MAX - first ? UINT64_MAX : first + distance;
}

} // namespace

void NarrowSurvey(const RecordFilter& filter, SessionSurvey* pSurvey)
{
    std::erase_if(pSurvey->m_processes, [&filter](const SurveyedProcess& process)
                  { return !MatchesAny(filter.m_processes, process.m_name, process.m_pid); });
    for (SurveyedProcess& process : pSurvey->m_processes)
    {
        std::erase_if(process.m_threads, [&filter](const auto& thread)
                      { return !MatchesAny(filter.m_threads, thread.second.m_name, thread.first); });
    }
}

ProcessFilter FilterOfRecords(const RecordFilter& filter, const SessionSurvey& survey)
{
    ProcessFilter records;
    records.m_classes = filter.m_classes;
    records.m_from = filter.m_from ? TimeBehind(survey.m_span.m_first, *filter.m_from) : 0;
    records.m_to = filter.m_to ? TimeBehind(survey.m_span.m_first, *filter.m_to) : UINT64_MAX;
    return records;
}

} // namespace qelix
