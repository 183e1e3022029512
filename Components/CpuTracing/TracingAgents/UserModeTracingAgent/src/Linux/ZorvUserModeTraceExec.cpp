// Interposers of the exec family and of the environment calls.
//
// A program that replaces the image must find the agent in its LD_PRELOAD; a Python interpreter that is only
// sampled gets the Python agent instead. Every failure falls back to the unchanged call: an exec is never
// prevented. What stands between a vfork and its exec shares the parent's memory, so nothing here frees or
// finalises anything.

#include "ZorvUserModeTraceExec.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceSampling.h"
#include "ZorvUserModeTraceSignals.h"

#include <cerrno>
#include <cstdarg>
#include <initializer_list>

namespace
{

constexpr char PRELOAD_PREFIX[] = "LD_PRELOAD=";
constexpr size_t PRELOAD_PREFIX_LENGTH = sizeof(PRELOAD_PREFIX) - 1;
constexpr size_t LINK_SIZE = 4096;
constexpr size_t PYTHON_LIB_SIZE = 1024;
constexpr int PYTHON_ARGUMENTS = 4;

} // namespace

static bool IsPreloadEntry(const char* pEntry)
{
    return ZorvUmaStrncmp(pEntry, PRELOAD_PREFIX, PRELOAD_PREFIX_LENGTH) == 0;
}

static const char* AgentPath(const ZorvUmaProfileInfo* pProfileInfo)
{
    return pProfileInfo == nullptr ? nullptr : pProfileInfo->m_umaConfig.m_pUserModeAgentPath;
}

static void* AllocateZeroed(size_t size)
{
    void* pMemory = ZorvUmaMalloc(size);
    if (pMemory != nullptr)
        ZorvUmaMemset(pMemory, 0, size);
    return pMemory;
}

static char** AllocateVector(size_t slots)
{
    return static_cast<char**>(AllocateZeroed(slots * sizeof(char*)));
}

// ---- environment -----------------------------------------------------------------------------------------

extern "C" bool ZorvUmaIsAgentAppended(const ZorvUmaProfileInfo* pProfileInfo, char* const* ppEnv,
                                       int* pLdPreloadIndex, int* pEnvLength)
{
    const char* pAgentPath = AgentPath(pProfileInfo);
    bool isAppended = false;
    int count = 0;
    for (; ppEnv != nullptr && ppEnv[count] != nullptr; count++)
    {
        if (!IsPreloadEntry(ppEnv[count]))
            continue;
        *pLdPreloadIndex = count;
        if (pAgentPath != nullptr && ZorvUmaStrstr(ppEnv[count], pAgentPath) != nullptr)
            isAppended = true;
    }
    *pEnvLength = count + 1;
    return isAppended;
}

static char* MakePreloadEntry(const char* pAgentPath)
{
    size_t size = PRELOAD_PREFIX_LENGTH + ZorvUmaStrlen(pAgentPath) + 1;
    auto pEntry = static_cast<char*>(AllocateZeroed(size));
    if (pEntry != nullptr)
        ZorvUmaSnprintf(pEntry, size, "%s%s", PRELOAD_PREFIX, pAgentPath);
    return pEntry;
}

// "LD_PRELOAD=AGENT:OLD"; null without memory, unfilled where the old entry cannot be taken over.
static char* ExtendPreloadEntry(const char* pAgentPath, const char* pOldEntry)
{
    size_t size = ZorvUmaStrlen(pOldEntry) + ZorvUmaStrlen(pAgentPath) + 2;
    auto pEntry = static_cast<char*>(AllocateZeroed(size));
    const char* pOldValue = ZorvUmaStrchr(pOldEntry, '=');
    if (pEntry != nullptr && pOldValue != nullptr)
        ZorvUmaSnprintf(pEntry, size, "%s%s:%s", PRELOAD_PREFIX, pAgentPath, pOldValue + 1);
    return pEntry;
}

extern "C" char** ZorvUmaUpdateEnv(const ZorvUmaProfileInfo* pProfileInfo, char* const* ppEnv, int envLen,
                                   int ldPreloadIdx)
{
    const char* pAgentPath = AgentPath(pProfileInfo);
    bool isNew = ldPreloadIdx == -1;
    if (pAgentPath == nullptr || ppEnv == nullptr || envLen < (isNew ? 0 : 1))
        return nullptr;
    char** ppNew = AllocateVector(static_cast<size_t>(envLen) + (isNew ? 1 : 0));
    if (ppNew == nullptr)
        return nullptr;
    int count = 0;
    for (; count < envLen && ppEnv[count] != nullptr; count++)
        ppNew[count] = ppEnv[count];
    if (isNew)
        ppNew[count] = MakePreloadEntry(pAgentPath);
    else
        ppNew[ldPreloadIdx] = ExtendPreloadEntry(pAgentPath, ppEnv[ldPreloadIdx]);
    return ppNew;
}

