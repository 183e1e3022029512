// Interposers of the thread and synchronisation calls, expanded from their table.
//
// Each pattern is written once. Its untraced half is two loads, two tests and a jump; its traced half is out of line:
// before the real call a provisional record is parked, so that a thread which never comes back still shows its wait,
// and after it the record is completed or withdrawn. Arguments, result and errno are the program's.

#include "ZorvUserModeTraceInterposers.h"

#include <cerrno>
#include <dlfcn.h>
#include <initializer_list>

// ---- real functions --------------------------------------------------------------------------------------

static void* FindReal(ZorvEntryPoint* pEntry)
{
    void* pReal = pEntry->m_pVersion == nullptr ? dlsym(RTLD_NEXT, pEntry->m_pName)
                                                : dlvsym(RTLD_NEXT, pEntry->m_pName, pEntry->m_pVersion);
    __atomic_store_n(&pEntry->m_pReal, pReal, __ATOMIC_RELEASE);
    return pReal;
}

ZORV_COLD void* ZorvFindReal(ZorvEntryPoint* pEntry)
{
    int savedErrno = errno;
    void* pReal = FindReal(pEntry);
    if (pReal == nullptr)
        ZorvUmaFprintf(stderr, "Failed to get the symbol address for (%s).\n", pEntry->m_pName);
    errno = savedErrno;
    return pReal;
}

// ---- halves of a traced call -----------------------------------------------------------------------------

static inline int* ErrnoPlace()
{
    int* pErrno = t_zorvState.m_pErrno;
    return ZORV_LIKELY(pErrno != nullptr) ? pErrno : &errno;
}

static inline void SignalFence()
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

static inline void BeginTiming(ZorvTracedCall* pCall, ZorvUmaProfileInfo* pProfileInfo)
{
    pCall->m_pProfileInfo = pProfileInfo;
    pCall->m_pCacheBuf = nullptr;
    pCall->m_lostByCache = 0;
    pCall->m_startPauseId = ZorvUmaCurrentPauseId(pProfileInfo);
    pCall->m_startTime = ZorvUmaGetTime();
}

// Whether the call counts: not wholly inside one pause, and as long as the class wants.
static inline bool IsRecorded(const ZorvTracedCall* pCall, uint64_t endTime)
{
    return !ZorvUmaIsSamePauseId(pCall->m_startPauseId, ZorvUmaCurrentPauseId(pCall->m_pProfileInfo)) &&
           endTime - pCall->m_startTime >= ZorvUmtGetEventThreshold(pCall->m_pProfileInfo, ZORV_UMT_EVENT_PTHREAD);
}

static __attribute__((noinline)) void BeginBlocking(ZorvTracedCall* pCall, ZorvUmaProfileInfo* pProfileInfo,
                                                    uint64_t lockAddress, void* pReal, ZorvPthreadType type)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    BeginTiming(pCall, pProfileInfo);
    uint32_t lostBefore = t_zorvState.m_lostCount;
    // What anyone else appends from here on shows as a difference: the provisional record is gone then.
    pCall->m_appendCount = t_zorvState.m_appendCount + 1;
    pCall->m_pCacheBuf = ZorvUmtCachePthreadRecord(pProfileInfo, pCall->m_startTime, lockAddress,
                                                   reinterpret_cast<uint64_t>(pReal), type);
    if (ZORV_UNLIKELY(pCall->m_pCacheBuf == nullptr))
        pCall->m_lostByCache = t_zorvState.m_lostCount - lostBefore;
    *pErrno = savedErrno;
}

// A signal handler of the program has written over the provisional record: a whole record is due instead, and what
// such a handler may have left parked, by a jump out of itself, is withdrawn.
static ZORV_COLD void ForgetCache(ZorvTracedCall* pCall, bool isNested)
{
    pCall->m_pCacheBuf = nullptr;
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (!isNested && pThreadInfo != nullptr && pThreadInfo->m_pUmtBuf != nullptr)
        ZorvStoreFenced(&pThreadInfo->m_pUmtBuf->m_cacheLen, 0U);
}

// The provisional record found no room and was counted as lost; the record of the call counts for itself.
static ZORV_COLD void TakeBackLost(ZorvTracedCall* pCall)
{
    __atomic_sub_fetch(&pCall->m_pProfileInfo->m_umtData.m_lostRecordCount, pCall->m_lostByCache, __ATOMIC_SEQ_CST);
}

