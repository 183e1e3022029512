// A system call by its instruction. The libc function `syscall` is one of the names that the agent interposes,
// and these calls must stay out of every interposer, of errno and of cancellation. syscall(2).
#pragma once

#include <csignal>
#include <sys/syscall.h>

// The kernel's result: negative values down to -4095 are errors (-errno).
inline long ZorvRawSyscall(long number, long a1 = 0, long a2 = 0, long a3 = 0, long a4 = 0, long a5 = 0,
                           long a6 = 0)
{
    long result;
    register long r10 asm("r10") = a4;
    register long r8 asm("r8") = a5;
    register long r9 asm("r9") = a6;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a1), "S"(a2), "d"(a3), "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
    return result;
}

// The calling thread's mask, past the interposers of pthread_sigmask(3). sigfillset(3) leaves out what libc
// keeps open for itself, and so does every set that is made with it.
inline void ZorvRawSigmask(int how, const sigset_t* pSet, sigset_t* pOld)
{
    ZorvRawSyscall(SYS_rt_sigprocmask, how, reinterpret_cast<long>(pSet), reinterpret_cast<long>(pOld),
                   _NSIG / 8);
}
