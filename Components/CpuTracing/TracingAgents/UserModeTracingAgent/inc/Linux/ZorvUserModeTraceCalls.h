// The halves of a traced call, in place: what stands between an entry point and the record in its buffer.
//
// They are part of every entry: the state of the call then lives in registers over both halves, where handing
// it on through memory would cost a quarter of what a record costs. Entries of functions that are replaced from
// outside go through the halves of ZorvUserModeTraceCalls.cpp.
#pragma once

#include "ZorvUserModeTraceAppend.h"

#include <cerrno>
#include <type_traits>

// The record that a call leaves: its sub-type and the event class that switches it.
struct ZorvCallClass
{
    uint16_t m_type; // ZorvPthreadType under ZORV_UMT_EVENT_PTHREAD, else ZorvSysCallType
    ZorvUmtEventId m_event;
};

// A call to be traced, and its state between the two halves. No destructor is pending over the real call: a
// cancelled thread skips it.
struct ZorvTracedCall
{
    ZorvUmaProfileInfo* m_pProfileInfo;
    uint64_t m_funcVa;
    uint64_t m_value; // lock address of a pthread record, sysValue of a system-call record
    ZorvCallClass m_class;
    uint16_t m_flags;

    uint64_t m_startTime;
    uint64_t m_startPauseId;
    ZorvUmaBuffer* m_pCacheBuf; // holds the provisional record
    uint32_t m_appendCount;     // as it is while nobody has written over that record
    uint32_t m_lostByCache;     // records counted as lost because the provisional one found no room
};

// A signal handler of the program has written over the provisional record: a whole record is due instead, and
// what such a handler may have left parked, by a jump out of itself, is withdrawn.
void ZorvWithdrawStray();
// The provisional record found no room and was counted as lost; the record of the call counts for itself.
void ZorvTakeBackLost(ZorvUmaProfileInfo* pProfileInfo, uint32_t count);

// Writes a whole record.
void ZorvCaptureWhole(const ZorvTracedCall* pCall, uint64_t endTime, int result);

// ---- shared by both halves -------------------------------------------------------------------------------

// Calls that run in place leave errno alone on their own: putting it aside would cost 2 ns a half.
template <typename Calls> ZORV_IN_PLACE int ZorvPutErrnoAside()
{
    if constexpr (std::is_same_v<Calls, ZorvDirectCalls>)
        return 0;
    else
        return errno;
}

template <typename Calls> ZORV_IN_PLACE void ZorvPutErrnoBack([[maybe_unused]] int savedErrno)
{
    if constexpr (!std::is_same_v<Calls, ZorvDirectCalls>)
        errno = savedErrno;
}

ZORV_IN_PLACE bool ZorvIsPthreadCall(const ZorvTracedCall* pCall)
{
    return pCall->m_class.m_event == ZORV_UMT_EVENT_PTHREAD;
}

ZORV_IN_PLACE ZorvPthreadCallRecord ZorvPthreadRecordOf(const ZorvTracedCall* pCall, int result)
{
    return {{pCall->m_value, pCall->m_funcVa, ZorvParallelRegionId(pCall->m_pProfileInfo), result, 0, 0},
            pCall->m_class.m_type,
            pCall->m_flags};
}

ZORV_IN_PLACE ZorvSyscallCallRecord ZorvSyscallRecordOf(const ZorvTracedCall* pCall)
{
    return {{{pCall->m_funcVa}, ZorvParallelRegionId(pCall->m_pProfileInfo), pCall->m_value, 0, {}},
            pCall->m_class.m_type,
            pCall->m_flags};
}

// ---- before the call -------------------------------------------------------------------------------------

template <typename Calls> ZORV_IN_PLACE void ZorvStartTiming(ZorvTracedCall* pCall)
{
    pCall->m_pCacheBuf = nullptr;
    pCall->m_lostByCache = 0;
    pCall->m_startPauseId = Calls::CurrentPauseId(pCall->m_pProfileInfo);
    pCall->m_startTime = Calls::GetTime();
}

