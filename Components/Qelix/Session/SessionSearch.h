// Which session a command means: the one in a directory, the newest one here, or the one that a process belongs
// to.
#pragma once

#include "Session/SessionRecord.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace qelix
{

struct SessionTarget
{
    std::string m_path;
    std::string m_blockName; // empty: there is none on this machine
    SessionRecord m_record;
};

// Does the directory look like one that qelix has made?
bool IsSession(const std::string& path);

// An empty directory stands for "qelix-last" in the current one, unless a process is given. Fails when there is
// no such session.
SessionTarget FindSession(const std::string& directory, std::optional<pid_t> pid);
SessionTarget SessionAt(const std::string& path);

enum SessionState
{
    ZORV_SESSION_RUNNING,
    ZORV_SESSION_PAUSED,
    ZORV_SESSION_STOPPED, // the recording, not the program
    ZORV_SESSION_WAITING, // for a program that something else starts
    ZORV_SESSION_ENDED,
    ZORV_SESSION_ABANDONED, // qelix and all processes are gone, and the end was not noted
};

SessionState StateOf(const SessionTarget& session);

// "running", "paused", "ended with status 7", "was ended by signal 11 (Segmentation fault)", ...
std::string StateText(const SessionTarget& session, SessionState state);

// How a program ended, as waitpid(2) tells it.
std::string EndText(int waitStatus);

// Removes what qelix and its agents have made in the session; false when other files keep the directory in
// place.
bool RemoveSession(const SessionTarget& session);

} // namespace qelix
