// Reads the files of a session into a time line, in one pass over each.
#pragma once

#include "Pages/Timeline.h"
#include "Report/SessionFacts.h"

namespace qelix
{

// The facts name what the records do not: processes, threads and locks.
Timeline ReadTimeline(const SessionFacts& session, const TimelineBudget& budget = {});

} // namespace qelix
