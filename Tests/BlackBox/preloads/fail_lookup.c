// Preloaded ahead of the agent: look-ups of the name ZORV_TEST_LOOKUP find nothing, as long as the file
// ZORV_TEST_LOOKUP_WHILE exists. Built twice, for dlsym and for dlvsym: each finds the real one of its kind
// through the other.
//
// The call goes on as a jump. The loader judges RTLD_NEXT by the return address, which must stay the agent's;
// otherwise the next object behind *this* one would be searched, and that is the agent itself.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int IsFailing(const char* pName)
{
    const char* pWanted = getenv("ZORV_TEST_LOOKUP");
    const char* pFile = getenv("ZORV_TEST_LOOKUP_WHILE");
    return pWanted && pFile && strcmp(pName, pWanted) == 0 && access(pFile, F_OK) == 0;
}

#ifdef ZORV_TEST_FAIL_DLVSYM
static void* (*g_pReal)(void*, const char*, const char*);

void* dlvsym(void* pHandle, const char* pName, const char* pVersion)
{
    if (!g_pReal)
    {
        g_pReal = (void* (*)(void*, const char*, const char*))dlsym(RTLD_NEXT, "dlvsym");
    }
    if (IsFailing(pName))
    {
        return NULL;
    }
    return g_pReal(pHandle, pName, pVersion);
}
#else
static void* (*g_pReal)(void*, const char*);

void* dlsym(void* pHandle, const char* pName)
{
    if (!g_pReal)
    {
        g_pReal = (void* (*)(void*, const char*))dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.34");
    }
    if (IsFailing(pName))
    {
        return NULL;
    }
    return g_pReal(pHandle, pName);
}
#endif
