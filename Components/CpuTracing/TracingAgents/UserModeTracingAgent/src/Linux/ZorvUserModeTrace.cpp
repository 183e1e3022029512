// The agent's start and end inside the program, and those of its threads.
//
// The agent never stops the program because of a failure of its own: every failure leaves it untraced and
// running. Finalisation may come while other threads are inside traced calls. Whatever they can still reach
// stays where it is; only what nobody can reach is freed and closed.

#include "ZorvUserModeTrace.h"
#include "ZorvAgentUtils.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceAppend.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceSampling.h"
#include "ZorvUserModeTraceSignals.h"
#include "ZorvUserModeTraceWriter.h"

#include <cerrno>
#include <dlfcn.h>
#include <initializer_list>

namespace
{

constexpr long WAIT_STEP_NS = 200000;
constexpr int STREAM_USER_STEPS = 1000;   // 0.2 s for a thread to leave a change of buffer
constexpr int FINALISATION_STEPS = 50000; // 10 s for another thread's final write

constexpr uint64_t NO_START_TIME = 0xFFFFFFFFFFFFFFFFULL;

bool g_isConstructed;
bool g_isPathChosen;
pthread_key_t g_threadKey; // its destructor sees the threads that end without passing ZorvUmaFiniThread
bool g_hasThreadKey;

constexpr ZorvUmtEvent g_allOff[ZORV_UMT_EVENT_MAX] = {};
constexpr ZorvUmtEvent g_allOn[ZORV_UMT_EVENT_MAX] = {{true, false, 0}, {true, false, 0}, {true, false, 0},
                                                      {true, false, 0}, {true, false, 0}, {true, false, 0},
                                                      {true, false, 0}};

} // namespace

constinit const ZorvUmtEvent* g_pTraceGate = g_allOff;
ZorvUmaProfileInfo* g_pProfileInfo;

static void SleepStep()
{
    const timespec step = {0, WAIT_STEP_NS};
    ZorvRawSyscall(SYS_nanosleep, reinterpret_cast<long>(&step));
}

// ---- the process record ----------------------------------------------------------------------------------

// Whether the process is meant to be recorded; else nothing is looked up before it is called.
static bool HasLauncher()
{
    return ZorvUmaGetenv("QELIX_SESSION_DIR") != nullptr;
}

extern "C" ZorvUmaProfileInfo* ZorvUmaGetProfileInfo()
{
    return __atomic_load_n(&g_pProfileInfo, __ATOMIC_ACQUIRE);
}

// The interposers test the event's flag in place only while nobody has replaced a function on the path of a
// record.
static void OpenTraceGate(const ZorvUmaProfileInfo* pProfileInfo)
{
    const ZorvUmtEvent* pGate = g_isPathDirect ? pProfileInfo->m_umtConfig.m_umtEventList : g_allOn;
    __atomic_store_n(&g_pTraceGate, pGate, __ATOMIC_RELEASE);
}

extern "C" ZorvUmaProfileInfo* ZorvUmaAllocateProfileInfo()
{
    if (!ZorvUmaGetLibHandles())
    {
        ZorvUmaFprintf(stderr, "Failed to find the handles.\n");
        return nullptr;
    }
    auto pProfileInfo = static_cast<ZorvUmaProfileInfo*>(ZorvUmaMalloc(sizeof(ZorvUmaProfileInfo)));
    if (pProfileInfo == nullptr)
    {
        ZorvUmaFprintf(stderr, "Failed to allocate memory for profile info in process (%d).\n",
                       ZorvUmaGetPid());
        return nullptr;
    }
    if (HasLauncher() && !ZorvUmaHasEssentials())
        return nullptr; // its memory stays: the essentials may be what gives it back
    ZorvUmaMemset(pProfileInfo, 0, sizeof(*pProfileInfo));
    pProfileInfo->m_umsData.m_fd = -1;
    pProfileInfo->m_umtData.m_fd = -1;
    pProfileInfo->m_umsData.m_isTrace = false;
    pProfileInfo->m_umtData.m_isTrace = true;
    pProfileInfo->m_metaDataFd = -1;
    pProfileInfo->m_logFd = -1;
    pProfileInfo->m_errFd = -1;
    pProfileInfo->m_shmFd = -1;
    for (pthread_mutex_t* pLock : {&pProfileInfo->m_umsData.m_lock, &pProfileInfo->m_umtData.m_lock,
                                   &pProfileInfo->m_errLock, &pProfileInfo->m_lock})
        ZorvUmaPthreadMutexInit(pLock, nullptr);
    pProfileInfo->m_umaConfig.m_profileChildren = true;
    pProfileInfo->m_isProcessInitialized = false;
    pProfileInfo->m_pid = ZorvUmaGetPid();
    ZorvUmaForgetCachedIds();
    ZorvUmaMarkMemory();
    if (!g_isPathChosen)
        ZorvUmtChoosePath();
    g_isPathChosen = true; // also in a forked child, where the loader may not be asked again
    __atomic_store_n(&g_pProfileInfo, pProfileInfo, __ATOMIC_RELEASE);
    ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
    *pState = {};
    pState->m_threadCount = t_zorvState.m_pInfo != nullptr ? 1 : 0; // in a forked child
    OpenTraceGate(pProfileInfo);
    return pProfileInfo;
}

