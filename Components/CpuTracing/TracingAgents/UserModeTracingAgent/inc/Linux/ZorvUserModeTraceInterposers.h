// What the interposers share: the entry points with their real functions, and the halves of a traced call.
//
// How to add an interposer: give it a row in the table of its family. The row names the class, the libc function, the
// number of its parameters and, where libc has two versions, the old and the new one. Prototype, entry points, look-up
// and pattern follow from the row; nothing else is written.
#pragma once

#include "ZorvUserModeTrace.h"

// One exported entry of a libc name. Its address of the real function is also the funcVa of its records.
struct ZorvEntryPoint
{
    void* m_pReal; // null until found; kept for the life of the process
    const char* m_pName;
    const char* m_pVersion; // null: the next default one
};

struct ZorvUmtThreadWrapperArg
{
    void* (*m_pStartRoutine)(void*);
    void* m_pArg;
    ZorvUmaProfileInfo* m_pProfileInfo;
};

// A traced call between its two halves. No destructor is pending over the real call: a cancelled thread skips it.
struct ZorvTracedCall
{
    ZorvUmaProfileInfo* m_pProfileInfo;
    uint64_t m_startTime;
    uint64_t m_startPauseId;
    ZorvUmaBuffer* m_pCacheBuf; // holds the provisional record
    uint32_t m_appendCount;     // as it is while nobody has written over that record
    uint32_t m_lostByCache;     // records counted as lost because the provisional one found no room
};

// Finds the real function; prints a message and gives null when it is not there. errno is kept.
void* ZorvFindReal(ZorvEntryPoint* pEntry);

inline void* ZorvRealOf(ZorvEntryPoint* pEntry)
{
    void* pReal = __atomic_load_n(&pEntry->m_pReal, __ATOMIC_RELAXED);
    return ZORV_LIKELY(pReal != nullptr) ? pReal : ZorvFindReal(pEntry);
}

// Whether the class may be traced at all: one load and one test. The full test follows where it says yes.
inline bool ZorvIsGateOpen(ZorvUmtEventId event)
{
    return g_pTraceGate[event].m_enable;
}

// Looks every entry point up, silently, while the agent starts.
void ZorvUmtResolveInterposers();

// Whether an object ahead of the agent answers for the trace test.
bool ZorvUmtIsTraceTestReplaced();

// ---- entries of a row ------------------------------------------------------------------------------------

// One exported function: entry point, prototype and pattern. The traced half is told the entry as a template
// argument, so that the untraced call keeps its registers and ends in a jump.
#define ZORV_INTERPOSER_ENTRY(pattern, detail, function, name, count, version)                                        \
    static ZorvEntryPoint g_entry##function = {nullptr, #name, version};                                              \
    extern "C" ZORV_EXPORT ZorvResult<decltype(&::name)> function(ZORV_PARAMETERS_##count(decltype(&::name)))         \
    {                                                                                                                 \
        return pattern<&g_entry##function, detail, ZorvPointer<decltype(&::name)>>::Call(ZORV_ARGUMENTS_##count);     \
    }

#define ZORV_VERSION_2_2_5 "GLIBC_2.2.5"
#define ZORV_VERSION_2_3_2 "GLIBC_2.3.2"
#define ZORV_VERSION_2_3_4 "GLIBC_2.3.4"
#define ZORV_VERSION_2_10 "GLIBC_2.10"
#define ZORV_VERSION_2_12 "GLIBC_2.12"
#define ZORV_VERSION_2_17 "GLIBC_2.17"
#define ZORV_VERSION_2_24 "GLIBC_2.24"
#define ZORV_VERSION_2_34 "GLIBC_2.34"

// The libc name as a weak alias, given to the assembler so that no header is contradicted; the version script puts
// the name into the node of its old version.
#define ZORV_WEAK_NAME(function, name)                                                                                \
    asm(".weak " #name "\n.type " #name ", @function\n.set " #name ", " #function)

#define ZORV_VERSIONED_NAME(function, name, separator, version)                                                       \
    asm(".symver " #function ", " #name separator version)

// The three entries of a versioned name: name@OLD, name@@NEW, and weak name@@OLD with the next default function.
#define ZORV_INTERPOSE_VERSIONED(pattern, detail, function, name, count, oldVersion, newVersion)                      \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function##_##oldVersion, name, count, ZORV_VERSION_##oldVersion)           \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function##_##newVersion, name, count, ZORV_VERSION_##newVersion)           \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function, name, count, nullptr)                                            \
    ZORV_VERSIONED_NAME(function##_##oldVersion, name, "@", ZORV_VERSION_##oldVersion);                               \
    ZORV_VERSIONED_NAME(function##_##newVersion, name, "@@", ZORV_VERSION_##newVersion);                              \
    ZORV_WEAK_NAME(function, name);

#define ZORV_INTERPOSE_SINGLE(pattern, detail, function, name, count)                                                 \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function, name, count, nullptr)                                            \
    ZORV_WEAK_NAME(function, name);
