// Modules that arrive while the program runs: dlopen, dlmopen, and executable file mappings.
//
// The loader looks for a bare name where the caller's module says, and the caller of the real dlopen is the
// agent. So the program's own caller is found from the return address, and what only its module would have
// found is looked for here: the directories of its RUNPATH, and $ORIGIN in the name itself.

#include "ZorvAgentUtils.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceLoader.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceSampling.h"

#include <cerrno>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/platform/x86.h>
#include <sys/stat.h>

namespace
{

constexpr size_t PATH_SIZE = 4096;

// How a row opens: with the flags and, for dlmopen, the name space of the call.
struct Opening
{
    void* m_pReal;
    const char* m_pFile;
    int m_mode;
    Lmid_t m_space;
    bool m_hasSpace;
};

void* Open(const Opening& opening, const char* pFile, int extraMode)
{
    int mode = opening.m_mode | extraMode;
    return opening.m_hasSpace ? ZorvCallReal<void*>(opening.m_pReal, opening.m_space, pFile, mode)
                              : ZorvCallReal<void*>(opening.m_pReal, pFile, mode);
}

} // namespace

// ---- where the caller's module looks ---------------------------------------------------------------------

static struct link_map* ModuleOf(const void* pAddress)
{
    Dl_info info;
    struct link_map* pMap = nullptr;
    if (dladdr1(pAddress, &info, reinterpret_cast<void**>(&pMap), RTLD_DL_LINKMAP) == 0)
        return nullptr;
    return pMap;
}

