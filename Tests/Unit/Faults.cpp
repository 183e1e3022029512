#include "Faults.h"

#include "FaultNames.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

namespace faults
{

namespace
{

using RawFunction = Word (*)(Word, Word, Word, Word, Word, Word, Word, Word, Word, Word);

struct Point
{
    const char* m_pName;
    std::atomic<RawFunction> m_pReal{nullptr};
    std::atomic<Armed*> m_pArmed{nullptr};
};

// Constant-initialised: libc may call through these before any constructor of this program has run.
constinit Point g_points[FAULT_COUNT] = {
#define ZORV_FAULT(name) {#name},
#include "FaultNames.def"
#undef ZORV_FAULT
};

const char* g_pAgentPath = nullptr;

// ---- libc's own definitions ------------------------------------------------------------------------------

// dlsym cannot tell where dlsym is when this program defines it: the symbol table is read by hand.
struct SymbolTable
{
    const ElfW(Sym) * m_pSymbols;
    const char* m_pNames;
    const uint32_t* m_pGnuHash;
};

const link_map* FindLibc()
{
    for (const link_map* pMap = _r_debug.r_map; pMap != nullptr; pMap = pMap->l_next)
    {
        if (strstr(pMap->l_name, "/libc.so.6") != nullptr)
        {
            return pMap;
        }
    }
    return nullptr;
}

SymbolTable ReadTables(const link_map* pMap)
{
    SymbolTable tables{};
    for (const ElfW(Dyn)* pEntry = pMap->l_ld; pEntry->d_tag != DT_NULL; pEntry++)
    {
        ElfW(Addr) address = pEntry->d_un.d_ptr;
        address += address < pMap->l_addr ? pMap->l_addr : 0;
        switch (pEntry->d_tag)
        {
        case DT_SYMTAB:
            tables.m_pSymbols = reinterpret_cast<const ElfW(Sym)*>(address);
            break;
        case DT_STRTAB:
            tables.m_pNames = reinterpret_cast<const char*>(address);
            break;
        case DT_GNU_HASH:
            tables.m_pGnuHash = reinterpret_cast<const uint32_t*>(address);
            break;
        default:
            break;
        }
    }
    return tables;
}

// The number of symbols: the end of the chain of the bucket that begins last.
uint32_t CountSymbols(const uint32_t* pHash)
{
    const uint32_t bucketCount = pHash[0];
    const uint32_t firstHashed = pHash[1];
    const uint32_t* pBuckets = pHash + 4 + pHash[2] * 2;
    const uint32_t* pChains = pBuckets + bucketCount;
    uint32_t last = 0;
    for (uint32_t i = 0; i < bucketCount; i++)
    {
        last = pBuckets[i] > last ? pBuckets[i] : last;
    }
    while (last != 0 && (pChains[last - firstHashed] & 1) == 0)
    {
        last++;
    }
    return last + 1;
}

} // namespace

void* FindInLibc(const char* pName)
{
    const link_map* pMap = FindLibc();
    const SymbolTable tables = ReadTables(pMap);
    const uint32_t count = CountSymbols(tables.m_pGnuHash);
    for (uint32_t i = 0; i < count; i++)
    {
        const ElfW(Sym)& symbol = tables.m_pSymbols[i];
        if (symbol.st_shndx != SHN_UNDEF && strcmp(tables.m_pNames + symbol.st_name, pName) == 0)
        {
            return reinterpret_cast<void*>(pMap->l_addr + symbol.st_value);
        }
    }
    return nullptr;
}

namespace
{

// ---- passing a call on -----------------------------------------------------------------------------------

template <class Signature> Signature* LibcFunction(const char* pName)
{
    return reinterpret_cast<Signature*>(FindInLibc(pName));
}

// The agent's constructor already calls through these, before dlopen has returned a handle to anybody.
void* FindInAgent(const char* pName)
{
    static const auto pOpen = LibcFunction<void*(const char*, int)>("dlopen");
    static const auto pFind = LibcFunction<void*(void*, const char*)>("dlsym");
    static void* pHandle = pOpen(g_pAgentPath, 0x6 /* RTLD_NOW | RTLD_NOLOAD */);
    return pHandle == nullptr ? nullptr : pFind(pHandle, pName);
}

RawFunction FindReal(Point& point)
{
    RawFunction pReal = point.m_pReal.load(std::memory_order_relaxed);
    if (pReal == nullptr)
    {
        const int savedErrno = errno;
        const bool isLoader = &point - g_points < FAULT_FIRST_OF_AGENT;
        pReal =
            reinterpret_cast<RawFunction>(isLoader ? FindInLibc(point.m_pName) : FindInAgent(point.m_pName));
        if (pReal == nullptr)
        {
            fprintf(stderr, "nobody defines %s\n", point.m_pName);
            abort();
        }
        point.m_pReal.store(pReal, std::memory_order_relaxed);
        errno = savedErrno;
    }
    return pReal;
}

// The agent looks the loader's dlopen up, since it interposes the name: that leads here too.
bool IsLookUpOfDlopen(const Point& point, const Words& words)
{
    const auto id = &point - g_points;
    return (id == FAULT_dlsym || id == FAULT_dlvsym) &&
           strcmp(reinterpret_cast<const char*>(words[1]), "dlopen") == 0;
}

Word CallReal(Point& point, const Words& w)
{
    if (IsLookUpOfDlopen(point, w))
    {
        return reinterpret_cast<Word>(&dlopen);
    }
    return FindReal(point)(w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7], w[8], w[9]);
}

Point& FindPoint(const char* pName)
{
    for (Point& point : g_points)
    {
        if (strcmp(point.m_pName, pName) == 0)
        {
            return point;
        }
    }
    fprintf(stderr, "%s is not in the table of replaceable names\n", pName);
    abort();
}

} // namespace

