// Preloaded ahead of the agent: passes every dlsym on to libc's as a call of its own. The loader judges
// RTLD_NEXT by the return address, so what it finds is next to *this* object: the agent's own entry.
#define _GNU_SOURCE
#include <dlfcn.h>

void* dlsym(void* pHandle, const char* pName)
{
    static void* (*pReal)(void*, const char*);
    if (!pReal)
    {
        pReal = (void* (*)(void*, const char*))dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.34");
    }
    return pReal(pHandle, pName);
}