// Whether the loader would take the file of that name: it passes over one for another machine, and over none
// for any other fault. By the instructions: libc's calls are cancellation points.
static bool IsTaken(const char* pPath)
{
    long fd = ZorvRawSyscall(SYS_open, reinterpret_cast<long>(pPath), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    ElfW(Ehdr) header = {};
    bool isRead =
        ZorvRawSyscall(SYS_read, fd, reinterpret_cast<long>(&header), sizeof(header)) == sizeof(header);
    ZorvRawSyscall(SYS_close, fd);
    if (!isRead || ZorvUmaStrncmp(reinterpret_cast<const char*>(header.e_ident), ELFMAG, SELFMAG) != 0)
        return true;
    return header.e_ident[EI_CLASS] == ELFCLASS64 &&
           (header.e_version != EV_CURRENT || header.e_machine == EM_X86_64);
}

// What the levels of the psABI ask of the processor, as the loader has found it out: the compiler's own test
// asks the processor again at the start of every process, which a virtual machine makes expensive.
static bool IsLevel2()
{
    return CPU_FEATURE_ACTIVE(CMPXCHG16B) && CPU_FEATURE_ACTIVE(LAHF64_SAHF64) && CPU_FEATURE_ACTIVE(POPCNT) &&
           CPU_FEATURE_ACTIVE(SSE3) && CPU_FEATURE_ACTIVE(SSSE3) && CPU_FEATURE_ACTIVE(SSE4_1) &&
           CPU_FEATURE_ACTIVE(SSE4_2);
}

static bool IsLevel3()
{
    return IsLevel2() && CPU_FEATURE_ACTIVE(AVX) && CPU_FEATURE_ACTIVE(AVX2) && CPU_FEATURE_ACTIVE(BMI1) &&
           CPU_FEATURE_ACTIVE(BMI2) && CPU_FEATURE_ACTIVE(F16C) && CPU_FEATURE_ACTIVE(FMA) &&
           CPU_FEATURE_ACTIVE(LZCNT) && CPU_FEATURE_ACTIVE(MOVBE);
}

static bool IsLevel4()
{
    return IsLevel3() && CPU_FEATURE_ACTIVE(AVX512F) && CPU_FEATURE_ACTIVE(AVX512BW) &&
           CPU_FEATURE_ACTIVE(AVX512CD) && CPU_FEATURE_ACTIVE(AVX512DQ) && CPU_FEATURE_ACTIVE(AVX512VL);
}

// In each directory the loader first looks for a build for this very processor. ld.so(8), glibc-hwcaps.
static bool FindInDirectory(const char* pDir, const char* pFile, char* pPath)
{
    const struct
    {
        bool m_isUsable;
        const char* m_pSubdir;
    } levels[] = {
        {IsLevel4(), "glibc-hwcaps/x86-64-v4/"},
        {IsLevel3(), "glibc-hwcaps/x86-64-v3/"},
        {IsLevel2(), "glibc-hwcaps/x86-64-v2/"},
        {true, ""},
    };
    for (const auto& level : levels)
    {
        if (!level.m_isUsable)
            continue;
        int length = ZorvUmaSnprintf(pPath, PATH_SIZE, "%s/%s%s", pDir, level.m_pSubdir, pFile);
        if (length > 0 && static_cast<size_t>(length) < PATH_SIZE && IsTaken(pPath))
            return true;
    }
    return false;
}

// The directories where the loader looks for that module, in its order; null without memory. ZorvUmaFree
// releases it.
static Dl_serinfo* SearchListOf(struct link_map* pMap)
{
    Dl_serinfo size;
    if (pMap == nullptr || dlinfo(pMap, RTLD_DI_SERINFOSIZE, &size) != 0)
        return nullptr;
    auto pList = static_cast<Dl_serinfo*>(ZorvUmaMalloc(size.dls_size));
    if (pList == nullptr)
        return nullptr;
    pList->dls_size = size.dls_size;
    pList->dls_cnt = size.dls_cnt;
    if (dlinfo(pMap, RTLD_DI_SERINFO, pList) == 0)
        return pList;
    ZorvUmaFree(pList);
    return nullptr;
}

// How many directories of the caller's list stand before what the agent's list ends with as well: behind these,
// every caller looks alike.
static unsigned int CountOwnDirectories(const Dl_serinfo* pCallers, const Dl_serinfo* pAgents)
{
    unsigned int common = 0;
    while (common < pCallers->dls_cnt && common < pAgents->dls_cnt &&
           ZorvUmaStrcmp(pCallers->dls_serpath[pCallers->dls_cnt - 1 - common].dls_name,
                         pAgents->dls_serpath[pAgents->dls_cnt - 1 - common].dls_name) == 0)
        common++;
    return pCallers->dls_cnt - common;
}

// The first file of that name in the directories that only the caller's module adds.
static bool FindOnCallersPath(struct link_map* pMap, const char* pFile, char* pPath)
{
    Dl_serinfo* pCallers = SearchListOf(pMap);
    Dl_serinfo* pAgents = SearchListOf(ModuleOf(reinterpret_cast<const void*>(&SearchListOf)));
    bool isFound = false;
    if (pCallers != nullptr && pAgents != nullptr)
    {
        unsigned int count = CountOwnDirectories(pCallers, pAgents);
        for (unsigned int i = 0; i < count && !isFound; i++)
            isFound = FindInDirectory(pCallers->dls_serpath[i].dls_name, pFile, pPath);
    }
    ZorvUmaFree(pCallers);
    ZorvUmaFree(pAgents);
    return isFound;
}

// The directory of the module's file, into pPath; its length, 0 where it is not known. dlinfo has it only for
// modules with a search path of their own.
static size_t OriginOf(const struct link_map* pMap, char* pPath)
{
    ssize_t length;
    if (pMap->l_name == nullptr || pMap->l_name[0] == '\0')
        length = ZorvUmaReadlink("/proc/self/exe", pPath, PATH_SIZE - 1);
    else
        length = ZorvUmaSnprintf(pPath, PATH_SIZE, "%s", pMap->l_name);
    while (length > 0 && length < static_cast<ssize_t>(PATH_SIZE) && pPath[length - 1] != '/')
        length--;
    return length > 1 && length < static_cast<ssize_t>(PATH_SIZE) ? static_cast<size_t>(length) - 1 : 0;
}

// Replaces a leading $ORIGIN or ${ORIGIN} by the directory of the caller's module. False where that gives no
// file: the loader's message then names what it was asked for.
static bool ExpandOrigin(const struct link_map* pMap, const char* pFile, char* pPath)
{
    size_t token = ZorvUmaStrncmp(pFile, "$ORIGIN", 7) == 0     ? 7
                   : ZorvUmaStrncmp(pFile, "${ORIGIN}", 9) == 0 ? 9
                                                                : 0;
    if (token == 0 || pFile[token] != '/')
        return false;
    size_t directory = OriginOf(pMap, pPath);
    if (directory == 0)
        return false;
    int tail = ZorvUmaSnprintf(pPath + directory, PATH_SIZE - directory, "%s", pFile + token);
    return tail >= 0 && static_cast<size_t>(tail) < PATH_SIZE - directory && IsTaken(pPath);
}

// Opens what only that caller's module makes the loader find. False: the name is enough, and nothing has been
// opened.
static bool OpenAsCaller(const Opening& opening, const void* pCaller, char* pPath, void** ppHandle)
{
    const char* pFile = opening.m_pFile;
    struct link_map* pMap = ModuleOf(pCaller);
    if (pMap == nullptr)
        return false;
    bool isToken = pFile[0] == '$';
    if (!(isToken ? ExpandOrigin(pMap, pFile, pPath) : FindOnCallersPath(pMap, pFile, pPath)))
        return false;
    // An object that is loaded under this name is taken before any directory is looked at.
    *ppHandle = isToken ? nullptr : Open(opening, pFile, RTLD_NOLOAD);
    if (*ppHandle == nullptr)
        *ppHandle = Open(opening, pPath, 0); // also a failure is that of this file
    return true;
}

// Whether the loader's answer depends on who asks.
static bool DependsOnCaller(const char* pFile)
{
    return pFile != nullptr && pFile[0] != '\0' && (pFile[0] == '$' || ZorvUmaStrchr(pFile, '/') == nullptr);
}

// ---- dlopen, dlmopen -------------------------------------------------------------------------------------

static void ListModules(const char* pFunction)
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    if (pProfileInfo == nullptr || pProfileInfo->m_metaDataFd < 0)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (!ZorvUmaIsForeign() && ZorvUmaBeginStreamUse(pProfileInfo))
    {
        if (pProfileInfo->m_metaDataFd >= 0 && !fnWriteProcessMaps(ZorvUmaGetPid(), pProfileInfo->m_metaDataFd))
            ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, pFunction, "Failed to write mmap records in dlopen.");
        ZorvUmaEndStreamUse(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
}

static void* OpenLikeNative(const Opening& opening, const void* pCaller)
{
    char* pPath = nullptr;
    if (DependsOnCaller(opening.m_pFile))
        pPath = static_cast<char*>(ZorvUmaMalloc(PATH_SIZE));
    void* pHandle = nullptr;
    int savedErrno = errno;
    bool isDone = pPath != nullptr && OpenAsCaller(opening, pCaller, pPath, &pHandle);
    ZorvUmaFree(pPath);
    if (isDone)
        return pHandle;
    errno = savedErrno;
    return Open(opening, opening.m_pFile, 0);
}

static void* OpenAndList(const Opening& opening, const void* pCaller, const char* pFunction)
{
    const void* pBefore = ZorvUmsEnterLoader(__builtin_frame_address(0));
    void* pHandle = OpenLikeNative(opening, pCaller);
    ZorvUmsLeaveLoader(pBefore);
    int savedErrno = errno;
    if (pHandle != nullptr)
    {
        if (!opening.m_hasSpace) // the unwinder sees its own name space only
            ZorvUmsFollowLoader(pHandle);
        ListModules(pFunction);
    }
    errno = savedErrno;
    return pHandle;
}

#define ZORV_DLOPEN_ENTRY(function, version)                                                                   \
    static ZORV_ENTRY_SECTION ZorvEntryPoint g_entry##function = {nullptr, "dlopen", version,                  \
                                                                  ZorvLookupFailure::Zero};                    \
    extern "C" ZORV_EXPORT void* function(const char* pFile, int mode)                                         \
    {                                                                                                          \
        void* pReal = ZorvRealOf(&g_entry##function);                                                          \
        const Opening opening = {pReal, pFile, mode, 0, false};                                                \
        return pReal == nullptr ? nullptr : OpenAndList(opening, __builtin_return_address(0), #function);      \
    }
#define ZORV_DLMOPEN_ENTRY(function, version)                                                                  \
    static ZORV_ENTRY_SECTION ZorvEntryPoint g_entry##function = {nullptr, "dlmopen", version,                 \
                                                                  ZorvLookupFailure::Zero};                    \
    extern "C" ZORV_EXPORT void* function(Lmid_t space, const char* pFile, int mode)                           \
    {                                                                                                          \
        void* pReal = ZorvRealOf(&g_entry##function);                                                          \
        const Opening opening = {pReal, pFile, mode, space, true};                                             \
        return pReal == nullptr ? nullptr : OpenAndList(opening, __builtin_return_address(0), #function);      \
    }

ZORV_DLOPEN_ENTRY(ZorvInterposeDlopen_2_2_5, ZORV_VERSION_2_2_5)
ZORV_DLOPEN_ENTRY(ZorvInterposeDlopen_2_34, ZORV_VERSION_2_34)
ZORV_DLOPEN_ENTRY(ZorvInterposeDlopen, nullptr)
ZORV_VERSIONED_NAME(ZorvInterposeDlopen_2_2_5, dlopen, "@", ZORV_VERSION_2_2_5);
ZORV_VERSIONED_NAME(ZorvInterposeDlopen_2_34, dlopen, "@@", ZORV_VERSION_2_34);
ZORV_WEAK_NAME(ZorvInterposeDlopen, dlopen);

ZORV_DLMOPEN_ENTRY(ZorvInterposeDlmopen_2_3_4, ZORV_VERSION_2_3_4)
ZORV_DLMOPEN_ENTRY(ZorvInterposeDlmopen_2_34, ZORV_VERSION_2_34)
ZORV_DLMOPEN_ENTRY(ZorvInterposeDlmopen, nullptr)
ZORV_VERSIONED_NAME(ZorvInterposeDlmopen_2_3_4, dlmopen, "@", ZORV_VERSION_2_3_4);
ZORV_VERSIONED_NAME(ZorvInterposeDlmopen_2_34, dlmopen, "@@", ZORV_VERSION_2_34);
ZORV_WEAK_NAME(ZorvInterposeDlmopen, dlmopen);

// ---- dlclose ---------------------------------------------------------------------------------------------

static int CloseUnseen(void* pReal, void* pHandle)
{
    ZorvUmsBeginUnload();
    int result = ZorvCallReal<int>(pReal, pHandle);
    ZorvUmsEndUnload();
    return result;
}

template <ZorvEntryPoint* pEntry, typename, typename> struct Close
{
    static int Call(void* pHandle)
    {
        void* pReal = ZorvRealOf(pEntry);
        return pReal == nullptr ? -1 : CloseUnseen(pReal, pHandle);
    }
};

ZORV_INTERPOSE_VERSIONED(Close, void, ZorvInterposeDlclose, dlclose, 1, 2_2_5, 2_34, AllOnes)

// ---- mmap ------------------------------------------------------------------------------------------------

// The file behind the descriptor; its length, or 0 with the failure logged.
static ssize_t ReadFilePath(const ZorvUmaProfileInfo* pProfileInfo, const char* pLink, char* pPath)
{
    ssize_t length = ZorvUmaReadlink(pLink, pPath, PATH_SIZE);
    if (length < 1 || pPath[0] == '\0')
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvInterposeMmap", "Failed to read symbolic link %s : %s.",
                    pLink, ZorvUmaStrerror(errno));
        return 0;
    }
    if (length == static_cast<ssize_t>(PATH_SIZE))
        length--; // room for the terminator
    pPath[length] = '\0';
    return length;
}

static void RecordMapping(ZorvUmaProfileInfo* pProfileInfo, void* pAddr, size_t size, int fd)
{
    uint64_t now = ZorvUmaGetTime();
    struct stat status;
    char link[128] = {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        ZorvUmaSnprintf(link, sizeof(link), "/proc/%d/task/%d/fd/%d", ZorvUmaGetPid(), ZorvUmaGetTid(), fd) < 1)
        return;
    auto pPath = static_cast<char*>(ZorvUmaCalloc(1, PATH_SIZE));
    if (pPath == nullptr)
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvInterposeMmap",
                    "Failed to allocate memory to read symbolic link %s.", link);
        return;
    }
    ssize_t length = ReadFilePath(pProfileInfo, link, pPath);
    auto start = reinterpret_cast<uint64_t>(pAddr);
    if (length > 0 && !fnWriteMmapRecord(now, start, start + size, pProfileInfo->m_metaDataFd, pPath,
                                         static_cast<int>(length), ZorvUmaGetPid()))
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvInterposeMmap", "Failed to write mmap record in mmap.");
    ZorvUmaFree(pPath);
}

