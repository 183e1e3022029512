// The profiling signal interrupts a thread anywhere: inside malloc, inside the loader, inside this agent. Its
// handler allocates nothing, looks nothing up and takes no lock while the record fits. What else touches the
// thread's sample buffer does so with every signal blocked, so the handler never finds it half changed.
//
// The unwinder has a lock of its own. So only one thread unwinds at a time, and a thread waits for its turn
// only for a moment: else its sample is lost, and counted. The loader's list comes without the loader's lock.

#include "ZorvUserModeTraceSampling.h"
#include "ZorvPerfPmcCollect.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTrace.h"
#include "ZorvUserModeTraceLoader.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceSignals.h"

#include <cerrno>
#include <dlfcn.h>
#include <ucontext.h>

namespace
{

constexpr char UNWINDER[] = "libunwind.so.8";
constexpr uint64_t NS_PER_SECOND = 1000000000ULL;
constexpr uint32_t LARGEST_RECORD = 32767; // smaller than a buffer, and than what 16 bits can say
constexpr int SET_UP_ATTEMPTS = 20;        // a thread that cannot unwind would be sampled never
constexpr int NO_TURN = INT_MIN;
constexpr int TURN_YIELDS = 20;
constexpr int TURN_SLEEPS = 50;
constexpr long TURN_SLEEP_NS = 100000;
constexpr size_t UNWINDING_STACK = 16384; // bytes that the handler and the unwinder may need

using Backtrace = int (*)(void** ppBuffer, int size);

Backtrace g_pBacktrace; // libunwind's unw_backtrace, or what stands in for it
bool g_isUnwinderSought;
bool g_isStandIn;       // nothing to be prepared on each thread
pid_t g_unwindingTid;   // whose turn it is, 0: nobody's
bool g_isHandlerClosed; // the kernel blocks cancellations while the handler runs

} // namespace

// ---- the unwinder ----------------------------------------------------------------------------------------

// What an object in the program's scope puts in the unwinder's place. An unwinder that the program has itself
// is named in *ppUnwinder instead.
static Backtrace FindStandIn(const char** ppUnwinder)
{
    void* pFound = dlsym(RTLD_DEFAULT, "unw_backtrace");
    dlerror(); // that there is none is not the program's error
    Dl_info place;
    if (pFound == nullptr || dladdr(pFound, &place) == 0 ||
        ZorvUmaStrstr(place.dli_fname, "/libunwind.so") == nullptr)
        return reinterpret_cast<Backtrace>(pFound);
    *ppUnwinder = place.dli_fname;
    return nullptr;
}

static void FindUnwinder(const ZorvUmaProfileInfo* pProfileInfo)
{
    if (g_isUnwinderSought)
        return;
    g_isUnwinderSought = true; // a forked child keeps what its parent has found
    const char* pUnwinder = UNWINDER;
    g_pBacktrace = FindStandIn(&pUnwinder);
    g_isStandIn = g_pBacktrace != nullptr;
    if (g_isStandIn)
        return;
    // Local scope: in the program's scope it would take over the unwinding of C++ exceptions.
    void* pLoaded = ZorvUmaOpenObject(pUnwinder, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    void* pHandle = ZorvUmaOpenObject(pUnwinder, RTLD_NOW | RTLD_LOCAL);
    if (pHandle != nullptr)
        g_pBacktrace = reinterpret_cast<Backtrace>(dlsym(pHandle, "unw_backtrace"));
    if (g_pBacktrace != nullptr)
        ZorvUmsListModules(pHandle, pLoaded != nullptr);
    else
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmsOpenUnwinder",
                    "Failed to open %s, no samples are written.", UNWINDER);
}

void ZorvUmsOpenUnwinder(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo->m_umsConfig.m_enable && pProfileInfo->m_umsConfig.m_collectCallStack)
        FindUnwinder(pProfileInfo);
}

