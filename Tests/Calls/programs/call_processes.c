// Children, signals, names, and what only the system's owner may do (here with arguments that fail).
#include "every_call.h"
#include <pty.h>
#include <sched.h>
#include <sys/io.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/swap.h>
#include <sys/syscall.h>
#include <sys/wait.h>

__sighandler_t __sysv_signal(int signal, __sighandler_t handler);

// A child that the agent knows nothing of, and that ends at once.
static pid_t MakeChild(int status)
{
    long pid = syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    if (pid == 0)
    {
        long result = SYS_exit;
        __asm__ volatile("syscall" : "+a"(result) : "D"((long)status) : "rcx", "r11", "memory");
    }
    return (pid_t)pid;
}

static void CallWaitsForChildren(void)
{
    int status = 0;
    struct rusage usage;
    siginfo_t info = {0};
    pid_t child = MakeChild(11);
    Note("  its own child %d, status %d\n", CALL_KIND(wait, &status) == child, WEXITSTATUS(status));
    child = MakeChild(12);
    Note("  its own child %d, status %d\n", CALL_KIND(waitpid, child, &status, 0) == child,
         WEXITSTATUS(status));
    child = MakeChild(13);
    CALL(waitid, P_PID, (id_t)child, &info, WEXITED);
    Note("  its own child %d, status %d\n", info.si_pid == child, info.si_status);
    child = MakeChild(14);
    Note("  its own child %d, status %d\n", CALL_KIND(wait3, &status, 0, &usage) == child, WEXITSTATUS(status));
    child = MakeChild(15);
    Note("  its own child %d, status %d\n", CALL_KIND(wait4, -1, &status, 0, &usage) == child,
         WEXITSTATUS(status));
    CALL(wait, &status);
    CALL(waitpid, -1, &status, 0x7777);
    CALL(waitid, 77, 0, &info, WEXITED);
    CALL(wait3, &status, WNOHANG, &usage);
    CALL(wait4, -1, &status, WNOHANG, &usage);
}

// A child ends here, also one that was told that it does not exist: without memory for the agent's records its
// fork answers -1.
static void EndChild(pid_t parent, pid_t result, int status)
{
    if (getpid() != parent)
    {
        _exit(result == 0 ? status : 1);
    }
}

static void CallForks(void)
{
    int status = 0;
    int master = -1;
    pid_t self = getpid();
    pid_t child = CALL_KIND(fork);
    EndChild(self, child, 16);
    CALL_KIND(waitpid, child, &status, 0);
    Note("  forked child's status %d\n", WEXITSTATUS(status));
    child = CALL_KIND(forkpty, &master, NULL, NULL, NULL);
    EndChild(self, child, isatty(STDIN_FILENO) ? 17 : 1);
    CALL_KIND(waitpid, child, &status, 0);
    Note("  status at the terminal %d, master %d\n", WEXITSTATUS(status), master);
    CALL(close, master);
    CALL(system, "exit 3");
    CALL(system, NULL);
}

static void Nothing(int signal)
{
    (void)signal;
}

static void CallSignals(void)
{
    struct sigaction action = {.sa_handler = Nothing};
    struct sigaction old;
    CALL(sigaction, SIGUSR2, &action, NULL);
    CALL(sigaction, SIGUSR2, NULL, &old);
    Note("  installed %d\n", old.sa_handler == Nothing);
    CALL(sigaction, SIGKILL, &action, NULL);
    CALL_KIND(signal, SIGUSR2, SIG_IGN);
    CALL_KIND(signal, 7777, SIG_IGN);
    CALL_KIND(signal, SIGUSR2, Nothing);
    CALL_KIND(__sysv_signal, SIGUSR2, Nothing);
    CALL(sigaction, SIGUSR2, NULL, &old);
    Note("  reset by delivery %d\n", (old.sa_flags & SA_RESETHAND) != 0);
    CALL_KIND(__sysv_signal, 7777, Nothing);
    CALL(kill, getpid(), 0);
    CALL(kill, getpid(), SIGUSR2);
    CALL(kill, 0x7fffffff, 0);
    CALL(killpg, getpgrp(), 0);
    CALL(killpg, -5, 0);
    CALL(alarm, 100);
    CALL(alarm, 0);
}

static void CallNames(void)
{
    char name[32] = "";
    CALL(prctl, PR_GET_DUMPABLE, 0, 0, 0, 0);
    CALL(prctl, PR_SET_NAME, "renamed");
    CALL(prctl, PR_GET_NAME, name);
    Note("  name %s\n", name);
    CALL(prctl, 7777, 0, 0, 0, 0);
}

static void CallPrivileged(void)
{
    CALL(ptrace, PTRACE_CONT, 0x7fffffff, NULL, NULL);
    CALL(acct, "missing/file");
    CALL(chroot, "missing");
    CALL(ioperm, 70000, 1, 1);
    CALL(iopl, 9);
    CALL(mount, "missing", "missing", "none", 0, NULL);
    CALL(umount, "missing");
    CALL(umount2, "missing", 0x7777);
    CALL(swapon, "missing", 0);
    CALL(swapoff, "missing");
    CALL(unshare, 0);
    CALL(unshare, 1);
}

void CallProcesses(void)
{
    CallWaitsForChildren();
    CallForks();
    CallSignals();
    CallNames();
    CallPrivileged();
    errno = UNTOUCHED;
    Note("syscall getppid is a parent %d, errno %d\n", syscall(SYS_getppid) > 0, errno);
    Note("syscall 7777 = %ld", syscall(7777, 1, 2, 3, 4, 5, 6));
    Note(", errno %d\n", errno);
}
