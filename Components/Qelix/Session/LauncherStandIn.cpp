#include "Session/LauncherStandIn.h"

#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/SessionProcesses.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

// Between an exec and the start of the agent in the new program nobody has the block mapped for a moment.
constexpr int ZORV_EMPTY_LOOKS = 2;

void WaitForLauncher(pid_t launcher)
{
    sigset_t gone;
    sigemptyset(&gone);
    sigaddset(&gone, SIGUSR1); // blocked, like all others
    prctl(PR_SET_PDEATHSIG, SIGUSR1);
    while (getppid() == launcher)
    {
        sigwaitinfo(&gone, nullptr);
    }
}

// Waits to be killed: by the agent, or by qelix.
[[noreturn]] void StandIn(pid_t launcher, const std::string& sessionPath, const std::string& blockName)
{
    prctl(PR_SET_NAME, "qelix-standin");
    // It must not keep a pipe of the program's open, nor a file system busy.
    close_range(0, ~0U, 0);
    [[maybe_unused]] const int ignored = chdir("/");
    WaitForLauncher(launcher);
    constexpr timespec pause = {1, 0};
    for (int emptyLooks = 0; emptyLooks < ZORV_EMPTY_LOOKS;)
    {
        emptyLooks = LiveProcessesOf(sessionPath, blockName).empty() ? emptyLooks + 1 : 0;
        nanosleep(&pause, nullptr);
    }
    RemoveControlBlock(blockName);
    _exit(0);
}

} // namespace

LauncherStandIn::LauncherStandIn(const std::string& sessionPath, const std::string& blockName)
{
    const pid_t launcher = getpid();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before); // before the fork: no signal may find the child unprepared
    m_pid = fork();
    if (m_pid == 0)
    {
        StandIn(launcher, sessionPath, blockName);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (m_pid < 0)
    {
        throw Failure(ZORV_FAILURE_CANNOT_START,
                      "cannot start a process: {}; check the limit on processes (ulimit -u)", strerror(errno));
    }
}

LauncherStandIn::~LauncherStandIn()
{
    if (m_isLeft)
    {
        return;
    }
    kill(m_pid, SIGKILL);
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR)
    {
    }
}

bool IsStandInDead(pid_t standIn)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(standIn), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == standIn;
}

} // namespace qelix