static void* MapTraced(ZorvUmaProfileInfo* pProfileInfo, void* pReal, void* pAddr, size_t size, int protection,
                       int flags, int fd, off_t offset)
{
    if (!ZorvUmtIsTraceEvent(pProfileInfo, ZORV_UMT_EVENT_SYSCALL))
        return ZorvCallReal<void*>(pReal, pAddr, size, protection, flags, fd, offset);
    ZorvTracedCall call = {};
    call.m_pProfileInfo = pProfileInfo;
    call.m_funcVa = reinterpret_cast<uint64_t>(pReal);
    call.m_class = {ZORV_SYSCALL_TYPE_OTHER, ZORV_UMT_EVENT_SYSCALL};
    ZorvBeginCall(&call);
    void* pMapping = ZorvCallReal<void*>(pReal, pAddr, size, protection, flags, fd, offset);
    call.m_value = reinterpret_cast<uint64_t>(pMapping);
    ZorvEndCall(&call, 0);
    return pMapping;
}

// A thread without a record is not counted: the block may be unmapped under it, unless it holds the end up.
static bool IsStopSet(ZorvUmaProfileInfo* pProfileInfo)
{
    if (t_zorvState.m_pInfo != nullptr)
        return ZorvUmaIsStopSet(pProfileInfo);
    if (!ZorvUmaBeginStreamUse(pProfileInfo))
        return true;
    bool isSet = ZorvUmaIsStopSet(pProfileInfo);
    ZorvUmaEndStreamUse(pProfileInfo);
    return isSet;
}

