#include "Export/Filter.h"

#include "Session/Durations.h"
#include "Session/Failure.h"

#include <algorithm>
#include <fnmatch.h>

namespace qelix
{
namespace
{

constexpr std::string_view ZORV_SAMPLES_NAME = "cpu";
constexpr std::string_view ZORV_RANGE_MARK = "..";

const char* SelectableName(std::size_t index)
{
    return index == ZORV_SELECT_SAMPLES ? ZORV_SAMPLES_NAME.data()
                                        : TraceClassName(static_cast<TraceClass>(index));
}

std::size_t SelectableOf(const std::string& name)
{
    std::string known;
    for (std::size_t i = 0; i <= ZORV_SELECT_SAMPLES; ++i)
    {
        if (name == SelectableName(i))
        {
            return i;
        }
        known += (i == 0 ? "" : ", ") + std::string(SelectableName(i));
    }
    throw Failure(ZORV_STATUS_OWN_FAILURE, "--class: there is no class \"{}\"; the classes are {}", name,
                  known);
}

uint64_t TimeOr(std::string_view text, std::string_view range, uint64_t otherwise)
{
    if (text.empty())
    {
        return otherwise;
    }
    const std::optional<uint64_t> time = ParseDuration(text);
    if (!time)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE,
                      "--time: \"{}\" is no span of time; say FROM..TO, such as 500ms..2s, 10s.. or ..1s",
                      range);
    }
    return *time;
}

bool IsMatch(const std::vector<std::string>& patterns, int64_t id, const std::string& name)
{
    return patterns.empty() || std::any_of(patterns.begin(), patterns.end(),
                                           [&](const std::string& pattern) {
                                               return pattern == std::to_string(id) ||
                                                      fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
                                           });
}

} // namespace

SelectedClasses ParseClasses(const std::vector<std::string>& names)
{
    if (names.empty())
    {
        return SelectedClasses().set();
    }
    SelectedClasses classes;
    for (const std::string& name : names)
    {
        classes.set(SelectableOf(name));
    }
    return classes;
}

void ParseTimeRange(std::string_view text, ExportFilter* pFilter)
{
    const std::size_t mark = text.find(ZORV_RANGE_MARK);
    const std::string_view from = text.substr(0, mark);
    const std::string_view to =
        mark == std::string_view::npos ? "none" : text.substr(mark + ZORV_RANGE_MARK.size());
    pFilter->m_fromNs = TimeOr(from, text, 0);
    pFilter->m_toNs = TimeOr(to, text, UINT64_MAX);
    if (pFilter->m_fromNs >= pFilter->m_toNs)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE, "--time: \"{}\" ends before it begins", text);
    }
}

void NarrowSurvey(const ExportFilter& filter, SessionSurvey* pSurvey)
{
    std::erase_if(pSurvey->m_processes, [&filter](const SurveyedProcess& process)
                  { return !IsMatch(filter.m_processes, process.m_pid, process.m_name); });
    for (SurveyedProcess& process : pSurvey->m_processes)
    {
        std::erase_if(process.m_threads, [&filter](const auto& thread)
                      { return !IsMatch(filter.m_threads, thread.first, thread.second.m_name); });
    }
}

} // namespace qelix
