// What the interposers share: the entry points with their real functions, and the halves of a traced call.
//
// How to add an interposer: give it a row in the table of its family. The row names the class, the libc
// function, the number of its parameters and, where libc has two versions, the old and the new one. Prototype,
// entry points, look-up and pattern follow from the row; nothing else is written.
#pragma once

#include "ZorvUserModeTraceCalls.h"

// What a call answers while its real function cannot be found.
enum class ZorvLookupFailure
{
    AllOnes, // -1, or the all-ones pointer
    Zero,
    FirstArgument,
};

// One exported entry of a libc name. Its address of the real function is also the funcVa of its records.
struct ZorvEntryPoint
{
    void* m_pReal; // null until found; kept for the life of the process
    const char* m_pName;
    const char* m_pVersion; // null: the next default one
    ZorvLookupFailure m_failure;
};

struct ZorvUmtThreadWrapperArg
{
    void* (*m_pStartRoutine)(void*);
    void* m_pArg;
    ZorvUmaProfileInfo* m_pProfileInfo;
};
using ZorvUmtThreadWrapperArgT = ZorvUmtThreadWrapperArg;

// Finds the real function; prints a message and gives null when it is not there. errno is kept.
void* ZorvFindReal(ZorvEntryPoint* pEntry);

// The halves of a traced call, out of line; each keeps errno. Begin before the real call, End or EndIf behind
// it.
void ZorvBeginCall(ZorvTracedCall* pCall);                    // takes pause id and time
void ZorvBeginParkedCall(ZorvTracedCall* pCall);              // the same, and parks a provisional record
void ZorvEndParkedCall(ZorvTracedCall* pCall, int result);    // completes or withdraws it
void ZorvEndCall(ZorvTracedCall* pCall, int result);          // writes a whole record, if it was long enough
void ZorvEndCallAnyLength(ZorvTracedCall* pCall, int result); // the same without a threshold

// Nanoseconds of an absolute deadline, as double precision gives them; 0 for none.
uint64_t ZorvDeadlineNs(const timespec* pDeadline);

inline void* ZorvRealOf(ZorvEntryPoint* pEntry)
{
    void* pReal = __atomic_load_n(&pEntry->m_pReal, __ATOMIC_RELAXED);
    return ZORV_LIKELY(pReal != nullptr) ? pReal : ZorvFindReal(pEntry);
}

// Whether the class may be traced at all: one load and one test. The full test follows where it says yes.
inline bool ZorvIsGateOpen(ZorvUmtEventId event)
{
    return __atomic_load_n(&g_pTraceGate, __ATOMIC_RELAXED)[event].m_enable;
}

// Every entry point stands in this section, so that the start of the agent can look all of them up.
#define ZORV_ENTRY_SECTION __attribute__((section("zorv_entries"), used))

// Looks up, silently, every real function that is not known yet.
void ZorvUmtResolveInterposers();

extern "C" ZORV_EXPORT void* ZorvInterposeDlopen(const char* pFile, int mode);

// The process record while the class is traced for the calling thread; else null.
ZorvUmaProfileInfo* ZorvTracedInfo(ZorvUmtEventId event);
// The shortest duration that the class records.
uint64_t ZorvThresholdOf(ZorvUmtEventId event);

// ---- patterns --------------------------------------------------------------------------------------------

template <typename R, typename... P> static inline R ZorvCallReal(void* pReal, P... arguments)
{
    return reinterpret_cast<R (*)(P...)>(pReal)(arguments...);
}

template <typename R> static inline int ZorvResultAsInt(R result)
{
    if constexpr (std::is_integral_v<R>)
        return static_cast<int>(result);
    else
        return 0;
}

template <typename R, typename First, typename... Rest>
static inline R ZorvFailureResult(ZorvLookupFailure failure, [[maybe_unused]] First first, Rest...)
{
    if constexpr (std::is_integral_v<First> && std::is_integral_v<R>)
        if (failure == ZorvLookupFailure::FirstArgument)
            return static_cast<R>(first);
    return (R)(failure == ZorvLookupFailure::Zero ? 0L : -1L);
}

template <typename R> static inline R ZorvFailureResult(ZorvLookupFailure failure)
{
    return (R)(failure == ZorvLookupFailure::Zero ? 0L : -1L);
}

template <typename First, typename... Rest> static inline uint64_t ZorvFirstArgument(First first, Rest...)
{
    return (uint64_t)first; // a pointer or a handle
}