static bool TakeTurn(int sleeps)
{
    pid_t own = ZorvUmaCachedTid();
    for (int attempt = 0; attempt < TURN_YIELDS + sleeps; attempt++)
    {
        pid_t holder = 0;
        if (__atomic_compare_exchange_n(&g_unwindingTid, &holder, own, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
            return true;
        if (holder == own)
            return false; // a handler of ours inside the unwinder: it cannot be entered twice
        if (attempt < TURN_YIELDS)
            ZorvRawSyscall(SYS_sched_yield);
        else
        {
            const timespec step = {0, TURN_SLEEP_NS};
            ZorvRawSyscall(SYS_nanosleep, reinterpret_cast<long>(&step));
        }
    }
    // A holder that is no more will not give it back.
    pid_t holder = __atomic_load_n(&g_unwindingTid, __ATOMIC_RELAXED);
    return holder != 0 && ZorvRawSyscall(SYS_tgkill, ZorvUmaCachedPid(), holder, 0) == -ESRCH &&
           __atomic_compare_exchange_n(&g_unwindingTid, &holder, own, false, __ATOMIC_ACQUIRE,
                                       __ATOMIC_RELAXED);
}

static void GiveTurnBack()
{
    __atomic_store_n(&g_unwindingTid, 0, __ATOMIC_RELEASE);
}

void ZorvUmsForgetTurn()
{
    GiveTurnBack();
    ZorvUmsForgetClosings();
}

// Around a fork: the child inherits the unwinder's lock as it is.
void ZorvUmsHoldTurnForFork()
{
    t_zorvState.m_holdsTurn = g_pBacktrace != nullptr && TakeTurn(TURN_SLEEPS);
}

void ZorvUmsEndHoldForFork()
{
    if (t_zorvState.m_holdsTurn)
        GiveTurnBack();
    t_zorvState.m_holdsTurn = false;
}

// Whether the program has the unwinder by what it has opened, or by what that one needs.
static bool ReachesUnwinder(void* pHandle)
{
    bool isReached = dlsym(pHandle, "unw_backtrace") == reinterpret_cast<void*>(g_pBacktrace);
    dlerror(); // that there is none is not the program's error
    return isReached;
}

void ZorvUmsFollowLoader(void* pHandle)
{
    if (g_pBacktrace == nullptr)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (ReachesUnwinder(pHandle))
        ZorvUmsShareUnwinder();
    if (TakeTurn(TURN_SLEEPS)) // who unwinds now may not have seen that it is shared
    {
        ZorvUmsListModule(pHandle);
        GiveTurnBack();
    }
    ZorvUmaLeaveAgent(&scope);
}

void ZorvUmsBeginUnload()
{
    if (g_pBacktrace == nullptr)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmsBeginClosing();
    // Who unwinds now may not have seen it.
    for (int attempt = 0; attempt < SET_UP_ATTEMPTS; attempt++)
        if (TakeTurn(TURN_SLEEPS))
        {
            GiveTurnBack();
            break;
        }
    ZorvUmaLeaveAgent(&scope);
}

void ZorvUmsEndUnload()
{
    if (g_pBacktrace != nullptr)
        ZorvUmsEndClosing();
}

static bool HasStackForUnwinding()
{
    auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    uintptr_t begin = t_zorvState.m_stackBegin;
    return begin == 0 || here < begin || here - begin >= UNWINDING_STACK;
}

// Frames found, a negative value for an unwinder that failed, NO_TURN when the turn did not come or may not be
// taken. The unwinder's own calls are not recorded.
static int Unwind(void** ppFrames, int size)
{
    if (!HasStackForUnwinding() || ZorvUmsIsUnwindingUnsafe())
        return NO_TURN;
    int count = NO_TURN;
    ZorvUmaSetStopCollection(true);
    // Signals that come faster than turns do must not all wait: their thread would do nothing else.
    if (TakeTurn(t_zorvState.m_hasMissedTurn ? 0 : TURN_SLEEPS))
    {
        if (!ZorvUmsIsUnwindingUnsafe()) // it may have become so before the turn came
        {
            t_zorvState.m_isUnwinding = true;
            count = g_pBacktrace(ppFrames, size);
            t_zorvState.m_isUnwinding = false;
        }
        GiveTurnBack();
    }
    t_zorvState.m_hasMissedTurn = count == NO_TURN;
    ZorvUmaSetStopCollection(false);
    return count;
}

static int FramesWanted(const ZorvUmaProfileInfo* pProfileInfo)
{
    uint64_t wanted = ZorvUmaCsBufRoom(pProfileInfo);
    uint64_t room = (LARGEST_RECORD - pProfileInfo->m_umsConfig.m_recLength) / sizeof(void*);
    return static_cast<int>(wanted < room ? wanted : room);
}

// The stack of a thread has its size for life; a process's first one grows, also where a child inherits it.
static void FindStack()
{
    pthread_attr_t attributes;
    void* pBegin = nullptr;
    size_t size = 0;
    if (ZorvUmaGetTid() == ZorvUmaGetPid() || pthread_getattr_np(pthread_self(), &attributes) != 0)
        return;
    if (pthread_attr_getstack(&attributes, &pBegin, &size) == 0)
        t_zorvState.m_stackBegin = reinterpret_cast<uintptr_t>(pBegin);
    pthread_attr_destroy(&attributes);
}

void ZorvUmsPrepareThread(const ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    t_zorvState.m_canUnwind = false;
    if (g_pBacktrace == nullptr || pThreadInfo == nullptr || pThreadInfo->m_pUmsCsBuf == nullptr)
        return;
    t_zorvState.m_canUnwind = g_isStandIn;
    FindStack();
    bool wasStopped = pThreadInfo->m_stopCollection;
    uint32_t frames = ZorvUmaCsBufRoom(pProfileInfo);
    frames = frames < ZORV_UMA_HANDLER_FRAMES ? frames : ZORV_UMA_HANDLER_FRAMES;
    for (int attempt = 0; attempt < SET_UP_ATTEMPTS && !t_zorvState.m_canUnwind; attempt++)
    {
        t_zorvState.m_hasMissedTurn = false;
        t_zorvState.m_canUnwind = Unwind(pThreadInfo->m_pUmsCsBuf, static_cast<int>(frames)) != NO_TURN;
    }
    pThreadInfo->m_stopCollection = wasStopped;
}

// ---- counters --------------------------------------------------------------------------------------------

// Logs the failure of a step of the counters; false for it.
static bool CountersDo(const ZorvUmaProfileInfo* pProfileInfo, bool isDone, const char* pFailure)
{
    if (!isDone)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmsStartPcmCollection", pFailure, ZorvGetErrorMsg());
    return isDone;
}

extern "C" bool ZorvUmsStartPcmCollection(ZorvUmaProfileInfo* pProfileInfo, bool isThread)
{
    if (pProfileInfo == nullptr || pProfileInfo->m_umsConfig.m_nbrEvents == 0)
        return false;
    if (!isThread && !CountersDo(pProfileInfo, ZorvAllocateProcessInfo() == 0,
                                 "Failed to allocate the memory for process info in PMC agent - %s."))
        return false;
    if (!CountersDo(pProfileInfo, ZorvInitializePcmAgent() == 0,
                    "Failed to Initialize core pmc collection agent - %s."))
        return false;
    if (!CountersDo(pProfileInfo,
                    ZorvConfigurePerfEvent(ZORV_PMC_TYPE_CORE, pProfileInfo->m_umsConfig.m_nbrEvents,
                                           pProfileInfo->m_umsConfig.m_pmcEvents) == 0,
                    "Failed to configure core pmc collection agent - %s."))
    {
        if (ZorvGetErrorNum() == EMFILE)
            ZorvUmaWriteErrorFile(pProfileInfo, ZORV_AGENT_ERROR_MAX_OPEN_FILES);
        return false;
    }
    if (ZorvUmaIsPauseSet(pProfileInfo))
    {
        pProfileInfo->m_isPcmAgentPaused = true; // the writer starts them when the pause ends
        return true;
    }
    return CountersDo(pProfileInfo, ZorvStartPerfEvent() >= 0,
                      "Failed to start core pmc collection agent - %s.");
}

void ZorvUmsFiniThreadCounters(ZorvUmaProfileInfo* pProfileInfo, const char* pFunction)
{
    if (ZorvStopPerfEvent() < 0)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, pFunction, "Failed to stop the PMC collection - %s",
                    ZorvGetErrorMsg());
    if (ZorvFiniPcmAgent() < 0)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, pFunction, "Failed to destroy the PMC collection - %s",
                    ZorvGetErrorMsg());
}

