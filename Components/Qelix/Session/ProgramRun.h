// Starts the program under the agent and waits for its end, as transparently as a parent can.
#pragma once

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

// From its making on, signals wait to be forwarded instead of ending qelix before it has tidied up.
struct SignalGuard
{
    SignalGuard();
    SignalGuard(const SignalGuard&) = delete;
    SignalGuard& operator=(const SignalGuard&) = delete;
    ~SignalGuard(); // drops what is still pending; a new Ctrl-C ends qelix again

    sigset_t m_guarded;
    sigset_t m_oldMask;
    struct sigaction m_oldChild; // the program inherits what qelix was given
    struct sigaction m_oldPipe;
};

// The variables as "NAME=VALUE", with the agent ahead of all else that is preloaded.
std::vector<std::string> ProgramEnvironment(const std::string& agentPath, const std::string& sessionPath);

struct ProgramStart
{
    std::string m_path;                   // from FindProgram
    std::vector<std::string> m_arguments; // argv, the name first
    std::vector<std::string> m_environment;
};

// Fails with status 126 or 127 when the kernel refuses the program.
pid_t StartProgram(const ProgramStart& start, const SignalGuard& guard);

// Forwards signals until the program has ended; its status as waitpid(2) gives it.
int WaitForProgram(pid_t program, const SignalGuard& guard);

} // namespace qelix
