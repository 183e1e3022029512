// The configuration file: KEY=VALUE lines, read once at the start of the process.

#include "ZorvUserModeTrace.h"
#include "ZorvUserModeTraceLog.h"

namespace
{

constexpr size_t LINE_SIZE = 5120;

using ApplyRow = bool (*)(ZorvUmaProfileInfo* pProfileInfo, char* pValue);

struct ConfigRow
{
    const char* m_pKey;
    ApplyRow m_pApply; // false ends the reading
};

} // namespace

// ---- values ----------------------------------------------------------------------------------------------

static bool IsFlagOn(const char* pValue)
{
    return pValue[0] == '1';
}

// The value without one trailing newline, in its place.
static char* TrimPath(char* pValue)
{
    size_t length = ZorvUmaStrlen(pValue);
    if (length > 0 && pValue[length - 1] == '\n')
        pValue[length - 1] = '\0';
    return pValue;
}

// A copy of it for the life of the process.
static char* DuplicatePath(char* pValue)
{
    return ZorvUmaStrdup(TrimPath(pValue));
}

// At most ZORV_UMS_MAX_EVENTS numbers; the rest of a longer list is left out. Returns how many were stored.
static uint32_t ReadList(char* pValue, uint64_t* pList)
{
    for (uint32_t i = 0; i < ZORV_UMS_MAX_EVENTS; i++)
        pList[i] = 0;
    uint32_t count = 0;
    char* pState = nullptr;
    for (char* pItem = strtok_r(pValue, ",", &pState); pItem != nullptr && count < ZORV_UMS_MAX_EVENTS;
         pItem = strtok_r(nullptr, ",", &pState))
        pList[count++] = ZorvUmaStrtoull(pItem, nullptr, 10);
    return count;
}

extern "C" void ZorvUmtConfigureEvent(ZorvUmtEventId eventId, char* pValue, ZorvUmaProfileInfo* pProfileInfo)
{
    if (pValue == nullptr || pProfileInfo == nullptr)
        return;
    // strtok_r throughout: a forked child reads its configuration in the middle of the program's own
    // tokenising.
    char* pState = nullptr;
    const char* pEnable = strtok_r(pValue, ":", &pState);
    const char* pThreshold = pEnable == nullptr ? nullptr : strtok_r(nullptr, ":", &pState);
    const char* pCallStack = pThreshold == nullptr ? nullptr : strtok_r(nullptr, ":", &pState);

    ZorvUmtEvent event = {};
    if (pEnable != nullptr && IsFlagOn(pEnable))
    {
        event.m_enable = true;
        event.m_threshold = pThreshold == nullptr ? 0 : ZorvUmaStrtoull(pThreshold, nullptr, 10);
        event.m_callstack = pCallStack != nullptr && IsFlagOn(pCallStack);
    }
    pProfileInfo->m_umtConfig.m_umtEventList[eventId] = event;
    // Any trace key turns the stream on, also one that disables its event.
    ZorvStoreFenced(&pProfileInfo->m_umtConfig.m_enable, true);
}

// ---- rows ------------------------------------------------------------------------------------------------

// Configures `first` and gives the same values to `copies`.
template <ZorvUmtEventId first, ZorvUmtEventId... copies>
static bool ApplyEvent(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    ZorvUmtConfigureEvent(first, pValue, pProfileInfo);
    [[maybe_unused]] ZorvUmtEvent* pEvents = pProfileInfo->m_umtConfig.m_umtEventList;
    ((pEvents[copies] = pEvents[first]), ...);
    return true;
}

template <char* ZorvUmaConfig::*member> static bool ApplyPath(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umaConfig.*member = DuplicatePath(pValue);
    return true;
}

static bool ApplyEnableSampling(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    ZorvStoreFenced(&pProfileInfo->m_umsConfig.m_enable, IsFlagOn(pValue));
    return true;
}

static bool ApplyCallStack(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umsConfig.m_collectCallStack = IsFlagOn(pValue);
    if (pProfileInfo->m_umsConfig.m_collectCallStack)
        pProfileInfo->m_umsConfig.m_configFlags |= ZORV_UMS_CS;
    return true;
}

static bool ApplySignalNumber(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umsConfig.m_timerSignalNum = static_cast<uint8_t>(ZorvUmaStrtoul(pValue, nullptr, 10));
    return true;
}