// Where the halves of a call stand.
struct ZorvHalvesInPlace
{
    static ZORV_IN_PLACE ZorvUmaProfileInfo* TracedInfo(ZorvUmtEventId event)
    {
        ZorvUmaProfileInfo* pProfileInfo = __atomic_load_n(&g_pProfileInfo, __ATOMIC_RELAXED);
        bool isTraced = pProfileInfo != nullptr && pProfileInfo->m_umtConfig.m_umtEventList[event].m_enable &&
                        !ZorvDirectCalls::IsStopped(pProfileInfo);
        return isTraced ? pProfileInfo : nullptr;
    }
    static ZORV_IN_PLACE void Begin(ZorvTracedCall* pCall)
    {
        ZorvBeginUnparked<ZorvDirectCalls>(pCall);
    }
    static ZORV_IN_PLACE void BeginParked(ZorvTracedCall* pCall)
    {
        ZorvBeginParked<ZorvDirectCalls>(pCall);
    }
    static ZORV_IN_PLACE void End(ZorvTracedCall* pCall, int result)
    {
        ZorvEndUnparked<ZorvDirectCalls>(pCall, result, false);
    }
    static ZORV_IN_PLACE void EndAnyLength(ZorvTracedCall* pCall, int result)
    {
        ZorvEndUnparked<ZorvDirectCalls>(pCall, result, true);
    }
    static ZORV_IN_PLACE void EndParked(ZorvTracedCall* pCall, int result)
    {
        ZorvEndParked<ZorvDirectCalls>(pCall, result);
    }
};

struct ZorvHalvesOutOfLine
{
    static constexpr auto TracedInfo = ZorvTracedInfo;
    static constexpr auto Begin = ZorvBeginCall;
    static constexpr auto BeginParked = ZorvBeginParkedCall;
    static constexpr auto End = ZorvEndCall;
    static constexpr auto EndAnyLength = ZorvEndCallAnyLength;
    static constexpr auto EndParked = ZorvEndParkedCall;
};

// Runs the real call between two halves; void calls have no result to hand on. In place like the halves: left
// to itself the compiler gives many rows a shared copy, which costs them 4 ns a record.
template <typename R, typename Begin, typename End, typename... P>
ZORV_IN_PLACE R ZorvRunBetween(Begin begin, End end, void* pReal, P... arguments)
{
    begin();
    if constexpr (std::is_void_v<R>)
    {
        ZorvCallReal<R>(pReal, arguments...);
        end(0);
    }
    else
    {
        R result = ZorvCallReal<R>(pReal, arguments...);
        end(ZorvResultAsInt(result));
        return result;
    }
}

// A pattern says whether it wants the call, beside the trace test of its class, and runs it.

// A call that may block for long: with a provisional record over it.
struct ZorvParkedPattern
{
    template <typename... P> static bool Wants(ZorvUmtEventId, P...)
    {
        return true;
    }
    template <typename Halves, typename R, typename... P>
    static ZORV_IN_PLACE R Run(ZorvTracedCall* pCall, void* pReal, P... arguments)
    {
        return ZorvRunBetween<R>([=]() ZORV_LAMBDA_IN_PLACE { Halves::BeginParked(pCall); },
                                 [=](int result) ZORV_LAMBDA_IN_PLACE { Halves::EndParked(pCall, result); },
                                 pReal, arguments...);
    }
};

// A call that is over soon: one whole record behind it.
struct ZorvDirectPattern
{
    template <typename... P> static bool Wants(ZorvUmtEventId, P...)
    {
        return true;
    }
    template <typename Halves, typename R, typename... P>
    static ZORV_IN_PLACE R Run(ZorvTracedCall* pCall, void* pReal, P... arguments)
    {
        return ZorvRunBetween<R>([=]() ZORV_LAMBDA_IN_PLACE { Halves::Begin(pCall); },
                                 [=](int result) ZORV_LAMBDA_IN_PLACE { Halves::End(pCall, result); }, pReal,
                                 arguments...);
    }
};

// An entry of a pattern: the gate in place, all else out of line.
template <typename Pattern, ZorvEntryPoint* pEntry, ZorvCallClass callClass, typename Pointer>
struct ZorvGatedCall;