// ---- replacements ----------------------------------------------------------------------------------------

struct Armed
{
    Point& m_point;
    Armed* m_pOuter;
    Action m_action;
    std::atomic<long> m_calls{0};

    Word Run(const Words& words)
    {
        return m_action(Call{m_point.m_pName, words, ++m_calls, m_pOuter});
    }
};

Replace::Replace(const char* pName, Action action)
{
    Point& point = FindPoint(pName);
    m_pArmed.reset(new Armed{point, point.m_pArmed, std::move(action)});
    point.m_pArmed = m_pArmed.get();
}

Replace::~Replace()
{
    m_pArmed->m_point.m_pArmed = m_pArmed->m_pOuter;
}

long Replace::Calls() const
{
    return m_pArmed->m_calls;
}

Word Call::PassOn() const
{
    return m_pNext != nullptr ? m_pNext->Run(m_words) : CallReal(FindPoint(m_pName), m_words);
}

Action Fails(Word result, int error)
{
    return FailsFrom(1, result, error);
}

Action FailsOn(long number, Word result, int error)
{
    return [=](const Call& call)
    {
        if (call.m_number != number)
        {
            return call.PassOn();
        }
        errno = error != 0 ? error : errno;
        return result;
    };
}

Action FailsFrom(long number, Word result, int error)
{
    return [=](const Call& call)
    {
        if (call.m_number < number)
        {
            return call.PassOn();
        }
        errno = error != 0 ? error : errno;
        return result;
    };
}

NoMemory::NoMemory(size_t minSize, size_t maxSize, long spare)
    : m_pCounts(std::make_shared<std::array<long, 2>>())
{
    const auto refuse = [=, pCounts = m_pCounts](const Call& call, size_t size, Word failure)
    {
        if (size < minSize || size >= maxSize || ++(*pCounts)[0] <= spare)
        {
            return call.PassOn();
        }
        ++(*pCounts)[1];
        errno = ENOMEM;
        return failure;
    };
    const auto arm = [this](const char* pName, Action action)
    { m_replaced.push_back(std::make_unique<Replace>(pName, std::move(action))); };
    arm("ZorvUmaMalloc", [=](const Call& call) { return refuse(call, call.Arg<size_t>(0), 0); });
    arm("ZorvUmaCalloc",
        [=](const Call& call) { return refuse(call, call.Arg<size_t>(0) * call.Arg<size_t>(1), 0); });
    arm("ZorvUmaMmap", [=](const Call& call) { return refuse(call, call.Arg<size_t>(1), ~Word{0}); });
}

long NoMemory::Refused() const
{
    return (*m_pCounts)[1];
}

CallLog::CallLog(std::initializer_list<const char*> names) : m_pCalls(std::make_shared<std::vector<Call>>())
{
    for (const char* pName : names)
    {
        m_replaced.push_back(std::make_unique<Replace>(pName,
                                                       [pCalls = m_pCalls](const Call& call)
                                                       {
                                                           pCalls->push_back(call);
                                                           return call.PassOn();
                                                       }));
    }
}

const std::vector<Call>& CallLog::Calls() const
{
    return *m_pCalls;
}

std::vector<std::string> CallLog::Names() const
{
    std::vector<std::string> names;
    for (const Call& call : *m_pCalls)
    {
        names.emplace_back(call.m_pName);
    }
    return names;
}

void CallLog::Clear()
{
    m_pCalls->clear();
}

void SetAgentPath(const char* pPath)
{
    g_pAgentPath = pPath;
}

Word Dispatch(int id, const Words& words)
{
    Point& point = g_points[id];
    Armed* pArmed = point.m_pArmed.load(std::memory_order_acquire);
    return pArmed == nullptr ? CallReal(point, words) : pArmed->Run(words);
}

} // namespace faults
