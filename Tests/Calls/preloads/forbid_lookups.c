// Preloaded ahead of the agent: whoever looks for the next definition of a name finds nothing, until
// AllowLookUps is called. Look-ups through a handle, such as those of the agent's own wrappers, go on as usual,
// and so does the one that opens these handles.
//
// Built twice, for dlsym and for dlvsym: each finds the real one of its kind through the other. The call goes
// on as a jump: the loader judges RTLD_NEXT by the return address, which must stay the caller's.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <string.h>

static int g_isAllowed;

static int IsForbidden(const void* pHandle, const char* pName)
{
    return pHandle == RTLD_NEXT && !g_isAllowed && strcmp(pName, "dlopen") != 0;
}

void AllowLookUps(void);

void AllowLookUps(void)
{
    g_isAllowed = 1;
}

#ifdef ZORV_TEST_FORBID_DLVSYM
static void* (*g_pReal)(void*, const char*, const char*);

void* dlvsym(void* pHandle, const char* pName, const char* pVersion)
{
    if (!g_pReal)
    {
        g_pReal = (void* (*)(void*, const char*, const char*))dlsym(RTLD_NEXT, "dlvsym");
    }
    if (IsForbidden(pHandle, pName))
    {
        return 0;
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
    if (IsForbidden(pHandle, pName))
    {
        return 0;
    }
    return g_pReal(pHandle, pName);
}
#endif
