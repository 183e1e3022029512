// Preloaded ahead of the agent, for a program that puts its own files at 510 to 530 in that order. The agent's
// writer begins when the program has reached 514, the program goes on when the writer is about to close a
// number, and that waits until the program has reached 530.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#define PATIENCE 200000 // steps, before it counts as hung

static int g_isClosing;

static void Step(void)
{
    const struct timespec step = {0, 100000};
    syscall(SYS_nanosleep, &step, NULL);
}

static void WaitForFile(int number)
{
    char link[64];
    char path[4096];
    char name[32];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", number);
    snprintf(name, sizeof(name), "/mine-%d", number);
    for (int i = 0; i < PATIENCE; ++i)
    {
        long length = syscall(SYS_readlink, link, path, sizeof(path) - 1);
        path[length > 0 ? length : 0] = 0;
        if (strstr(path, name))
        {
            return;
        }
        Step();
    }
}

void* ZorvUmaWriterThread(void* pArgument);
void* ZorvUmaWriterThread(void* pArgument)
{
    WaitForFile(514);
    return ((void* (*)(void*))dlsym(RTLD_NEXT, "ZorvUmaWriterThread"))(pArgument);
}

int ZorvUmaClose(int fd);
int ZorvUmaClose(int fd)
{
    static int (*pReal)(int);
    if (!pReal)
    {
        pReal = (int (*)(int))dlsym(RTLD_NEXT, "ZorvUmaClose");
    }
    if (syscall(SYS_gettid) != getpid())
    {
        __atomic_store_n(&g_isClosing, 1, __ATOMIC_SEQ_CST);
        WaitForFile(530);
    }
    return pReal(fd);
}

int dup2(int fd, int number)
{
    for (int i = 0; number == 515 && i < PATIENCE && !__atomic_load_n(&g_isClosing, __ATOMIC_SEQ_CST); ++i)
    {
        Step();
    }
    return (int)syscall(SYS_dup2, fd, number);
}