template <typename Pattern, ZorvEntryPoint* pEntry, ZorvCallClass callClass, typename R, typename... P>
struct ZorvGatedCall<Pattern, pEntry, callClass, R (*)(P...)>
{
    template <typename Halves> static ZORV_IN_PLACE R Traced(void* pReal, P... arguments)
    {
        ZorvUmaProfileInfo* pProfileInfo =
            Pattern::Wants(callClass.m_event, arguments...) ? Halves::TracedInfo(callClass.m_event) : nullptr;
        if (pProfileInfo == nullptr)
            return ZorvCallReal<R>(pReal, arguments...);

        ZorvTracedCall call;
        call.m_pProfileInfo = pProfileInfo;
        call.m_funcVa = reinterpret_cast<uint64_t>(pReal);
        call.m_class = callClass;
        call.m_flags = ZORV_UMT_FLAG_NONE;
        if constexpr (callClass.m_event == ZORV_UMT_EVENT_PTHREAD)
            call.m_value = ZorvFirstArgument(arguments...);
        else
            call.m_value = 0;
        return Pattern::template Run<Halves, R>(&call, pReal, arguments...);
    }

    static ZORV_COLD R TracedByReplaced(void* pReal, P... arguments)
    {
        return Traced<ZorvHalvesOutOfLine>(pReal, arguments...);
    }

    static __attribute__((noinline)) R BehindGate(P... arguments)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (ZORV_UNLIKELY(pReal == nullptr))
        {
            if constexpr (std::is_void_v<R>)
                return;
            else
                return ZorvFailureResult<R>(pEntry->m_failure, arguments...);
        }
        if (ZORV_LIKELY(g_isPathDirect))
            return Traced<ZorvHalvesInPlace>(pReal, arguments...);
        return TracedByReplaced(pReal, arguments...);
    }

    static inline R Call(P... arguments)
    {
        void* pReal = pEntry->m_pReal;
        if (ZORV_LIKELY(pReal != nullptr && !ZorvIsGateOpen(callClass.m_event)))
            return ZorvCallReal<R>(pReal, arguments...);
        return BehindGate(arguments...);
    }
};

// ---- entries of a row ------------------------------------------------------------------------------------

// One exported function: entry point, prototype and pattern. The traced half is told the entry as a template
// argument, so that the untraced call keeps its registers and ends in a jump.
#define ZORV_INTERPOSER_ENTRY(pattern, detail, function, name, count, version, failure)                        \
    static ZORV_ENTRY_SECTION ZorvEntryPoint g_entry##function = {nullptr, #name, version,                     \
                                                                  ZorvLookupFailure::failure};                 \
    extern "C" ZORV_EXPORT ZorvResult<decltype(&::name)> function(ZORV_PARAMETERS_##count(decltype(&::name)))  \
    {                                                                                                          \
        return pattern<&g_entry##function, detail, decltype(&function)>::Call(ZORV_ARGUMENTS_##count);         \
    }

#define ZORV_VERSION_2_2_5 "GLIBC_2.2.5"
#define ZORV_VERSION_2_3_2 "GLIBC_2.3.2"
#define ZORV_VERSION_2_3_4 "GLIBC_2.3.4"
#define ZORV_VERSION_2_10 "GLIBC_2.10"
#define ZORV_VERSION_2_12 "GLIBC_2.12"
#define ZORV_VERSION_2_17 "GLIBC_2.17"
#define ZORV_VERSION_2_24 "GLIBC_2.24"
#define ZORV_VERSION_2_34 "GLIBC_2.34"

// The libc name as a weak alias, given to the assembler so that no header is contradicted; the version script
// puts the name into the node of its old version.
#define ZORV_WEAK_NAME(function, name)                                                                         \
    asm(".weak " #name "\n.type " #name ", @function\n.set " #name ", " #function)

#define ZORV_VERSIONED_NAME(function, name, separator, version)                                                \
    asm(".symver " #function ", " #name separator version)

// The three entries of a versioned name: name@OLD, name@@NEW, and weak name@@OLD with the next default
// function.
#define ZORV_INTERPOSE_VERSIONED(pattern, detail, function, name, count, oldVersion, newVersion, failure)      \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function##_##oldVersion, name, count, ZORV_VERSION_##oldVersion,    \
                          failure)                                                                             \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function##_##newVersion, name, count, ZORV_VERSION_##newVersion,    \
                          failure)                                                                             \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function, name, count, nullptr, failure)                            \
    ZORV_VERSIONED_NAME(function##_##oldVersion, name, "@", ZORV_VERSION_##oldVersion);                        \
    ZORV_VERSIONED_NAME(function##_##newVersion, name, "@@", ZORV_VERSION_##newVersion);                       \
    ZORV_WEAK_NAME(function, name);

#define ZORV_INTERPOSE_SINGLE(pattern, detail, function, name, count, failure)                                 \
    ZORV_INTERPOSER_ENTRY(pattern, detail, function, name, count, nullptr, failure)                            \
    ZORV_WEAK_NAME(function, name);
