// The unwinder asks the loader for its list of modules, and the loader answers under a lock. A sampled thread
// may hold that lock, may be just about to note that it does, or may be a copy, in a forked child, of one that
// another thread held. So while a sample is unwound, the question is answered from a list of our own.
//
// The list is made where modules arrive: at the start, and behind a dlopen. A module that has gone since, or
// whose place another one has taken, is told by _dl_find_object(3), which takes no lock, and is passed over.
// While a dlclose runs, that may come too late: then only what was there at the start is answered.

#include "ZorvUserModeTraceLoader.h"
#include "ZorvUserModeTraceInterposers.h"

#include <dlfcn.h>
#include <link.h>

namespace
{

using PhdrCallback = int (*)(struct dl_phdr_info* pInfo, size_t size, void* pData);

// What _dl_find_object says of a module; all of it null where it says nothing.
struct ObjectPlace
{
    void* m_pStart;
    void* m_pEnd;
    void* m_pEhFrame;
};

struct ListedModule
{
    struct dl_phdr_info m_info; // the program headers are copies
    uintptr_t m_dynamic;        // address of the dynamic section
    void* m_pFirst;             // address of the first loaded byte
    ObjectPlace m_place;
    bool m_isLasting; // there at the start: no dlclose takes it away
};

// One piece of storage: the modules, then all their program headers.
struct ModuleList
{
    size_t m_room; // modules that fit
    size_t m_headerRoom;
    size_t m_count;
    size_t m_headerCount;
    ElfW(Phdr) * m_pHeaders;
    ListedModule m_modules[];
};

ModuleList* g_pList;    // changes hands only under the turn to unwind
ObjectPlace g_unwinder; // stays, as its handle is never closed
bool g_isUnwinderShared;
uint32_t g_closings; // calls of dlclose(3) under way

int IteratePhdrOfLibc(PhdrCallback callback, void* pData);

} // namespace

// ---- the list --------------------------------------------------------------------------------------------

static ObjectPlace PlaceOf(void* pAddress)
{
    struct dl_find_object found;
    if (_dl_find_object(pAddress, &found) != 0)
        return {};
    return {found.dlfo_map_start, found.dlfo_map_end, found.dlfo_eh_frame};
}

static bool IsStillThere(const ListedModule* pModule)
{
    const ObjectPlace& was = pModule->m_place;
    if (was.m_pStart == nullptr)
        return true; // the kernel's own object never goes
    ObjectPlace now = PlaceOf(pModule->m_pFirst);
    return now.m_pStart == was.m_pStart && now.m_pEnd == was.m_pEnd && now.m_pEhFrame == was.m_pEhFrame;
}

static int CountModule(struct dl_phdr_info* pInfo, size_t, void* pData)
{
    auto pCounted = static_cast<ModuleList*>(pData);
    pCounted->m_room++;
    pCounted->m_headerRoom += pInfo->dlpi_phnum;
    return 0;
}

static void NoteAddresses(ListedModule* pModule)
{
    bool isFirstLoad = true;
    for (size_t i = 0; i < pModule->m_info.dlpi_phnum; i++)
    {
        const ElfW(Phdr)& header = pModule->m_info.dlpi_phdr[i];
        if (header.p_type == PT_LOAD && isFirstLoad)
        {
            pModule->m_pFirst = reinterpret_cast<void*>(pModule->m_info.dlpi_addr + header.p_vaddr);
            isFirstLoad = false;
        }
        if (header.p_type == PT_DYNAMIC)
            pModule->m_dynamic = pModule->m_info.dlpi_addr + header.p_vaddr;
    }
}

static bool WasLasting(const ListedModule* pModule)
{
    for (size_t i = 0; i < g_pList->m_count; i++)
        if (g_pList->m_modules[i].m_dynamic == pModule->m_dynamic)
            return g_pList->m_modules[i].m_isLasting;
    return false;
}

static int AddModule(struct dl_phdr_info* pInfo, size_t size, void* pData)
{
    auto pList = static_cast<ModuleList*>(pData);
    if (pList->m_count == pList->m_room || pInfo->dlpi_phnum > pList->m_headerRoom - pList->m_headerCount)
        return 1; // one that has come since the count: whoever brought it makes the next list
    ListedModule* pModule = &pList->m_modules[pList->m_count++];
    *pModule = {};
    ZorvUmaMemcpy(&pModule->m_info, pInfo, size < sizeof(pModule->m_info) ? size : sizeof(pModule->m_info));
    ElfW(Phdr)* pHeaders = pList->m_pHeaders + pList->m_headerCount;
    ZorvUmaMemcpy(pHeaders, pInfo->dlpi_phdr, pInfo->dlpi_phnum * sizeof(*pHeaders));
    pList->m_headerCount += pInfo->dlpi_phnum;
    pModule->m_info.dlpi_phdr = pHeaders;
    pModule->m_info.dlpi_name = ""; // the loader's text goes with the module
    pModule->m_info.dlpi_tls_modid = 0;
    pModule->m_info.dlpi_tls_data = nullptr;
    NoteAddresses(pModule);
    if (pModule->m_pFirst != nullptr)
        pModule->m_place = PlaceOf(pModule->m_pFirst);
    pModule->m_isLasting = g_pList == nullptr || WasLasting(pModule);
    return 0;
}

