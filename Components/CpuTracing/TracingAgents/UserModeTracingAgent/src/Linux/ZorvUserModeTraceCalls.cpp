// The halves of a traced call, and the look-up of the real functions: what every interposer shares.

#include "ZorvUserModeTraceAppend.h"
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

// ---- the path of a record --------------------------------------------------------------------------------

bool g_isPathDirect;
int (*g_pClockGetTime)(clockid_t, struct timespec*);

// Our own definitions of the functions on the path, whoever answers for their names.
extern "C"
{
#define ZORV_PATH_FUNCTIONS(row)                                                                               \
    row(ZorvUmaGetProfileInfo) row(ZorvUmaGetTime) row(ZorvUmaClockGetTime) row(ZorvUmaIsPauseSet)             \
        row(ZorvUmaIsStopSet) row(ZorvUmaCurrentPauseId) row(ZorvUmaIsSamePauseId)                             \
            row(ZorvUmaIsCollectionStopped) row(ZorvUmtIsEventEnabled) row(ZorvUmtGetEventThreshold)           \
                row(ZorvUmtIsTraceEvent) row(ZorvUmtInsertTraceRecordHdr) row(ZorvUmtCachePthreadRecord)       \
                    row(ZorvUmtCapturePthreadRecord) row(ZorvUmtCacheSyscallRecord)                            \
                        row(ZorvUmtCaptureSysCallRecord)
#define ZORV_PATH_FUNCTION(name) (void*)&name,
}

// Where this object begins and ends; the linker's own names.
extern "C" __attribute__((visibility("hidden"))) const char __ehdr_start[];
extern "C" __attribute__((visibility("hidden"))) const char _end[];

// Whether the name is answered by this object. dladdr would search all of its symbols for each one, in the
// start of every process.
static bool IsOwn(const void* pFunction)
{
    return pFunction >= &__ehdr_start[0] && pFunction < &_end[0];
}

void ZorvUmtChoosePath()
{
    // Read through the dynamic symbol table: an object ahead of the agent shows here.
    void* volatile functions[] = {ZORV_PATH_FUNCTIONS(ZORV_PATH_FUNCTION)};
    bool isOwn = true;
    for (void* pFunction : functions)
        isOwn = IsOwn(pFunction) && isOwn;
    g_pClockGetTime = reinterpret_cast<int (*)(clockid_t, struct timespec*)>(ZorvUmaResolvedClock());
    __atomic_store_n(&g_isPathDirect, isOwn && g_pClockGetTime != nullptr, __ATOMIC_RELEASE);
}

ZorvUmaProfileInfo* ZorvTracedInfo(ZorvUmtEventId event)
{
    if (ZORV_LIKELY(g_isPathDirect))
    {
        ZorvUmaProfileInfo* pProfileInfo = __atomic_load_n(&g_pProfileInfo, __ATOMIC_RELAXED);
        bool isTraced = pProfileInfo != nullptr && pProfileInfo->m_umtConfig.m_umtEventList[event].m_enable &&
                        !ZorvDirectCalls::IsStopped(pProfileInfo);
        return isTraced ? pProfileInfo : nullptr;
    }
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    return ZorvUmtIsTraceEvent(pProfileInfo, event) ? pProfileInfo : nullptr;
}

uint64_t ZorvThresholdOf(ZorvUmtEventId event)
{
    return ZorvUmtGetEventThreshold(ZorvUmaGetProfileInfo(), event);
}

// ---- before the call -------------------------------------------------------------------------------------

static inline int* ErrnoPlace()
{
    int* pErrno = t_zorvState.m_pErrno;
    return ZORV_LIKELY(pErrno != nullptr) ? pErrno : &errno;
}

static inline bool IsPthreadCall(const ZorvTracedCall* pCall)
{
    return pCall->m_class.m_event == ZORV_UMT_EVENT_PTHREAD;
}

static inline ZorvPthreadCallRecord PthreadRecordOf(const ZorvTracedCall* pCall, int result)
{
    return {{pCall->m_value, pCall->m_funcVa, ZorvParallelRegionId(pCall->m_pProfileInfo), result, 0, 0},
            pCall->m_class.m_type,
            pCall->m_flags};
}

static inline ZorvSyscallCallRecord SyscallRecordOf(const ZorvTracedCall* pCall)
{
    return {{{pCall->m_funcVa}, ZorvParallelRegionId(pCall->m_pProfileInfo), pCall->m_value, 0, {}},
            pCall->m_class.m_type,
            pCall->m_flags};
}

template <typename Calls> static inline void StartTiming(ZorvTracedCall* pCall)
{
    pCall->m_pCacheBuf = nullptr;
    pCall->m_lostByCache = 0;
    pCall->m_startPauseId = Calls::CurrentPauseId(pCall->m_pProfileInfo);
    pCall->m_startTime = Calls::GetTime();
}

