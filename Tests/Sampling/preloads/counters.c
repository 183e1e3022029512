// Preloaded ahead of the agent: answers for the files that say what the machine can count, so that core
// counters are counters of the kernel's own which every machine has.
//
//   ZORV_TEST_CPU_TYPE=N      the type of the "cpu" counters; 1 makes them software events
//   ZORV_TEST_WATCHDOG=N      what the NMI watchdog's file says
//   ZORV_TEST_NO_ROOM=N[+]    the N-th opening of a counter, or every one from it on, finds no free descriptor
//   ZORV_TEST_OPENED=PATH     one line for every opening of a counter
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/perf_event.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

static int FileSaying(const char* pText)
{
    int fd = (int)syscall(SYS_memfd_create, "answer", MFD_CLOEXEC);
    syscall(SYS_write, fd, pText, strlen(pText));
    syscall(SYS_lseek, fd, 0, SEEK_SET);
    return fd;
}

int fnOpenFile(const char* pPath, int flags, mode_t mode);

int fnOpenFile(const char* pPath, int flags, mode_t mode)
{
    static const struct
    {
        const char* m_pPath;
        const char* m_pVariable;
    } answers[] = {{"/sys/bus/event_source/devices/cpu/type", "ZORV_TEST_CPU_TYPE"},
                   {"/proc/sys/kernel/nmi_watchdog", "ZORV_TEST_WATCHDOG"}};
    for (size_t i = 0; i < sizeof(answers) / sizeof(answers[0]); ++i)
    {
        const char* pText = getenv(answers[i].m_pVariable);
        if (pText && strcmp(pPath, answers[i].m_pPath) == 0)
        {
            return FileSaying(pText);
        }
    }
    return ((int (*)(const char*, int, mode_t))dlsym(RTLD_NEXT, "fnOpenFile"))(pPath, flags, mode);
}

#ifndef ZORV_TEST_FILES_ALONE

static int IsWithoutRoom(int calls)
{
    const char* pSpec = getenv("ZORV_TEST_NO_ROOM");
    char* pEnd = NULL;
    long wanted = pSpec ? strtol(pSpec, &pEnd, 10) : 0;
    return wanted > 0 && (calls == wanted || (*pEnd == '+' && calls > wanted));
}

static void Note(const struct perf_event_attr* pAttributes, int groupFd, long result)
{
    const char* pPath = getenv("ZORV_TEST_OPENED");
    struct rlimit limit = {0, 0};
    char line[256];
    if (!pPath)
    {
        return;
    }
    getrlimit(RLIMIT_NOFILE, &limit);
    int length = snprintf(line, sizeof(line), "tid=%ld type=%u config=%llu leader=%d done=%d soft=%lu\n",
                          syscall(SYS_gettid), pAttributes->type, (unsigned long long)pAttributes->config,
                          groupFd == -1, result >= 0, (unsigned long)limit.rlim_cur);
    long fd = syscall(SYS_open, pPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    syscall(SYS_write, fd, line, (size_t)length);
    syscall(SYS_close, fd);
}

long ZorvUmaPerfEventOpen(struct perf_event_attr* pAttributes, pid_t pid, int cpu, int groupFd,
                          unsigned long flags);

long ZorvUmaPerfEventOpen(struct perf_event_attr* pAttributes, pid_t pid, int cpu, int groupFd,
                          unsigned long flags)
{
    static int calls;
    long result;
    if (IsWithoutRoom(__atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST)))
    {
        errno = EMFILE;
        result = -1;
    }
    else
    {
        result = syscall(SYS_perf_event_open, pAttributes, pid, cpu, groupFd, flags);
        if (result < 0 && (errno == EACCES || errno == EPERM))
        {
            // Not everybody may count inside the kernel; what the program does in user mode is enough here.
            struct perf_event_attr attributes = *pAttributes;
            attributes.exclude_kernel = 1;
            result = syscall(SYS_perf_event_open, &attributes, pid, cpu, groupFd, flags);
        }
    }
    int saved = errno;
    Note(pAttributes, groupFd, result);
    errno = saved;
    return result;
}

#endif
