// How the real functions are found: the handles of the loaded libraries, and what stands behind the agent.

#include "ZorvAgentWrappers.h"
#include "ZorvRawSyscall.h"

#include <dlfcn.h>
#include <initializer_list>

ZorvLibHandlers g_handlers;

// Where this object begins and ends; the linker's own names.
extern "C" __attribute__((visibility("hidden"))) const char __ehdr_start[];
extern "C" __attribute__((visibility("hidden"))) const char _end[];

// Not by dladdr, which would search all symbols, in the start of every process.
bool ZorvUmaIsOwn(const void* pAddress)
{
    return pAddress >= &__ehdr_start[0] && pAddress < &_end[0];
}

bool ZorvUmaIsLibcAsked()
{
    auto pLibc = static_cast<const struct link_map*>(g_handlers.m_pLibcHandle);
    for (void* pLookUp : {reinterpret_cast<void*>(&dlsym), reinterpret_cast<void*>(&dlvsym)})
    {
        dl_find_object place; // dladdr would search all of libc's symbols, in the start of every process
        if (_dl_find_object(pLookUp, &place) != 0 || place.dlfo_link_map != pLibc)
            return false;
    }
    return true;
}

void* ZorvUmaFindNext(const char* pName, const char* pVersion)
{
    void* pFound = pVersion == nullptr ? dlsym(RTLD_NEXT, pName) : dlvsym(RTLD_NEXT, pName, pVersion);
    if (!ZorvUmaIsOwn(pFound))
        return pFound;
    // An object ahead of the agent forwards look-ups, and what is next to that one is the agent.
    void* pLookUp = dlvsym(RTLD_NEXT, pVersion == nullptr ? "dlsym" : "dlvsym", "GLIBC_2.2.5");
    if (pLookUp == nullptr)
        return nullptr;
    return pVersion == nullptr ? reinterpret_cast<decltype(&dlsym)>(pLookUp)(RTLD_NEXT, pName)
                               : reinterpret_cast<decltype(&dlvsym)>(pLookUp)(RTLD_NEXT, pName, pVersion);
}

// The loader's own dlopen: the agent interposes the name.
void* ZorvUmaOpenObject(const char* pName, int flags)
{
    static void* (*pOpen)(const char*, int);
    if (pOpen == nullptr)
        pOpen = reinterpret_cast<void* (*)(const char*, int)>(ZorvUmaFindNext("dlopen", nullptr));
    return pOpen == nullptr ? nullptr : pOpen(pName, flags);
}

// Through what an object ahead of the agent puts in the place of dlopen(3), where there is one.
void* ZorvUmaOpenLoadedObject(const char* pName)
{
    constexpr int mode = RTLD_NOW | RTLD_NOLOAD;
    void* pOpen = dlsym(RTLD_DEFAULT, "dlopen");
    if (pOpen == nullptr || ZorvUmaIsOwn(pOpen))
        return ZorvUmaOpenObject(pName, mode);
    return reinterpret_cast<void* (*)(const char*, int)>(pOpen)(pName, mode);
}

void* ZorvUmaKernelsClock()
{
    if (!ZorvUmaIsLibcAsked())
        return nullptr;
    void* pKernels = ZorvUmaOpenObject("linux-vdso.so.1", RTLD_NOW | RTLD_NOLOAD);
    void* pClock = pKernels == nullptr ? nullptr : dlsym(pKernels, "__vdso_clock_gettime");
    dlerror(); // what is not there is not the program's error
    return pClock;
}

// The same for the walk over the loaded objects; found also where one kind of look-up is answered with nothing.
static void WalkLoadedObjects()
{
    void* pWalk = reinterpret_cast<void*>(&dl_iterate_phdr);
    if (ZorvUmaIsOwn(pWalk))
        pWalk = ZorvUmaFindNext("dl_iterate_phdr", nullptr);
    if (pWalk == nullptr)
        pWalk = ZorvUmaFindNext("dl_iterate_phdr", "GLIBC_2.2.5");
    if (pWalk != nullptr)
        reinterpret_cast<decltype(&dl_iterate_phdr)>(pWalk)(fnLibLoadCallback, &g_handlers);
}

extern "C" int fnLibLoadCallback(struct dl_phdr_info* pInfo, size_t, void* pData)
{
    if (pInfo == nullptr || pData == nullptr || pInfo->dlpi_name == nullptr)
        return 0;
    auto pHandlers = static_cast<ZorvLibHandlers*>(pData);
    if (strstr(pInfo->dlpi_name, "libc.so") != nullptr)
        pHandlers->m_pLibcHandle = ZorvUmaOpenLoadedObject(pInfo->dlpi_name);
    if (strstr(pInfo->dlpi_name, "libpthread.so") != nullptr)
        pHandlers->m_pLibPthreadHandle = ZorvUmaOpenLoadedObject(pInfo->dlpi_name);
    if (strstr(pInfo->dlpi_name, "librt.so") != nullptr)
        pHandlers->m_pLibRtHandle = ZorvUmaOpenLoadedObject(pInfo->dlpi_name);
    return 0;
}

extern "C" bool ZorvUmaGetLibHandles()
{
    static pid_t walkerPid;
    auto pid = static_cast<pid_t>(ZorvRawSyscall(SYS_getpid));
    bool isForkedChild = walkerPid != 0 && walkerPid != pid;
    if (isForkedChild && g_handlers.m_pLibcHandle != nullptr)
        return true;
    walkerPid = pid;
    WalkLoadedObjects();
    return g_handlers.m_pLibcHandle != nullptr;
}

extern "C" bool ZorvUmaCloseLibHandles()
{
    for (void* pHandle : {g_handlers.m_pLibcHandle, g_handlers.m_pLibPthreadHandle, g_handlers.m_pLibRtHandle})
        if (pHandle != nullptr)
            dlclose(pHandle);
    return true;
}
