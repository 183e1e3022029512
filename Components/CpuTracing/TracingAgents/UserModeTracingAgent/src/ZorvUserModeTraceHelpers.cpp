// Agent scope, ids, log and error files, clock, and the controller's flags.

#include "ZorvUserModeTraceHelpers.h"
#include "Linux/ZorvUserModeTrace.h"
#include "Linux/ZorvUserModeTraceAppend.h"
#include "ZorvAgentUtils.h"
#include "ZorvRawSyscall.h"

#include <cerrno>
#include <initializer_list>

constinit thread_local ZorvThreadState t_zorvState = {};
pid_t g_cachedPid;

namespace
{

constexpr size_t LOG_LINE_SIZE = 1024;
constexpr size_t LOG_TEXT_SIZE = LOG_LINE_SIZE - 2; // the newline and a terminating zero
constexpr size_t PATH_SIZE = 4096;
constexpr size_t HOST_NAME_SIZE = 256;
constexpr size_t THREAD_NAME_SIZE = 32;
constexpr size_t KERNEL_NAME_SIZE = 16; // what prctl(PR_GET_NAME) writes

} // namespace

static bool g_hasNestedHandlers;

void ZorvUmaExpectNestedHandlers()
{
    __atomic_store_n(&g_hasNestedHandlers, true, __ATOMIC_RELAXED);
}

// ---- scope -----------------------------------------------------------------------------------------------

void ZorvUmaEnterAgent(ZorvAgentScope* pScope)
{
    pScope->m_errno = errno;
    // The mask comes before the count: a handler that runs in between finds the count as it was and balances
    // it.
    if (t_zorvState.m_agentDepth == 0)
    {
        sigset_t all;
        sigfillset(&all);
        ZorvRawSigmask(SIG_SETMASK, &all, &pScope->m_signals);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &pScope->m_cancelType);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &pScope->m_cancelState);
        // A handler of the program runs with its own signal blocked, and may have interrupted the allocator.
        t_zorvState.m_mayAllocate =
            !t_zorvState.m_isDying && !g_hasNestedHandlers && sigisemptyset(&pScope->m_signals) != 0;
    }
    t_zorvState.m_agentDepth++;
}

void ZorvUmaLeaveAgent(const ZorvAgentScope* pScope)
{
    t_zorvState.m_agentDepth--;
    if (t_zorvState.m_agentDepth == 0)
    {
        // The mask first: a thread cancelled at once would run its cleanup with every signal blocked.
        int ignored;
        ZorvRawSigmask(SIG_SETMASK, &pScope->m_signals, nullptr);
        pthread_setcancelstate(pScope->m_cancelState, &ignored);
        // The type last: libc ends a thread with a pending asynchronous cancellation in either call, but only
        // in this one with the result of a cancelled thread.
        pthread_setcanceltype(pScope->m_cancelType, &ignored);
    }
    errno = pScope->m_errno;
}

ZorvProcessState* ZorvUmaStateOf(const ZorvUmaProfileInfo* pProfileInfo)
{
    static ZorvProcessState ownState;
    static ZorvProcessState othersState;
    return pProfileInfo == __atomic_load_n(&g_pProfileInfo, __ATOMIC_ACQUIRE) ? &ownState : &othersState;
}

bool ZorvUmaBeginStreamUse(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
    __atomic_add_fetch(&pState->m_streamUsers, 1, __ATOMIC_SEQ_CST);
    pid_t finalisingTid = __atomic_load_n(&pState->m_finalisingTid, __ATOMIC_SEQ_CST);
    if (ZORV_LIKELY(finalisingTid == 0 || finalisingTid == ZorvUmaCachedTid()))
        return true;
    ZorvUmaEndStreamUse(pProfileInfo);
    return false;
}

void ZorvUmaEndStreamUse(ZorvUmaProfileInfo* pProfileInfo)
{
    __atomic_sub_fetch(&ZorvUmaStateOf(pProfileInfo)->m_streamUsers, 1, __ATOMIC_SEQ_CST);
}

// ---- whose memory ----------------------------------------------------------------------------------------

// A page that the kernel empties in a forked child and leaves in one that shares the memory. madvise(2).
static uint32_t* g_pOwnMark;
static pid_t g_markingPid; // 0 until there are records

// The kernel is asked, and not the record: that one carries what somebody else has put there.
static pid_t KernelsPid()
{
    return static_cast<pid_t>(ZorvRawSyscall(SYS_getpid));
}

