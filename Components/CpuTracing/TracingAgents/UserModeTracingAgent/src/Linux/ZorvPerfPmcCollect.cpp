// Counters of the kernel, thread by thread: opened in groups, so that one read(2) gives a whole group.
//
// A thread's record is its own, and its signal handler reads it. What threads share are the lists of group
// leaders: they only grow, a walk over them takes no lock, and a thread that ends turns its nodes into -1
// before it closes the leaders. perf_event_open(2) describes the kernel's side.

#include "ZorvPerfPmcCollect.h"
#include "ZorvAgentUtils.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceHelpers.h"

#include <cerrno>

static_assert(sizeof(ZorvPerfPmcData) == sizeof(ZorvUmsEventData));

namespace
{

constexpr uint32_t g_maxFds[ZORV_PMC_TYPE_MAX] = {4, 64};
constexpr uint32_t g_maxGroupFds[ZORV_PMC_TYPE_MAX] = {4, 64};

constexpr uint32_t MSR_GROUP_SIZE = 4;
constexpr uint32_t CORE_GROUP_SIZE = 6;
constexpr uint32_t MAX_GROUP_MEMBERS = 6; // what one read takes
constexpr size_t ERROR_TEXT_SIZE = 4096;

constexpr uint64_t READ_FORMAT_ALONE =
    PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING | PERF_FORMAT_ID;
constexpr uint64_t READ_FORMAT_GROUP = READ_FORMAT_ALONE | PERF_FORMAT_GROUP;

constexpr const char* MSR_EVENT_NAMES[] = {"tsc", "irperf", "aperf", "mperf"}; // from ZORV_PERF_EVENT_TSC on
constexpr uint64_t MSR_EVENT_COUNT = sizeof(MSR_EVENT_NAMES) / sizeof(MSR_EVENT_NAMES[0]);

constexpr const char* INVALID_ARGUMENTS = "Invalid arguements are passed.";
constexpr const char* NOT_INITIALIZED = "PMC data collection was not initialized.";

constexpr long WAIT_STEP_NS = 200000;
constexpr int WALK_STEPS = 5000; // 1 s for a walk over the leaders

struct ReadFormat // of a counter read alone
{
    uint64_t m_value;
    uint64_t m_timeEnabled;
    uint64_t m_timeRunning;
    uint64_t m_id;
};
static_assert(sizeof(ReadFormat) == 32);

struct ReadFormatGroup // of a group read through its leader
{
    uint64_t m_nr;
    uint64_t m_timeEnabled;
    uint64_t m_timeRunning;
    struct
    {
        uint64_t m_value;
        uint64_t m_id;
    } m_values[MAX_GROUP_MEMBERS];
};
static_assert(sizeof(ReadFormatGroup) == 120);

// A node of the process's list that its thread finds again without a search through all threads' nodes.
struct OwnedFdNode
{
    ZorvFdNode m_node;
    OwnedFdNode* m_pNextOwn;
};

struct OwnNodes
{
    OwnedFdNode* m_pHead;
    uint32_t m_teardownCount; // as it was at the insertion; nodes of an earlier process record are gone
};

ZorvPcmProcessInfo* g_pProcessInfo;
uint32_t g_userCount;     // threads that are using the process record: it is not freed under them
uint32_t g_walkCount;     // walks over the leaders that are under way
uint32_t g_teardownCount; // process records freed so far

__attribute__((tls_model("initial-exec"))) thread_local constinit ZorvPcmThreadInfo* g_pThreadInfo = nullptr;
__attribute__((tls_model("initial-exec"))) thread_local constinit OwnNodes t_ownNodes = {};

} // namespace

// ---- error text ------------------------------------------------------------------------------------------