static void RenewList()
{
    ModuleList counted = {};
    IteratePhdrOfLibc(CountModule, &counted);
    size_t size = sizeof(ModuleList) + counted.m_room * sizeof(ListedModule);
    auto pList =
        static_cast<ModuleList*>(ZorvUmaMalloc(size + counted.m_headerRoom * sizeof(*counted.m_pHeaders)));
    if (pList == nullptr)
        return; // the older list stays: what is new is not unwound through
    *pList = counted;
    pList->m_pHeaders = reinterpret_cast<ElfW(Phdr)*>(reinterpret_cast<char*>(pList) + size);
    IteratePhdrOfLibc(AddModule, pList);
    ModuleList* pOlder = g_pList;
    __atomic_store_n(&g_pList, pList, __ATOMIC_RELEASE);
    ZorvUmaFree(pOlder);
}

void ZorvUmsListModules(void* pUnwinder, bool wasLoaded)
{
    g_isUnwinderShared = wasLoaded;
    g_unwinder = PlaceOf(static_cast<struct link_map*>(pUnwinder)->l_ld);
    RenewList();
}

static bool IsListed(const struct link_map* pMap)
{
    for (size_t i = 0; i < g_pList->m_count; i++)
        if (g_pList->m_modules[i].m_dynamic == reinterpret_cast<uintptr_t>(pMap->l_ld))
            return IsStillThere(&g_pList->m_modules[i]);
    return false;
}

void ZorvUmsListModule(void* pHandle)
{
    if (g_pList != nullptr && !IsListed(static_cast<struct link_map*>(pHandle)))
        RenewList();
}

void ZorvUmsBeginClosing()
{
    __atomic_add_fetch(&g_closings, 1, __ATOMIC_SEQ_CST);
}

void ZorvUmsEndClosing()
{
    // A child that was forked meanwhile has begun to count anew.
    if (__atomic_load_n(&g_closings, __ATOMIC_SEQ_CST) != 0)
        __atomic_sub_fetch(&g_closings, 1, __ATOMIC_SEQ_CST);
}

void ZorvUmsForgetClosings()
{
    __atomic_store_n(&g_closings, 0U, __ATOMIC_SEQ_CST);
}

// ---- threads inside the loader ---------------------------------------------------------------------------

const void* ZorvUmsEnterLoader(const void* pFrame)
{
    const void* pBefore = t_zorvState.m_pLoaderFrame;
    __atomic_store_n(&t_zorvState.m_pLoaderFrame, pFrame, __ATOMIC_RELAXED);
    return pBefore;
}

void ZorvUmsLeaveLoader(const void* pBefore)
{
    __atomic_store_n(&t_zorvState.m_pLoaderFrame, pBefore, __ATOMIC_RELAXED);
}

void ZorvUmsShareUnwinder()
{
    __atomic_store_n(&g_isUnwinderShared, true, __ATOMIC_SEQ_CST);
}

bool ZorvUmsIsUnwindingUnsafe()
{
    // A frame that was left by a jump lies below the stack's end now.
    return __atomic_load_n(&g_isUnwinderShared, __ATOMIC_RELAXED) &&
           t_zorvState.m_pLoaderFrame > __builtin_frame_address(0);
}

// ---- dl_iterate_phdr -------------------------------------------------------------------------------------

static int AnswerFromList(const ModuleList* pList, PhdrCallback callback, void* pData)
{
    int result = 0;
    bool isClosing = __atomic_load_n(&g_closings, __ATOMIC_SEQ_CST) != 0;
    for (size_t i = 0; i < pList->m_count && result == 0; i++)
    {
        const ListedModule* pModule = &pList->m_modules[i];
        struct dl_phdr_info info = pModule->m_info;
        if (pModule->m_isLasting || (!isClosing && IsStillThere(pModule)))
            result = callback(&info, sizeof(info), pData);
    }
    return result;
}

bool ZorvUmsIsUnwinder(const void* pCode)
{
    // Where it is not known, anybody may be it.
    return g_unwinder.m_pStart == nullptr || (pCode >= g_unwinder.m_pStart && pCode < g_unwinder.m_pEnd);
}

template <ZorvEntryPoint* pEntry, typename, typename> struct ListedPhdrs
{
    static inline __attribute__((always_inline)) int Call(PhdrCallback callback, void* pData)
    {
        const ModuleList* pList = __atomic_load_n(&g_pList, __ATOMIC_ACQUIRE);
        if (t_zorvState.m_isUnwinding && pList != nullptr)
            return AnswerFromList(pList, callback, pData);
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return 0;
        // The program unwinds by the same object: from now on its locks are in play.
        if (ZorvUmsIsUnwinder(__builtin_return_address(0)))
            ZorvUmsShareUnwinder();
        const void* pBefore = ZorvUmsEnterLoader(__builtin_frame_address(0));
        int result = ZorvCallReal<int>(pReal, callback, pData);
        ZorvUmsLeaveLoader(pBefore);
        return result;
    }
};

ZORV_INTERPOSE_SINGLE(ListedPhdrs, void, ZorvInterposeDlIteratePhdr, dl_iterate_phdr, 2, Zero)

namespace
{

int IteratePhdrOfLibc(PhdrCallback callback, void* pData)
{
    void* pReal = ZorvRealOf(&g_entryZorvInterposeDlIteratePhdr);
    return pReal == nullptr ? 0 : ZorvCallReal<int>(pReal, callback, pData);
}

} // namespace
