// Counters of the kernel, thread by thread: opened in groups, so that one read(2) gives a whole group.
//
// A thread's record is its own, and its signal handler reads it. What threads share stands in
// ZorvPerfPmcProcess.cpp. perf_event_open(2) describes the kernel's side.

#include "ZorvPerfPmcShared.h"
#include "ZorvUserModeTraceTypes.h"

static_assert(sizeof(ZorvPerfPmcData) == sizeof(ZorvUmsEventData));

namespace
{

constexpr uint32_t MAX_GROUP_MEMBERS = 6; // what one read takes
constexpr size_t ERROR_TEXT_SIZE = 4096;

constexpr const char* INVALID_ARGUMENTS = "Invalid arguements are passed.";
constexpr const char* NOT_INITIALIZED = "PMC data collection was not initialized.";

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

} // namespace

constinit thread_local ZorvPcmThreadInfo* g_pThreadInfo = nullptr;

// ---- error text ------------------------------------------------------------------------------------------

void writeErrorMessage(const char* pFormatString, ...)
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

// ---- switching -------------------------------------------------------------------------------------------

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
    ForgetOwnNodes();
    if (pThreadInfo == nullptr || !AllocateArrays(pThreadInfo, ZORV_PMC_TYPE_PERF))
        return -1;
    pThreadInfo->m_pErrorString = static_cast<char*>(
        AllocateFilled(ERROR_TEXT_SIZE, 0, "Failed to allocate the memory to hold error message."));
    if (pThreadInfo->m_pErrorString == nullptr || !AllocateArrays(pThreadInfo, ZORV_PMC_TYPE_CORE))
        return -1;
    pThreadInfo->m_isIntialized = true;
    return 0;
}

static constexpr int (*g_openCounter[ZORV_PMC_TYPE_MAX])(uint64_t event, int groupFd) = {configureMsrPmcEvent,
                                                                                         configureCpuPmcEvent};

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