static __attribute__((format(printf, 1, 2))) void writeErrorMessage(const char* pFormatString, ...)
{
    ZorvPcmThreadInfo* pThreadInfo = g_pThreadInfo;
    if (pThreadInfo == nullptr || __atomic_load_n(&g_pProcessInfo, __ATOMIC_ACQUIRE) == nullptr ||
        pThreadInfo->m_pErrorString == nullptr)
        return;
    va_list list;
    va_start(list, pFormatString);
    int length = ZorvUmaVsnprintf(pThreadInfo->m_pErrorString, ERROR_TEXT_SIZE - 1, pFormatString, list);
    va_end(list);
    // One behind the end; the whole text is longer than the buffer when it was cut.
    if (length >= 0 && static_cast<size_t>(length) + 1 < ERROR_TEXT_SIZE)
        pThreadInfo->m_pErrorString[length + 1] = '\0';
}

static int Fail(const char* pText)
{
    writeErrorMessage("%s", pText);
    return -1;
}

extern "C" const char* ZorvGetErrorMsg()
{
    const ZorvPcmThreadInfo* pThreadInfo = g_pThreadInfo;
    return pThreadInfo == nullptr || pThreadInfo->m_pErrorString == nullptr ? "NO ERROR"
                                                                            : pThreadInfo->m_pErrorString;
}

extern "C" int ZorvGetErrorNum()
{
    return g_pThreadInfo == nullptr ? -1 : g_pThreadInfo->m_errorNum;
}

// ---- what the system says of its counters ----------------------------------------------------------------

// The bytes read, or a negative value.
static ssize_t ReadSystemFile(const char* pPath, char* pText, size_t size)
{
    int fd = fnOpenFile(pPath, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    ssize_t length = ZorvUmaRead(fd, pText, size);
    ZorvUmaClose(fd);
    return length;
}

// The NMI watchdog holds one counter of the core.
static bool ZorvIsNmiWatchdogEnabled()
{
    char state = 0;
    return ReadSystemFile("/proc/sys/kernel/nmi_watchdog", &state, 1) > 0 && state == '1';
}

// Two characters and no more: a type number of three digits is cut.
static int ReadPmcType(const char* pPath, int* pCachedType)
{
    int type = __atomic_load_n(pCachedType, __ATOMIC_RELAXED);
    if (type != -1)
        return type;
    char text[3] = {};
    if (ReadSystemFile(pPath, text, sizeof(text) - 1) > 0)
        type = ZorvUmaAtoi(text);
    __atomic_store_n(pCachedType, type, __ATOMIC_RELAXED);
    return type;
}

static int GetMsrPmcType()
{
    static int msrType = -1;
    return ReadPmcType("/sys/bus/event_source/devices/msr/type", &msrType);
}

static int GetCorePmcType()
{
    static int coreType = -1;
    return ReadPmcType("/sys/bus/event_source/devices/cpu/type", &coreType);
}

// The event's file reads "event=0x" and the hexadecimal value: four characters from the "0x" on.
static uint64_t ReadPerfMsrEvent(const char* pEventName)
{
    char path[64] = {};
    ZorvUmaSnprintf(path, sizeof(path), "%s%s", "/sys/bus/event_source/devices/msr/events/", pEventName);
    char text[17] = {};
    if (ReadSystemFile(path, text, sizeof(text) - 1) <= 0)
        return UINT64_MAX;
    char digits[5] = {};
    ZorvUmaMemcpy(digits, text + 6, 4);
    return ZorvUmaStrtoull(digits, nullptr, 16);
}

// The config of a pseudo-event, all ones when the system does not tell; false for any other code.
static bool GetPerfMsrEvent(uint64_t event, uint64_t* pConfig)
{
    static uint64_t PerfMsrEvent[MSR_EVENT_COUNT] = {UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX};
    uint64_t index = event - ZORV_PERF_EVENT_TSC;
    if (index >= MSR_EVENT_COUNT)
        return false;
    uint64_t config = __atomic_load_n(&PerfMsrEvent[index], __ATOMIC_RELAXED);
    if (config == UINT64_MAX)
    {
        config = ReadPerfMsrEvent(MSR_EVENT_NAMES[index]);
        __atomic_store_n(&PerfMsrEvent[index], config, __ATOMIC_RELAXED);
    }
    *pConfig = config;
    return true;
}

// ---- opening ---------------------------------------------------------------------------------------------

static int OpenForThisThread(perf_event_attr* pAttr, int groupFd, unsigned long flags)
{
    return fnPerfEventOpen(pAttr, 0, -1, groupFd, flags);
}

static int OpenMsrCounter(uint64_t event, int groupFd, uint64_t readFormat)
{
    perf_event_attr attr = {};
    uint64_t config;
    if (!GetPerfMsrEvent(event, &config))
        return -1;
    attr.type = static_cast<uint32_t>(GetMsrPmcType());
    attr.size = PERF_ATTR_SIZE_VER5;
    attr.config = config;
    attr.sample_type = PERF_SAMPLE_IDENTIFIER;
    attr.read_format = readFormat;

    // Descriptor 0 counts as a failed first attempt and stays open.
    int fd = OpenForThisThread(&attr, groupFd, PERF_FLAG_FD_CLOEXEC);
    if (fd > 0)
        return fd;
    fd = OpenForThisThread(&attr, groupFd, fd < 0 ? 0 : PERF_FLAG_FD_CLOEXEC);
    if (fd < 0)
        writeErrorMessage("configureMsrPmcEvent failed : %s.", ZorvUmaStrerror(errno));
    return fd < 0 ? -1 : fd;
}

static int configureMsrPmcEvent(uint64_t event, int groupFd)
{
    return OpenMsrCounter(event, groupFd, READ_FORMAT_GROUP);
}

static int configureCpuPmcEvent(uint64_t event, int groupFd)
{
    perf_event_attr attr = {};
    attr.type = static_cast<uint32_t>(GetCorePmcType());
    attr.config = event;
    attr.read_format = READ_FORMAT_GROUP;
    attr.disabled = 1;
    attr.exclude_hv = 1;
    attr.exclude_idle = 1;

    int fd = OpenForThisThread(&attr, groupFd, PERF_FLAG_FD_CLOEXEC);
    if (fd >= 0)
        return fd;
    g_pThreadInfo->m_errorNum = errno;
    writeErrorMessage("configureCpuPmcEvent failed : %s.", ZorvUmaStrerror(g_pThreadInfo->m_errorNum));
    return -1;
}

static constexpr int (*g_openCounter[ZORV_PMC_TYPE_MAX])(uint64_t event, int groupFd) = {configureMsrPmcEvent,
                                                                                         configureCpuPmcEvent};

// ---- switching -------------------------------------------------------------------------------------------

static int CheckSwitch(int result, const char* pFunction, int fd)
{
    if (result < 0)
        writeErrorMessage("%s failed for fd (%d) : %s.", pFunction, fd, ZorvUmaStrerror(errno));
    return result;
}

static int startPERFPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctl(fd, PERF_EVENT_IOC_ENABLE), __func__, fd);
}