static bool ApplyCallStackDepth(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umaConfig.m_callStackDepth = static_cast<uint32_t>(ZorvUmaStrtoul(pValue, nullptr, 10));
    return true;
}

static bool ApplyTimerInterval(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umsConfig.m_timerInterval = ZorvUmaStrtoull(pValue, nullptr, 10);
    return true;
}

static bool ApplyProfileChildren(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umaConfig.m_profileChildren = IsFlagOn(pValue);
    return true;
}

static bool ApplyLaunchPid(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umaConfig.m_launchPid = static_cast<pid_t>(ZorvUmaStrtol(pValue, nullptr, 10));
    return true;
}

static bool ApplyMpiRank(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    pProfileInfo->m_umaConfig.m_mpiRankId = static_cast<int16_t>(ZorvUmaStrtol(pValue, nullptr, 10));
    return true;
}

// FUTEX_WAKE on the first four bytes of the shared block, after each change.
static bool ApplyControllerWakes(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    ZorvUmaStateOf(pProfileInfo)->m_isWokenByController = IsFlagOn(pValue);
    return true;
}

static bool ApplyPmcEvents(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    ZorvUmsConfig* pConfig = &pProfileInfo->m_umsConfig;
    pConfig->m_nbrEvents = ReadList(pValue, pConfig->m_pmcEvents);
    if (pConfig->m_nbrEvents > 0)
        pConfig->m_configFlags |= ZORV_UMS_PMC;
    return true;
}

static bool ApplyEncodedEvents(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    ReadList(pValue, pProfileInfo->m_umsConfig.m_encodedEvents);
    return true;
}

// The path of a directory key is needed for the opening at once; only the row says whether it is kept.
static bool ApplyTraceDir(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    return ZorvUmaInitDataWriting(&pProfileInfo->m_umtData, TrimPath(pValue), "trace", "umt",
                                  pProfileInfo->m_logFd);
}

static bool ApplyProfileDir(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    char* pDir = DuplicatePath(pValue);
    if (!ZorvUmaInitDataWriting(&pProfileInfo->m_umsData, pDir, "profile", "ums", pProfileInfo->m_logFd))
        return false;
    pProfileInfo->m_umaConfig.m_pCpuProfilingDir = pDir;
    return true;
}

static bool ApplyMetadataDir(ZorvUmaProfileInfo* pProfileInfo, char* pValue)
{
    char* pDir = DuplicatePath(pValue);
    if (!ZorvUmaOpenFileForWrite(pDir, &pProfileInfo->m_metaDataFd, "metadata", "meta", pProfileInfo->m_logFd))
        return false;
    pProfileInfo->m_umaConfig.m_pMetadataDir = pDir;
    return true;
}