static __attribute__((noinline)) void EndBlocking(ZorvTracedCall* pCall, uint64_t lockAddress, void* pReal,
                                                  int result, ZorvPthreadType type)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    uint64_t endTime = ZorvUmaGetTime();
    if (ZORV_UNLIKELY(pCall->m_lostByCache != 0))
        TakeBackLost(pCall);

    // From here a handler's records go to the spare buffer, and the provisional record stays ours.
    bool isNested = t_zorvState.m_isAppending;
    t_zorvState.m_isAppending = true;
    SignalFence();
    if (ZORV_UNLIKELY(pCall->m_appendCount != t_zorvState.m_appendCount))
        ForgetCache(pCall, isNested);
    if (ZORV_UNLIKELY(pCall->m_pCacheBuf == nullptr))
        t_zorvState.m_isAppending = isNested;

    if (IsRecorded(pCall, endTime))
        ZorvUmtCapturePthreadRecord(pCall->m_pProfileInfo, pCall->m_startTime, endTime, lockAddress,
                                    reinterpret_cast<uint64_t>(pReal), result, type, pCall->m_pCacheBuf);
    if (ZORV_LIKELY(pCall->m_pCacheBuf != nullptr))
        ZorvStoreFenced(&pCall->m_pCacheBuf->m_cacheLen, 0U);
    SignalFence();
    t_zorvState.m_isAppending = isNested;
    *pErrno = savedErrno;
}

// ---- deadlines -------------------------------------------------------------------------------------------

// The value as a double would hold it. In integers: the program may have floating-point exceptions unmasked, and its
// status flags are its own.
static unsigned __int128 RoundToDouble(unsigned __int128 value)
{
    constexpr int mantissaBits = 53;
    auto high = static_cast<uint64_t>(value >> 64);
    auto low = static_cast<uint64_t>(value);
    int width = high != 0 ? 128 - __builtin_clzll(high) : low != 0 ? 64 - __builtin_clzll(low) : 0;
    if (width <= mantissaBits)
        return value;
    int dropped = width - mantissaBits;
    unsigned __int128 unit = static_cast<unsigned __int128>(1) << dropped;
    unsigned __int128 rest = value & (unit - 1);
    value -= rest;
    bool isOdd = (value & unit) != 0;
    if (rest > unit / 2 || (rest == unit / 2 && isOdd))
        value += unit;
    return value;
}

// Nanoseconds of a deadline, computed in double precision; the largest number where they do not fit.
static uint64_t DeadlineNs(const timespec* pDeadline)
{
    if (pDeadline == nullptr)
        return 0;
    unsigned __int128 seconds = RoundToDouble(static_cast<uint64_t>(pDeadline->tv_sec));
    unsigned __int128 sum = RoundToDouble(RoundToDouble(seconds * 1000000000U) +
                                          RoundToDouble(static_cast<uint64_t>(pDeadline->tv_nsec)));
    return sum >> 64 != 0 ? UINT64_MAX : static_cast<uint64_t>(sum);
}

// ---- patterns --------------------------------------------------------------------------------------------

// What one traced call works with.
struct TracedCallTarget
{
    ZorvUmaProfileInfo* m_pProfileInfo;
    void* m_pReal;
    uint64_t m_lockAddress;
    ZorvPthreadType m_type;
};

template <typename First, typename... Rest> static inline uint64_t LockAddress(First first, Rest...)
{
    return (uint64_t)first; // a pointer or a thread handle
}

template <typename... P> static inline auto LastOf(P... arguments)
{
    return std::get<sizeof...(P) - 1>(std::tuple<P...>(arguments...));
}

template <typename... P> static inline int CallReal(void* pReal, P... arguments)
{
    return reinterpret_cast<int (*)(P...)>(pReal)(arguments...);
}

// With a provisional record over the call.
struct BlockingPattern
{
    template <typename... P> static bool Wants(const ZorvUmaProfileInfo* pProfileInfo, P...)
    {
        return ZorvUmtIsTraceEvent(pProfileInfo, ZORV_UMT_EVENT_PTHREAD);
    }