static int stopPERFPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctl(fd, PERF_EVENT_IOC_DISABLE), __func__, fd);
}

static int startPERFGroupPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctlWithFlags(fd, PERF_EVENT_IOC_ENABLE, PERF_IOC_FLAG_GROUP), __func__, fd);
}

static int stopPERFGroupPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctlWithFlags(fd, PERF_EVENT_IOC_DISABLE, PERF_IOC_FLAG_GROUP), __func__, fd);
}

static int SwitchThread(int (*pSwitch)(int fd))
{
    const ZorvPcmThreadInfo* pThreadInfo = g_pThreadInfo;
    if (__atomic_load_n(&g_pProcessInfo, __ATOMIC_ACQUIRE) == nullptr || pThreadInfo == nullptr)
        return -1;
    if (!pThreadInfo->m_isIntialized)
        return Fail(NOT_INITIALIZED);
    for (uint32_t type = ZORV_PMC_TYPE_START; type < ZORV_PMC_TYPE_MAX; type++)
    {
        if (!pThreadInfo->m_pmcTypes[type])
            continue;
        const int* pFds = pThreadInfo->m_pPmcTypeFds[type];
        for (uint32_t i = 0; i < pThreadInfo->m_maxConfiguredFds[type] && pFds[i] >= 0; i++)
        {
            int result = pSwitch(pFds[i]);
            if (result < 0)
                return result;
        }
    }
    return 0;
}