template <typename Calls> static inline ZorvUmaBuffer* Park(const ZorvTracedCall* pCall);

template <> inline ZorvUmaBuffer* Park<ZorvDirectCalls>(const ZorvTracedCall* pCall)
{
    if (IsPthreadCall(pCall))
        return ZorvCacheCall<ZorvDirectCalls>(pCall->m_pProfileInfo, pCall->m_startTime,
                                              PthreadRecordOf(pCall, 0));
    return ZorvCacheCall<ZorvDirectCalls>(pCall->m_pProfileInfo, pCall->m_startTime, SyscallRecordOf(pCall));
}

template <> inline ZorvUmaBuffer* Park<ZorvDynamicCalls>(const ZorvTracedCall* pCall)
{
    if (IsPthreadCall(pCall))
        return ZorvUmtCachePthreadRecord(pCall->m_pProfileInfo, pCall->m_startTime, pCall->m_value,
                                         pCall->m_funcVa, static_cast<ZorvPthreadType>(pCall->m_class.m_type));
    return ZorvUmtCacheSyscallRecord(pCall->m_pProfileInfo, pCall->m_startTime, pCall->m_funcVa,
                                     static_cast<ZorvSysCallType>(pCall->m_class.m_type),
                                     pCall->m_class.m_event, pCall->m_flags, pCall->m_value);
}

template <typename Calls> static inline void BeginParked(ZorvTracedCall* pCall)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    StartTiming<Calls>(pCall);
    uint32_t lostBefore = t_zorvState.m_lostCount;
    // What anyone else appends from here on shows as a difference: the provisional record is gone then.
    uint32_t appendedBefore = t_zorvState.m_appendCount;
    pCall->m_appendCount = appendedBefore + 1;
    pCall->m_pCacheBuf = Park<Calls>(pCall);
    // A function that stands in for the agent's keeps no count.
    if (!std::is_same_v<Calls, ZorvDirectCalls> && t_zorvState.m_appendCount == appendedBefore)
        pCall->m_appendCount = appendedBefore;
    if (ZORV_UNLIKELY(pCall->m_pCacheBuf == nullptr))
        pCall->m_lostByCache = t_zorvState.m_lostCount - lostBefore;
    *pErrno = savedErrno;
}

void ZorvBeginCall(ZorvTracedCall* pCall)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    if (ZORV_LIKELY(g_isPathDirect))
        StartTiming<ZorvDirectCalls>(pCall);
    else
        StartTiming<ZorvDynamicCalls>(pCall);
    *pErrno = savedErrno;
}

static __attribute__((noinline)) void BeginParkedReplaced(ZorvTracedCall* pCall)
{
    BeginParked<ZorvDynamicCalls>(pCall);
}

void ZorvBeginParkedCall(ZorvTracedCall* pCall)
{
    if (ZORV_LIKELY(g_isPathDirect))
        BeginParked<ZorvDirectCalls>(pCall);
    else
        BeginParkedReplaced(pCall);
}

// ---- behind the call -------------------------------------------------------------------------------------

template <typename Calls> static inline bool LayInsideOnePause(const ZorvTracedCall* pCall)
{
    return Calls::IsSamePauseId(pCall->m_startPauseId, Calls::CurrentPauseId(pCall->m_pProfileInfo));
}

template <typename Calls> static inline bool IsLongEnough(const ZorvTracedCall* pCall, uint64_t endTime)
{
    return endTime - pCall->m_startTime >= Calls::Threshold(pCall->m_pProfileInfo, pCall->m_class.m_event);
}

template <typename Calls> static inline void Capture(const ZorvTracedCall* pCall, uint64_t endTime, int result);

template <> inline void Capture<ZorvDynamicCalls>(const ZorvTracedCall* pCall, uint64_t endTime, int result)
{
    if (IsPthreadCall(pCall))
        ZorvUmtCapturePthreadRecord(pCall->m_pProfileInfo, pCall->m_startTime, endTime, pCall->m_value,
                                    pCall->m_funcVa, result,
                                    static_cast<ZorvPthreadType>(pCall->m_class.m_type), pCall->m_pCacheBuf);
    else
        ZorvUmtCaptureSysCallRecord(pCall->m_pProfileInfo, pCall->m_startTime, endTime, pCall->m_funcVa,
                                    static_cast<ZorvSysCallType>(pCall->m_class.m_type), pCall->m_class.m_event,
                                    pCall->m_flags, pCall->m_value, pCall->m_pCacheBuf);
}

