// The halves of a traced call, and the look-up of the real functions: what every interposer shares.

#include "ZorvUserModeTraceInterposers.h"

#include <cerrno>
#include <dlfcn.h>

extern "C" __attribute__((visibility("hidden"))) ZorvEntryPoint __start_zorv_entries[];
extern "C" __attribute__((visibility("hidden"))) ZorvEntryPoint __stop_zorv_entries[];

// ---- real functions --------------------------------------------------------------------------------------

static void* FindReal(ZorvEntryPoint* pEntry)
{
    void* pReal = ZorvUmaFindNext(pEntry->m_pName, pEntry->m_pVersion);
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
using ClockFunction = decltype(g_pClockGetTime);
ClockFunction g_pClockGetTime;

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

static ClockFunction g_pLibcClock;

static int ReadLibcClock(clockid_t clock, struct timespec* pTime)
{
    int savedErrno = errno;
    int result = g_pLibcClock(clock, pTime);
    errno = savedErrno;
    return result;
}

// The kernel's function where libc's would do no more than call it: it answers with its errors instead of
// setting errno. vdso(7)
static ClockFunction ChooseClock()
{
    g_pLibcClock = reinterpret_cast<ClockFunction>(ZorvUmaResolvedClock());
    if (g_pLibcClock == nullptr)
        return nullptr;
    auto pKernels = reinterpret_cast<ClockFunction>(ZorvUmaKernelsClock());
    return pKernels != nullptr ? pKernels : ReadLibcClock;
}

void ZorvUmtChoosePath()
{
    // Read through the dynamic symbol table: an object ahead of the agent shows here.
    void* volatile functions[] = {ZORV_PATH_FUNCTIONS(ZORV_PATH_FUNCTION)};
    bool isOwn = true;
    for (void* pFunction : functions)
        isOwn = ZorvUmaIsOwn(pFunction) && isOwn;
    g_pClockGetTime = ChooseClock();
    __atomic_store_n(&g_isPathDirect, isOwn && g_pClockGetTime != nullptr, __ATOMIC_RELEASE);
}

ZorvUmaProfileInfo* ZorvTracedInfo(ZorvUmtEventId event)
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    return ZorvUmtIsTraceEvent(pProfileInfo, event) ? pProfileInfo : nullptr;
}

ZORV_COLD uint64_t ZorvAskParallelRegion(uint64_t (*pGetId)())
{
    int savedErrno = errno;
    uint64_t id = pGetId();
    errno = savedErrno;
    return id;
}

uint64_t ZorvThresholdOf(ZorvUmtEventId event)
{
    return ZorvUmtGetEventThreshold(ZorvUmaGetProfileInfo(), event);
}

// ---- the halves, out of line -----------------------------------------------------------------------------

void ZorvBeginCall(ZorvTracedCall* pCall)
{
    if (ZORV_LIKELY(g_isPathDirect))
        ZorvBeginUnparked<ZorvDirectCalls>(pCall);
    else
        ZorvBeginUnparked<ZorvDynamicCalls>(pCall);
}

void ZorvBeginParkedCall(ZorvTracedCall* pCall)
{
    if (ZORV_LIKELY(g_isPathDirect))
        ZorvBeginParked<ZorvDirectCalls>(pCall);
    else
        ZorvBeginParked<ZorvDynamicCalls>(pCall);
}

static void EndUnparked(ZorvTracedCall* pCall, int result, bool anyLength)
{
    if (ZORV_LIKELY(g_isPathDirect))
        ZorvEndUnparked<ZorvDirectCalls>(pCall, result, anyLength);
    else
        ZorvEndUnparked<ZorvDynamicCalls>(pCall, result, anyLength);
}

void ZorvEndCall(ZorvTracedCall* pCall, int result)
{
    EndUnparked(pCall, result, false);
}

void ZorvEndCallAnyLength(ZorvTracedCall* pCall, int result)
{
    EndUnparked(pCall, result, true);
}

void ZorvEndParkedCall(ZorvTracedCall* pCall, int result)
{
    if (ZORV_LIKELY(g_isPathDirect))
        ZorvEndParked<ZorvDirectCalls>(pCall, result);
    else
        ZorvEndParked<ZorvDynamicCalls>(pCall, result);
}

void ZorvCaptureWhole(const ZorvTracedCall* pCall, uint64_t endTime, int result)
{
    if (ZorvIsPthreadCall(pCall))
        ZorvCaptureCall<ZorvDirectCalls>(pCall->m_pProfileInfo, pCall->m_startTime, endTime,
                                         ZorvPthreadRecordOf(pCall, result));
    else
        ZorvCaptureCall<ZorvDirectCalls>(pCall->m_pProfileInfo, pCall->m_startTime, endTime,
                                         ZorvSyscallRecordOf(pCall));
}

ZORV_COLD void ZorvWithdrawStray()
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pThreadInfo != nullptr && pThreadInfo->m_pUmtBuf != nullptr)
        ZorvStoreFenced(&pThreadInfo->m_pUmtBuf->m_cacheLen, 0U);
}

ZORV_COLD void ZorvTakeBackLost(ZorvUmaProfileInfo* pProfileInfo, uint32_t count)
{
    __atomic_sub_fetch(&pProfileInfo->m_umtData.m_lostRecordCount, count, __ATOMIC_SEQ_CST);
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