extern "C" int ZorvStartPerfEvent()
{
    return SwitchThread(startPERFPmcCounting);
}

extern "C" int ZorvStopPerfEvent()
{
    return SwitchThread(stopPERFPmcCounting);
}

// ---- the process record ----------------------------------------------------------------------------------

static void LeaveProcessInfo()
{
    __atomic_sub_fetch(&g_userCount, 1, __ATOMIC_SEQ_CST);
}

// Null when there is none; else it stays until LeaveProcessInfo.
static ZorvPcmProcessInfo* EnterProcessInfo()
{
    __atomic_add_fetch(&g_userCount, 1, __ATOMIC_SEQ_CST);
    ZorvPcmProcessInfo* pProcessInfo = __atomic_load_n(&g_pProcessInfo, __ATOMIC_SEQ_CST);
    if (pProcessInfo == nullptr)
        LeaveProcessInfo();
    return pProcessInfo;
}

static int SwitchLeaders(const ZorvPcmProcessInfo* pProcessInfo, uint32_t type, int (*pSwitch)(int fd))
{
    int result = 0;
    __atomic_add_fetch(&g_walkCount, 1, __ATOMIC_SEQ_CST);
    const ZorvFdNode* pNode = __atomic_load_n(&pProcessInfo->m_pFdList[type], __ATOMIC_ACQUIRE);
    for (; pNode != nullptr && result >= 0; pNode = __atomic_load_n(&pNode->m_pNext, __ATOMIC_ACQUIRE))
    {
        int fd = __atomic_load_n(&pNode->m_groupFd, __ATOMIC_SEQ_CST);
        if (fd != -1)
            result = pSwitch(fd);
    }
    __atomic_sub_fetch(&g_walkCount, 1, __ATOMIC_SEQ_CST);
    return result;
}

static int SwitchAllThreads(int (*pSwitch)(int fd), const char* pVerb)
{
    ZorvPcmProcessInfo* pProcessInfo = EnterProcessInfo();
    if (pProcessInfo == nullptr)
        return -1;
    int result = 0;
    for (uint32_t type = ZORV_PMC_TYPE_START; type < ZORV_PMC_TYPE_MAX && result == 0; type++)
    {
        if (!__atomic_load_n(&pProcessInfo->m_processPmcTypes[type], __ATOMIC_ACQUIRE) ||
            SwitchLeaders(pProcessInfo, type, pSwitch) >= 0)
            continue;
        writeErrorMessage("Failed to %s the perf PMC collection for type = %u.", pVerb, type);
        result = -1;
    }
    LeaveProcessInfo();
    return result;
}

extern "C" int ZorvStartPerfEventAllThreads()
{
    return SwitchAllThreads(startPERFGroupPmcCounting, "start");
}

extern "C" int ZorvStopPerfEventAllThreads()
{
    return SwitchAllThreads(stopPERFGroupPmcCounting, "stop");
}

static OwnNodes* CurrentOwnNodes()
{
    uint32_t teardownCount = __atomic_load_n(&g_teardownCount, __ATOMIC_ACQUIRE);
    if (t_ownNodes.m_teardownCount != teardownCount)
        t_ownNodes = {nullptr, teardownCount};
    return &t_ownNodes;
}

static void ZorvInsertGroupFd(ZorvPcmProcessInfo* pProcessInfo, uint32_t type, int fd)
{
    auto pOwned = static_cast<OwnedFdNode*>(ZorvUmaMalloc(sizeof(OwnedFdNode)));
    if (pOwned == nullptr)
    {
        writeErrorMessage("%s : Failed to allocate the memory to hold file descriptor.", __func__);
        return;
    }
    OwnNodes* pOwnNodes = CurrentOwnNodes();
    *pOwned = {{fd, nullptr}, pOwnNodes->m_pHead};
    pOwnNodes->m_pHead = pOwned;

    // A handler of the program that interrupted the holder here could start a thread, or wait for one that
    // starts.
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaPthreadMutexLock(&pProcessInfo->m_lock);
    ZorvFdNode** ppTail = &pProcessInfo->m_pCurNode[type];
    ZorvFdNode** ppLink = *ppTail == nullptr ? &pProcessInfo->m_pFdList[type] : &(*ppTail)->m_pNext;
    __atomic_store_n(ppLink, &pOwned->m_node, __ATOMIC_RELEASE);
    *ppTail = &pOwned->m_node;
    ZorvUmaPthreadMutexUnlock(&pProcessInfo->m_lock);
    ZorvUmaLeaveAgent(&scope);
}

