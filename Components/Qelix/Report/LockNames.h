// What the locks of a process are called: after the variable that they are in, else by number.
#pragma once

#include "Report/TraceFacts.h"
#include "Symbols/DataSymbols.h"

#include <vector>

namespace qelix
{

// Names the locks, and those of the calls that never returned.
void NameLocks(TraceFacts* pProcess, const std::vector<DataImage>& images);

} // namespace qelix