template <typename Calls> ZORV_IN_PLACE void ZorvBeginUnparked(ZorvTracedCall* pCall)
{
    int savedErrno = ZorvPutErrnoAside<Calls>();
    ZorvStartTiming<Calls>(pCall);
    ZorvPutErrnoBack<Calls>(savedErrno);
}

template <typename Calls> ZORV_IN_PLACE ZorvUmaBuffer* ZorvPark(const ZorvTracedCall* pCall)
{
    if constexpr (std::is_same_v<Calls, ZorvDirectCalls>)
    {
        // Whether collection is stopped has been asked a moment ago.
        if (ZorvIsPthreadCall(pCall))
            return ZorvParkRecord<Calls>(pCall->m_pProfileInfo, t_zorvState.m_pInfo, pCall->m_startTime,
                                         ZorvPthreadRecordOf(pCall, 0));
        return ZorvParkRecord<Calls>(pCall->m_pProfileInfo, t_zorvState.m_pInfo, pCall->m_startTime,
                                     ZorvSyscallRecordOf(pCall));
    }
    if (ZorvIsPthreadCall(pCall))
        return ZorvUmtCachePthreadRecord(pCall->m_pProfileInfo, pCall->m_startTime, pCall->m_value,
                                         pCall->m_funcVa, static_cast<ZorvPthreadType>(pCall->m_class.m_type));
    return ZorvUmtCacheSyscallRecord(pCall->m_pProfileInfo, pCall->m_startTime, pCall->m_funcVa,
                                     static_cast<ZorvSysCallType>(pCall->m_class.m_type),
                                     pCall->m_class.m_event, pCall->m_flags, pCall->m_value);
}

template <typename Calls> ZORV_IN_PLACE void ZorvBeginParked(ZorvTracedCall* pCall)
{
    int savedErrno = ZorvPutErrnoAside<Calls>();
    ZorvStartTiming<Calls>(pCall);
    uint32_t lostBefore = t_zorvState.m_lostCount;
    // What anyone else appends from here on shows as a difference: the provisional record is gone then.
    uint32_t appendedBefore = t_zorvState.m_appendCount;
    pCall->m_appendCount = appendedBefore + 1;
    pCall->m_pCacheBuf = ZorvPark<Calls>(pCall);
    // A function that stands in for the agent's keeps no count.
    if (!std::is_same_v<Calls, ZorvDirectCalls> && t_zorvState.m_appendCount == appendedBefore)
        pCall->m_appendCount = appendedBefore;
    if (ZORV_UNLIKELY(pCall->m_pCacheBuf == nullptr))
        pCall->m_lostByCache = t_zorvState.m_lostCount - lostBefore;
    ZorvPutErrnoBack<Calls>(savedErrno);
}

// ---- behind the call -------------------------------------------------------------------------------------

template <typename Calls> ZORV_IN_PLACE bool ZorvLayInsideOnePause(const ZorvTracedCall* pCall)
{
    return Calls::IsSamePauseId(pCall->m_startPauseId, Calls::CurrentPauseId(pCall->m_pProfileInfo));
}

template <typename Calls> ZORV_IN_PLACE bool ZorvIsLongEnough(const ZorvTracedCall* pCall, uint64_t endTime)
{
    return endTime - pCall->m_startTime >= Calls::Threshold(pCall->m_pProfileInfo, pCall->m_class.m_event);
}

// The provisional record becomes part of the data and is withdrawn in one step: both lengths lie in one word.
ZORV_IN_PLACE void ZorvPublishParked(ZorvUmaBuffer* pBuffer)
{
    static_assert(offsetof(ZorvUmaBuffer, m_dataLen) == 0 && offsetof(ZorvUmaBuffer, m_cacheLen) == 4);
    constexpr uint64_t size = ZORV_UMT_CALL_RECORD_SIZE;
    __atomic_add_fetch(reinterpret_cast<uint64_t*>(pBuffer), size - (size << 32), __ATOMIC_SEQ_CST);
}