    template <typename... P> static inline int Run(const TracedCallTarget& target, P... arguments)
    {
        ZorvTracedCall call;
        BeginBlocking(&call, target.m_pProfileInfo, target.m_lockAddress, target.m_pReal, target.m_type);
        int result = CallReal(target.m_pReal, arguments...);
        EndBlocking(&call, target.m_lockAddress, target.m_pReal, result, target.m_type);
        return result;
    }
};

// The absolute deadline is compared with the threshold of a duration, so in practice every timed call qualifies.
struct TimedPattern : BlockingPattern
{
    template <typename... P> static bool Wants(const ZorvUmaProfileInfo* pProfileInfo, P... arguments)
    {
        return DeadlineNs(LastOf(arguments...)) >= ZorvUmtGetEventThreshold(pProfileInfo, ZORV_UMT_EVENT_PTHREAD) &&
               ZorvUmtIsTraceEvent(pProfileInfo, ZORV_UMT_EVENT_PTHREAD);
    }
};

// One complete record after the call, if the pattern wants it.
template <typename Pattern> struct UnparkedPattern
{
    template <typename... P> static inline int Run(const TracedCallTarget& target, P... arguments)
    {
        int* pErrno = ErrnoPlace();
        int savedErrno = *pErrno;
        ZorvTracedCall call;
        BeginTiming(&call, target.m_pProfileInfo);
        *pErrno = savedErrno;
        int result = CallReal(target.m_pReal, arguments...);
        savedErrno = *pErrno;
        Pattern::Record(target, call, result);
        *pErrno = savedErrno;
        return result;
    }
};

// A try call never blocks: it is recorded only on success, and only with a threshold of exactly 0.
struct TryPattern : UnparkedPattern<TryPattern>
{
    template <typename... P> static bool Wants(const ZorvUmaProfileInfo* pProfileInfo, P...)
    {
        return ZorvUmtGetEventThreshold(pProfileInfo, ZORV_UMT_EVENT_PTHREAD) == 0 &&
               ZorvUmtIsTraceEvent(pProfileInfo, ZORV_UMT_EVENT_PTHREAD);
    }

    static void Record(const TracedCallTarget& target, const ZorvTracedCall& call, int result)
    {
        if (result != 0)
            return;
        uint64_t endTime = ZorvUmaGetTime();
        if (!ZorvUmaIsSamePauseId(call.m_startPauseId, ZorvUmaCurrentPauseId(target.m_pProfileInfo)))
            ZorvUmtCapturePthreadRecord(target.m_pProfileInfo, call.m_startTime, endTime, target.m_lockAddress,
                                        reinterpret_cast<uint64_t>(target.m_pReal), 0, target.m_type, nullptr);
    }
};

// A spin lock is short: parking a record would cost more than the lock.
struct SpinPattern : UnparkedPattern<SpinPattern>
{
    template <typename... P> static bool Wants(const ZorvUmaProfileInfo* pProfileInfo, P...)
    {
        return ZorvUmtIsTraceEvent(pProfileInfo, ZORV_UMT_EVENT_PTHREAD);
    }

    static void Record(const TracedCallTarget& target, const ZorvTracedCall& call, int result)
    {
        uint64_t endTime = ZorvUmaGetTime();
        if (IsRecorded(&call, endTime))
            ZorvUmtCapturePthreadRecord(target.m_pProfileInfo, call.m_startTime, endTime, target.m_lockAddress,
                                        reinterpret_cast<uint64_t>(target.m_pReal), result, target.m_type, nullptr);
    }
};

// An entry of a pattern: the gate in place, all else out of line.
template <typename Pattern, ZorvEntryPoint* pEntry, ZorvPthreadType type, typename Pointer> struct GatedCall;

template <typename Pattern, ZorvEntryPoint* pEntry, ZorvPthreadType type, typename... P>
struct GatedCall<Pattern, pEntry, type, int (*)(P...)>
{
    static __attribute__((noinline)) int BehindGate(P... arguments)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (ZORV_UNLIKELY(pReal == nullptr))
            return -1;
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        if (!Pattern::Wants(pProfileInfo, arguments...))
            return CallReal(pReal, arguments...);
        const TracedCallTarget target = {pProfileInfo, pReal, LockAddress(arguments...), type};
        return Pattern::Run(target, arguments...);
    }

    static inline int Call(P... arguments)
    {
        void* pReal = pEntry->m_pReal;
        if (ZORV_LIKELY(pReal != nullptr && !ZorvIsGateOpen(ZORV_UMT_EVENT_PTHREAD)))
            return CallReal(pReal, arguments...);
        return BehindGate(arguments...);
    }
};