void ZorvUmsFiniProcessCounters(ZorvUmaProfileInfo* pProfileInfo)
{
    if (ZorvStopPerfEventAllThreads() < 0)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmaFiniProcess",
                    "Failed to stop the PMC collection - %s", ZorvGetErrorMsg());
    if (ZorvFiniPcmAgent() < 0)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmaFiniProcess",
                    "Failed to destroy the PMC collection - %s", ZorvGetErrorMsg());
}

void ZorvUmsFollowPause(ZorvUmaProfileInfo* pProfileInfo)
{
    bool isPauseSet = ZorvUmaIsPauseSet(pProfileInfo);
    ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
    if (isPauseSet != pState->m_isPauseSeen)
        pState->m_isPauseFailed = false;
    pState->m_isPauseSeen = isPauseSet;
    if (isPauseSet == pProfileInfo->m_isPcmAgentPaused)
        return;
    int result = isPauseSet ? ZorvStopPerfEventAllThreads() : ZorvStartPerfEventAllThreads();
    bool wasFailed = pState->m_isPauseFailed;
    pState->m_isPauseFailed = result < 0;
    if (result >= 0)
        pProfileInfo->m_isPcmAgentPaused = isPauseSet;
    else if (!wasFailed) // told once for each change of the flag, not at every pass
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmaWriterThread",
                    isPauseSet ? "Failed to pause the PMC event collection - %s."
                               : "Failed to resume the PMC event collection - %s.",
                    ZorvGetErrorMsg());
}