ZORV_IN_PLACE void ZorvCompleteParked(const ZorvTracedCall* pCall, uint64_t endTime, int result)
{
    ZorvUmaBuffer* pBuffer = pCall->m_pCacheBuf;
    if (ZORV_UNLIKELY(pBuffer->m_pData == nullptr))
        return;
    ZorvRecordAtEnd(pBuffer)->m_endTime = endTime;
    if (ZorvIsPthreadCall(pCall))
        ZorvBodyAtEnd<ZorvUmtPthreadRecord, ZorvUmtRecordHdr>(pBuffer)->m_retValue = result;
    ZorvPublishParked(pBuffer);
}

template <typename Calls>
ZORV_IN_PLACE void ZorvCapture(const ZorvTracedCall* pCall, uint64_t endTime, int result)
{
    if constexpr (std::is_same_v<Calls, ZorvDirectCalls>)
    {
        if (pCall->m_pCacheBuf != nullptr)
            return ZorvCompleteParked(pCall, endTime, result);
        const ZorvTracedCall copy = *pCall; // its own address would keep the call out of the registers
        ZorvCaptureWhole(&copy, endTime, result);
    }
    else if (ZorvIsPthreadCall(pCall))
        ZorvUmtCapturePthreadRecord(pCall->m_pProfileInfo, pCall->m_startTime, endTime, pCall->m_value,
                                    pCall->m_funcVa, result,
                                    static_cast<ZorvPthreadType>(pCall->m_class.m_type), pCall->m_pCacheBuf);
    else
        ZorvUmtCaptureSysCallRecord(pCall->m_pProfileInfo, pCall->m_startTime, endTime, pCall->m_funcVa,
                                    static_cast<ZorvSysCallType>(pCall->m_class.m_type), pCall->m_class.m_event,
                                    pCall->m_flags, pCall->m_value, pCall->m_pCacheBuf);
}

template <typename Calls> ZORV_IN_PLACE void ZorvEndUnparked(ZorvTracedCall* pCall, int result, bool anyLength)
{
    int savedErrno = ZorvPutErrnoAside<Calls>();
    uint64_t endTime = Calls::GetTime();
    if (!ZorvLayInsideOnePause<Calls>(pCall) && (anyLength || ZorvIsLongEnough<Calls>(pCall, endTime)))
        ZorvCapture<Calls>(pCall, endTime, result);
    ZorvPutErrnoBack<Calls>(savedErrno);
}

template <typename Calls> ZORV_IN_PLACE void ZorvEndParked(ZorvTracedCall* pCall, int result)
{
    int savedErrno = ZorvPutErrnoAside<Calls>();
    uint64_t endTime = Calls::GetTime();
    if (ZORV_UNLIKELY(pCall->m_lostByCache != 0))
        ZorvTakeBackLost(pCall->m_pProfileInfo, pCall->m_lostByCache);

    // From here a handler's records go to the spare buffer, and the provisional record stays ours.
    char frame;
    const void* pOuterFrame = ZorvInterruptedFrame(&frame);
    t_zorvState.m_pAppendFrame = &frame;
    ZorvSignalFence();
    if (ZORV_UNLIKELY(pCall->m_appendCount != t_zorvState.m_appendCount))
    {
        pCall->m_pCacheBuf = nullptr;
        if (pOuterFrame == nullptr)
            ZorvWithdrawStray();
    }
    if (ZORV_UNLIKELY(pCall->m_pCacheBuf == nullptr))
        t_zorvState.m_pAppendFrame = pOuterFrame;

    const bool isDue = !ZorvLayInsideOnePause<Calls>(pCall) && ZorvIsLongEnough<Calls>(pCall, endTime);
    if (isDue)
        ZorvCapture<Calls>(pCall, endTime, result);
    // Completed in place, the record has been withdrawn by the same step.
    constexpr bool isWithdrawnByCapture = std::is_same_v<Calls, ZorvDirectCalls>;
    if (!(isDue && isWithdrawnByCapture) && pCall->m_pCacheBuf != nullptr)
        ZorvStoreFenced(&pCall->m_pCacheBuf->m_cacheLen, 0U);
    ZorvSignalFence();
    t_zorvState.m_pAppendFrame = pOuterFrame;
    ZorvPutErrnoBack<Calls>(savedErrno);
}