template <ZorvEntryPoint* pEntry, typename, typename> struct Map
{
    static void* Call(void* pAddr, size_t size, int protection, int flags, int fd, off_t offset)
    {
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return MAP_FAILED;
        if (pProfileInfo == nullptr || !pProfileInfo->m_isProcessInitialized || pProfileInfo->m_isFlush ||
            IsStopSet(pProfileInfo))
            return ZorvCallReal<void*>(pReal, pAddr, size, protection, flags, fd, offset);

        void* pMapping = MapTraced(pProfileInfo, pReal, pAddr, size, protection, flags, fd, offset);
        if (pMapping == MAP_FAILED || (protection & PROT_EXEC) == 0 || fd == -1)
            return pMapping;
        ZorvAgentScope scope;
        ZorvUmaEnterAgent(&scope);
        if (!ZorvUmaIsForeign() && ZorvUmaBeginStreamUse(pProfileInfo))
        {
            RecordMapping(pProfileInfo, pMapping, size, fd);
            ZorvUmaEndStreamUse(pProfileInfo);
        }
        ZorvUmaLeaveAgent(&scope);
        return pMapping;
    }
};

ZORV_INTERPOSE_SINGLE(Map, void, ZorvInterposeMmap, mmap, 6, AllOnes)
ZORV_INTERPOSE_SINGLE(Map, void, ZorvInterposeMmap64, mmap64, 6, AllOnes)