static void CloseCounters(const ZorvPcmThreadInfo* pThreadInfo, uint32_t type)
{
    for (uint32_t i = 0; i < pThreadInfo->m_maxConfiguredFds[type]; i++)
        if (pThreadInfo->m_pPmcTypeFds[type][i] >= 0)
            ZorvUmaClose(pThreadInfo->m_pPmcTypeFds[type][i]);
}

// In a child that fork(2) made nothing of the parent's holds: the lock may be taken for good, and the
// descriptors are the parent's counters, which the child must not switch. The records are left: the allocator
// may be held too.
static void ForgetInheritedCounters()
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    const ZorvPcmThreadInfo* pThreadInfo = g_pThreadInfo;
    g_pThreadInfo = nullptr;
    g_pProcessInfo = nullptr;
    g_userCount = 0;
    g_walkCount = 0;
    t_ownNodes = {nullptr, g_teardownCount};
    for (uint32_t type = ZORV_PMC_TYPE_START; pThreadInfo != nullptr && type < ZORV_PMC_TYPE_MAX; type++)
        CloseCounters(pThreadInfo, type);
    ZorvUmaLeaveAgent(&scope);
}

static void WatchForks()
{
    static bool isWatching;
    if (!isWatching)
        isWatching = pthread_atfork(nullptr, nullptr, ForgetInheritedCounters) == 0;
}

extern "C" int ZorvAllocateProcessInfo()
{
    auto pProcessInfo = static_cast<ZorvPcmProcessInfo*>(ZorvUmaMalloc(sizeof(ZorvPcmProcessInfo)));
    if (pProcessInfo != nullptr)
    {
        ZorvUmaMemset(pProcessInfo, 0, sizeof(*pProcessInfo));
        ZorvUmaPthreadMutexInit(&pProcessInfo->m_lock, nullptr);
        pProcessInfo->m_maxPMCs[ZORV_PMC_TYPE_PERF] = MSR_GROUP_SIZE;
        pProcessInfo->m_maxPMCs[ZORV_PMC_TYPE_CORE] =
            ZorvIsNmiWatchdogEnabled() ? CORE_GROUP_SIZE - 1 : CORE_GROUP_SIZE;
        WatchForks();
    }
    __atomic_store_n(&g_pProcessInfo, pProcessInfo, __ATOMIC_SEQ_CST);
    return pProcessInfo == nullptr ? -1 : 0;
}

// ---- the thread record -----------------------------------------------------------------------------------

static void* AllocateFilled(size_t size, int byte, const char* pFailure)
{
    void* pMemory = ZorvUmaMalloc(size);
    if (pMemory == nullptr)
        writeErrorMessage("%s", pFailure);
    else
        ZorvUmaMemset(pMemory, byte, size);
    return pMemory;
}

static bool AllocateArrays(ZorvPcmThreadInfo* pThreadInfo, uint32_t type)
{
    constexpr int minusOne = 0xFF; // in every byte
    auto pFds = AllocateFilled(g_maxFds[type] * sizeof(int), minusOne,
                               "Failed to allocate the memory to hold PMC file descriptors.");
    pThreadInfo->m_pPmcTypeFds[type] = static_cast<int*>(pFds);
    if (pFds == nullptr)
        return false;
    auto pGroupFds = AllocateFilled(g_maxGroupFds[type] * sizeof(int), minusOne,
                                    "Failed to allocate the memory to hold PMC group file descriptors.");
    pThreadInfo->m_pPpmcTypeGroupFds[type] = static_cast<int*>(pGroupFds);
    if (pGroupFds == nullptr)
        return false;
    auto pValues = AllocateFilled(g_maxFds[type] * sizeof(uint64_t), 0,
                                  "Failed to allocate the memory to hold previous counter values.");
    pThreadInfo->m_pPrevCounterValue[type] = static_cast<uint64_t*>(pValues);
    return pValues != nullptr;
}

