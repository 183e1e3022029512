// The views of a session, as tables.
#pragma once

#include "Report/SessionFacts.h"
#include "Report/Table.h"

#include <string>
#include <vector>

namespace qelix
{

Table ThreadsView(const SessionFacts& session); // a row each
Table LocksView(const SessionFacts& session);

// Who waited for the locks of that name, of a glob(7) pattern or of an address "0x...". Fails when there is
// none.
Table LockView(const SessionFacts& session, const std::string& name);

// Calls by thread and function, of these kinds of time; every kind when there are none.
Table CallsView(const SessionFacts& session, const std::vector<TimeKind>& kinds);

// Calls that never returned; the notes tell who waits for whom in a circle.
Table BlockedView(const SessionFacts& session);

} // namespace qelix