// The provisional record becomes part of the data and is withdrawn in one step: both lengths lie in one word.
static inline void PublishParked(ZorvUmaBuffer* pBuffer)
{
    static_assert(offsetof(ZorvUmaBuffer, m_dataLen) == 0 && offsetof(ZorvUmaBuffer, m_cacheLen) == 4);
    constexpr uint64_t size = ZORV_UMT_CALL_RECORD_SIZE;
    __atomic_add_fetch(reinterpret_cast<uint64_t*>(pBuffer), size - (size << 32), __ATOMIC_SEQ_CST);
}

template <> inline void Capture<ZorvDirectCalls>(const ZorvTracedCall* pCall, uint64_t endTime, int result)
{
    ZorvUmaBuffer* pBuffer = pCall->m_pCacheBuf;
    if (ZORV_LIKELY(pBuffer != nullptr))
    {
        if (pBuffer->m_pData == nullptr)
            return;
        ZorvRecordAtEnd(pBuffer)->m_endTime = endTime;
        if (IsPthreadCall(pCall))
            ZorvBodyAtEnd<ZorvUmtPthreadRecord, ZorvUmtRecordHdr>(pBuffer)->m_retValue = result;
        PublishParked(pBuffer);
    }
    else if (IsPthreadCall(pCall))
        ZorvCaptureCall<ZorvDirectCalls>(pCall->m_pProfileInfo, pCall->m_startTime, endTime,
                                         PthreadRecordOf(pCall, result));
    else
        ZorvCaptureCall<ZorvDirectCalls>(pCall->m_pProfileInfo, pCall->m_startTime, endTime,
                                         SyscallRecordOf(pCall));
}

template <typename Calls> static inline void EndUnparked(ZorvTracedCall* pCall, int result, bool anyLength)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    uint64_t endTime = Calls::GetTime();
    if (!LayInsideOnePause<Calls>(pCall) && (anyLength || IsLongEnough<Calls>(pCall, endTime)))
        Capture<Calls>(pCall, endTime, result);
    *pErrno = savedErrno;
}

void ZorvEndCall(ZorvTracedCall* pCall, int result)
{
    if (ZORV_LIKELY(g_isPathDirect))
        EndUnparked<ZorvDirectCalls>(pCall, result, false);
    else
        EndUnparked<ZorvDynamicCalls>(pCall, result, false);
}

void ZorvEndCallAnyLength(ZorvTracedCall* pCall, int result)
{
    if (ZORV_LIKELY(g_isPathDirect))
        EndUnparked<ZorvDirectCalls>(pCall, result, true);
    else
        EndUnparked<ZorvDynamicCalls>(pCall, result, true);
}

// A signal handler of the program has written over the provisional record: a whole record is due instead, and
// what such a handler may have left parked, by a jump out of itself, is withdrawn.
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
    __atomic_sub_fetch(&pCall->m_pProfileInfo->m_umtData.m_lostRecordCount, pCall->m_lostByCache,
                       __ATOMIC_SEQ_CST);
}

template <typename Calls> static inline void EndParked(ZorvTracedCall* pCall, int result)
{
    int* pErrno = ErrnoPlace();
    int savedErrno = *pErrno;
    uint64_t endTime = Calls::GetTime();
    if (ZORV_UNLIKELY(pCall->m_lostByCache != 0))
        TakeBackLost(pCall);

    // From here a handler's records go to the spare buffer, and the provisional record stays ours.
    const void* pOuterFrame = ZorvInterruptedFrame(pCall);
    t_zorvState.m_pAppendFrame = pCall;
    ZorvSignalFence();
    if (ZORV_UNLIKELY(pCall->m_appendCount != t_zorvState.m_appendCount))
        ForgetCache(pCall, pOuterFrame != nullptr);
    if (ZORV_UNLIKELY(pCall->m_pCacheBuf == nullptr))
        t_zorvState.m_pAppendFrame = pOuterFrame;

    if (!LayInsideOnePause<Calls>(pCall) && IsLongEnough<Calls>(pCall, endTime))
        Capture<Calls>(pCall, endTime, result);
    if (ZORV_LIKELY(pCall->m_pCacheBuf != nullptr) && pCall->m_pCacheBuf->m_cacheLen != 0)
        ZorvStoreFenced(&pCall->m_pCacheBuf->m_cacheLen, 0U);
    ZorvSignalFence();
    t_zorvState.m_pAppendFrame = pOuterFrame;
    *pErrno = savedErrno;
}

static __attribute__((noinline)) void EndParkedReplaced(ZorvTracedCall* pCall, int result)
{
    EndParked<ZorvDynamicCalls>(pCall, result);
}

void ZorvEndParkedCall(ZorvTracedCall* pCall, int result)
{
    if (ZORV_LIKELY(g_isPathDirect))
        EndParked<ZorvDirectCalls>(pCall, result);
    else
        EndParkedReplaced(pCall, result);
}

// ---- deadlines -------------------------------------------------------------------------------------------

// The value as a double would hold it. In integers: the program may have floating-point exceptions unmasked,
// and its status flags are its own.
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
