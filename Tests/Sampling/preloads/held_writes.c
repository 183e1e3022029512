// Preloaded ahead of the agent: a write to the sample file waits while the file ZORV_TEST_HOLD exists.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static int IsSampleFile(int fd)
{
    char link[64];
    char path[4096] = "";
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    return syscall(SYS_readlink, link, path, sizeof(path) - 1) > 0 && strstr(path, ".ums");
}

long ZorvUmaWrite(int fd, const void* pBytes, size_t count);

long ZorvUmaWrite(int fd, const void* pBytes, size_t count)
{
    const char* pHold = getenv("ZORV_TEST_HOLD");
    const struct timespec step = {0, 1000000};
    while (pHold && IsSampleFile(fd) && syscall(SYS_access, pHold, F_OK) == 0)
    {
        syscall(SYS_nanosleep, &step, NULL);
    }
    return ((long (*)(int, const void*, size_t))dlsym(RTLD_NEXT, "ZorvUmaWrite"))(fd, pBytes, count);
}
