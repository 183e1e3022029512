// Can samples be taken on this machine?
#pragma once

#include <string>

namespace qelix
{

// Without a library that unwinds stacks the agent writes no samples: what is wrong and what to do, or empty.
std::string UnwinderProblem();

} // namespace qelix
