// Which part of a session is wanted.
#pragma once

#include "Export/Survey.h"
#include "Session/TraceClasses.h"

#include <bitset>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qelix
{

// The classes of calls, and samples behind them.
constexpr std::size_t ZORV_SELECT_SAMPLES = ZORV_CLASS_COUNT;
using SelectedClasses = std::bitset<ZORV_CLASS_COUNT + 1>;

struct ExportFilter
{
    std::vector<std::string> m_threads;   // ids, or patterns of names; none: all
    std::vector<std::string> m_processes; // likewise
    SelectedClasses m_classes = SelectedClasses().set();
    uint64_t m_fromNs = 0; // since the first time of the session
    uint64_t m_toNs = UINT64_MAX;
};

// Fail when the text cannot be understood. "cpu" among the classes are the samples.
SelectedClasses ParseClasses(const std::vector<std::string>& names);
void ParseTimeRange(std::string_view text, ExportFilter* pFilter); // "FROM..TO", either may be left out

// Takes the processes and threads that are not wanted out of the survey.
void NarrowSurvey(const ExportFilter& filter, SessionSurvey* pSurvey);

} // namespace qelix
