// Preloaded ahead of the agent: stands before the functions that arm sampling.
//
//   ZORV_TEST_FAULT=NAME:N,NAME:N+   the N-th call of NAME, or every call from the N-th on, fails
//   ZORV_TEST_CALLS=PATH             what the timer and signal functions were asked for, one line a call
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

// Is this call, the calls-th of its name, one of those that fail?
static int IsFailing(const char* pName, int calls)
{
    size_t length = strlen(pName);
    const char* pSpec = getenv("ZORV_TEST_FAULT");
    while (pSpec && *pSpec)
    {
        if (strncmp(pSpec, pName, length) == 0 && pSpec[length] == ':')
        {
            char* pEnd = NULL;
            long wanted = strtol(pSpec + length + 1, &pEnd, 10);
            if (calls == wanted || (*pEnd == '+' && calls > wanted))
            {
                return 1;
            }
        }
        pSpec = strchr(pSpec, ',');
        pSpec += pSpec ? 1 : 0;
    }
    return 0;
}

// By raw calls: the agent must not trace what its own test writes.
static void __attribute__((format(printf, 1, 2))) Note(const char* pFormat, ...)
{
    const char* pPath = getenv("ZORV_TEST_CALLS");
    char line[256];
    va_list arguments;
    if (!pPath)
    {
        return;
    }
    va_start(arguments, pFormat);
    int length = vsnprintf(line, sizeof(line), pFormat, arguments);
    va_end(arguments);
    long fd = syscall(SYS_open, pPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    syscall(SYS_write, fd, line, (size_t)length);
    syscall(SYS_close, fd);
}

// A function that only ever fails or goes on: up to four words of arguments.
#define FAULT(name, result, error)                                                                             \
    long name(long a, long b, long c, long d);                                                                 \
    long name(long a, long b, long c, long d)                                                                  \
    {                                                                                                          \
        static int calls;                                                                                      \
        if (IsFailing(#name, __atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST)))                                 \
        {                                                                                                      \
            errno = error;                                                                                     \
            return result;                                                                                     \
        }                                                                                                      \
        return ((long (*)(long, long, long, long))dlsym(RTLD_NEXT, #name))(a, b, c, d);                        \
    }

FAULT(ZorvAllocateProcessInfo, -1, ENOMEM)
FAULT(ZorvInitializePcmAgent, -1, ENOMEM)
FAULT(ZorvConfigurePerfEvent, -1, EINVAL)
FAULT(ZorvStartPerfEvent, -1, EINVAL)
FAULT(ZorvStopPerfEvent, -1, EINVAL)
FAULT(ZorvFiniPcmAgent, -1, EINVAL)
FAULT(ZorvStartPerfEventAllThreads, -1, EINVAL)
FAULT(ZorvStopPerfEventAllThreads, -1, EINVAL)

#define REAL(name) ((__typeof__(name)*)dlsym(RTLD_NEXT, #name))
#define FAILS(name)                                                                                            \
    __extension__({                                                                                            \
        static int calls;                                                                                      \
        IsFailing(#name, __atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST));                                     \
    })

int ZorvUmaTimerCreate(clockid_t clock, struct sigevent* pEvent, timer_t* pTimer);
int ZorvUmaTimerSetTime(timer_t timer, int flags, const struct itimerspec* pNew, struct itimerspec* pOld);
int ZorvUmaTimerDelete(timer_t timer);
int ZorvUmaSigAction(int sig, const struct sigaction* pAction, struct sigaction* pOld);

int ZorvUmaTimerCreate(clockid_t clock, struct sigevent* pEvent, timer_t* pTimer)
{
    Note("create clock=%d notify=%d signal=%d tid=%d/%ld hasValue=%d\n", (int)clock, pEvent->sigev_notify,
         pEvent->sigev_signo, pEvent->_sigev_un._tid, syscall(SYS_gettid),
         pEvent->sigev_value.sival_ptr != NULL);
    if (FAILS(ZorvUmaTimerCreate))
    {
        errno = EAGAIN;
        return -1;
    }
    return REAL(ZorvUmaTimerCreate)(clock, pEvent, pTimer);
}

int ZorvUmaTimerSetTime(timer_t timer, int flags, const struct itimerspec* pNew, struct itimerspec* pOld)
{
    Note("set flags=%d value=%ld.%09ld interval=%ld.%09ld old=%d\n", flags, (long)pNew->it_value.tv_sec,
         pNew->it_value.tv_nsec, (long)pNew->it_interval.tv_sec, pNew->it_interval.tv_nsec, pOld != NULL);
    if (FAILS(ZorvUmaTimerSetTime))
    {
        errno = EINVAL;
        return -1;
    }
    return REAL(ZorvUmaTimerSetTime)(timer, flags, pNew, pOld);
}

int ZorvUmaTimerDelete(timer_t timer)
{
    Note("delete\n");
    if (FAILS(ZorvUmaTimerDelete))
    {
        errno = EINVAL;
        return -1;
    }
    return REAL(ZorvUmaTimerDelete)(timer);
}

// ZORV_TEST_FAULT names the two uses apart: "get" reads the action, "put" replaces it.
int ZorvUmaSigAction(int sig, const struct sigaction* pAction, struct sigaction* pOld)
{
    static int reads, writes;
    int isFailing = pAction ? IsFailing("put", __atomic_add_fetch(&writes, 1, __ATOMIC_SEQ_CST))
                            : IsFailing("get", __atomic_add_fetch(&reads, 1, __ATOMIC_SEQ_CST));
    if (pAction)
    {
        Note("action signal=%d flags=%#x mask=%d\n", sig, (unsigned)pAction->sa_flags,
             !sigisemptyset(&pAction->sa_mask));
    }
    if (isFailing)
    {
        errno = EINVAL;
        return -1;
    }
    return REAL(ZorvUmaSigAction)(sig, pAction, pOld);
}
