// Preloaded ahead of the agent: closes the number of a file in the moment before the first large write to it, as a
// program that closes every number may.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

ssize_t ZorvUmaWrite(int fd, const void* pBuffer, size_t count);
ssize_t ZorvUmaWrite(int fd, const void* pBuffer, size_t count)
{
    static ssize_t (*pReal)(int, const void*, size_t);
    static int isClosed;
    if (!pReal)
    {
        pReal = (ssize_t(*)(int, const void*, size_t))dlsym(RTLD_NEXT, "ZorvUmaWrite");
    }
    if (count > 16384 && !__atomic_exchange_n(&isClosed, 1, __ATOMIC_SEQ_CST))
    {
        syscall(SYS_close, fd);
    }
    return pReal(fd, pBuffer, count);
}
