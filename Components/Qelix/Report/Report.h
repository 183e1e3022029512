// The forms of a report.
#pragma once

#include "Report/Screen.h"
#include "Report/SessionFacts.h"

#include <string>

namespace qelix
{

// What matters most, on one screen.
std::string ReportText(const SessionFacts& session, const Screen& screen = {});

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