extern "C" int ZorvInitializePcmAgent()
{
    auto pThreadInfo = static_cast<ZorvPcmThreadInfo*>(ZorvUmaMalloc(sizeof(ZorvPcmThreadInfo)));
    if (pThreadInfo != nullptr)
        ZorvUmaMemset(pThreadInfo, 0, sizeof(*pThreadInfo)); // before the thread's signal handler can see it
    g_pThreadInfo = pThreadInfo;
    t_ownNodes.m_pHead = nullptr; // an earlier record's counters stay open, and their nodes as they are
    if (pThreadInfo == nullptr || !AllocateArrays(pThreadInfo, ZORV_PMC_TYPE_PERF))
        return -1;
    pThreadInfo->m_pErrorString = static_cast<char*>(
        AllocateFilled(ERROR_TEXT_SIZE, 0, "Failed to allocate the memory to hold error message."));
    if (pThreadInfo->m_pErrorString == nullptr || !AllocateArrays(pThreadInfo, ZORV_PMC_TYPE_CORE))
        return -1;
    pThreadInfo->m_isIntialized = true;
    return 0;
}

static void AddLeader(ZorvPcmProcessInfo* pProcessInfo, ZorvPcmThreadInfo* pThreadInfo, uint32_t type, int fd)
{
    pThreadInfo->m_pPpmcTypeGroupFds[type][pThreadInfo->m_maxConfiguredGroupFds[type]++] = fd;
    ZorvInsertGroupFd(pProcessInfo, type, fd);
    __atomic_store_n(&pProcessInfo->m_processPmcTypes[type], true, __ATOMIC_RELEASE);
}

static bool OpenGroups(ZorvPcmProcessInfo* pProcessInfo, ZorvPcmThreadInfo* pThreadInfo, uint32_t type,
                       uint32_t nbrEvents, const uint64_t* pEventsList)
{
    uint32_t inGroup = 0;
    int leader = -1;
    for (uint32_t i = 0; i < nbrEvents; i++)
    {
        if (++inGroup > pProcessInfo->m_maxPMCs[type])
        {
            inGroup = 1;
            leader = -1;
        }
        int fd = g_openCounter[type](pEventsList[i], leader);
        if (fd < 0)
            return false;
        if (leader == -1)
        {
            AddLeader(pProcessInfo, pThreadInfo, type, fd);
            leader = fd;
        }
        pThreadInfo->m_pPmcTypeFds[type][pThreadInfo->m_maxConfiguredFds[type]++] = fd;
    }
    return true;
}

static int ConfigureThread(ZorvPcmProcessInfo* pProcessInfo, ZorvPcmThreadInfo* pThreadInfo, uint32_t type,
                           uint32_t nbrEvents, const uint64_t* pEventsList)
{
    // The room that is left, not the capacity: a second call goes on where the first ended.
    if (pEventsList == nullptr || type >= ZORV_PMC_TYPE_MAX ||
        nbrEvents > g_maxFds[type] - pThreadInfo->m_maxConfiguredFds[type])
        return Fail(INVALID_ARGUMENTS);
    if (!pThreadInfo->m_isIntialized)
        return Fail(NOT_INITIALIZED);
    if (!OpenGroups(pProcessInfo, pThreadInfo, type, nbrEvents, pEventsList))
        return -1;
    pThreadInfo->m_pmcTypes[type] = pThreadInfo->m_maxConfiguredFds[type] > 0;
    return 0;
}

extern "C" int ZorvConfigurePerfEvent(uint32_t type, uint32_t nbrEvents, const uint64_t* pEventsList)
{
    ZorvPcmThreadInfo* pThreadInfo = g_pThreadInfo;
    ZorvPcmProcessInfo* pProcessInfo = EnterProcessInfo();
    if (pProcessInfo == nullptr)
        return -1;
    int result =
        pThreadInfo == nullptr ? -1 : ConfigureThread(pProcessInfo, pThreadInfo, type, nbrEvents, pEventsList);
    LeaveProcessInfo();
    return result;
}

