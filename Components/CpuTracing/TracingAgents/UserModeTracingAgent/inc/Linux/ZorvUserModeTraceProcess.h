// Processes and their ends, as the rest of the agent sees them.
#pragma once

#include "ZorvUserModeTraceHelpers.h"

// The process is about to disappear without its exit handlers: writes all data. Callable in a signal handler of
// the program: nothing is allocated or freed, the interrupted thread may be inside the allocator. errno is
// kept.
void ZorvUmaFiniDyingProcess();