extern "C" void ZorvUmaFreeProfileInfo()
{
    ZorvUmaProfileInfo* pProfileInfo = g_pProfileInfo;
    if (pProfileInfo == nullptr)
        return;
    __atomic_store_n(&g_pTraceGate, &g_allOff[0], __ATOMIC_RELEASE);
    __atomic_store_n(&g_pProfileInfo, nullptr, __ATOMIC_RELEASE);
    ZorvUmaFree(pProfileInfo);
}

// ---- the thread record -----------------------------------------------------------------------------------

extern "C" ZorvUmaPerThreadInfo* ZorvUmaAllocateThreadInfo(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return nullptr;
    auto pThreadInfo = static_cast<ZorvUmaPerThreadInfo*>(ZorvUmaMalloc(sizeof(ZorvUmaPerThreadInfo)));
    if (pThreadInfo == nullptr)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to allocate memory for Thread info in process (%d).\n",
                 ZorvUmaGetPid());
        return nullptr;
    }
    // Zeroed before the profiling signal can see it.
    ZorvUmaMemset(pThreadInfo, 0, sizeof(*pThreadInfo));
    t_zorvState.m_pAppendFrame = nullptr;
    t_zorvState.m_pUmtSpareBuf = nullptr;
    ZorvUmaAskTid(); // now: a child of vfork(2) would store its own
    if (t_zorvState.m_pInfo == nullptr)
        __atomic_add_fetch(&ZorvUmaStateOf(ZorvUmaGetProfileInfo())->m_threadCount, 1, __ATOMIC_SEQ_CST);
    __atomic_store_n(&t_zorvState.m_pInfo, pThreadInfo, __ATOMIC_RELEASE);
    if (g_hasThreadKey)
        pthread_setspecific(g_threadKey, pThreadInfo);
    return pThreadInfo;
}

extern "C" void ZorvUmaFreeThreadInfo()
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pThreadInfo == nullptr)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    t_zorvState.m_pInfo = nullptr;
    ZorvProcessState* pState = ZorvUmaStateOf(ZorvUmaGetProfileInfo());
    if (pState->m_threadCount > 0)
        __atomic_sub_fetch(&pState->m_threadCount, 1, __ATOMIC_SEQ_CST);
    if (pThreadInfo->m_pUmsCsBuf != nullptr)
        ZorvUmaRelease(pThreadInfo->m_pUmsCsBuf);
    if (pThreadInfo->m_pUmtCsBuf != nullptr)
        ZorvUmaRelease(pThreadInfo->m_pUmtCsBuf);
    ZorvUmaRelease(pThreadInfo);
    ZorvUmaLeaveAgent(&scope);
}