template <ZorvEntryPoint* pEntry, ZorvPthreadType type, typename Pointer>
using Blocking = GatedCall<BlockingPattern, pEntry, type, Pointer>;
template <ZorvEntryPoint* pEntry, ZorvPthreadType type, typename Pointer>
using Timed = GatedCall<TimedPattern, pEntry, type, Pointer>;
template <ZorvEntryPoint* pEntry, ZorvPthreadType type, typename Pointer>
using Try = GatedCall<TryPattern, pEntry, type, Pointer>;
template <ZorvEntryPoint* pEntry, ZorvPthreadType type, typename Pointer>
using Spin = GatedCall<SpinPattern, pEntry, type, Pointer>;

// ---- calls with logic of their own -----------------------------------------------------------------------

using CreateFunction = decltype(&::pthread_create);

static void CaptureCreate(const ZorvTracedCall& call, void* pReal, const pthread_t* pThread, int result)
{
    ZorvUmaProfileInfo* pProfileInfo = call.m_pProfileInfo;
    uint64_t endPauseId = ZorvUmaCurrentPauseId(pProfileInfo);
    uint64_t endTime = ZorvUmaGetTime();
    if (!ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_PTHREAD) ||
        ZorvUmaIsSamePauseId(call.m_startPauseId, endPauseId))
        return;
    ZorvUmtCapturePthreadRecord(pProfileInfo, call.m_startTime, endTime, static_cast<uint64_t>(*pThread),
                                reinterpret_cast<uint64_t>(pReal), result, ZORV_PTHREAD_CREATE, nullptr);
}

static int CreateWrapped(ZorvUmaProfileInfo* pProfileInfo, void* pReal, pthread_t* pThread,
                         const pthread_attr_t* pAttr, void* (*pStartRoutine)(void*), void* pArg)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    ZorvTracedCall call = {};
    call.m_pProfileInfo = pProfileInfo;
    call.m_startTime = ZorvUmaGetTime();
    auto pWrapperArg = static_cast<ZorvUmtThreadWrapperArg*>(ZorvUmaMalloc(sizeof(ZorvUmtThreadWrapperArg)));
    if (pWrapperArg != nullptr)
        *pWrapperArg = {pStartRoutine, pArg, pProfileInfo};
    call.m_startPauseId = ZorvUmaCurrentPauseId(pProfileInfo);
    *pErrno = savedErrno;

    auto pCreate = reinterpret_cast<CreateFunction>(pReal);
    int result = pWrapperArg != nullptr ? pCreate(pThread, pAttr, ZorvUmtPthreadCreateWrapper, pWrapperArg)
                                        : pCreate(pThread, pAttr, pStartRoutine, pArg);
    savedErrno = *pErrno;
    CaptureCreate(call, pReal, pThread, result);
    *pErrno = savedErrno;
    return result;
}

template <ZorvEntryPoint* pEntry, ZorvPthreadType, typename> struct Create
{
    static int Call(pthread_t* pThread, const pthread_attr_t* pAttr, void* (*pStartRoutine)(void*), void* pArg)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        if (pProfileInfo == nullptr)
        {
            // Another library's constructor is ahead of ours.
            ZorvUmaInit();
            pProfileInfo = ZorvUmaGetProfileInfo();
        }
        if (ZorvUmaIsCollectionStopped(pProfileInfo))
            return reinterpret_cast<CreateFunction>(pReal)(pThread, pAttr, pStartRoutine, pArg);
        return CreateWrapped(pProfileInfo, pReal, pThread, pAttr, pStartRoutine, pArg);
    }
};