// ---- timers ----------------------------------------------------------------------------------------------

// The kernel numbers a process's timers from 0, and 0 reads as no timer: let nobody have that number.
static void SpendTimerIdZero()
{
    struct sigevent event = {};
    event.sigev_notify = SIGEV_NONE;
    int id = -1;
    if (ZorvRawSyscall(SYS_timer_create, CLOCK_MONOTONIC, reinterpret_cast<long>(&event),
                       reinterpret_cast<long>(&id)) == 0)
        ZorvRawSyscall(SYS_timer_delete, id);
}

extern "C" bool ZorvUmsCreateTimer(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo)
{
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return false;
    struct sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = pProfileInfo->m_umsConfig.m_timerSignalNum;
    event._sigev_un._tid = ZorvUmaGetTid();
    event.sigev_value.sival_ptr = pProfileInfo;
    if (ZorvUmaTimerCreate(CLOCK_THREAD_CPUTIME_ID, &event, &pThreadInfo->m_timerId) != 0)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to create the timer for process (%d) and thread (%d).",
                 ZorvUmaGetPid(), ZorvUmaGetTid());
        return false;
    }
    uint64_t interval = pProfileInfo->m_umsConfig.m_timerInterval;
    const timespec period = {static_cast<time_t>(interval / NS_PER_SECOND),
                             static_cast<long>(interval % NS_PER_SECOND)};
    const struct itimerspec times = {period, period};
    if (ZorvUmaTimerSetTime(pThreadInfo->m_timerId, 0, &times, nullptr) != 0)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to set the timer for process (%d) and thread (%d).",
                 ZorvUmaGetPid(), ZorvUmaGetTid());
        return false;
    }
    return true;
}