// ---- Python interpreters ---------------------------------------------------------------------------------

extern "C" bool ZorvIsFileExists(const char* pFileName)
{
    FILE* pFile = pFileName == nullptr ? nullptr : ZorvUmaFileOpen(pFileName, "r");
    if (pFile == nullptr)
        return false;
    ZorvUmaFileClose(pFile);
    return true;
}

static const char* BaseNameOf(const char* pPath)
{
    return pPath == nullptr ? nullptr : ZorvUmaBaseName(pPath);
}

extern "C" bool ZorvPythonLibPath(const char* pPath)
{
    if (BaseNameOf(pPath) == nullptr)
        return false;
    for (const char* pSuffix : {"310.so", "311.so", "312.so"})
    {
        char name[PYTHON_LIB_SIZE + 8] = {}; // the suffix behind a path of the greatest length
        ZorvUmaStrncpy(name, pPath, PYTHON_LIB_SIZE - 1);
        ZorvUmaStrcat(name, pSuffix);
        if (ZorvIsFileExists(name))
            return true;
    }
    return false;
}

extern "C" bool ZorvUmaIsPythonInterpreter(const ZorvUmaProfileInfo* pProfileInfo, const char* pFilePath)
{
    const char* pBaseName = BaseNameOf(pFilePath);
    if (pBaseName == nullptr || pProfileInfo == nullptr || pProfileInfo->m_umtConfig.m_enable ||
        pProfileInfo->m_isFlush || // the flag has been cleared by the end of the collection
        ZorvUmaStrstr(pBaseName, "python") == nullptr)
        return false;
    return ZorvPythonLibPath(pProfileInfo->m_umaConfig.m_pPyAgentLibPath);
}

static char* Copy(const char* pText)
{
    return pText == nullptr ? nullptr : ZorvUmaStrdup(pText);
}

// Slots 1 to 4: the Python agent (its script or its library) and its settings.
static void FillPythonArguments(const ZorvUmaProfileInfo* pProfileInfo, char** ppArgv, const char* pAgent)
{
    ppArgv[1] = Copy(pAgent);
    ppArgv[2] = Copy(pProfileInfo->m_umaConfig.m_pPythonTraceType);
    ppArgv[3] = Copy(pProfileInfo->m_umaConfig.m_pCpuProfilingDir);
    ppArgv[4] = Copy(pProfileInfo->m_umaConfig.m_pMetadataDir);
}

extern "C" char** ZorvUmaUpdateArgs(const ZorvUmaProfileInfo* pProfileInfo, char* const* ppArgv)
{
    if (pProfileInfo == nullptr || ppArgv == nullptr)
        return nullptr;
    size_t count = 0;
    while (ppArgv[count] != nullptr)
        count++;
    char** ppNew = AllocateVector(count + PYTHON_ARGUMENTS + 1);
    if (ppNew == nullptr || count == 0)
        return ppNew;
    ppNew[0] = ppArgv[0];
    FillPythonArguments(pProfileInfo, ppNew, pProfileInfo->m_umaConfig.m_pPyAgentScriptPath);
    for (size_t i = 1; i < count; i++)
        ppNew[i + PYTHON_ARGUMENTS] = ppArgv[i];
    return ppNew;
}

// ---- what an exec is given -------------------------------------------------------------------------------

#define ZORV_EXEC_LOG(pProfileInfo, level, pFunction, ...)                                                     \
    do                                                                                                         \
    {                                                                                                          \
        if ((pProfileInfo) != nullptr)                                                                         \
            ZORV_LOG_AS((pProfileInfo)->m_logFd, level, pFunction, __VA_ARGS__);                               \
    } while (false)