// ---- reading ---------------------------------------------------------------------------------------------

// A counter that wrapped gives one less than the modular difference.
static uint64_t CountSince(uint64_t previous, uint64_t raw)
{
    return raw >= previous ? raw - previous : raw - 1 - previous;
}

// Reads one group into pData from *pIndex on; false when there was nothing to read.
static bool readPERFPmcCountByGroup(const ZorvPcmThreadInfo* pThreadInfo, uint32_t type, int leader,
                                    ZorvPerfPmcData* pData, uint32_t* pIndex)
{
    ReadFormatGroup group;
    group.m_nr = 0; // a read that failed counts as one that gave no members
    if (ZorvUmaRead(leader, &group, sizeof(group)) == 0)
    {
        writeErrorMessage("Failed to read counter values for group fd (%d).", leader);
        return false;
    }
    uint64_t* pPrevious = pThreadInfo->m_pPrevCounterValue[type];
    for (uint32_t i = 0; i < group.m_nr && i < MAX_GROUP_MEMBERS && *pIndex < g_maxFds[type]; i++)
    {
        uint32_t k = (*pIndex)++;
        uint64_t raw = group.m_values[i].m_value;
        pData[k] = {CountSince(pPrevious[k], raw), group.m_timeEnabled, group.m_timeRunning,
                    group.m_values[i].m_id};
        pPrevious[k] = raw;
    }
    return true;
}

extern "C" int ZorvReadPerfEvent(uint32_t type, ZorvPerfPmcData* pData)
{
    const ZorvPcmThreadInfo* pThreadInfo = g_pThreadInfo;
    if (__atomic_load_n(&g_pProcessInfo, __ATOMIC_ACQUIRE) == nullptr || pThreadInfo == nullptr)
        return -1;
    if (type >= ZORV_PMC_TYPE_MAX || pData == nullptr)
        return Fail(INVALID_ARGUMENTS);
    if (!pThreadInfo->m_isIntialized)
        return Fail(NOT_INITIALIZED);
    if (!pThreadInfo->m_pmcTypes[type])
        return Fail("PMC data collection was not configured.");

    uint32_t groupCount = pThreadInfo->m_maxConfiguredGroupFds[type];
    uint32_t index = 0;
    bool isRead = true;
    for (uint32_t i = 0; i < groupCount; i++)
        isRead = readPERFPmcCountByGroup(pThreadInfo, type, pThreadInfo->m_pPpmcTypeGroupFds[type][i], pData,
                                         &index);
    if (groupCount == 0)
        return 0;
    return isRead ? 1 : -1; // only the last group counts
}

// ---- end -------------------------------------------------------------------------------------------------

// A walk may have taken a leader's number just before its node changed. Were the leader closed now, the number
// could be the program's by the time the walk uses it.
static void WaitForWalks()
{
    const timespec step = {0, WAIT_STEP_NS};
    for (int i = 0; i < WALK_STEPS && __atomic_load_n(&g_walkCount, __ATOMIC_SEQ_CST) != 0; i++)
        ZorvRawSyscall(SYS_nanosleep, reinterpret_cast<long>(&step));
}

static void WithdrawLeaders()
{
    OwnNodes* pOwnNodes = CurrentOwnNodes();
    for (OwnedFdNode* pOwned = pOwnNodes->m_pHead; pOwned != nullptr; pOwned = pOwned->m_pNextOwn)
        __atomic_store_n(&pOwned->m_node.m_groupFd, -1, __ATOMIC_SEQ_CST);
    pOwnNodes->m_pHead = nullptr;
    WaitForWalks();
}

