// The process that the agent takes for its launcher. An agent that has written an error code kills its
// launcher with SIGKILL, and qelix must live to explain the code; so a child of ours, which does nothing
// else, is named in our place.
//
// It outlives a qelix that is gone before the session is, because it was killed or the program has left a
// daemon behind: its id, which agents may still kill, then belongs to nobody else, and it removes the block
// when no process has it mapped any more.
#pragma once

#include <string>
#include <sys/types.h>

namespace qelix
{

struct LauncherStandIn
{
    LauncherStandIn(const std::string& sessionPath, const std::string& blockName); // starts it
    LauncherStandIn(const LauncherStandIn&) = delete;
    LauncherStandIn& operator=(const LauncherStandIn&) = delete;
    ~LauncherStandIn(); // ends and reaps it, unless it stays; until then its id belongs to nobody else

    pid_t m_pid;
    bool m_isLeft = false; // it stays, for as long as the session has a process
};

// Has somebody killed it?
bool IsStandInDead(pid_t standIn);

} // namespace qelix