// The environment with the agent in it: the caller's own, null included, where it is there already or cannot be
// put in.
static char* const* EnvWithAgent(const ZorvUmaProfileInfo* pProfileInfo, const char* pFunction,
                                 const char* pPath, char* const* ppEnv)
{
    const char* pAgentPath = AgentPath(pProfileInfo);
    if (pAgentPath == nullptr)
        return ppEnv;
    int index = -1;
    int length = -1;
    if (ZorvUmaIsAgentAppended(pProfileInfo, ppEnv, &index, &length))
        return ppEnv;
    ZORV_EXEC_LOG(pProfileInfo, ERROR, pFunction,
                  "LD_PRELOAD is not appended with agent path (%s). Failed to trace %s.", pAgentPath,
                  pPath == nullptr ? "" : pPath);
    char** ppNew = length > 0 ? ZorvUmaUpdateEnv(pProfileInfo, ppEnv, length, index) : nullptr;
    return ppNew != nullptr ? ppNew : ppEnv;
}

static char* const* ArgvForPython(const ZorvUmaProfileInfo* pProfileInfo, const char* pFunction,
                                  const char* pPath, char* const* ppArgv)
{
    if (!ZorvUmaIsPythonInterpreter(pProfileInfo, pPath))
        return ppArgv;
    char** ppNew = ppArgv == nullptr ? nullptr : ZorvUmaUpdateArgs(pProfileInfo, ppArgv);
    if (ppNew != nullptr)
        return ppNew;
    ZORV_EXEC_LOG(pProfileInfo, ERROR, pFunction, "Failed to append python agent.");
    return ppArgv;
}

// The call itself; it comes back only when it failed.
template <typename... P> static int ReplaceImage(void* pReal, P... arguments)
{
    bool wasArmed = ZorvUmsSuspendForExec();
    if (wasArmed)
        ZorvUmsBeginMaskInheritance();
    int result = ZorvCallReal<int>(pReal, arguments...);
    ZorvUmsResumeAfterExec(wasArmed);
    if (wasArmed)
        ZorvUmsEndMaskInheritance();
    return result;
}

// ---- vector forms ----------------------------------------------------------------------------------------

// execv, execvp: the environment is the process's own.
template <ZorvEntryPoint* pEntry, typename, typename> struct ExecVector
{
    static int Call(const char* pPath, char* const* ppArgv)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        int savedErrno = errno;
        const char* pFunction = pEntry->m_pName[5] == 'p' ? "ZorvInterposeExecvp" : "ZorvInterposeExecv";
        char* const* ppUsed = ArgvForPython(ZorvUmaGetProfileInfo(), pFunction, pPath, ppArgv);
        errno = savedErrno;
        return ReplaceImage(pReal, pPath, ppUsed);
    }
};

ZORV_INTERPOSE_SINGLE(ExecVector, void, ZorvInterposeExecv, execv, 2, AllOnes)
ZORV_INTERPOSE_SINGLE(ExecVector, void, ZorvInterposeExecvp, execvp, 2, AllOnes)

// execve, execvpe: path, arguments and environment.
template <ZorvEntryPoint* pEntry, typename, typename> struct ExecVectorEnv
{
    static int Call(const char* pPath, char* const* ppArgv, char* const* ppEnv)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        int savedErrno = errno;
        const ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        const char* pFunction = pEntry->m_pName[5] == 'p' ? "ZorvInterposeExecvpe" : "ZorvInterposeExecve";
        ZORV_EXEC_LOG(pProfileInfo, INFO, pFunction, "%s : %s.", pEntry->m_pName,
                      pPath == nullptr ? "" : pPath);
        char* const* ppUsedEnv = EnvWithAgent(pProfileInfo, pFunction, pPath, ppEnv);
        char* const* ppUsedArgv = ArgvForPython(pProfileInfo, pFunction, pPath, ppArgv);
        errno = savedErrno;
        return ReplaceImage(pReal, pPath, ppUsedArgv, ppUsedEnv);
    }
};

ZORV_INTERPOSE_SINGLE(ExecVectorEnv, void, ZorvInterposeExecve, execve, 3, AllOnes)
ZORV_INTERPOSE_SINGLE(ExecVectorEnv, void, ZorvInterposeExecvpe, execvpe, 3, AllOnes)

// ---- fexecve ---------------------------------------------------------------------------------------------