static void FreeThreadInfo(ZorvPcmThreadInfo* pThreadInfo)
{
    g_pThreadInfo = nullptr; // the signal handler finds nothing from here on
    for (uint32_t type = ZORV_PMC_TYPE_START; type < ZORV_PMC_TYPE_MAX; type++)
    {
        CloseCounters(pThreadInfo, type);
        ZorvUmaFree(pThreadInfo->m_pPmcTypeFds[type]);
        ZorvUmaFree(pThreadInfo->m_pPpmcTypeGroupFds[type]);
        ZorvUmaFree(pThreadInfo->m_pPrevCounterValue[type]);
    }
    ZorvUmaFree(pThreadInfo->m_pErrorString);
    ZorvUmaFree(pThreadInfo);
}

// Frees the record unless another thread is still inside it, walking the lists or ending.
static void FreeProcessInfo(ZorvPcmProcessInfo* pProcessInfo)
{
    __atomic_store_n(&g_pProcessInfo, nullptr, __ATOMIC_SEQ_CST);
    __atomic_add_fetch(&g_teardownCount, 1, __ATOMIC_SEQ_CST);
    constexpr uint32_t ownUse = 1;
    if (__atomic_load_n(&g_userCount, __ATOMIC_SEQ_CST) > ownUse)
        return;
    for (ZorvFdNode* pNode : pProcessInfo->m_pFdList)
    {
        while (pNode != nullptr)
        {
            ZorvFdNode* pNext = pNode->m_pNext;
            ZorvUmaFree(pNode);
            pNode = pNext;
        }
    }
    ZorvUmaFree(pProcessInfo);
}

extern "C" int ZorvFiniPcmAgent()
{
    ZorvPcmThreadInfo* pThreadInfo = g_pThreadInfo;
    ZorvPcmProcessInfo* pProcessInfo = EnterProcessInfo();
    if (pProcessInfo == nullptr)
        return -1;
    if (pThreadInfo != nullptr)
    {
        WithdrawLeaders();
        FreeThreadInfo(pThreadInfo);
        if (ZorvUmaGetPid() == ZorvUmaGetTid())
            FreeProcessInfo(pProcessInfo);
    }
    LeaveProcessInfo();
    return pThreadInfo == nullptr ? -1 : 0;
}

// ---- frequency -------------------------------------------------------------------------------------------

static bool ReadLoneCounter(int fd, uint64_t* pCount)
{
    ReadFormat reading = {};
    if (ZorvUmaRead(fd, &reading, sizeof(reading)) <= 0)
        return false;
    *pCount = reading.m_value;
    return true;
}

// An interrupted sleep ends early: the result of nanosleep(2) is compared with EINTR, which it never is.
static void SleepOneSecond()
{
    timespec rest = {1, 0};
    long result;
    do
        result = ZorvRawSyscall(SYS_nanosleep, reinterpret_cast<long>(&rest), reinterpret_cast<long>(&rest));
    while (result == EINTR);
}

// The ticks of one second, 0 for none; whether the kernel refused to read the format into a lone counter's
// room.
static uint64_t CountOneSecond(uint64_t readFormat, bool* pIsRefused)
{
    int fd = OpenMsrCounter(ZORV_PERF_EVENT_TSC, -1, readFormat);
    if (fd < 0)
        return 0;
    startPERFPmcCounting(fd);
    uint64_t first = 0;
    uint64_t second = 0;
    errno = 0;
    bool isRead = ReadLoneCounter(fd, &first);
    *pIsRefused = !isRead && errno == ENOSPC;
    if (!*pIsRefused)
    {
        SleepOneSecond();
        isRead = ReadLoneCounter(fd, &second) && isRead;
    }
    stopPERFPmcCounting(fd);
    ZorvUmaClose(fd);
    return isRead ? second - first : 0;
}

extern "C" int ZorvGetP0FreqFromPerf(uint64_t* p0Freq)
{
    if (p0Freq == nullptr)
        return -1;
    *p0Freq = 0;
    bool isRefused = false;
    uint64_t ticks = CountOneSecond(READ_FORMAT_GROUP, &isRefused);
    if (isRefused) // kernels want room for a whole group where the group bit is set
        ticks = CountOneSecond(READ_FORMAT_ALONE, &isRefused);
    if (ticks == 0)
        return -1;
    *p0Freq = ticks;
    return 0;
}
