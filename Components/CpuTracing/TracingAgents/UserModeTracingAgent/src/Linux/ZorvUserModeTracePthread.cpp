// Interposers of the thread and synchronisation calls, expanded from their table.
//
// A pattern says whether a call is wanted and how it runs; the halves around the real call are shared with the
// system calls. Arguments, result and errno are the program's.

#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceSignals.h"

#include <cerrno>

namespace
{

// The absolute deadline is compared with the threshold of a duration, so in practice every timed call
// qualifies.
struct TimedPattern : ZorvParkedPattern
{
    template <typename... P> static bool Wants(ZorvUmtEventId event, P... arguments)
    {
        auto pDeadline = std::get<sizeof...(P) - 1>(std::tuple<P...>(arguments...));
        return ZorvDeadlineNs(pDeadline) >= ZorvThresholdOf(event);
    }
};

// A try call never blocks: it is recorded only on success, and only with a threshold of exactly 0.
struct TryPattern
{
    template <typename... P> static bool Wants(ZorvUmtEventId event, P...)
    {
        return ZorvThresholdOf(event) == 0;
    }
    template <typename Halves, typename R, typename... P>
    static ZORV_IN_PLACE R Run(ZorvTracedCall* pCall, void* pReal, P... arguments)
    {
        Halves::Begin(pCall);
        R result = ZorvCallReal<R>(pReal, arguments...);
        if (result == 0)
            Halves::EndAnyLength(pCall, 0);
        return result;
    }
};

} // namespace

template <ZorvEntryPoint* pEntry, ZorvCallClass callClass, typename Pointer>
using Blocking = ZorvGatedCall<ZorvParkedPattern, pEntry, callClass, Pointer>;
template <ZorvEntryPoint* pEntry, ZorvCallClass callClass, typename Pointer>
using Timed = ZorvGatedCall<TimedPattern, pEntry, callClass, Pointer>;
template <ZorvEntryPoint* pEntry, ZorvCallClass callClass, typename Pointer>
using Try = ZorvGatedCall<TryPattern, pEntry, callClass, Pointer>;
// A spin lock is short: parking a record would cost more than the lock.
template <ZorvEntryPoint* pEntry, ZorvCallClass callClass, typename Pointer>
using Spin = ZorvGatedCall<ZorvDirectPattern, pEntry, callClass, Pointer>;

// ---- pthread_create --------------------------------------------------------------------------------------

using CreateFunction = decltype(&::pthread_create);

static int CreateWrapped(ZorvUmaProfileInfo* pProfileInfo, void* pReal, pthread_t* pThread,
                         const pthread_attr_t* pAttr, void* (*pStartRoutine)(void*), void* pArg)
{
    int savedErrno = errno;
    ZorvTracedCall call = {};
    call.m_pProfileInfo = pProfileInfo;
    call.m_funcVa = reinterpret_cast<uint64_t>(pReal);
    call.m_class = {ZORV_PTHREAD_CREATE, ZORV_UMT_EVENT_PTHREAD};
    call.m_startTime = ZorvUmaGetTime();
    auto pWrapperArg = static_cast<ZorvUmtThreadWrapperArg*>(ZorvUmaMalloc(sizeof(ZorvUmtThreadWrapperArg)));
    if (pWrapperArg != nullptr)
        *pWrapperArg = {pStartRoutine, pArg, pProfileInfo};
    call.m_startPauseId = ZorvUmaCurrentPauseId(pProfileInfo);
    errno = savedErrno;

    auto pCreate = reinterpret_cast<CreateFunction>(pReal);
    ZorvUmsBeginMaskInheritance();
    int result = pWrapperArg != nullptr ? pCreate(pThread, pAttr, ZorvUmtPthreadCreateWrapper, pWrapperArg)
                                        : pCreate(pThread, pAttr, pStartRoutine, pArg);
    ZorvUmsEndMaskInheritance();
    if (ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_PTHREAD))
    {
        call.m_value = static_cast<uint64_t>(*pThread);
        ZorvEndCallAnyLength(&call, result);
    }
    return result;
}

template <ZorvEntryPoint* pEntry, ZorvCallClass, typename> struct Create
{
    static int Call(pthread_t* pThread, const pthread_attr_t* pAttr, void* (*pStartRoutine)(void*), void* pArg)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        if (pProfileInfo == nullptr)
        {
            // Another library's constructor is ahead of ours.
            ZorvUmaInit();
            pProfileInfo = ZorvUmaGetProfileInfo();
        }
        if (ZorvUmaIsCollectionStopped(pProfileInfo))
            return reinterpret_cast<CreateFunction>(pReal)(pThread, pAttr, pStartRoutine, pArg);
        return CreateWrapped(pProfileInfo, pReal, pThread, pAttr, pStartRoutine, pArg);
    }
};

