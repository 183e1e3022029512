// masks [exec]: threads that block signals, the profiling one among them, in every way that libc has. Says what
// each call answers and burns for a while behind each; natively and in a session the lines are the same.
#include "sampled.h"
#include <sys/wait.h>

enum
{
    BURN_NS = 60000000,
    CHILD_STATUS = 5
};

static int IsBlocked(void)
{
    sigset_t mask;
    Check(pthread_sigmask(SIG_SETMASK, NULL, &mask) == 0, "query");
    return sigismember(&mask, SAMPLING_SIGNAL);
}

RANGED(burn_in_first) static void BurnInFirst(void)
{
    BurnNs(BURN_NS);
}

RANGED(burn_in_second) static void* BurnInSecond(void* pName)
{
    Say("%s blocked %d", (const char*)pName, IsBlocked());
    BurnNs(BURN_NS);
    return NULL;
}

static void BurnInThread(const char* pName)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, BurnInSecond, (void*)pName) == 0, "create");
    pthread_join(thread, NULL);
}

static sigset_t All(void)
{
    sigset_t all;
    sigfillset(&all);
    return all;
}

static void BlockAll(void)
{
    sigset_t all = All();
    sigset_t old;
    sigset_t profiling;
    sigemptyset(&profiling);
    sigaddset(&profiling, SAMPLING_SIGNAL);
    Check(pthread_sigmask(SIG_SETMASK, &all, &old) == 0, "set");
    Say("set: was %d, is %d", sigismember(&old, SAMPLING_SIGNAL), IsBlocked());
    BurnInFirst();
    BurnInThread("heir");
    Check(pthread_sigmask(SIG_UNBLOCK, &profiling, &old) == 0, "unblock");
    Say("unblock: was %d, is %d", sigismember(&old, SAMPLING_SIGNAL), IsBlocked());
    Check(sigprocmask(SIG_BLOCK, &profiling, &old) == 0, "block");
    Say("block: was %d, is %d", sigismember(&old, SAMPLING_SIGNAL), IsBlocked());
    BurnInFirst();
    int result = sigprocmask(77, &profiling, &old);
    Say("wrong: %d %d", result, errno);
    Check(sigprocmask(SIG_SETMASK, &old, NULL) == 0, "restore");
    Say("restore: was %d, is %d", sigismember(&old, SAMPLING_SIGNAL), IsBlocked());
}

static void HoldOne(void)
{
    int result = sighold(SAMPLING_SIGNAL);
    Say("hold: %d, is %d", result, IsBlocked());
    BurnInFirst();
    result = sigrelse(SAMPLING_SIGNAL);
    Say("release: %d, is %d", result, IsBlocked());
    result = sigset(SAMPLING_SIGNAL, SIG_HOLD) == SIG_DFL;
    Say("sigset hold: %d, is %d", result, IsBlocked());
    BurnInFirst();
    result = sigset(SAMPLING_SIGNAL, SIG_DFL) == SIG_HOLD;
    Say("sigset default: %d, is %d", result, IsBlocked());
    result = sighold(-1);
    Say("sighold of none: %d %d", result, errno);
}

// All signals are waited for while the thread's own timer fires: none but the one sent may be told of.
static void WaitForAll(void)
{
    sigset_t all = All();
    pthread_sigmask(SIG_SETMASK, &all, NULL);
    for (int i = 0; i < 20; ++i)
    {
        const struct timespec moment = {0, 0};
        int sig = 0;
        BurnNs(BURN_NS / 20);
        Check(sigtimedwait(&all, NULL, &moment) == -1 && errno == EAGAIN, "nothing is pending");
        raise(SIGUSR1);
        Check(sigwait(&all, &sig) == 0 && sig == SIGUSR1, "sigwait");
        raise(SIGUSR2);
        Check(sigwaitinfo(&all, NULL) == SIGUSR2, "sigwaitinfo");
    }
    Say("waited, is %d", IsBlocked());
}

static void BurnInChild(void)
{
    int status = 0;
    pid_t child = fork();
    if (child == 0)
    {
        Say("child blocked %d", IsBlocked());
        BurnInFirst();
        _exit(CHILD_STATUS);
    }
    waitpid(child, &status, 0);
    Say("child gave %d", WEXITSTATUS(status));
}

// A child that shares the parent's memory has a mask of its own.
static void BlockInSharingChild(void)
{
    sigset_t all = All();
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, NULL);
    pid_t child = vfork();
    if (child == 0)
    {
        pthread_sigmask(SIG_SETMASK, &all, NULL);
        _exit(0);
    }
    waitpid(child, NULL, 0);
    Say("behind vfork: is %d", IsBlocked());
}

// The new image finds the mask as the program left it.
static int Replace(char* pSelf)
{
    sigset_t all = All();
    char* failing[] = {(char*)"nothing", NULL};
    char* arguments[] = {pSelf, (char*)"again", NULL};
    Check(pthread_sigmask(SIG_SETMASK, &all, NULL) == 0, "set");
    execv("/does/not/exist", failing);
    Say("failed exec, is %d", IsBlocked());
    execv(pSelf, arguments);
    return 1;
}

int main(int count, char** ppArguments)
{
    const char* pWay = count > 1 ? ppArguments[1] : "";
    if (strcmp(pWay, "exec") == 0)
    {
        return Replace(ppArguments[0]);
    }
    if (strcmp(pWay, "again") == 0)
    {
        Say("again: blocked %d", IsBlocked());
        BurnInFirst();
        return 3;
    }
    BlockAll();
    HoldOne();
    WaitForAll();
    BurnInChild();
    BlockInSharingChild();
    return 3;
}
