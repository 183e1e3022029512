// Processes that end abruptly, and processes that fork.
//
// A forked child has one thread, copies of the parent's buffers that nobody would write, and locks that may be
// held for ever. It gets records of its own, and the parent's are never touched there.

#include "ZorvUserModeTraceProcess.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceSignals.h"

#include <cerrno>
#include <pty.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

// ---- ends ------------------------------------------------------------------------------------------------

void ZorvUmaFiniDyingProcess()
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    if (pProfileInfo == nullptr)
        return;
    bool wasDying = t_zorvState.m_isDying;
    t_zorvState.m_isDying = true;
    ZorvUmaFiniProcess(pProfileInfo, false);
    t_zorvState.m_isDying = wasDying;
}

template <ZorvEntryPoint* pEntry, typename, typename Pointer> struct EndProcess;

template <ZorvEntryPoint* pEntry, typename Detail, typename... P>
struct EndProcess<pEntry, Detail, void (*)(P...)>
{
    static void Call(P... arguments)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return;
        ZorvUmaFiniDyingProcess();
        ZorvCallReal<void>(pReal, arguments...);
    }
};

ZORV_INTERPOSE_SINGLE(EndProcess, void, ZorvInterposeExit, _exit, 1, AllOnes)
ZORV_INTERPOSE_SINGLE(EndProcess, void, ZorvInterposeExitLibc, _Exit, 1, AllOnes)
ZORV_INTERPOSE_SINGLE(EndProcess, void, ZorvInterposeAbort, abort, 0, AllOnes)
ZORV_INTERPOSE_VERSIONED(EndProcess, void, ZorvInterposeQuickExit, quick_exit, 1, 2_10, 2_24, AllOnes)

// ---- forked children -------------------------------------------------------------------------------------

// What the parent says to its child.
struct ForkOrder
{
    ZorvUmaProfileInfo* m_pParentInfo;
    bool m_profileChildren;
};

static void SilenceChild(ZorvUmaProfileInfo* pProfileInfo, int parentsLogFd)
{
    pProfileInfo->m_isFlush = true;
    pProfileInfo->m_umaConfig.m_profileChildren = false; // and so for what it forks itself
    ZorvUmaSetStopCollection(true);
    ZorvStoreFenced(&pProfileInfo->m_umsConfig.m_enable, false);
    ZorvStoreFenced(&pProfileInfo->m_umtConfig.m_enable, false);
    // Through the descriptor that it has from its parent, if the program has not taken it.
    if (ZorvUmaIsStillOwn(parentsLogFd))
        ZORV_LOG_AS(parentsLogFd, INFO, "ZorvInterposeFork", "Process id (%d) is not sampled or traced.",
                    ZorvUmaGetPid());
}

// False when the child has no records of its own.
static bool SetUpChild(const ForkOrder& order)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    int parentsLogFd = order.m_pParentInfo->m_logFd;
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaAllocateProfileInfo();
    bool hasRecords = pProfileInfo != nullptr && ZorvUmaAllocateThreadInfo(pProfileInfo) != nullptr;
    if (hasRecords && !order.m_profileChildren)
        SilenceChild(pProfileInfo, parentsLogFd);
    ZorvUmaDropParentsFiles();
    if (hasRecords && order.m_profileChildren)
        ZorvUmaInitProcess(pProfileInfo);
    ZorvUmaLeaveAgent(&scope);
    ZorvUmsAdmitSignal();
    return hasRecords;
}

// Runs a call that forks; `fork` gives the child's pid, 0 in the child, or a negative value.
template <typename Fork> static pid_t ForkTreated(void* pReal, Fork forkReal)
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    if (pProfileInfo == nullptr)
        return forkReal();
    const ForkOrder order = {pProfileInfo, pProfileInfo->m_umaConfig.m_profileChildren};

    bool isTimed = !ZorvUmaIsCollectionStopped(pProfileInfo);
    ZorvTracedCall call = {};
    call.m_pProfileInfo = pProfileInfo;
    call.m_funcVa = reinterpret_cast<uint64_t>(pReal);
    call.m_class = {ZORV_SYSCALL_TYPE_OTHER, ZORV_UMT_EVENT_SYSCALL};
    if (isTimed)
        ZorvBeginCall(&call);
    pid_t pid = forkReal();
    if (pid > 0 && isTimed && ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_SYSCALL))
        ZorvEndCall(&call, pid);
    if (pid == 0 && !SetUpChild(order))
    {
        errno = ENOMEM;
        return -1; // the child sees a failed fork
    }
    return pid;
}

template <ZorvEntryPoint* pEntry, typename, typename> struct Fork
{
    static pid_t Call()
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        return ForkTreated(pReal, [pReal] { return ZorvCallReal<pid_t>(pReal); });
    }
};

ZORV_INTERPOSE_SINGLE(Fork, void, ZorvInterposeFork, fork, 0, AllOnes)

template <ZorvEntryPoint* pEntry, typename, typename> struct Forkpty
{
    static int Call(int* pMaster, char* pName, const struct termios* pTermios, const struct winsize* pWinsize)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        return ForkTreated(pReal, [=] { return ZorvCallReal<int>(pReal, pMaster, pName, pTermios, pWinsize); });
    }
};

ZORV_INTERPOSE_SINGLE(Forkpty, void, ZorvInterposeForkpty, forkpty, 4, AllOnes)

// ---- daemon ----------------------------------------------------------------------------------------------

// The three standard streams become /dev/null, as daemon(3) does it. False with errno set.
static bool DetachStreams()
{
    int fd = ZorvUmaOpen("/dev/null", O_RDWR);
    struct stat status;
    if (fd < 0)
        return false;
    if (fstat(fd, &status) != 0)
    {
        ZorvUmaClose(fd);
        return false;
    }
    if (!S_ISCHR(status.st_mode) || status.st_rdev != makedev(1, 3))
    {
        ZorvUmaClose(fd);
        errno = ENODEV;
        return false;
    }
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; stream++)
        ZorvRawSyscall(SYS_dup2, fd, stream);
    if (fd > STDERR_FILENO)
        ZorvUmaClose(fd);
    return true;
}

// libc's daemon forks and leaves its parent by calls of its own, which no interposer sees: the parent's data
// would not reach its files, and the child would go on with the parent's records. So its steps are taken here.
template <ZorvEntryPoint* pEntry, typename, typename> struct Daemon
{
    static int Call(int noChdir, int noClose)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        void* pFork = g_entryZorvInterposeFork.m_pReal;
        void* pExit = g_entryZorvInterposeExit.m_pReal;
        if (pFork == nullptr || pExit == nullptr)
            return ZorvCallReal<int>(pReal, noChdir, noClose);

        pid_t pid = ForkTreated(pReal, [pFork] { return ZorvCallReal<pid_t>(pFork); });
        if (pid < 0)
            return -1;
        if (pid > 0)
        {
            ZorvUmaFiniDyingProcess();
            ZorvCallReal<void>(pExit, 0);
        }
        if (setsid() == -1)
            return -1;
        if (noChdir == 0)
            ZorvRawSyscall(SYS_chdir, reinterpret_cast<long>("/")); // a failure of this is none of the call
        return noClose != 0 || DetachStreams() ? 0 : -1;
    }
};

ZORV_INTERPOSE_SINGLE(Daemon, void, ZorvInterposeDaemon, daemon, 2, AllOnes)