// ---- pthread_cancel, pthread_exit, pthread_setname_np ----------------------------------------------------

static int CancelTraced(ZorvUmaProfileInfo* pProfileInfo, void* pReal, pthread_t thread)
{
    ZorvTracedCall call = {};
    call.m_pProfileInfo = pProfileInfo;
    call.m_funcVa = reinterpret_cast<uint64_t>(pReal);
    call.m_value = static_cast<uint64_t>(thread);
    call.m_class = {ZORV_PTHREAD_CANCEL, ZORV_UMT_EVENT_PTHREAD};
    ZorvBeginCall(&call);
    int result = ZorvCallReal<int>(pReal, thread);
    if (ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_PTHREAD))
        ZorvEndCallAnyLength(&call, result);
    // A cancellation that failed is what writes the record; one that succeeded writes none.
    if (result != 0)
    {
        int savedErrno = errno;
        ZorvUmaWriteThreadEndRecord(pProfileInfo,
                                    thread == ZorvUmaPthreadSelf() ? 0 : static_cast<uint64_t>(thread));
        errno = savedErrno;
    }
    return result;
}

template <ZorvEntryPoint* pEntry, ZorvCallClass, typename> struct Cancel
{
    static int Call(pthread_t thread)
    {
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        if (ZorvUmaIsCollectionStopped(pProfileInfo))
            return ZorvCallReal<int>(pReal, thread);
        return CancelTraced(pProfileInfo, pReal, thread);
    }
};

static void EndCallingThread(ZorvUmaProfileInfo* pProfileInfo, void* pReal)
{
    if (ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_PTHREAD) && !ZorvUmaIsPauseSet(pProfileInfo))
    {
        uint64_t now = ZorvUmaGetTime();
        ZorvUmtCapturePthreadRecord(pProfileInfo, now, now, UINT64_MAX, reinterpret_cast<uint64_t>(pReal), 0,
                                    ZORV_PTHREAD_EXIT, nullptr);
    }
    ZorvUmaFiniThread(pProfileInfo);
    ZorvUmaFreeThreadInfo();
}

template <ZorvEntryPoint* pEntry, ZorvCallClass, typename> struct Exit
{
    static void Call(void* pResult)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return;
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        if (!ZorvUmaIsCollectionStopped(pProfileInfo))
        {
            int savedErrno = errno;
            EndCallingThread(pProfileInfo, pReal);
            errno = savedErrno;
        }
        reinterpret_cast<decltype(&::pthread_exit)>(pReal)(pResult);
    }
};

template <ZorvEntryPoint* pEntry, ZorvCallClass, typename> struct SetName
{
    static int Call(pthread_t thread, const char* pName)
    {
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        int result = ZorvCallReal<int>(pReal, thread, pName);
        if (result != 0 || ZorvUmaIsCollectionStopped(pProfileInfo))
            return result;
        int savedErrno = errno;
        ZorvUmtTid tid = thread == ZorvUmaPthreadSelf() ? ZorvUmaGetTid() : -1;
        ZorvUmaWriteProcRecord(pProfileInfo, tid, pName, static_cast<int>(ZorvUmaStrlen(pName)),
                               ZorvUmaGetTime(), static_cast<uint64_t>(thread));
        errno = savedErrno;
        return 0;
    }
};

// ---- entries ---------------------------------------------------------------------------------------------

// Pasted at once: LOCK_RW is a macro of libc's.
#define ZORV_PTHREAD_CLASS(constant)                                                                           \
    ZorvCallClass                                                                                              \
    {                                                                                                          \
        constant, ZORV_UMT_EVENT_PTHREAD                                                                       \
    }
#define ZORV_PTHREAD(pattern, type, call, name, count, oldVersion, newVersion)                                 \
    ZORV_INTERPOSE_VERSIONED(pattern, (ZORV_PTHREAD_CLASS(ZORV_PTHREAD_##type)), ZorvInterpose##call, name,    \
                             count, oldVersion, newVersion, AllOnes)
#define ZORV_PTHREAD_SINGLE(pattern, type, call, name, count)                                                  \
    ZORV_INTERPOSE_SINGLE(pattern, (ZORV_PTHREAD_CLASS(ZORV_PTHREAD_##type)), ZorvInterpose##call, name,       \
                          count, AllOnes)
#include "ZorvUserModeTracePthread.def"
#undef ZORV_PTHREAD
#undef ZORV_PTHREAD_SINGLE
