// Programs that natively have one thread and rely on it. The agent's writer is a second one.
#pragma once

#include <string>
#include <vector>

namespace qelix
{

// What speaks for it, from the functions that the file imports.
struct ThreadLimits
{
    std::vector<std::string> m_namespaceCalls;  // the kernel refuses some uses of them with a second thread
    std::vector<std::string> m_identityCalls;   // libc ends a process whose threads may not all follow
    std::vector<std::string> m_capabilityCalls; // these change one thread's rights alone
};

// Empty lists for what is no ELF file.
ThreadLimits ThreadLimitsOf(const std::string& path);

// Why a program of this file is likely to have failed so, and what to do; empty when nothing is known. The
// status is as waitpid(2) gives it.
std::string SecondThreadReason(const std::string& path, int waitStatus);

// The same before the run, as a warning.
std::string SecondThreadWarning(const std::string& path);

} // namespace qelix
