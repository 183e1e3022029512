// Preloaded ahead of the agent: makes chosen calls of the agent's own functions fail.
//
//   ZORV_TEST_FAULT=NAME:N,NAME:N+   the N-th call of NAME, or every call from the N-th on, fails
//   ZORV_TEST_FAULT_MARK=PATH        this file appears when the first call was made to fail
//   ZORV_TEST_WRITE_MODE=short       a failing ZorvUmaWrite writes half of its bytes first
//   ZORV_TEST_WRITE_TO=TEXT          only writes to files whose path holds TEXT count
//
// Each replaced function is a jump through one common entry that saves and restores all argument registers, so
// that signatures do not matter: records passed by value and further arguments on the stack stay where they
// are.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

// number, name, result of a failed call, errno of a failed call
//
// The agent's files keep their numbers where the opening is replaced. ZORV_TEST_OWN_OPENING leaves it alone,
// for programs whose own numbers matter.
#ifdef ZORV_TEST_OWN_OPENING
#define FAULTS_OF_OPENING(X)
#else
#define FAULTS_OF_OPENING(X)                                                                                   \
    X(5, ZorvUmaShmOpen, -1, EACCES)                                                                           \
    X(12, fnOpenFile, -1, EACCES)
#endif
#define FAULTS(X)                                                                                              \
    X(0, ZorvUmaMalloc, 0, ENOMEM)                                                                             \
    X(1, ZorvUmaCalloc, 0, ENOMEM)                                                                             \
    X(2, ZorvUmaStrdup, 0, ENOMEM)                                                                             \
    X(3, ZorvUmaPthreadCreate, EAGAIN, 0)                                                                      \
    X(4, ZorvUmaClockGetTime, -1, EINVAL)                                                                      \
    X(6, ZorvUmaFtruncate, -1, EINVAL)                                                                         \
    X(7, ZorvUmaMmap, -1, ENOMEM)                                                                              \
    X(8, ZorvUmaSemInit, -1, ENOSYS)                                                                           \
    X(9, ZorvUmaSemPost, -1, EINVAL)                                                                           \
    X(10, ZorvUmaGetHostName, -1, ENAMETOOLONG)                                                                \
    X(11, ZorvUmaFileOpen, 0, EACCES)                                                                          \
    X(13, ZorvUmaGetLibHandles, 0, 0)                                                                          \
    X(14, ZorvUmaAllocateProfileInfo, 0, 0)                                                                    \
    X(15, ZorvUmaAllocateThreadInfo, 0, 0)                                                                     \
    X(16, ZorvUmaGetCurrentThreadName, 0, 0)                                                                   \
    X(17, ZorvUmaAllocateCsBuf, 0, 0)                                                                          \
    X(18, ZorvUmaInitThread, 0, 0)                                                                             \
    X(19, ZorvUmaCreateQueue, 0, 0)                                                                            \
    X(20, ZorvUmaEnqueue, 0, 0)                                                                                \
    X(21, ZorvUmaInsertIntoList, 0, 0)                                                                         \
    X(22, ZorvUmtAllocateNewBuffer, 0, 0)                                                                      \
    X(23, ZorvUmaGetFreeBuffer, 0, 0)                                                                          \
    X(24, ZorvUmaInitSharedMemory, 0, 0)                                                                       \
    X(25, ZorvUmaPthreadMutexInit, EAGAIN, 0)                                                                  \
    X(26, ZorvUmaFsync, -1, EIO)                                                                               \
    X(27, ZorvUmaClose, -1, EIO)                                                                               \
    X(28, ZorvUmaPthreadSetAffinity, EINVAL, 0)                                                                \
    X(29, ZorvUmaSysconf, -1, EINVAL)                                                                          \
    X(30, ZorvUmaAtexit, -1, ENOMEM)                                                                           \
    X(31, ZorvUmaWriteErrorFile, 0, 0)                                                                         \
    X(32, ZorvUmaCreateBuffers, 0, 0)                                                                          \
    X(33, ZorvUmaGetThreadName, -1, EFAULT)                                                                    \
    X(34, ZorvUmaSetCurrentThreadName, -1, EFAULT)                                                             \
    X(35, ZorvUmaGetenv, 0, 0)                                                                                 \
    X(36, ZorvUmaPthreadJoin, ESRCH, 0)                                                                        \
    FAULTS_OF_OPENING(X)

