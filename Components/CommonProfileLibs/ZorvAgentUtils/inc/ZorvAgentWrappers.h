// The agent's private road to libc. The agent interposes many libc names; what it calls for its own work must
// reach libc's real functions, never its own interposers. Each wrapper finds its function once, through a
// handle of the loaded libc, libpthread or librt (dlsym(3)), and forwards every later call.
//
// Results, errno and errors are libc's own. While a name cannot be found, each call prints
// "Failed to get the symbol address for function (%s).\n" to standard error and gives the row's failure value.
// Any thread may call a wrapper; none takes a lock. A first call runs dlsym: see ZorvUmaResolveWrappers.
#pragma once

#include "ZorvFunctionTypes.h"

#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <link.h>
#include <linux/perf_event.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

struct ZorvLibHandlers
{
    void* m_pLibcHandle;
    void* m_pLibPthreadHandle; // null where libc holds the threads functions
    void* m_pLibRtHandle;      // null where libc holds the real-time functions
};
using ZorvLibHandlersT = ZorvLibHandlers;

extern "C"
{
    extern __attribute__((visibility("hidden"))) ZorvLibHandlers g_handlers;

#define ZORV_WRAPPER(group, wrapper, name, count, failure)                                                     \
    ZORV_WRAPPER_AS(group, wrapper, name, decltype(&::name), count, failure)
#define ZORV_WRAPPER_AS(group, wrapper, name, type, count, failure)                                            \
    ZORV_EXPORT ZorvResult<type> wrapper(ZORV_PARAMETERS_##count(type));
#include "ZorvAgentWrappers.def"
#undef ZORV_WRAPPER
#undef ZORV_WRAPPER_AS

    // Repeats on EINTR and continues a partial write; the result is that of the last write(2), so of a write
    // done in pieces the size of the last piece. 0 for a null buffer, a negative descriptor or a count of 0.
    ZORV_EXPORT ssize_t ZorvUmaWrite(int fd, const void* pBuf, size_t count);
    ZORV_EXPORT int ZorvUmaGetThreadName(char* pName);              // prctl(PR_GET_NAME)
    ZORV_EXPORT int ZorvUmaSetCurrentThreadName(const char* pName); // prctl(PR_SET_NAME)
    ZORV_EXPORT int ZorvUmaAtexit(void (*pFunction)());
    ZORV_EXPORT int ZorvUmaPrintf(const char* pFormat, ...);
    ZORV_EXPORT int ZorvUmaFprintf(FILE* pStream, const char* pFormat, ...);
    ZORV_EXPORT int ZorvUmaSprintf(char* pStr, const char* pFormat, ...);
    ZORV_EXPORT int ZorvUmaSnprintf(char* pStr, size_t size, const char* pFormat, ...);
    ZORV_EXPORT int ZorvUmaSscanf(const char* pStr, const char* pFormat, ...);
    ZORV_EXPORT pid_t ZorvUmaGetTid(); // the instruction itself, gettid(2)
    ZORV_EXPORT long ZorvUmaPerfEventOpen(struct perf_event_attr* pAttr, pid_t pid, int cpu, int groupFd,
                                          unsigned long flags);

    // Finds the handles among the loaded objects, the last match winning; true when libc's is there. A forked
    // child keeps its parent's: it must not walk the loader's list again.
    ZORV_EXPORT bool ZorvUmaGetLibHandles();
    ZORV_EXPORT int fnLibLoadCallback(struct dl_phdr_info* pInfo, size_t size,
                                      void* pData); // dl_iterate_phdr(3)
    ZORV_EXPORT bool ZorvUmaCloseLibHandles();
}

// Whether the address lies in the agent itself.
bool ZorvUmaIsOwn(const void* pAddress);

// Whether libc itself answers look-ups. An object that does so in its place is shown each one when it is due.
bool ZorvUmaIsLibcAsked();

// What stands behind the agent under that name, of that version unless it is null; null where nothing does.
void* ZorvUmaFindNext(const char* pName, const char* pVersion);

// The handle of an object that is already loaded, or null; through the loader's own dlopen(3).
void* ZorvUmaOpenLoadedObject(const char* pName);
// Any object, with the given flags, likewise.
void* ZorvUmaOpenObject(const char* pName, int flags);

// Looks every wrapper up, silently, before the program can be interrupted inside a first call.
void ZorvUmaResolveWrappers();
// libc's pthread_mutex_trylock(3); EBUSY while it cannot be found. Says nothing.
int ZorvUmaTryMutexLock(pthread_mutex_t* pMutex);
// Whether the names are there without which nothing of the agent may run: half a lock would hang the program.
// Those that are missing are told like in a call.
bool ZorvUmaHasEssentials();
// libc's clock_gettime itself, for the path of a record; null while it cannot be found. Says nothing.
void* ZorvUmaResolvedClock();
// The kernel's own clock_gettime, vdso(7), which never touches errno; null where there is none, or where libc's
// is not the one that answers to the name.
void* ZorvUmaKernelsClock();
