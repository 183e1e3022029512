// The two forms of a report.
#pragma once

#include "Report/SessionFacts.h"

#include <string>

namespace qelix
{

std::string ReportText(const SessionFacts& session);
std::string ReportJson(const SessionFacts& session);

// "17 ns", "1.25 ms", "3.50 s": three digits that matter.
std::string DurationText(uint64_t nanoseconds);

} // namespace qelix