extern "C" bool ZorvUmaAllocateCsBuf(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return false;
    uint32_t room = ZorvUmaCsBufRoom(pProfileInfo);
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (room == 0 || pThreadInfo == nullptr)
        return true;

    size_t size = sizeof(void*) * room;
    bool isAllocated = true;
    if (pProfileInfo->m_umtConfig.m_enable)
    {
        pThreadInfo->m_pUmtCsBuf = static_cast<void**>(ZorvUmaMalloc(size));
        isAllocated = pThreadInfo->m_pUmtCsBuf != nullptr;
        if (!isAllocated)
            ZORV_LOG(pProfileInfo->m_logFd, ERROR,
                     "Failed to allocate the trace cs buffer in pid (%d) and tid (%d).", ZorvUmaGetPid(),
                     ZorvUmaGetTid());
    }
    if (pProfileInfo->m_umsConfig.m_enable && pProfileInfo->m_umsConfig.m_collectCallStack)
    {
        pThreadInfo->m_pUmsCsBuf = static_cast<void**>(ZorvUmaMalloc(size));
        if (pThreadInfo->m_pUmsCsBuf == nullptr)
        {
            ZORV_LOG(pProfileInfo->m_logFd, ERROR,
                     "Failed to allocate the sample cs buffer in pid (%d) and tid (%d).", ZorvUmaGetPid(),
                     ZorvUmaGetTid());
            return false;
        }
    }
    return isAllocated;
}

// ---- start of the process --------------------------------------------------------------------------------

// Replacing allocators and tracing do not go together: the launcher is told, and the program is not run.
static void RefuseJemalloc(ZorvUmaProfileInfo* pProfileInfo)
{
    const char* pPreload = ZorvUmaGetenv("LD_PRELOAD");
    if (pPreload == nullptr || ZorvUmaStrstr(pPreload, "libjemalloc.so") == nullptr)
        return;
    if (ZorvUmaWriteErrorFile(pProfileInfo, ZORV_AGENT_ERROR_LIBJEMALLOC))
        return;
    ZorvUmaFprintf(stderr, "Failed to collect data as libjemalloc is loaded with LD_PRELOAD.\n"
                           "       Please try removing libjemalloc from LD_PRELOAD environment variable.\n");
    ZorvUmaFileFlush(stderr);
    ZorvUmaExit(0);
}

static bool StartWriter(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvUmaStateOf(pProfileInfo)->m_cpuCount = ZorvUmaSysconf(_SC_NPROCESSORS_CONF);
    // The caller's scope blocks every signal, and the writer inherits that: it takes none of the program's.
    if (ZorvUmaPthreadCreate(&pProfileInfo->m_writerThreadId, nullptr, ZorvUmaWriterThread, pProfileInfo) == 0)
        return true;
    pProfileInfo->m_writerThreadId = 0; // nobody to be joined
    ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmaInitProcess",
                "Failed to create a writer thread in process (%d)", ZorvUmaGetPid());
    return false;
}

static bool PrepareProcess(ZorvUmaProfileInfo* pProfileInfo)
{
    constexpr const char* pCaller = "ZorvUmaInitProcess";
    if (!ZorvUmaOpenLogAndErrorFile(pProfileInfo))
    {
        ZorvUmaFprintf(stderr, "Failed to open log and error file in process (%d).\n", ZorvUmaGetPid());
        return false;
    }
    if (!ZorvUmaReadConfig(pProfileInfo))
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, pCaller, "Failed to read config file in process (%d)",
                    ZorvUmaGetPid());
        return false;
    }
    if (pProfileInfo->m_umtConfig.m_enable)
        RefuseJemalloc(pProfileInfo);
    if (ZorvUmaSemInit(&pProfileInfo->m_semaphore, 0, 0) != 0)
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, pCaller, "Failed to initialize the semaphore.");
        return false;
    }
    if (!ZorvUmaInitSharedMemory(pProfileInfo))
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, pCaller, "Failed to Initialize the shared memory.");
        return false;
    }
    if (!ZorvUmaCreateQueue(pProfileInfo))
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, pCaller, "Failed to create the queue.");
        return false;
    }
    return true;
}

