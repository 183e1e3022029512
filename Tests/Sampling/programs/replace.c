// replace HOW [again]: becomes another image while a sampling signal is blocked and pending. The new image
// takes all signals, and says that it lives.
#include "sampled.h"
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

static sigset_t SamplingSignal(void)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SAMPLING_SIGNAL);
    return set;
}

static int IsPending(void)
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SAMPLING_SIGNAL) == 1;
}

// The timer itself makes it pending, or a signal as another thread of ours would leave it.
static void MakePending(void)
{
    // past libc, whose functions leave the signal open
    sigset_t set = SamplingSignal();
    Check(syscall(SYS_rt_sigprocmask, SIG_BLOCK, &set, NULL, 8) == 0, "block");
    uint64_t end = CpuNs() + 200000000;
    while (!IsPending() && CpuNs() < end)
    {
    }
    if (!IsPending())
    {
        QueueSample(getpid(), OwnTid(), AgentRecord(), 0);
    }
    Say("pending %d", IsPending());
}

static char* g_pSelf;

static void Replace(const char* pHow)
{
    char* arguments[] = {g_pSelf, "none", "again", NULL};
    if (strcmp(pHow, "execv") == 0)
    {
        execv(g_pSelf, arguments);
    }
    else if (strcmp(pHow, "execve") == 0)
    {
        execve(g_pSelf, arguments, environ);
    }
    else if (strcmp(pHow, "execvp") == 0)
    {
        execvp(g_pSelf, arguments);
    }
    else if (strcmp(pHow, "execl") == 0)
    {
        execl(g_pSelf, g_pSelf, "none", "again", (char*)NULL);
    }
    else if (strcmp(pHow, "fexecve") == 0)
    {
        fexecve(open(g_pSelf, O_RDONLY | O_CLOEXEC), arguments, environ);
    }
    else if (strcmp(pHow, "execveat") == 0)
    {
        execveat(AT_FDCWD, g_pSelf, arguments, environ, 0);
    }
    else if (strcmp(pHow, "raw") == 0)
    {
        syscall(SYS_execve, g_pSelf, arguments, environ);
    }
}

// The thread that replaces the image is not the first one, and others burn on.
static void* ReplaceInThread(void* pHow)
{
    MakePending();
    Replace(pHow);
    return NULL;
}

static void ReplaceBesideOthers(char* pHow)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, ReplaceInThread, pHow) == 0, "create");
    for (;;)
    {
        BurnNs(1000000);
    }
}

// A replacement that fails leaves the program sampled as before.
static void FailToReplace(void)
{
    char* arguments[] = {"nothing", NULL};
    for (int i = 0; i < 3; ++i)
    {
        Check(execv("/does/not/exist", arguments) == -1 && errno == ENOENT, "failing execv");
        BurnNs(100000000);
    }
    Say("alive");
}

int main(int count, char** ppArguments)
{
    g_pSelf = ppArguments[0];
    if (count > 2 && strcmp(ppArguments[2], "again") == 0)
    {
        sigset_t set = SamplingSignal();
        pthread_sigmask(SIG_UNBLOCK, &set, NULL);
        BurnNs(50000000);
        Say("alive");
        return 4;
    }
    if (strcmp(ppArguments[1], "fail") == 0)
    {
        FailToReplace();
        return 4;
    }
    if (count > 2 && strcmp(ppArguments[2], "thread") == 0)
    {
        ReplaceBesideOthers(ppArguments[1]);
    }
    MakePending();
    Replace(ppArguments[1]);
    return 1;
}
