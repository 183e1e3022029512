// The forms of a report.
#pragma once

#include "Report/Screen.h"
#include "Report/SessionFacts.h"

#include <cstddef>
#include <optional>
#include <string>

namespace qelix
{

// How much of the tables the one screen shows.
struct ReportShape
{
    std::optional<std::size_t> m_rows; // of each; 0: all; without: few enough for a screen
    std::string m_sort;                // the threads by this column of ThreadsView; empty: longest first
};

// What matters most, on one screen. Fails when there is no column to sort by.
std::string ReportText(const SessionFacts& session, const Screen& screen = {}, const ReportShape& shape = {});

// Every process, thread and call.
std::string FullReportText(const SessionFacts& session);

std::string ReportJson(const SessionFacts& session);

// "17 ns", "1.25 ms", "3.50 s": three digits that matter.
std::string DurationText(uint64_t nanoseconds);

// Of a share of 1: "0" says that there was nothing, "<1" that there was little.
std::string PercentText(double share);

// "512 B", "1.25 MB".
std::string BytesText(uint64_t bytes);

} // namespace qelix