extern "C" bool ZorvUmsDestroyTimer(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo)
{
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return false;
    if (pThreadInfo->m_timerId == nullptr)
        return true;
    if (ZorvUmaTimerDelete(pThreadInfo->m_timerId) != 0)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to delete the timer for process (%d) and thread (%d).",
                 ZorvUmaGetPid(), ZorvUmaGetTid());
        return false;
    }
    pThreadInfo->m_timerId = nullptr;
    return true;
}

// The action as the kernel has it; rt_sigaction(2).
struct KernelAction
{
    void (*m_pHandler)(int, siginfo_t*, void*);
    unsigned long m_flags;
    void (*m_pRestorer)();
    uint64_t m_mask;
};

void ZorvUmsCloseHandlerToCancellations(int signum)
{
    KernelAction action = {};
    bool isOurs = ZorvRawSyscall(SYS_rt_sigaction, signum, 0, reinterpret_cast<long>(&action),
                                 sizeof(action.m_mask)) == 0 &&
                  action.m_pHandler == ZorvUmsSignalHandler;
    action.m_mask |= ZORV_UMS_CANCELLATION;
    bool isClosed = isOurs && ZorvRawSyscall(SYS_rt_sigaction, signum, reinterpret_cast<long>(&action), 0,
                                             sizeof(action.m_mask)) == 0;
    __atomic_store_n(&g_isHandlerClosed, isClosed, __ATOMIC_SEQ_CST);
}

void ZorvUmsExpectOpenHandler()
{
    __atomic_store_n(&g_isHandlerClosed, false, __ATOMIC_SEQ_CST);
}

static bool InstallHandler(const ZorvUmaProfileInfo* pProfileInfo)
{
    int signum = pProfileInfo->m_umsConfig.m_timerSignalNum;
    struct sigaction current = {};
    if (ZorvUmaSigAction(signum, nullptr, &current) != 0)
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmaConfigureTimerAndPmc",
                    "Failed to get signal action in process (%d)", ZorvUmaGetPid());
        return false;
    }
    if ((current.sa_flags & SA_SIGINFO) != 0 && current.sa_sigaction == ZorvUmsSignalHandler)
        return true;
    struct sigaction own = {};
    own.sa_sigaction = ZorvUmsSignalHandler;
    own.sa_flags = SA_RESTART | SA_SIGINFO;
    if (ZorvUmaSigAction(signum, &own, nullptr) != 0)
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmaConfigureTimerAndPmc",
                    "Failed to set signal handler for sigprof in process (%d)", ZorvUmaGetPid());
        return false;
    }
    return true;
}

extern "C" bool ZorvUmaConfigureTimerAndPmc(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return false;
    if (!pProfileInfo->m_umsConfig.m_enable)
        return true;
    if (!InstallHandler(pProfileInfo))
        return false;
    ZorvUmsCloseHandlerToCancellations(pProfileInfo->m_umsConfig.m_timerSignalNum);
    ZorvUmsConfig* pConfig = &pProfileInfo->m_umsConfig;
    constexpr uint64_t plainLength = sizeof(ZorvUmsRecordHdr) + sizeof(ZorvUmsIpRecord);
    if (pConfig->m_nbrEvents != 0)
    {
        if (!ZorvUmsStartPcmCollection(pProfileInfo, false))
            return false;
        pConfig->m_recLength =
            sizeof(ZorvUmsEventData) * pConfig->m_nbrEvents + plainLength + sizeof(ZorvUmsEventInfo);
    }
    else
        pConfig->m_recLength = plainLength;
    ZorvUmsOpenUnwinder(pProfileInfo);
    ZorvUmsPrepareThread(pProfileInfo);
    SpendTimerIdZero();
    return ZorvUmsCreateTimer(pProfileInfo, t_zorvState.m_pInfo);
}