static int CancelTraced(ZorvUmaProfileInfo* pProfileInfo, void* pReal, pthread_t thread)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    ZorvTracedCall call;
    BeginTiming(&call, pProfileInfo);
    *pErrno = savedErrno;
    int result = CallReal(pReal, thread);
    savedErrno = *pErrno;
    uint64_t endTime = ZorvUmaGetTime();
    uint64_t endPauseId = ZorvUmaCurrentPauseId(pProfileInfo);
    if (ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_PTHREAD) &&
        !ZorvUmaIsSamePauseId(call.m_startPauseId, endPauseId))
        ZorvUmtCapturePthreadRecord(pProfileInfo, call.m_startTime, endTime, static_cast<uint64_t>(thread),
                                    reinterpret_cast<uint64_t>(pReal), result, ZORV_PTHREAD_CANCEL, nullptr);
    // A cancellation that failed is what writes the record; one that succeeded writes none.
    if (result != 0)
        ZorvUmaWriteThreadEndRecord(pProfileInfo,
                                    thread == ZorvUmaPthreadSelf() ? 0 : static_cast<uint64_t>(thread));
    *pErrno = savedErrno;
    return result;
}

template <ZorvEntryPoint* pEntry, ZorvPthreadType, typename> struct Cancel
{
    static int Call(pthread_t thread)
    {
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        if (ZorvUmaIsCollectionStopped(pProfileInfo))
            return CallReal(pReal, thread);
        return CancelTraced(pProfileInfo, pReal, thread);
    }
};

static void EndCallingThread(ZorvUmaProfileInfo* pProfileInfo, void* pReal)
{
    if (ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_PTHREAD) && !ZorvUmaIsPauseSet(pProfileInfo))
    {
        uint64_t now = ZorvUmaGetTime();
        ZorvUmtCapturePthreadRecord(pProfileInfo, now, now, UINT64_MAX, reinterpret_cast<uint64_t>(pReal), 0,
                                    ZORV_PTHREAD_EXIT, nullptr);
    }
    ZorvUmaFiniThread(pProfileInfo);
    ZorvUmaFreeThreadInfo();
}

template <ZorvEntryPoint* pEntry, ZorvPthreadType, typename> struct Exit
{
    static void Call(void* pResult)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return;
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        if (!ZorvUmaIsCollectionStopped(pProfileInfo))
        {
            int savedErrno = errno;
            EndCallingThread(pProfileInfo, pReal);
            errno = savedErrno;
        }
        reinterpret_cast<decltype(&::pthread_exit)>(pReal)(pResult);
    }
};

template <ZorvEntryPoint* pEntry, ZorvPthreadType, typename> struct SetName
{
    static int Call(pthread_t thread, const char* pName)
    {
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        int result = CallReal(pReal, thread, pName);
        if (result != 0 || ZorvUmaIsCollectionStopped(pProfileInfo))
            return result;
        int savedErrno = errno;
        ZorvUmtTid tid = thread == ZorvUmaPthreadSelf() ? ZorvUmaGetTid() : -1;
        ZorvUmaWriteProcRecord(pProfileInfo, tid, pName, static_cast<int>(ZorvUmaStrlen(pName)), ZorvUmaGetTime(),
                               static_cast<uint64_t>(thread));
        errno = savedErrno;
        return 0;
    }
};

// ---- entries ---------------------------------------------------------------------------------------------

#define ZORV_PTHREAD(pattern, type, call, name, count, oldVersion, newVersion)                                        \
    ZORV_INTERPOSE_VERSIONED(pattern, ZORV_PTHREAD_##type, ZorvInterpose##call, name, count, oldVersion, newVersion)
#define ZORV_PTHREAD_SINGLE(pattern, type, call, name, count)                                                         \
    ZORV_INTERPOSE_SINGLE(pattern, ZORV_PTHREAD_##type, ZorvInterpose##call, name, count)
#include "ZorvUserModeTracePthread.def"
#undef ZORV_PTHREAD
#undef ZORV_PTHREAD_SINGLE

void ZorvUmtResolveInterposers()
{
    static ZorvEntryPoint* const entries[] = {
#define ZORV_PTHREAD(pattern, type, call, name, count, oldVersion, newVersion)                                        \
    &g_entryZorvInterpose##call##_##oldVersion, &g_entryZorvInterpose##call##_##newVersion, &g_entryZorvInterpose##call,
#define ZORV_PTHREAD_SINGLE(pattern, type, call, name, count) &g_entryZorvInterpose##call,
#include "ZorvUserModeTracePthread.def"
#undef ZORV_PTHREAD
#undef ZORV_PTHREAD_SINGLE
    };
    for (ZorvEntryPoint* pEntry : entries)
        if (pEntry->m_pReal == nullptr)
            FindReal(pEntry);
}
