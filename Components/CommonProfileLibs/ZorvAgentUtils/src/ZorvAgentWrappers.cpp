#include "ZorvAgentWrappers.h"
#include "ZorvRawSyscall.h"

#include <cerrno>
#include <dlfcn.h>
#include <initializer_list>
#include <sys/prctl.h>

// libc exports this, and not atexit(3), which is a static stub of its development archive.
extern "C" int __cxa_atexit(void (*pFunction)(void*), void* pArg, void* pDsoHandle);

namespace
{

constexpr int MAX_EMPTY_WRITES = 16; // of one call

enum class SymbolGroup
{
    Libc,
    LibcOnly, // no search behind the agent when the handle is missing
    Threads,
    Rt,
};

struct WrapperSymbol
{
    const char* m_pName;
    SymbolGroup m_group;
    void* m_pAddress; // null until found
};

void* HandleOf(SymbolGroup group)
{
    void* pOwn = group == SymbolGroup::Threads ? g_handlers.m_pLibPthreadHandle
                 : group == SymbolGroup::Rt    ? g_handlers.m_pLibRtHandle
                                               : nullptr;
    if (pOwn != nullptr)
        return pOwn;
    return g_handlers.m_pLibcHandle != nullptr ? g_handlers.m_pLibcHandle : RTLD_NEXT;
}

void* FindSymbol(WrapperSymbol* pSymbol)
{
    if (pSymbol->m_group == SymbolGroup::LibcOnly && g_handlers.m_pLibcHandle == nullptr)
        return nullptr;
    // Two threads may look the same name up at once: both store the same address.
    void* pAddress = dlsym(HandleOf(pSymbol->m_group), pSymbol->m_pName);
    __atomic_store_n(&pSymbol->m_pAddress, pAddress, __ATOMIC_RELEASE);
    return pAddress;
}

// A first call, out of line: the program's errno survives the look-up.
ZORV_COLD void* FindSymbolOrComplain(WrapperSymbol* pSymbol)
{
    int savedErrno = errno;
    void* pAddress = FindSymbol(pSymbol);
    if (pAddress == nullptr)
        fprintf(stderr, "Failed to get the symbol address for function (%s).\n", pSymbol->m_pName);
    errno = savedErrno;
    return pAddress;
}

inline void* AddressOf(WrapperSymbol* pSymbol)
{
    void* pAddress = __atomic_load_n(&pSymbol->m_pAddress, __ATOMIC_ACQUIRE);
    return ZORV_LIKELY(pAddress != nullptr) ? pAddress : FindSymbolOrComplain(pSymbol);
}

} // namespace

#define ZORV_WRAPPER(group, wrapper, name, count, failure)                                                     \
    ZORV_WRAPPER_AS(group, wrapper, name, decltype(&::name), count, failure)