// The path behind the descriptor, zero-terminated; false with the failure logged.
static bool ReadExecutablePath(const ZorvUmaProfileInfo* pProfileInfo, const char* pLink, char* pPath)
{
    ssize_t length = ZorvUmaReadlink(pLink, pPath, LINK_SIZE);
    if (length >= 1 && pPath[0] != '\0')
    {
        pPath[length < static_cast<ssize_t>(LINK_SIZE) ? length : length - 1] = '\0';
        return true;
    }
    ZORV_EXEC_LOG(pProfileInfo, ERROR, "ZorvInterposeFexecve", "Failed to read symbolic link %s : %s.", pLink,
                  ZorvUmaStrerror(errno));
    return false;
}

static void PrepareFexecve(const ZorvUmaProfileInfo* pProfileInfo, int fd, char* const** pppArgv,
                           char* const** pppEnv)
{
    char link[128] = {};
    if (ZorvUmaSnprintf(link, sizeof(link), "/proc/%d/task/%d/fd/%d", ZorvUmaGetPid(), ZorvUmaGetTid(), fd) < 1)
        return;
    auto pPath = static_cast<char*>(AllocateZeroed(LINK_SIZE));
    if (pPath == nullptr)
    {
        ZORV_EXEC_LOG(pProfileInfo, ERROR, "ZorvInterposeFexecve",
                      "Failed to allocate memory to read symbolic link %s.", link);
        return;
    }
    if (ReadExecutablePath(pProfileInfo, link, pPath))
    {
        ZORV_EXEC_LOG(pProfileInfo, INFO, "ZorvInterposeFexecve", "%s : %s.", "fexecve", pPath);
        *pppEnv = EnvWithAgent(pProfileInfo, "ZorvInterposeFexecve", pPath, *pppEnv);
        *pppArgv = ArgvForPython(pProfileInfo, "ZorvInterposeFexecve", pPath, *pppArgv);
    }
    ZorvUmaFree(pPath);
}

template <ZorvEntryPoint* pEntry, typename, typename> struct ExecFile
{
    static int Call(int fd, char* const* ppArgv, char* const* ppEnv)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        int savedErrno = errno;
        const ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        if (pProfileInfo != nullptr && fd >= 0)
            PrepareFexecve(pProfileInfo, fd, &ppArgv, &ppEnv);
        errno = savedErrno;
        return ReplaceImage(pReal, fd, ppArgv, ppEnv);
    }
};

ZORV_INTERPOSE_SINGLE(ExecFile, void, ZorvInterposeFexecve, fexecve, 3, AllOnes)

// ---- list forms ------------------------------------------------------------------------------------------

// The list as a vector; for Python with the agent's library behind the first argument, where the vector forms
// put its script. Null when memory is out. The list is left behind its terminating null.
static char** VectorOfList(const ZorvUmaProfileInfo* pProfileInfo, const char* pFunction, const char* pPath,
                           const char* pFirst, va_list list)
{
    va_list counting;
    va_copy(counting, list);
    size_t count = 0;
    for (const char* pArg = pFirst; pArg != nullptr; pArg = va_arg(counting, const char*))
        count++;
    va_end(counting);

    size_t added = ZorvUmaIsPythonInterpreter(pProfileInfo, pPath) && count > 0 ? PYTHON_ARGUMENTS : 0;
    char** ppArgv = AllocateVector(count + added + 1);
    if (ppArgv == nullptr)
    {
        ZORV_EXEC_LOG(pProfileInfo, ERROR, pFunction, "Failed to allocate the memory.");
        return nullptr;
    }
    ppArgv[0] = const_cast<char*>(pFirst);
    if (added != 0)
        FillPythonArguments(pProfileInfo, ppArgv, pProfileInfo->m_umaConfig.m_pPyAgentLibPath);
    for (size_t i = 1; i < count; i++)
        ppArgv[i + added] = va_arg(list, char*);
    if (count > 0)
        va_arg(list, char*); // the terminating null
    return ppArgv;
}

#define ZORV_LIST_ENTRY(function, name)                                                                        \
    static ZORV_ENTRY_SECTION ZorvEntryPoint g_entry##function = {nullptr, #name, nullptr,                     \
                                                                  ZorvLookupFailure::AllOnes}