void ZorvUmaMarkMemory()
{
    g_markingPid = KernelsPid();
    if (g_pOwnMark == nullptr)
    {
        constexpr long size = 4096;
        long page =
            ZorvRawSyscall(SYS_mmap, 0, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (page < 0)
            return;
        ZorvRawSyscall(SYS_madvise, page, size, MADV_WIPEONFORK);
        g_pOwnMark = reinterpret_cast<uint32_t*>(page);
    }
    *g_pOwnMark = 1;
}

bool ZorvUmaSharesMemory()
{
    return ZorvUmaIsForeign() && g_pOwnMark != nullptr && *g_pOwnMark != 0;
}

bool ZorvUmaIsForeign()
{
    return g_markingPid != 0 && g_markingPid != KernelsPid();
}

// ---- ids -------------------------------------------------------------------------------------------------

ZORV_COLD pid_t ZorvUmaAskTid()
{
    t_zorvState.m_tid = ZorvUmaGetTid();
    return t_zorvState.m_tid;
}

ZORV_COLD pid_t ZorvUmaAskPid()
{
    g_cachedPid = ZorvUmaGetPid();
    return g_cachedPid;
}

void ZorvUmaForgetCachedIds()
{
    t_zorvState.m_tid = 0;
    g_cachedPid = 0;
}

// ---- log and error files ----------------------------------------------------------------------------------

extern "C" bool ZorvUmaOpenLogAndErrorFile(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return false;
    const char* pSessionDir = ZorvUmaGetenv("QELIX_SESSION_DIR");
    if (pSessionDir == nullptr)
        return false;

    char hostName[HOST_NAME_SIZE] = {};
    char threadName[THREAD_NAME_SIZE] = {};
    if (ZorvUmaGetHostName(hostName, sizeof(hostName)) != 0 ||
        !ZorvUmaGetCurrentThreadName(threadName, sizeof(threadName)))
        return false;
    for (char* pSlash = ZorvUmaStrchr(threadName, '/'); pSlash != nullptr;
         pSlash = ZorvUmaStrchr(threadName, '/'))
        *pSlash = '_'; // a name is no path

    constexpr int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    pid_t pid = ZorvUmaGetPid();
    char path[PATH_SIZE] = {};
    ZorvUmaSnprintf(path, sizeof(path), "%s/%s/ZorvUmtAgent_%s_%s_%d.txt", pSessionDir, ".log", hostName,
                    threadName, pid);
    pProfileInfo->m_logFd = fnOpenFile(path, flags, 0644);
    ZorvUmaSnprintf(path, sizeof(path), "%s/%s/ZorvUmtError_%s_%s_%d.err", pSessionDir, ".error", hostName,
                    threadName, pid);
    pProfileInfo->m_errFd = fnOpenFile(path, flags, 0644);
    return pProfileInfo->m_logFd >= 0 && pProfileInfo->m_errFd >= 0;
}

extern "C" void ZorvUmaCloseLogAndErrorFile(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return;
    for (int* pFd : {&pProfileInfo->m_logFd, &pProfileInfo->m_errFd})
    {
        if (*pFd < 0)
            continue;
        ZorvUmaSyncAndClose(pFd);
    }
}

static int FormatLogPrefix(char* pLine, ZorvUmaLogType logType, const char* pFunction, int line)
{
    switch (logType)
    {
    case ZORV_UMA_LOG_TYPE_ERROR:
        return ZorvUmaSnprintf(pLine, LOG_TEXT_SIZE, "ERROR : %s : %d : ", pFunction, line);
    case ZORV_UMA_LOG_TYPE_DEBUG:
        return ZorvUmaSnprintf(pLine, LOG_TEXT_SIZE, "DEBUG : %s : %d : ", pFunction, line);
    case ZORV_UMA_LOG_TYPE_WARN:
        return ZorvUmaSnprintf(pLine, LOG_TEXT_SIZE, "WARN : %s : %d : ", pFunction, line);
    case ZORV_UMA_LOG_TYPE_TRACE:
        return ZorvUmaSnprintf(pLine, LOG_TEXT_SIZE, "TRACE : %s : %d : %d : %d: ", pFunction, line,
                               ZorvUmaGetPid(), ZorvUmaGetTid());
    case ZORV_UMA_LOG_TYPE_INFO:
        return ZorvUmaSnprintf(pLine, LOG_TEXT_SIZE, "INFO : %d : %d: ", ZorvUmaGetPid(), ZorvUmaGetTid());
    default:
        return 0;
    }
}

// What snprintf says it would have written, cut to what there was room for.
static size_t FittingLength(int formatted, size_t room)
{
    if (formatted < 0 || room == 0)
        return 0;
    return static_cast<size_t>(formatted) < room ? static_cast<size_t>(formatted) : room - 1;
}

static void FormatAndWriteLine(char* pLine, int fd, ZorvUmaLogType logType, const char* pFunction, int line,
                               const char* pFormat, va_list list)
{
    ZorvUmaMemset(pLine, 0, LOG_LINE_SIZE);
    size_t length = FittingLength(FormatLogPrefix(pLine, logType, pFunction, line), LOG_TEXT_SIZE);
    size_t room = LOG_TEXT_SIZE - length;
    length += FittingLength(ZorvUmaVsnprintf(pLine + length, room, pFormat, list), room);
    pLine[length++] = '\n';
    fd = ZorvUmaOwnDescriptor(fd);
    if (ZorvUmaWriteOwnFile(fd, pLine, length) == static_cast<ssize_t>(length))
        ZorvUmaFsync(fd);
}

static void WriteLogLine(int fd, ZorvUmaLogType logType, const char* pFunction, int line, const char* pFormat,
                         va_list list)
{
    // A child of vfork(2) shares its parent's allocator, and may end at any moment.
    if (ZorvUmaIsForeign() || !t_zorvState.m_mayAllocate)
    {
        char onStack[LOG_LINE_SIZE];
        FormatAndWriteLine(onStack, fd, logType, pFunction, line, pFormat, list);
        return;
    }
    // Never given back: freeing would let the log path call back into an allocator that the program has
    // replaced.
    auto pLine = static_cast<char*>(ZorvUmaMalloc(LOG_LINE_SIZE));
    if (pLine != nullptr)
        FormatAndWriteLine(pLine, fd, logType, pFunction, line, pFormat, list);
}

extern "C" int ZorvUmaWriteLogFile(int fd, ZorvUmaLogType logType, const char* pFunction, int line,
                                   const char* pFormat, ...)
{
    if (fd < 0 || pFunction == nullptr || pFormat == nullptr)
        return 0;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    va_list list;
    va_start(list, pFormat);
    WriteLogLine(fd, logType, pFunction, line, pFormat, list);
    va_end(list);
    ZorvUmaLeaveAgent(&scope);
    return 0;
}

static bool WriteErrorCode(ZorvUmaProfileInfo* pProfileInfo, ZorvAgentErrorMsg code)
{
    bool isWritten = false;
    ZorvUmaPthreadMutexLock(&pProfileInfo->m_errLock);
    if (pProfileInfo->m_errFd >= 0)
    {
        char digits[32] = {};
        int length = ZorvUmaSnprintf(digits, sizeof(digits), "%d", static_cast<int>(code));
        isWritten = length > 0 && ZorvUmaWriteOwnFile(pProfileInfo->m_errFd, digits, length) == length;
        if (isWritten)
            ZorvUmaFsync(pProfileInfo->m_errFd);
    }
    ZorvUmaPthreadMutexUnlock(&pProfileInfo->m_errLock);
    return isWritten;
}

extern "C" bool ZorvUmaWriteErrorFile(ZorvUmaProfileInfo* pProfileInfo, ZorvAgentErrorMsg code)
{
    if (pProfileInfo == nullptr)
        return false;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    bool isWritten = WriteErrorCode(pProfileInfo, code);
    ZorvUmaLeaveAgent(&scope);
    if (!isWritten)
        return false;
    // 0 would take the whole process group, -1 everything.
    if (pProfileInfo->m_umaConfig.m_launchPid > 0)
        ZorvUmaKill(pProfileInfo->m_umaConfig.m_launchPid, SIGKILL);
    ZorvUmaExit(0);
    return true;
}

extern "C" uint64_t ZorvUmaGetTime()
{
    timespec now;
    if (ZORV_UNLIKELY(ZorvUmaClockGetTime(CLOCK_MONOTONIC, &now) != 0))
        return 0;
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

static bool ReadThreadNameFromProc(char* pName, size_t size)
{
    char path[64];
    pid_t pid = ZorvUmaGetPid();
    pid_t tid = ZorvUmaGetTid();
    if (tid == pid)
        ZorvUmaSnprintf(path, sizeof(path), "/proc/%d/comm", pid);
    else
        ZorvUmaSnprintf(path, sizeof(path), "/proc/%d/task/%d/comm", pid, tid);
    int fd = fnOpenFile(path, O_RDONLY, 0);
    if (fd < 0)
        return false;
    ssize_t length = ZorvUmaRead(fd, pName, size - 1);
    if (length < 0)
        length = 0;
    pName[length] = '\0';
    if (length > 0 && pName[length - 1] == '\n')
        pName[length - 1] = '\0';
    ZorvUmaClose(fd);
    return true;
}

extern "C" bool ZorvUmaGetCurrentThreadName(char* pName, size_t size)
{
    if (pName == nullptr || size == 0)
        return false;
    char shortName[KERNEL_NAME_SIZE] = {};
    char* pTarget = size < sizeof(shortName) ? shortName : pName;
    if (ZorvUmaGetThreadName(pTarget) != 0)
        return ReadThreadNameFromProc(pName, size);
    if (pTarget == shortName)
    {
        ZorvUmaMemcpy(pName, shortName, size - 1);
        pName[size - 1] = '\0';
    }
    return true;
}

// ---- the controller's flags ------------------------------------------------------------------------------

extern "C" bool ZorvUmaInitSharedMemory(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr || pProfileInfo->m_umaConfig.m_shmName == nullptr)
        return false;
    int fd = -1;
    void* pAddr = fnOpenSharedMemory(pProfileInfo->m_umaConfig.m_shmName, sizeof(ZorvAgentSharedInfo), &fd);
    if (pAddr == nullptr)
        return false;
    pProfileInfo->m_pMappedAddr = pAddr;
    pProfileInfo->m_shmFd = fd;
    // A mapping that failed counts as success: its addresses are computed all the same, and read as unset.
    auto flags = reinterpret_cast<uintptr_t>(pAddr) + offsetof(ZorvAgentSharedInfo, m_umaFlags);
    pProfileInfo->m_pIsPaused = reinterpret_cast<bool*>(flags + offsetof(ZorvAgentSharedDetails, m_isPause));
    pProfileInfo->m_pIsStopped = reinterpret_cast<bool*>(flags + offsetof(ZorvAgentSharedDetails, m_isStop));
    pProfileInfo->m_pPauseId = reinterpret_cast<uint64_t*>(flags + offsetof(ZorvAgentSharedDetails, m_pauseId));
    return true;
}

extern "C" bool ZorvUmaFiniSharedMemory(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return false;
    if (pProfileInfo->m_pMappedAddr == nullptr || pProfileInfo->m_shmFd < 0)
        return true;

    void* pAddr = pProfileInfo->m_pMappedAddr;
    uint32_t own = t_zorvState.m_pInfo != nullptr ? 1 : 0;
    if (__atomic_load_n(&ZorvUmaStateOf(pProfileInfo)->m_threadCount, __ATOMIC_SEQ_CST) > own &&
        pAddr != MAP_FAILED)
    {
        // Another thread may stand between its test of a flag's pointer and the load: leave it a page of
        // zeroes.
        ZorvUmaMmap(pAddr, sizeof(ZorvAgentSharedInfo), PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
                    0);
        pAddr = MAP_FAILED;
    }
    pProfileInfo->m_pIsPaused = nullptr;
    pProfileInfo->m_pIsStopped = nullptr;
    pProfileInfo->m_pPauseId = nullptr;
    pProfileInfo->m_pMappedAddr = nullptr;
    if (ZorvUmaIsStillOwn(pProfileInfo->m_shmFd))
        fnCloseSharedMemory(pProfileInfo->m_shmFd, pAddr, sizeof(ZorvAgentSharedInfo));
    else if (pAddr != MAP_FAILED)
        ZorvUmaMunmap(pAddr, sizeof(ZorvAgentSharedInfo));
    ZorvUmaForgetKeptFile(pProfileInfo->m_shmFd);
    return true;
}

extern "C" bool ZorvUmaIsPauseSet(const ZorvUmaProfileInfo* pProfileInfo)
{
    return pProfileInfo != nullptr && ZorvIsFlagSet(&pProfileInfo->m_pIsPaused);
}

extern "C" bool ZorvUmaIsStopSet(const ZorvUmaProfileInfo* pProfileInfo)
{
    return pProfileInfo != nullptr && ZorvIsFlagSet(&pProfileInfo->m_pIsStopped);
}

extern "C" uint64_t ZorvUmaCurrentPauseId(const ZorvUmaProfileInfo* pProfileInfo)
{
    return ZorvUmaIsPauseSet(pProfileInfo) ? ZorvReadPauseId(pProfileInfo) : 0;
}

extern "C" bool ZorvUmaIsSamePauseId(uint64_t startPauseId, uint64_t endPauseId)
{
    return startPauseId != 0 && endPauseId != 0 && startPauseId == endPauseId;
}

extern "C" bool ZorvUmaIsCollectionStopped(const ZorvUmaProfileInfo* pProfileInfo)
{
    return ZorvIsThreadStopped(pProfileInfo) || ZorvUmaIsStopSet(pProfileInfo);
}

extern "C" void ZorvUmaSetStopCollection(bool stopCollection)
{
    if (t_zorvState.m_pInfo != nullptr)
        t_zorvState.m_pInfo->m_stopCollection = stopCollection;
}

extern "C" int ZorvUmaSemWait(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return -1;
    constexpr timespec longPast = {0, 10000000};
    int result;
    do
    {
        errno = 0;
        result = ZorvUmaSemTimedWait(&pProfileInfo->m_semaphore, &longPast);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : -1;
}