// ---- exec ------------------------------------------------------------------------------------------------

bool ZorvUmsSuspendForExec()
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    // A child of vfork(2) sees its parent's timer, and may not touch it; it inherits none.
    if (pProfileInfo == nullptr || pThreadInfo == nullptr || pThreadInfo->m_timerId == nullptr ||
        pProfileInfo->m_pid != ZorvUmaGetPid())
        return false;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    bool isSuspended = ZorvUmsDestroyTimer(pProfileInfo, pThreadInfo);
    // With the timer gone, what is pending of it is the last; a program that blocks the signal would hand it
    // on.
    sigset_t profiling;
    sigemptyset(&profiling);
    sigaddset(&profiling, pProfileInfo->m_umsConfig.m_timerSignalNum);
    const timespec now = {};
    ZorvRawSyscall(SYS_rt_sigtimedwait, reinterpret_cast<long>(&profiling), 0, reinterpret_cast<long>(&now),
                   _NSIG / 8);
    ZorvUmaLeaveAgent(&scope);
    return isSuspended;
}

void ZorvUmsResumeAfterExec(bool wasArmed)
{
    if (!wasArmed)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmsCreateTimer(ZorvUmaGetProfileInfo(), t_zorvState.m_pInfo);
    ZorvUmaLeaveAgent(&scope);
}

// ---- the handler -----------------------------------------------------------------------------------------

static void MaskCancellations(int how)
{
    ZorvRawSyscall(SYS_rt_sigprocmask, how, reinterpret_cast<long>(&ZORV_UMS_CANCELLATION), 0,
                   sizeof(ZORV_UMS_CANCELLATION));
}

// Reading is a point of cancellation, which has to wait until the record is whole. The type is left alone until
// the end: libc's read(2) would wait for a cancellation that is under way in a thread of the deferred type, and
// the handler that gets it under way may be what this one has interrupted.
static void ReadCounters(ZorvPerfPmcData* pData)
{
    if (!t_zorvState.m_isInterrupted) // called as a function: no mask comes back at the end of it
    {
        ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, pData);
        return;
    }
    int state;
    int type;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    MaskCancellations(SIG_UNBLOCK);
    ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, pData);
    MaskCancellations(SIG_BLOCK);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    pthread_setcancelstate(state, &state);
    pthread_setcanceltype(type, &type); // last, as in ZorvUmaLeaveAgent
}

static void FillSample(const ZorvUmaProfileInfo* pProfileInfo, char* pBody, void* const* ppFrames,
                       uint32_t count)
{
    auto pIp = reinterpret_cast<ZorvUmsIpRecord*>(pBody);
    auto pGetParId = __atomic_load_n(&pProfileInfo->m_pZorvGetOpenMPParId, __ATOMIC_RELAXED);
    *pIp = {pGetParId != nullptr ? pGetParId() : 0, 0, count};
    char* pStack = pBody + sizeof(*pIp);
    ZorvUmaMemcpy(pStack, ppFrames, sizeof(void*) * count);

    uint32_t events = pProfileInfo->m_umsConfig.m_nbrEvents;
    if (events == 0)
        return;
    auto pEvents = reinterpret_cast<ZorvUmsEventInfo*>(pStack + sizeof(void*) * count);
    *pEvents = {events, 0};
    ReadCounters(reinterpret_cast<ZorvPerfPmcData*>(pEvents + 1));
}