struct Fault
{
    const char* m_pName;
    long m_result;
    int m_errno;
    void* m_pReal;
    int m_calls;
};

static struct Fault g_faults[] = {
#define ROW(number, name, result, error) [number] = {#name, result, error, NULL, 0},
    FAULTS(ROW)};

static void Mark(void)
{
    const char* pPath = getenv("ZORV_TEST_FAULT_MARK");
    if (pPath)
    {
        syscall(SYS_close, syscall(SYS_open, pPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
}

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
                Mark();
                return 1;
            }
        }
        pSpec = strchr(pSpec, ',');
        pSpec += pSpec ? 1 : 0;
    }
    return 0;
}

// Called by the common entry: the real function, or null when this call fails. errno stays as it was.
__attribute__((used, visibility("hidden"))) void* FaultReal(unsigned number)
{
    int saved = errno;
    struct Fault* pFault = &g_faults[number];
    if (!pFault->m_pReal)
    {
        pFault->m_pReal = dlsym(RTLD_NEXT, pFault->m_pName);
    }
    int calls = __atomic_add_fetch(&pFault->m_calls, 1, __ATOMIC_SEQ_CST);
    void* pReal = IsFailing(pFault->m_pName, calls) ? NULL : pFault->m_pReal;
    errno = saved;
    return pReal;
}

__attribute__((used, visibility("hidden"))) long FaultResult(unsigned number)
{
    if (g_faults[number].m_errno)
    {
        errno = g_faults[number].m_errno;
    }
    return g_faults[number].m_result;
}

#define ENTRY(number, name, result, error)                                                                     \
    __asm__(".text\n.globl " #name "\n.type " #name ",@function\n" #name ":\n"                                 \
            "movl $" #number ", %r11d\n"                                                                       \
            "jmp FaultEntry\n");
FAULTS(ENTRY)

__asm__(".text\n"
        "FaultEntry:\n"
        "push %rdi\n push %rsi\n push %rdx\n push %rcx\n push %r8\n push %r9\n push %rax\n push %r11\n"
        "sub $8, %rsp\n"
        "movl %r11d, %edi\n"
        "call FaultReal\n"
        "movq %rax, %r10\n"
        "add $8, %rsp\n"
        "pop %r11\n pop %rax\n pop %r9\n pop %r8\n pop %rcx\n pop %rdx\n pop %rsi\n pop %rdi\n"
        "testq %r10, %r10\n"
        "jz 1f\n"
        "jmp *%r10\n"
        "1:\n"
        "sub $8, %rsp\n"
        "movl %r11d, %edi\n"
        "call FaultResult\n"
        "add $8, %rsp\n"
        "ret\n");

static int CountsAsWrite(int fd)
{
    const char* pWanted = getenv("ZORV_TEST_WRITE_TO");
    char link[64];
    char path[4096] = "";
    if (!pWanted)
    {
        return 1;
    }
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    return syscall(SYS_readlink, link, path, sizeof(path) - 1) > 0 && strstr(path, pWanted);
}

long ZorvUmaWrite(int fd, const void* pBytes, size_t count);

long ZorvUmaWrite(int fd, const void* pBytes, size_t count)
{
    static long (*pReal)(int, const void*, size_t);
    static int calls;
    int saved = errno;
    if (!pReal)
    {
        pReal = (long (*)(int, const void*, size_t))dlsym(RTLD_NEXT, "ZorvUmaWrite");
    }
    if (CountsAsWrite(fd) && IsFailing("ZorvUmaWrite", __atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST)))
    {
        const char* pMode = getenv("ZORV_TEST_WRITE_MODE");
        if (pMode && strcmp(pMode, "short") == 0)
        {
            errno = saved;
            return pReal(fd, pBytes, count / 2);
        }
        errno = ENOSPC;
        return -1;
    }
    errno = saved;
    return pReal(fd, pBytes, count);
}
