// Starts the program under the agent and waits for its end, as transparently as a parent can.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
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
    struct sigaction m_oldFileSize;
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

// Does what is due beside the program, and says in how many nanoseconds it wants to be called again at the
// latest; nothing: it has no wish.
using Besides = std::function<std::optional<uint64_t>()>;

// Forwards signals until the program has ended; its status as waitpid(2) gives it. Calls besides after each
// signal and child's end as well.
int WaitForProgram(pid_t program, const SignalGuard& guard, const Besides& besides);

// Ends this process as the program was ended, without a core file of our own.
[[noreturn]] void DieOfSignal(int signal);

} // namespace qelix
