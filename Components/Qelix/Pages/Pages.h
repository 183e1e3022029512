// The pages of a session, ready to be written.
#pragma once

#include "Report/SessionFacts.h"

#include <string>

namespace qelix
{

// The session must have been read with its stacks, and with ZORV_PAGE_LOCKS locks kept where time lines are
// asked for.
std::string FlamePage(const SessionFacts& session);
std::string TimelinePage(const SessionFacts& session);
std::string ReportPage(const SessionFacts& session); // the whole report, and both pictures

constexpr std::size_t ZORV_PAGE_LOCKS = 1000;

} // namespace qelix
