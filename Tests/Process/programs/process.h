// What the programs of this folder share: traced work, children that are waited for, and modes by name.
#pragma once

#include "blackbox.h"
#include <dlfcn.h>
#include <sys/wait.h>

// Where the trace of Work is recognised by.
static inline unsigned long WorkAddress(void)
{
    void* pLibc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    return (unsigned long)dlsym(pLibc, "lseek");
}

// So many traced calls that leave nothing behind: one record each under the I/O class.
static inline void Work(int calls)
{
    for (int i = 0; i < calls; ++i)
    {
        lseek(-1, i, SEEK_SET);
    }
}

// Tells how a child ended, in the words of a shell: its status, or 1000 plus the signal.
static inline int StatusOf(pid_t child)
{
    int status = 0;
    Check(child > 0 && waitpid(child, &status, 0) == child, "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

struct Mode
{
    const char* m_pName;
    int (*m_pRun)(void);
};

static inline int RunMode(const struct Mode* pModes, size_t count, const char* pName)
{
    for (size_t i = 0; i < count; ++i)
    {
        if (strcmp(pModes[i].m_pName, pName) == 0)
        {
            return pModes[i].m_pRun();
        }
    }
    Check(0, pName);
    return 1;
}

#define RUN_MODE(modes, name) RunMode(modes, sizeof(modes) / sizeof((modes)[0]), name)