extern "C" bool ZorvUmaInitProcess(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return false;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    uint64_t startTime = ZorvUmaGetTime();
    bool isStarted = PrepareProcess(pProfileInfo);
    isStarted = ZorvUmaKeepFilesOf(pProfileInfo) && isStarted && StartWriter(pProfileInfo);
    if (isStarted)
    {
        ZorvStoreFenced(&pProfileInfo->m_isProcessInitialized, true);
        ZorvUmaWriteFileHdr(pProfileInfo);
        ZorvUmsWritePcmMetadata(pProfileInfo);
        fnWriteProcessMaps(ZorvUmaGetPid(), pProfileInfo->m_metaDataFd);
        ZorvUmaWriteProcRecord(pProfileInfo, ZorvUmaGetTid(), nullptr, 0, startTime, 0);
        isStarted = ZorvUmaConfigureTimerAndPmc(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
    return isStarted;
}

static void EndUnannouncedThread(void*);

// In a child that fork(2) made: what is remembered of the parent's thread is wrong here, and nobody writes what
// the child would fill.
static void StopInForkedChild()
{
    ZorvUmaForgetCachedIds();
    t_zorvState.m_agentDepth = 0;
    ZorvUmsForgetTurn();
    ZorvUmaRenewFilesLock();
    ZorvUmaSetStopCollection(true);
}

// A later first look-up could come in a signal handler, between a vfork and its exec, or over a dlerror of the
// program.
static void ResolveInAdvance()
{
    if (!ZorvUmaIsLibcAsked())
        return;
    ZorvUmtResolveInterposers();
    if (HasLauncher())
        ZorvUmaResolveWrappers();
}

extern "C" __attribute__((constructor)) void ZorvUmaInit()
{
    if (g_isConstructed)
        return;
    g_isConstructed = true;
    g_pWriteMmapBytes = ZorvUmaWriteWhole;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    g_hasThreadKey = pthread_key_create(&g_threadKey, EndUnannouncedThread) == 0;
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaAllocateProfileInfo();
    if (pProfileInfo != nullptr && ZorvUmaAllocateThreadInfo(pProfileInfo) != nullptr)
    {
        ResolveInAdvance();
        pthread_atfork(ZorvUmsHoldTurnForFork, ZorvUmsEndHoldForFork, StopInForkedChild);
        ZorvUmaAtexit(ZorvUmaExitHandler);
        if (!ZorvUmaInitProcess(pProfileInfo))
            ZorvUmaFprintf(stderr, "Qelix : Failed to initialize the constructor for pid (%d).\n",
                           ZorvUmaGetPid());
    }
    ZorvUmaLeaveAgent(&scope);
    ZorvUmsAdmitSignal();
}

// ---- end of the process ----------------------------------------------------------------------------------

// exit(3) may have been called in a signal handler: then its thread may be inside the allocator.
static void FiniAtExit()
{
    sigset_t blocked;
    bool wasDying = t_zorvState.m_isDying;
    ZorvRawSigmask(SIG_SETMASK, nullptr, &blocked);
    if (sigisemptyset(&blocked) == 0)
        t_zorvState.m_isDying = true;
    ZorvUmaFiniProcess(ZorvUmaGetProfileInfo(), false);
    t_zorvState.m_isDying = wasDying;
}

extern "C" void ZorvUmaExitHandler()
{
    FiniAtExit();
}

extern "C" __attribute__((destructor)) void ZorvUmaFini()
{
    FiniAtExit();
}

static void LeaveForeignProcess(ZorvUmaProfileInfo* pProfileInfo, pid_t pid)
{
    if (ZorvUmaSharesMemory())
        return; // a child of vfork(2): whatever it wrote would be its parent's
    ZorvUmaWriteProcRecord(pProfileInfo, ZorvUmaGetTid(), nullptr, 0, NO_START_TIME, 0);
    ZORV_LOG_AS(pProfileInfo->m_logFd, INFO, "ZorvUmaFiniProcess",
                "Finish process for (%d) is from other process (%d).", pProfileInfo->m_pid, pid);
}

// A thread that dies inside the allocator waits for nobody who may want to allocate.
static bool LockForFlush(ZorvUmaProfileInfo* pProfileInfo)
{
    if (!t_zorvState.m_isDying)
        return ZorvUmaPthreadMutexLock(&pProfileInfo->m_lock) == 0;
    for (int step = 0; step < STREAM_USER_STEPS; step++)
    {
        if (ZorvUmaTryMutexLock(&pProfileInfo->m_lock) == 0)
            return true;
        SleepStep();
    }
    return false;
}

// True for the one caller that finalises.
static bool ClaimFinalisation(ZorvUmaProfileInfo* pProfileInfo)
{
    pid_t nobody = 0;
    ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
    if (!__atomic_compare_exchange_n(&pState->m_finalisingTid, &nobody, ZorvUmaCachedTid(), false,
                                     __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        return false;
    bool isLocked = LockForFlush(pProfileInfo);
    __atomic_store_n(&pProfileInfo->m_isFlush, true, __ATOMIC_SEQ_CST);
    ZorvUmaSetStopCollection(true);
    if (isLocked)
        ZorvUmaPthreadMutexUnlock(&pProfileInfo->m_lock);
    return true;
}

// The caller may be about to end the process: another thread's final write must not be cut off.
static void WaitForFinaliser(const ZorvUmaProfileInfo* pProfileInfo)
{
    const ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
    pid_t finalisingTid = __atomic_load_n(&pState->m_finalisingTid, __ATOMIC_SEQ_CST);
    if (finalisingTid == 0 || finalisingTid == ZorvUmaCachedTid())
        return;
    for (int step = 0; step < FINALISATION_STEPS && !__atomic_load_n(&pState->m_isFinalised, __ATOMIC_SEQ_CST);
         step++)
        SleepStep();
}

// True once no other thread is inside a change of buffer or a log line.
static bool WaitForStreamUsers(const ZorvUmaProfileInfo* pProfileInfo)
{
    for (int step = 0; step < STREAM_USER_STEPS; step++)
    {
        if (__atomic_load_n(&ZorvUmaStateOf(pProfileInfo)->m_streamUsers, __ATOMIC_SEQ_CST) == 0)
            return true;
        SleepStep();
    }
    return false;
}

static void FinishStreams(ZorvUmaProfileInfo* pProfileInfo, bool isFromWriterThread)
{
    if (pProfileInfo->m_umtConfig.m_enable)
    {
        ZorvStoreFenced(&pProfileInfo->m_umtConfig.m_enable, false);
        ZorvUmaFiniDataWriting(&pProfileInfo->m_umtData, pProfileInfo->m_logFd, isFromWriterThread);
    }
    if (pProfileInfo->m_umsConfig.m_enable)
    {
        ZorvStoreFenced(&pProfileInfo->m_umsConfig.m_enable, false);
        ZorvUmaFiniDataWriting(&pProfileInfo->m_umsData, pProfileInfo->m_logFd, false);
    }
    // A stream that has a directory but is disabled has an open, empty file.
    ZorvUmaSyncAndClose(&pProfileInfo->m_umtData.m_fd);
    ZorvUmaSyncAndClose(&pProfileInfo->m_umsData.m_fd);
    ZorvUmaSyncAndClose(&pProfileInfo->m_metaDataFd);
}

// A join would take locks of libc's, which a thread that dies inside the allocator may hold against the writer.
static void AwaitWriter(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvUmaWakeWriter(pProfileInfo);
    if (t_zorvState.m_isDying)
    {
        const ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
        for (int step = 0;
             step < FINALISATION_STEPS && !__atomic_load_n(&pState->m_isWriterDone, __ATOMIC_SEQ_CST); step++)
            SleepStep();
    }
    else
        ZorvUmaPthreadJoin(pProfileInfo->m_writerThreadId, nullptr);
}

static void FinaliseProcess(ZorvUmaProfileInfo* pProfileInfo, bool isFromWriterThread)
{
    bool isUnused = WaitForStreamUsers(pProfileInfo);
    ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
    pState->m_keepsStorage = !isUnused;
    ZorvUmsDestroyTimer(pProfileInfo, t_zorvState.m_pInfo);
    if (pProfileInfo->m_umsConfig.m_nbrEvents != 0)
        ZorvUmsFiniProcessCounters(pProfileInfo);
    if (!isFromWriterThread && pProfileInfo->m_writerThreadId != 0)
        AwaitWriter(pProfileInfo);
    FinishStreams(pProfileInfo, isFromWriterThread);
    if (isUnused)
    {
        ZorvUmaDestroyQueue(pProfileInfo);
        ZorvUmaCloseLogAndErrorFile(pProfileInfo);
    }
    ZorvUmaFiniSharedMemory(pProfileInfo);
    ZorvUmaFreeThreadInfo();
    __atomic_store_n(&pState->m_isFinalised, true, __ATOMIC_SEQ_CST);
    if (pProfileInfo != ZorvUmaGetProfileInfo())
        *pState = {}; // for the next record of somebody else
}

extern "C" void ZorvUmaFiniProcess(ZorvUmaProfileInfo* pProfileInfo, bool isFromWriterThread)
{
    if (pProfileInfo == nullptr)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    pid_t pid = ZorvUmaGetPid();
    if (pProfileInfo->m_pid != pid)
        LeaveForeignProcess(pProfileInfo, pid);
    else
    {
        bool isFirst = !__atomic_load_n(&pProfileInfo->m_isFlush, __ATOMIC_SEQ_CST);
        if (isFirst && !isFromWriterThread)
            ZorvUmaWriteThreadEndRecord(pProfileInfo, 0);
        if (isFirst && ClaimFinalisation(pProfileInfo))
            FinaliseProcess(pProfileInfo, isFromWriterThread);
        else
        {
            // The finalising thread joins the writer: that one may not wait for it.
            if (!isFromWriterThread)
                WaitForFinaliser(pProfileInfo);
            ZorvUmaFreeThreadInfo();
        }
    }
    ZorvUmaLeaveAgent(&scope);
}

// ---- OpenMP hook -----------------------------------------------------------------------------------------

extern "C" void ZorvUmaSetOpenMPAgentInitialized(bool isInitialized)
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    if (!isInitialized || pProfileInfo == nullptr || pProfileInfo->m_umaConfig.m_pOpenMPAgentPath == nullptr)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    // Through our own interposer, which lists the modules anew.
    void* pHandle = ZorvInterposeDlopen(pProfileInfo->m_umaConfig.m_pOpenMPAgentPath, RTLD_NOW | RTLD_NOLOAD);
    void* pSymbol = pHandle == nullptr ? nullptr : dlsym(pHandle, "ZorvGetOpenMPParId");
    auto pGetId = reinterpret_cast<uint64_t (*)()>(pSymbol);
    __atomic_store_n(&pProfileInfo->m_pZorvGetOpenMPParId, pGetId, __ATOMIC_RELEASE);
    if (pGetId == nullptr)
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to get the symbol address for \"ZorvGetOpenMPParId\".");
    if (pHandle != nullptr)
        dlclose(pHandle);
    ZorvUmaLeaveAgent(&scope);
}

// ---- threads ---------------------------------------------------------------------------------------------

static bool IsMainThread()
{
    return ZorvUmaGetTid() == ZorvUmaGetPid();
}

// Buffers first, then the proc record: it wants a buffer. Under m_lock, so that finalisation sees all of it or
// none.
static bool SetUpThread(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime)
{
    bool isReady = ZorvUmaAllocateCsBuf(pProfileInfo);
    if (isReady && pProfileInfo->m_umtConfig.m_enable)
        isReady = ZorvUmaCreateBuffers(&pProfileInfo->m_umtData, pProfileInfo->m_logFd);
    if (isReady && pProfileInfo->m_umsConfig.m_enable)
        isReady = ZorvUmaCreateBuffers(&pProfileInfo->m_umsData, pProfileInfo->m_logFd);
    ZorvUmaWriteProcRecord(pProfileInfo, ZorvUmaGetTid(), nullptr, 0, startTime,
                           static_cast<uint64_t>(ZorvUmaPthreadSelf()));
    if (!isReady || !pProfileInfo->m_umsConfig.m_enable)
        return isReady;
    ZorvUmsPrepareThread(pProfileInfo);
    if (pProfileInfo->m_umsConfig.m_nbrEvents != 0)
        isReady = ZorvUmsStartPcmCollection(pProfileInfo, true);
    return isReady && ZorvUmsCreateTimer(pProfileInfo, t_zorvState.m_pInfo);
}

extern "C" bool ZorvUmaInitThread(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return false;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    uint64_t startTime = ZorvUmaGetTime();
    ZorvUmaPthreadMutexLock(&pProfileInfo->m_lock);
    bool isReady = !ZorvUmaIsCollectionStopped(pProfileInfo) && SetUpThread(pProfileInfo, startTime);
    ZorvUmaPthreadMutexUnlock(&pProfileInfo->m_lock);
    ZorvUmaLeaveAgent(&scope);
    return isReady;
}

// The thread keeps the address: it is stopped, and its record is freed next.
static void HandOverThreadBuffer(ZorvUmaData* pData, ZorvUmaBuffer* pBuffer)
{
    if (pBuffer == nullptr || pBuffer->m_state == ZORV_UMA_BUFFER_STATE_FULL) // in at most one queue
        return;
    ZorvStoreFenced(&pBuffer->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    ZorvUmaEnqueue(pData->m_pQueue, pBuffer);
}

static void HandOverThreadBuffers(ZorvUmaProfileInfo* pProfileInfo)
{
    const ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (!ZorvUmaBeginStreamUse(pProfileInfo))
        return;
    if (pThreadInfo != nullptr && pProfileInfo->m_umsConfig.m_enable)
        HandOverThreadBuffer(&pProfileInfo->m_umsData, pThreadInfo->m_pUmsBuf);
    if (pThreadInfo != nullptr && pProfileInfo->m_umtConfig.m_enable)
    {
        HandOverThreadBuffer(&pProfileInfo->m_umtData, pThreadInfo->m_pUmtBuf);
        HandOverThreadBuffer(&pProfileInfo->m_umtData, t_zorvState.m_pUmtSpareBuf);
    }
    ZorvUmaSemPost(&pProfileInfo->m_semaphore);
    ZorvUmaNudgeWriter(pProfileInfo);
    ZorvUmaEndStreamUse(pProfileInfo);
}

extern "C" void ZorvUmaFiniThread(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return;
    if (IsMainThread())
    {
        ZorvUmaFiniProcess(pProfileInfo, false);
        return;
    }
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaWriteThreadEndRecord(pProfileInfo, 0);
    ZorvUmaSetStopCollection(true);
    HandOverThreadBuffers(pProfileInfo);
    ZorvUmsDestroyTimer(pProfileInfo, t_zorvState.m_pInfo);
    if (pProfileInfo->m_umsConfig.m_enable && pProfileInfo->m_umsConfig.m_nbrEvents != 0)
        ZorvUmsFiniThreadCounters(pProfileInfo, __func__);
    ZorvUmaLeaveAgent(&scope);
}

// Destructor of the thread key: a cancelled thread passes nowhere else. Its buffers stay as they are, with the
// provisional record of the wait that it was cancelled in; they are written at the end. A cancelled main thread
// ends the collection like one that leaves by pthread_exit: else the writer would keep a process alive that
// ends natively.
static void EndUnannouncedThread(void*)
{
    if (t_zorvState.m_pInfo == nullptr)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    if (IsMainThread())
        ZorvUmaFiniProcess(pProfileInfo, false);
    else if (pProfileInfo != nullptr)
    {
        ZorvUmsDestroyTimer(pProfileInfo, t_zorvState.m_pInfo);
        if (pProfileInfo->m_umsConfig.m_enable && pProfileInfo->m_umsConfig.m_nbrEvents != 0)
            ZorvUmsFiniThreadCounters(pProfileInfo, __func__);
    }
    ZorvUmaFreeThreadInfo();
    ZorvUmaLeaveAgent(&scope);
}

static bool BeginThread(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    bool hasRecord = ZorvUmaAllocateThreadInfo(pProfileInfo) != nullptr;
    if (!hasRecord)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmtPthreadCreateWrapper",
                    "Failed to allocate memoey in the thread (%d).", ZorvUmaGetTid());
    else if (!ZorvUmaInitThread(pProfileInfo))
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmtPthreadCreateWrapper",
                    "Failed to initialize the thread (%d).", ZorvUmaGetTid());
    ZorvUmaLeaveAgent(&scope);
    ZorvUmsAdmitSignal();
    return hasRecord;
}

static void EndThread(ZorvUmtThreadWrapperArg* pArg)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaProfileInfo* pProfileInfo = pArg->m_pProfileInfo;
    // The routine may have forked, and this may be the child, with a record of its own.
    if (pProfileInfo->m_pid != 0 && pProfileInfo->m_pid != ZorvUmaGetPid())
        pProfileInfo = ZorvUmaGetProfileInfo();
    ZorvUmaFiniThread(pProfileInfo);
    ZorvUmaFreeThreadInfo();
    ZorvUmaFree(pArg);
    ZorvUmaLeaveAgent(&scope);
}

extern "C" void* ZorvUmtPthreadCreateWrapper(void* pArg)
{
    auto pWrapperArg = static_cast<ZorvUmtThreadWrapperArg*>(pArg);
    if (pWrapperArg == nullptr)
        return nullptr;
    if (pWrapperArg->m_pProfileInfo != nullptr && !BeginThread(pWrapperArg->m_pProfileInfo))
        return nullptr; // without a record the routine is not run
    void* pResult = nullptr;
    if (pWrapperArg->m_pStartRoutine != nullptr)
        pResult = pWrapperArg->m_pStartRoutine(pWrapperArg->m_pArg);
    if (pWrapperArg->m_pProfileInfo != nullptr)
        EndThread(pWrapperArg);
    return pResult;
}
