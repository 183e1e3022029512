// What the sampled programs share: their own CPU clock, signals that carry the timer's code, and functions
// whose address range they can tell the test.
#pragma once

#include "blackbox.h"
#include <dlfcn.h>
#include <signal.h>
#include <time.h>

enum
{
    SAMPLING_SIGNAL = 44
};

// A function of its own section, so that linker symbols bound it: SAY_RANGE tells the test its addresses.
#define RANGED(name) __attribute__((noinline, noclone, section("in_" #name)))
#define SAY_RANGE(name)                                                                                        \
    do                                                                                                         \
    {                                                                                                          \
        extern char __start_in_##name[], __stop_in_##name[];                                                   \
        Say("range %s %lu %lu", #name, (unsigned long)__start_in_##name, (unsigned long)__stop_in_##name);     \
    } while (0)

static inline uint64_t CpuNs(void)
{
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
}

static inline uint64_t WallNs(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
}

static inline void BurnNs(uint64_t ns)
{
    for (uint64_t end = CpuNs() + ns; CpuNs() < end;)
    {
    }
}

// The agent's process-wide record, null without the agent. A forked child has one of its own; the look-up is
// its parent's, because the loader may be locked there for ever.
static inline void* AgentRecord(void)
{
    static void* (*pGet)(void);
    static int isSought;
    if (!isSought)
    {
        pGet = (void* (*)(void))dlsym(RTLD_DEFAULT, "ZorvUmaGetProfileInfo");
        isSought = 1;
    }
    return pGet ? pGet() : NULL;
}

// Straight into the kernel: no function of libc, and none of the agent, stands in the interrupted stack.
__attribute__((always_inline)) static inline long QueueSignal(pid_t pid, pid_t tid, int sig,
                                                              const siginfo_t* pInfo)
{
    long result;
    register long info __asm__("r10") = (long)pInfo;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "0"((long)SYS_rt_tgsigqueueinfo), "D"((long)pid), "S"((long)tid), "d"((long)sig),
                       "r"(info)
                     : "rcx", "r11", "memory");
    return result;
}

// A signal as the timer of the thread would send it. False when there is no agent, no such thread, or no room.
__attribute__((always_inline)) static inline int QueueSample(pid_t pid, pid_t tid, void* pRecord, int overrun)
{
    siginfo_t info;
    memset(&info, 0, sizeof(info));
    info.si_signo = SAMPLING_SIGNAL;
    info.si_code = SI_TIMER;
    info.si_overrun = overrun;
    info.si_value.sival_ptr = pRecord;
    return pRecord && QueueSignal(pid, tid, SAMPLING_SIGNAL, &info) == 0;
}
