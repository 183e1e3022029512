// children MODE: children that were made without, or around, the agent.
#include "blackbox.h"
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void Lock(int times)
{
    for (int i = 0; i < times; ++i)
    {
        pthread_mutex_lock(&g_mutex);
        pthread_mutex_unlock(&g_mutex);
    }
}

static int StatusOf(pid_t child)
{
    int status = 0;
    Check(waitpid(child, &status, 0) == child, "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// A child that libc's fork knows nothing of: it still holds its parent's record.
static int RawClone(void)
{
    Lock(5);
    pid_t child = (pid_t)syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    if (child == 0)
    {
        Lock(5);
        exit(6);
    }
    Say("child %d", child);
    Say("status %d", StatusOf(child));
    Lock(5);
    return 2;
}

static int ForkAndExit(void)
{
    pid_t child = fork();
    if (child == 0)
    {
        Lock(5);
        exit(6);
    }
    Say("status %d", StatusOf(child));
    return 2;
}

static pid_t g_child;

// In the child this thread is the only one, and returning from it ends the process.
static void* ForkAndReturn(void* pUnused)
{
    g_child = fork();
    return pUnused;
}

static int ForkInThread(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, ForkAndReturn, NULL) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    Say("status %d", StatusOf(g_child));
    return 2;
}

static void* ForkAndLeave(void* pUnused)
{
    g_child = fork();
    (void)pUnused;
    pthread_exit(NULL);
}

static int ForkInLeavingThread(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, ForkAndLeave, NULL) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    Say("status %d", StatusOf(g_child));
    return 2;
}

static int Spawn(void)
{
    char* arguments[] = {"sh", "-c", "exit 8", NULL};
    pid_t child = 0;
    Check(posix_spawn(&child, "/bin/sh", NULL, NULL, arguments, environ) == 0, "spawn");
    Say("status %d", StatusOf(child));
    return 2;
}

// The new image must not find the agent's descriptors.
static int ExecList(void)
{
    unsetenv("LD_PRELOAD");
    execl("/bin/ls", "ls", "/proc/self/fd", (char*)NULL);
    return 1;
}

static const struct
{
    const char* m_pName;
    int (*m_pRun)(void);
} g_modes[] = {
    {"raw_clone", RawClone},
    {"fork", ForkAndExit},
    {"fork_in_thread", ForkInThread},
    {"fork_in_leaving_thread", ForkInLeavingThread},
    {"spawn", Spawn},
    {"exec", ExecList},
};

int main(int count, char** ppArguments)
{
    Check(count == 2, "usage");
    for (size_t i = 0; i < sizeof(g_modes) / sizeof(g_modes[0]); ++i)
    {
        if (strcmp(ppArguments[1], g_modes[i].m_pName) == 0)
        {
            return g_modes[i].m_pRun();
        }
    }
    Check(0, ppArguments[1]);
}