extern "C" void ZorvUmsCaptureSampleRecord(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr || pThreadInfo->m_pUmsCsBuf == nullptr ||
        ZorvUmaIsCollectionStopped(pProfileInfo) || ZorvUmaIsPauseSet(pProfileInfo))
        return;
    if (!t_zorvState.m_canUnwind && !t_zorvState.m_isInterrupted)
    {
        FindUnwinder(pProfileInfo);
        ZorvUmsPrepareThread(pProfileInfo);
    }
    if (!t_zorvState.m_canUnwind)
    {
        if (g_pBacktrace != nullptr)
            __atomic_add_fetch(&pProfileInfo->m_umsData.m_lostRecordCount, 1, __ATOMIC_SEQ_CST);
        return;
    }
    void** ppFrames = pThreadInfo->m_pUmsCsBuf;
    int count = Unwind(ppFrames, FramesWanted(pProfileInfo));
    if (count == NO_TURN)
        __atomic_add_fetch(&pProfileInfo->m_umsData.m_lostRecordCount, 1, __ATOMIC_SEQ_CST);
    if (count <= 0)
        return;

    auto size = static_cast<uint16_t>(sizeof(void*) * static_cast<size_t>(count) +
                                      pProfileInfo->m_umsConfig.m_recLength);
    if (!ZorvUmsInsertSampleRecordHdr(pProfileInfo, ZorvUmaCachedTid(), ZorvUmaGetTime(), size,
                                      ZORV_UMS_RECORD_SAMPLE, pProfileInfo->m_umsConfig.m_configFlags))
        return;
    ZorvUmaBuffer* pBuffer = pThreadInfo->m_pUmsBuf;
    if (pBuffer == nullptr || pBuffer->m_pData == nullptr)
        return;
    FillSample(pProfileInfo, pBuffer->m_pData + pBuffer->m_dataLen + sizeof(ZorvUmsRecordHdr), ppFrames,
               static_cast<uint32_t>(count));
    __atomic_add_fetch(&pBuffer->m_dataLen, size, __ATOMIC_SEQ_CST);
}

// Only the kernel knows where the thread was interrupted.
static bool IsFromKernel(const void* pUContext)
{
    auto pContext = static_cast<const ucontext_t*>(pUContext);
    return pContext != nullptr && pContext->uc_mcontext.gregs[REG_RIP] != 0;
}

// An alternate stack is made for small handlers: unwinding on it would write over what lies below.
static bool IsOnAlternateStack(const void* pUContext)
{
    auto pContext = static_cast<const ucontext_t*>(pUContext);
    if (pContext == nullptr)
        return false;
    // The kernel notes the stack, not whether the thread runs on it.
    auto begin = reinterpret_cast<uintptr_t>(pContext->uc_stack.ss_sp);
    auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    return here - begin < pContext->uc_stack.ss_size;
}

extern "C" void ZorvUmsSignalHandler(int, siginfo_t* pSigInfo, void* pUContext)
{
    if (pSigInfo == nullptr || pSigInfo->si_code != SI_TIMER || IsOnAlternateStack(pUContext))
        return;
    auto pProfileInfo = static_cast<ZorvUmaProfileInfo*>(pSigInfo->si_value.sival_ptr);
    if (pProfileInfo == nullptr)
        return;
    int savedErrno = errno;
    // A cancellation waits: it would take the unwinder's lock along. The return from the signal opens it again.
    bool wasInterrupted = t_zorvState.m_isInterrupted;
    t_zorvState.m_isInterrupted = IsFromKernel(pUContext);
    if (t_zorvState.m_isInterrupted && ZORV_UNLIKELY(!__atomic_load_n(&g_isHandlerClosed, __ATOMIC_RELAXED)))
        MaskCancellations(SIG_BLOCK);
    __atomic_add_fetch(&pProfileInfo->m_timerOverrunCnt, static_cast<uint64_t>(pSigInfo->si_overrun),
                       __ATOMIC_SEQ_CST);
    ZorvUmsCaptureSampleRecord(pProfileInfo);
    t_zorvState.m_isInterrupted = wasInterrupted;
    errno = savedErrno;
}
