// The process that the agent takes for its launcher. An agent that has written an error code kills its
// launcher with SIGKILL, and qelix must live to explain the code; so a child of ours, which does nothing
// else, is named in our place.
#pragma once

#include <sys/types.h>

namespace qelix
{

struct LauncherStandIn
{
    LauncherStandIn(); // starts it
    LauncherStandIn(const LauncherStandIn&) = delete;
    LauncherStandIn& operator=(const LauncherStandIn&) = delete;
    ~LauncherStandIn(); // ends and reaps it; until then its id belongs to nobody else

    pid_t m_pid;
};

} // namespace qelix