// execl and execlp take the environment that the process has.
#define ZORV_EXEC_LIST(function, name, vectorFunction)                                                         \
    ZORV_LIST_ENTRY(function, name);                                                                           \
    extern "C" ZORV_EXPORT int function(const char* pPath, const char* pFirst, ...)                            \
    {                                                                                                          \
        void* pVectorReal =                                                                                    \
            ZorvRealOf(&g_entry##function) == nullptr ? nullptr : ZorvRealOf(&g_entry##vectorFunction);        \
        if (pVectorReal == nullptr)                                                                            \
            return -1;                                                                                         \
        int savedErrno = errno;                                                                                \
        va_list list;                                                                                          \
        va_start(list, pFirst);                                                                                \
        char** ppArgv = VectorOfList(ZorvUmaGetProfileInfo(), #function, pPath, pFirst, list);                 \
        va_end(list);                                                                                          \
        if (ppArgv == nullptr)                                                                                 \
            return -1;                                                                                         \
        errno = savedErrno;                                                                                    \
        return ReplaceImage(pVectorReal, pPath, ppArgv);                                                       \
    }                                                                                                          \
    ZORV_WEAK_NAME(function, name);

ZORV_EXEC_LIST(ZorvInterposeExecl, execl, ZorvInterposeExecv)
ZORV_EXEC_LIST(ZorvInterposeExeclp, execlp, ZorvInterposeExecvp)

ZORV_LIST_ENTRY(ZorvInterposeExecle, execle);
extern "C" ZORV_EXPORT int ZorvInterposeExecle(const char* pPath, const char* pFirst, ...)
{
    void* pVectorReal =
        ZorvRealOf(&g_entryZorvInterposeExecle) == nullptr ? nullptr : ZorvRealOf(&g_entryZorvInterposeExecve);
    if (pVectorReal == nullptr)
        return -1;
    int savedErrno = errno;
    const ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    va_list list;
    va_start(list, pFirst);
    char** ppArgv = VectorOfList(pProfileInfo, "ZorvInterposeExecle", pPath, pFirst, list);
    char* const* ppEnv = ppArgv == nullptr ? nullptr : va_arg(list, char* const*);
    va_end(list);
    if (ppArgv == nullptr)
        return -1;
    char* const* ppUsedEnv = EnvWithAgent(pProfileInfo, "ZorvInterposeExecle", pPath, ppEnv);
    errno = savedErrno;
    return ReplaceImage(pVectorReal, pPath, ppArgv, ppUsedEnv);
}
ZORV_WEAK_NAME(ZorvInterposeExecle, execle);

// ---- setenv, putenv --------------------------------------------------------------------------------------

// The agent in front of a list that the program wants to preload; null where nothing is to be put in.
static char* PreloadWithAgent(const char* pPrefix, const char* pList, size_t size)
{
    const char* pAgentPath = AgentPath(ZorvUmaGetProfileInfo());
    if (pAgentPath == nullptr || ZorvUmaStrstr(pList, pAgentPath) != nullptr)
        return nullptr;
    size += ZorvUmaStrlen(pAgentPath) + 2;
    auto pNew = static_cast<char*>(AllocateZeroed(size));
    if (pNew == nullptr)
        return nullptr;
    int length = ZorvUmaSnprintf(pNew, size, "%s%s:%s", pPrefix, pAgentPath, pList);
    return length >= 1 && static_cast<size_t>(length) < size ? pNew : nullptr;
}

template <ZorvEntryPoint* pEntry, typename, typename> struct SetVariable
{
    static int Call(const char* pName, const char* pValue, int overwrite)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        int savedErrno = errno;
        char* pNew = nullptr;
        if (pName != nullptr && pValue != nullptr && ZorvUmaStrcmp(pName, "LD_PRELOAD") == 0)
            pNew = PreloadWithAgent("", pValue, ZorvUmaStrlen(pValue));
        errno = savedErrno;
        return ZorvCallReal<int>(pReal, pName, pNew != nullptr ? static_cast<const char*>(pNew) : pValue,
                                 overwrite);
    }
};

template <ZorvEntryPoint* pEntry, typename, typename> struct PutVariable
{
    static int Call(char* pString)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        int savedErrno = errno;
        char* pNew = nullptr; // the environment keeps it
        if (pString != nullptr && IsPreloadEntry(pString))
            pNew = PreloadWithAgent(PRELOAD_PREFIX, pString + PRELOAD_PREFIX_LENGTH, ZorvUmaStrlen(pString));
        errno = savedErrno;
        return ZorvCallReal<int>(pReal, pNew != nullptr ? pNew : pString);
    }
};

ZORV_INTERPOSE_SINGLE(SetVariable, void, ZorvInterposeSetenv, setenv, 3, AllOnes)
ZORV_INTERPOSE_SINGLE(PutVariable, void, ZorvInterposePutenv, putenv, 1, AllOnes)
