// Stands behind the agent (LD_PRELOAD=agent:this) in place of libc: each old and each new version of an
// interposed name reports itself, its address, and the object that called it, and does nothing else.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "Versions.h"

#define ZORV_WITHOUT_LOADER

static int Report(const char* pName, const char* pVersion, const void* pFunction, const void* pCaller)
{
    Dl_info caller = {0};
    dladdr(pCaller, &caller);
    const char* pSlash = caller.dli_fname != NULL ? strrchr(caller.dli_fname, '/') : NULL;
    dprintf(STDOUT_FILENO, "%s %s %lx %s\n", pName, pVersion, (unsigned long)pFunction,
            pSlash != NULL ? pSlash + 1 : "?");
    if (strcmp(pName, "pthread_exit") == 0 || strcmp(pName, "quick_exit") == 0)
    {
        // These two may not return, nor end by way of the agent.
        __asm__ volatile("syscall" : : "a"(231), "D"(0));
    }
    return 0;
}

#define ZORV_FAKE(name, suffix, at)                                                                            \
    int name##_##suffix(void)                                                                                  \
    {                                                                                                          \
        return Report(#name, ZORV_VERSION_##suffix, (const void*)name##_##suffix,                              \
                      __builtin_return_address(0));                                                            \
    }                                                                                                          \
    __asm__(".symver " #name "_" #suffix ", " #name at ZORV_VERSION_##suffix);

#define ZORV_MEMBER(function, name, old, new) ZORV_FAKE(name, old, "@") ZORV_FAKE(name, new, "@@")
#define ZORV_SINGLE(function, name)
#include "Members.def"

// Single entries that a program calls whatever version it is bound to.
#define ZORV_FAKE_SINGLE(name)                                                                                 \
    int name##_fake(void)                                                                                      \
    {                                                                                                          \
        return Report(#name, "GLIBC_2.2.5", (const void*)name##_fake, __builtin_return_address(0));            \
    }                                                                                                          \
    __asm__(".symver " #name "_fake, " #name "@@GLIBC_2.2.5");
ZORV_FAKE_SINGLE(pthread_mutex_lock)
ZORV_FAKE_SINGLE(pthread_exit)
