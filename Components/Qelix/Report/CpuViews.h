// Where the CPU time of a session went, as tables. Shares are of the time that all its samples stand for.
#pragma once

#include "Report/SessionFacts.h"
#include "Report/Table.h"

namespace qelix
{

Table FunctionsView(const SessionFacts& session); // a row each
Table LinesView(const SessionFacts& session);     // the session must have been read with its lines

// The calls from the outermost function inwards, each function below the one that called it; what has less than
// this share of the time is left out. The session must have been read with its stacks.
Table CallTreeView(const SessionFacts& session, double leastShare, bool isIndented);

// The same for a screen: without the columns that other ones make up for, and sources without their folders.
Table BriefTable(const Table& table);

// What could be named of each module, and why not.
Table SymbolsView(const SessionFacts& session);

} // namespace qelix
