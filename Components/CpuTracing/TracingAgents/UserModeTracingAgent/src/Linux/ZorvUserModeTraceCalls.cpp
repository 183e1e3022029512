// The halves of a traced call, and the look-up of the real functions: what every interposer shares.

#include "ZorvUserModeTraceInterposers.h"

#include <cerrno>
#include <dlfcn.h>

extern "C" __attribute__((visibility("hidden"))) ZorvEntryPoint __start_zorv_entries[];
extern "C" __attribute__((visibility("hidden"))) ZorvEntryPoint __stop_zorv_entries[];

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

void ZorvUmtResolveInterposers()
{
    int savedErrno = errno;
    for (ZorvEntryPoint* pEntry = __start_zorv_entries; pEntry != __stop_zorv_entries; pEntry++)
        if (pEntry->m_pReal == nullptr)
            FindReal(pEntry);
    dlerror(); // what is not there is not the program's error
    errno = savedErrno;
}

// ---- before the call -------------------------------------------------------------------------------------

static inline int* ErrnoPlace()
{
    int* pErrno = t_zorvState.m_pErrno;
    return ZORV_LIKELY(pErrno != nullptr) ? pErrno : &errno;
}

static inline void SignalFence()
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

static inline void StartTiming(ZorvTracedCall* pCall)
{
    pCall->m_pCacheBuf = nullptr;
    pCall->m_lostByCache = 0;
    pCall->m_startPauseId = ZorvUmaCurrentPauseId(pCall->m_pProfileInfo);
    pCall->m_startTime = ZorvUmaGetTime();
}

void ZorvBeginCall(ZorvTracedCall* pCall)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    StartTiming(pCall);
    *pErrno = savedErrno;
}

static inline ZorvUmaBuffer* Park(const ZorvTracedCall* pCall)
{
    if (pCall->m_class.m_event == ZORV_UMT_EVENT_PTHREAD)
        return ZorvUmtCachePthreadRecord(pCall->m_pProfileInfo, pCall->m_startTime, pCall->m_value, pCall->m_funcVa,
                                         static_cast<ZorvPthreadType>(pCall->m_class.m_type));
    return ZorvUmtCacheSyscallRecord(pCall->m_pProfileInfo, pCall->m_startTime, pCall->m_funcVa,
                                     static_cast<ZorvSysCallType>(pCall->m_class.m_type), pCall->m_class.m_event,
                                     pCall->m_flags, pCall->m_value);
}

void ZorvBeginParkedCall(ZorvTracedCall* pCall)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    StartTiming(pCall);
    uint32_t lostBefore = t_zorvState.m_lostCount;
    // What anyone else appends from here on shows as a difference: the provisional record is gone then.
    pCall->m_appendCount = t_zorvState.m_appendCount + 1;
    pCall->m_pCacheBuf = Park(pCall);
    if (ZORV_UNLIKELY(pCall->m_pCacheBuf == nullptr))
        pCall->m_lostByCache = t_zorvState.m_lostCount - lostBefore;
    *pErrno = savedErrno;
}

// ---- behind the call -------------------------------------------------------------------------------------

static inline bool LayInsideOnePause(const ZorvTracedCall* pCall)
{
    return ZorvUmaIsSamePauseId(pCall->m_startPauseId, ZorvUmaCurrentPauseId(pCall->m_pProfileInfo));
}

static inline bool IsLongEnough(const ZorvTracedCall* pCall, uint64_t endTime)
{
    return endTime - pCall->m_startTime >= ZorvUmtGetEventThreshold(pCall->m_pProfileInfo, pCall->m_class.m_event);
}

static inline void Capture(const ZorvTracedCall* pCall, uint64_t endTime, int result)
{
    if (pCall->m_class.m_event == ZORV_UMT_EVENT_PTHREAD)
        ZorvUmtCapturePthreadRecord(pCall->m_pProfileInfo, pCall->m_startTime, endTime, pCall->m_value,
                                    pCall->m_funcVa, result, static_cast<ZorvPthreadType>(pCall->m_class.m_type),
                                    pCall->m_pCacheBuf);
    else
        ZorvUmtCaptureSysCallRecord(pCall->m_pProfileInfo, pCall->m_startTime, endTime, pCall->m_funcVa,
                                    static_cast<ZorvSysCallType>(pCall->m_class.m_type), pCall->m_class.m_event,
                                    pCall->m_flags, pCall->m_value, pCall->m_pCacheBuf);
}

void ZorvEndCall(ZorvTracedCall* pCall, int result)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    uint64_t endTime = ZorvUmaGetTime();
    if (!LayInsideOnePause(pCall) && IsLongEnough(pCall, endTime))
        Capture(pCall, endTime, result);
    *pErrno = savedErrno;
}

void ZorvEndCallAnyLength(ZorvTracedCall* pCall, int result)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    uint64_t endTime = ZorvUmaGetTime();
    if (!LayInsideOnePause(pCall))
        Capture(pCall, endTime, result);
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

void ZorvEndParkedCall(ZorvTracedCall* pCall, int result)
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

    if (!LayInsideOnePause(pCall) && IsLongEnough(pCall, endTime))
        Capture(pCall, endTime, result);
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
uint64_t ZorvDeadlineNs(const timespec* pDeadline)
{
    if (pDeadline == nullptr)
        return 0;
    unsigned __int128 seconds = RoundToDouble(static_cast<uint64_t>(pDeadline->tv_sec));
    unsigned __int128 sum = RoundToDouble(RoundToDouble(seconds * 1000000000U) +
                                          RoundToDouble(static_cast<uint64_t>(pDeadline->tv_nsec)));
    return sum >> 64 != 0 ? UINT64_MAX : static_cast<uint64_t>(sum);
}
