// What qelix itself notes of a run, in session.json: facts that no agent can write.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

struct SessionRecord
{
    std::vector<std::string> m_command;
    pid_t m_programPid = 0;
    std::optional<uint64_t> m_tickNs;  // of the kernel's clock that drives the sampling timers
    std::map<pid_t, pid_t> m_parentOf; // of the processes that were seen alive
    std::optional<int> m_waitStatus;   // nothing: qelix did not see the program's end
};

// The resolution of the kernel's tick, on which CPU-time timers fire.
uint64_t KernelTickNs();

// Whole or not at all: a reader never finds half a file. False when it cannot be written.
bool WriteSessionRecord(const std::string& sessionPath, const SessionRecord& record);

// What the session's file says; empty when there is none or it cannot be understood.
SessionRecord ReadSessionRecord(const std::string& sessionPath);

} // namespace qelix
