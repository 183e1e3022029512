#include "Session/LauncherStandIn.h"

#include "Session/Failure.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

// Waits to be killed: by the agent, by qelix, or by the kernel when qelix is gone.
[[noreturn]] void StandIn(pid_t launcher)
{
    prctl(PR_SET_NAME, "qelix-standin");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // It must not keep a pipe of the program's open.
    close_range(0, ~0U, 0);
    while (getppid() == launcher)
    {
        pause();
    }
    _exit(0);
}

} // namespace

LauncherStandIn::LauncherStandIn()
{
    const pid_t launcher = getpid();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before); // before the fork: no signal may find the child unprepared
    m_pid = fork();
    if (m_pid == 0)
    {
        StandIn(launcher);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (m_pid < 0)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE,
                      "cannot start a process: {}; check the limit on processes (ulimit -u)", strerror(errno));
    }
}

LauncherStandIn::~LauncherStandIn()
{
    kill(m_pid, SIGKILL);
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR)
    {
    }
}

} // namespace qelix
