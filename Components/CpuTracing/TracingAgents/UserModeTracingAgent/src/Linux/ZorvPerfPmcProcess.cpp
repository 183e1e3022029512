// What the threads share: the lists of group leaders, switched as a whole.
//
// The lists only grow, and a walk over them takes no lock. A thread that ends turns its nodes into -1 before it
// closes the leaders; the record itself stays while a thread uses it.

#include "ZorvPerfPmcShared.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceHelpers.h"

namespace
{

constexpr uint32_t MSR_GROUP_SIZE = 4;
constexpr uint32_t CORE_GROUP_SIZE = 6;

constexpr long WAIT_STEP_NS = 200000;
constexpr int WALK_STEPS = 5000; // 1 s for a walk over the leaders

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

uint32_t g_userCount;     // threads that are using the process record: it is not freed under them
uint32_t g_walkCount;     // walks over the leaders that are under way
uint32_t g_teardownCount; // process records freed so far

__attribute__((tls_model("initial-exec"))) thread_local constinit OwnNodes t_ownNodes = {};

} // namespace

ZorvPcmProcessInfo* g_pProcessInfo;

// ---- users -----------------------------------------------------------------------------------------------

void LeaveProcessInfo()
{
    __atomic_sub_fetch(&g_userCount, 1, __ATOMIC_SEQ_CST);
}

ZorvPcmProcessInfo* EnterProcessInfo()
{
    __atomic_add_fetch(&g_userCount, 1, __ATOMIC_SEQ_CST);
    ZorvPcmProcessInfo* pProcessInfo = __atomic_load_n(&g_pProcessInfo, __ATOMIC_SEQ_CST);
    if (pProcessInfo == nullptr)
        LeaveProcessInfo();
    return pProcessInfo;
}

// ---- all threads -----------------------------------------------------------------------------------------

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

// ---- leaders ---------------------------------------------------------------------------------------------

static OwnNodes* CurrentOwnNodes()
{
    uint32_t teardownCount = __atomic_load_n(&g_teardownCount, __ATOMIC_ACQUIRE);
    if (t_ownNodes.m_teardownCount != teardownCount)
        t_ownNodes = {nullptr, teardownCount};
    return &t_ownNodes;
}

void ZorvInsertGroupFd(ZorvPcmProcessInfo* pProcessInfo, uint32_t type, int fd)
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

void ForgetOwnNodes()
{
    t_ownNodes.m_pHead = nullptr;
}

// A walk may have taken a leader's number just before its node changed. Were the leader closed now, the number
// could be the program's by the time the walk uses it.
static void WaitForWalks()
{
    const timespec step = {0, WAIT_STEP_NS};
    for (int i = 0; i < WALK_STEPS && __atomic_load_n(&g_walkCount, __ATOMIC_SEQ_CST) != 0; i++)
        ZorvRawSyscall(SYS_nanosleep, reinterpret_cast<long>(&step));
}

void WithdrawLeaders()
{
    OwnNodes* pOwnNodes = CurrentOwnNodes();
    for (OwnedFdNode* pOwned = pOwnNodes->m_pHead; pOwned != nullptr; pOwned = pOwned->m_pNextOwn)
        __atomic_store_n(&pOwned->m_node.m_groupFd, -1, __ATOMIC_SEQ_CST);
    pOwnNodes->m_pHead = nullptr;
    WaitForWalks();
}

// ---- the record ------------------------------------------------------------------------------------------

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

void FreeProcessInfo(ZorvPcmProcessInfo* pProcessInfo)
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
