// The stacks of a session as the flame graph's script reads them.
#pragma once

#include "Pages/PageFile.h"
#include "Report/SessionFacts.h"

namespace qelix
{

// "threads", each with "sampleNs", the CPU time that a sample of it stands for, and "parents" (0: the root,
// else the number of the node, from 1), "functions" and "self" of its nodes; "functions", pairs of name and
// module. Nodes beyond `most`, with fewest samples, go together.
PageJson FlameData(const SessionFacts& session, std::size_t most);

} // namespace qelix