// The order matters: a key selects the first name that begins with it.
static constexpr ConfigRow g_configRows[] = {
    {"QELIX_TRACE_PTHREAD", ApplyEvent<ZORV_UMT_EVENT_PTHREAD>},
    {"QELIX_TRACE_SYSCALL", ApplyEvent<ZORV_UMT_EVENT_SYSCALL, ZORV_UMT_EVENT_SLEEP, ZORV_UMT_EVENT_WAIT,
                                       ZORV_UMT_EVENT_LOCK, ZORV_UMT_EVENT_IO_SYNC, ZORV_UMT_EVENT_IO>},
    {"QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL",
     ApplyEvent<ZORV_UMT_EVENT_SLEEP, ZORV_UMT_EVENT_WAIT, ZORV_UMT_EVENT_LOCK, ZORV_UMT_EVENT_IO_SYNC>},
    {"QELIX_TRACE_SLEEP", ApplyEvent<ZORV_UMT_EVENT_SLEEP>},
    {"QELIX_TRACE_LOCK", ApplyEvent<ZORV_UMT_EVENT_LOCK>},
    {"QELIX_TRACE_WAIT",
     ApplyEvent<ZORV_UMT_EVENT_WAIT>}, // never reached by its own name, as the row above begins so
    {"QELIX_TRACE_IO_SYNC", ApplyEvent<ZORV_UMT_EVENT_IO_SYNC>},
    {"QELIX_TRACE_IO", ApplyEvent<ZORV_UMT_EVENT_IO, ZORV_UMT_EVENT_IO_SYNC>}, // likewise
    {"QELIX_ENABLE_SAMPLING", ApplyEnableSampling},
    {"QELIX_CALLSTACK_COLLECTION", ApplyCallStack},
    {"QELIX_PROFILING_SIGNAL_NUMBER", ApplySignalNumber},
    {"QELIX_CALLSTACK_DEPTH", ApplyCallStackDepth},
    {"QELIX_TIMER_INTERVAL", ApplyTimerInterval},
    {"QELIX_PROFILE_CHILDREN", ApplyProfileChildren},
    {"QELIX_LAUNCH_PROCESS_ID", ApplyLaunchPid},
    {"QELIX_MPI_RANK_ID", ApplyMpiRank},
    {"QELIX_PMC_EVENTS", ApplyPmcEvents},
    {"QELIX_ENCODED_EVENTS", ApplyEncodedEvents},
    {"QELIX_UMT_DIR", ApplyTraceDir},
    {"QELIX_CPU_PROFILE_DIR", ApplyProfileDir},
    {"QELIX_METADATA_DIR", ApplyMetadataDir},
    {"QELIX_OPENMP_AGENT_PATH", ApplyPath<&ZorvUmaConfig::m_pOpenMPAgentPath>},
    {"QELIX_PYTHON_AGENT_SCRIPT_PATH", ApplyPath<&ZorvUmaConfig::m_pPyAgentScriptPath>},
    {"QELIX_PYTHON_AGENT_LIB_PATH", ApplyPath<&ZorvUmaConfig::m_pPyAgentLibPath>},
    {"QELIX_PYTHON_TRACE_TYPE", ApplyPath<&ZorvUmaConfig::m_pPythonTraceType>},
    {"QELIX_USERMODE_AGENT_PATH", ApplyPath<&ZorvUmaConfig::m_pUserModeAgentPath>},
    {"QELIX_SHM_NAME", ApplyPath<&ZorvUmaConfig::m_shmName>},
    {"QELIX_CONTROLLER_WAKES", ApplyControllerWakes},
};

// ---- file ------------------------------------------------------------------------------------------------

// The first name that begins with the key: a key that is a prefix of a name selects it.
static const ConfigRow* FindRow(const char* pKey)
{
    size_t length = ZorvUmaStrlen(pKey);
    for (const ConfigRow& row : g_configRows)
        if (ZorvUmaStrncmp(row.m_pKey, pKey, length) == 0)
            return &row;
    return nullptr;
}

static bool ApplyLine(ZorvUmaProfileInfo* pProfileInfo, char* pLine)
{
    char* pState = nullptr;
    const char* pKey = strtok_r(pLine, "=", &pState);
    char* pValue = pKey == nullptr ? nullptr : strtok_r(nullptr, "=", &pState);
    if (pValue == nullptr)
        return true;
    const ConfigRow* pRow = FindRow(pKey);
    return pRow == nullptr || pRow->m_pApply(pProfileInfo, pValue);
}

bool ZorvUmaReadConfig(ZorvUmaProfileInfo* pProfileInfo)
{
    const char* pPath = ZorvUmaGetenv("QELIX_UMA_CONFIG_FILE");
    if (pPath == nullptr)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to read QELIX_UMA_CONFIG_FILE env variable.");
        return false;
    }
    FILE* pFile = ZorvUmaFileOpen(pPath, "r");
    if (pFile == nullptr)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to open config file.");
        return false;
    }
    auto pLine = static_cast<char*>(ZorvUmaMalloc(LINE_SIZE));
    if (pLine == nullptr)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR,
                 "Failed to allocate memory to hold ket and values from config file.");
        ZorvUmaFileClose(pFile);
        return false;
    }

    bool isApplied = true;
    ZorvUmaMemset(pLine, 0, LINE_SIZE);
    while (isApplied && ZorvUmaFileGets(pLine, LINE_SIZE, pFile) != nullptr)
    {
        isApplied = ApplyLine(pProfileInfo, pLine);
        ZorvUmaMemset(pLine, 0, LINE_SIZE);
    }
    ZorvUmaFileClose(pFile);
    ZorvUmaFree(pLine);
    return isApplied && ZorvUmaAllocateCsBuf(pProfileInfo);
}