#define ZORV_WRAPPER_AS(group, wrapper, name, type, count, failure)                                            \
    static WrapperSymbol g_symbol##wrapper = {#name, SymbolGroup::group, nullptr};                             \
    extern "C" ZorvResult<type> wrapper(ZORV_PARAMETERS_##count(type))                                         \
    {                                                                                                          \
        auto pSymbol = reinterpret_cast<ZorvPointer<type>>(AddressOf(&g_symbol##wrapper));                     \
        if (ZORV_UNLIKELY(pSymbol == nullptr))                                                                 \
            return static_cast<ZorvResult<type>>(failure);                                                     \
        return pSymbol(ZORV_ARGUMENTS_##count);                                                                \
    }
#include "ZorvAgentWrappers.def"
#undef ZORV_WRAPPER
#undef ZORV_WRAPPER_AS

static WrapperSymbol g_symbolWrite = {"write", SymbolGroup::LibcOnly, nullptr};
static WrapperSymbol g_symbolGetThreadName = {"prctl", SymbolGroup::Libc, nullptr};
static WrapperSymbol g_symbolSetThreadName = {"prctl", SymbolGroup::Libc, nullptr};
static WrapperSymbol g_symbolTryMutexLock = {"pthread_mutex_trylock", SymbolGroup::Threads, nullptr};
static WrapperSymbol g_symbolAtexit = {"atexit", SymbolGroup::Libc, nullptr};

void ZorvUmaResolveWrappers()
{
    static WrapperSymbol* const symbols[] = {
#define ZORV_WRAPPER(group, wrapper, name, count, failure) &g_symbol##wrapper,
#define ZORV_WRAPPER_AS(group, wrapper, name, type, count, failure) &g_symbol##wrapper,
#include "ZorvAgentWrappers.def"
#undef ZORV_WRAPPER
#undef ZORV_WRAPPER_AS
        &g_symbolWrite,
        &g_symbolGetThreadName,
        &g_symbolSetThreadName,
        &g_symbolTryMutexLock,
    };
    int savedErrno = errno;
    for (WrapperSymbol* pSymbol : symbols)
        if (pSymbol->m_pAddress == nullptr)
            FindSymbol(pSymbol);
    errno = savedErrno;
}

int ZorvUmaTryMutexLock(pthread_mutex_t* pMutex)
{
    void* pAddress = g_symbolTryMutexLock.m_pAddress;
    if (pAddress == nullptr)
        pAddress = FindSymbol(&g_symbolTryMutexLock);
    return pAddress == nullptr ? EBUSY : reinterpret_cast<int (*)(pthread_mutex_t*)>(pAddress)(pMutex);
}

bool ZorvUmaHasEssentials()
{
    bool hasAll = true;
    for (WrapperSymbol* pSymbol :
         {&g_symbolZorvUmaFree, &g_symbolZorvUmaMemset, &g_symbolZorvUmaMemcpy,
          &g_symbolZorvUmaPthreadMutexInit, &g_symbolZorvUmaPthreadMutexLock,
          &g_symbolZorvUmaPthreadMutexUnlock, &g_symbolZorvUmaPthreadSelf, &g_symbolZorvUmaSysconf})
        hasAll = AddressOf(pSymbol) != nullptr && hasAll;
    return hasAll;
}

void* ZorvUmaResolvedClock()
{
    WrapperSymbol* pClock = &g_symbolZorvUmaClockGetTime;
    return pClock->m_pAddress != nullptr ? pClock->m_pAddress : FindSymbol(pClock);
}

extern "C" ssize_t ZorvUmaWrite(int fd, const void* pBuf, size_t count)
{
    if (pBuf == nullptr || fd < 0)
        return 0;
    auto pSymbol = reinterpret_cast<decltype(&::write)>(AddressOf(&g_symbolWrite));
    if (pSymbol == nullptr)
        return -1;
    if (count == 0)
        return 0;

    auto pPosition = static_cast<const char*>(pBuf);
    ssize_t written;
    int emptyWrites = 0;
    do
    {
        written = pSymbol(fd, pPosition, count);
        if (written > 0)
        {
            pPosition += written;
            count -= static_cast<size_t>(written);
        }
        if (written == 0)
            emptyWrites++;
        // A file that takes nothing and reports no error would be asked for ever.
    } while (count != 0 && emptyWrites < MAX_EMPTY_WRITES &&
             (written >= 0 || (written == -1 && errno == EINTR)));
    return written;
}

extern "C" int ZorvUmaGetThreadName(char* pName)
{
    auto pSymbol = reinterpret_cast<decltype(&::prctl)>(AddressOf(&g_symbolGetThreadName));
    return pSymbol == nullptr ? -1 : pSymbol(PR_GET_NAME, pName);
}

extern "C" int ZorvUmaSetCurrentThreadName(const char* pName)
{
    auto pSymbol = reinterpret_cast<decltype(&::prctl)>(AddressOf(&g_symbolSetThreadName));
    return pSymbol == nullptr ? -1 : pSymbol(PR_SET_NAME, pName);
}

extern "C" int ZorvUmaAtexit(void (*pFunction)())
{
    int savedErrno = errno;
    if (g_symbolAtexit.m_pAddress == nullptr)
        FindSymbol(&g_symbolAtexit);
    errno = savedErrno;
    if (g_symbolAtexit.m_pAddress != nullptr)
        return reinterpret_cast<int (*)(void (*)())>(g_symbolAtexit.m_pAddress)(pFunction);
    return __cxa_atexit(reinterpret_cast<void (*)(void*)>(pFunction), nullptr, nullptr);
}

// The variadic wrappers hand their list to the list-taking one.
#define ZORV_VARIADIC_WRAPPER(wrapper, listWrapper, parameters, arguments)                                     \
    extern "C" int wrapper parameters                                                                          \
    {                                                                                                          \
        va_list list;                                                                                          \
        va_start(list, pFormat);                                                                               \
        int result = listWrapper arguments;                                                                    \
        va_end(list);                                                                                          \
        return result;                                                                                         \
    }
ZORV_VARIADIC_WRAPPER(ZorvUmaPrintf, ZorvUmaVprintf, (const char* pFormat, ...), (pFormat, list))
ZORV_VARIADIC_WRAPPER(ZorvUmaFprintf, ZorvUmaVfprintf, (FILE * pStream, const char* pFormat, ...),
                      (pStream, pFormat, list))
ZORV_VARIADIC_WRAPPER(ZorvUmaSprintf, ZorvUmaVsprintf, (char* pStr, const char* pFormat, ...),
                      (pStr, pFormat, list))
ZORV_VARIADIC_WRAPPER(ZorvUmaSnprintf, ZorvUmaVsnprintf, (char* pStr, size_t size, const char* pFormat, ...),
                      (pStr, size, pFormat, list))
ZORV_VARIADIC_WRAPPER(ZorvUmaSscanf, ZorvUmaVsscanf, (const char* pStr, const char* pFormat, ...),
                      (pStr, pFormat, list))

extern "C" pid_t ZorvUmaGetTid()
{
    return static_cast<pid_t>(ZorvRawSyscall(SYS_gettid));
}

extern "C" long ZorvUmaPerfEventOpen(struct perf_event_attr* pAttr, pid_t pid, int cpu, int groupFd,
                                     unsigned long flags)
{
    long result = ZorvRawSyscall(SYS_perf_event_open, reinterpret_cast<long>(pAttr), pid, cpu, groupFd,
                                 static_cast<long>(flags));
    if (result >= 0)
        return result;
    errno = static_cast<int>(-result);
    return -1;
}
