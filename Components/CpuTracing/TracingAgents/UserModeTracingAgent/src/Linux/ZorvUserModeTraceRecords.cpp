// How records get into the buffers.
//
// A record is placed behind the thread's data and becomes part of it by one atomic add of its size, so nobody ever
// sees half of one. No lock, no system call, no allocation while it fits. Only the owner appends to a buffer; but
// a signal handler of the program may run traced calls in the middle of its thread's append. Those records go to the
// thread's spare buffer (m_isAppending tells), so neither overwrites the other. The same handler during a traced wait
// finds the buffer free and writes over the provisional record, which withdraws it; the wait notices at its end
// (m_appendCount) and writes a whole record instead.

#include "ZorvUserModeTrace.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceLog.h"

#include <cerrno>

namespace
{

// One append of the calling thread to its trace stream.
struct TraceAppend
{
    ZorvUmaPerThreadInfo* m_pThreadInfo;
    ZorvUmaBuffer* m_pInterrupted; // current buffer of the append that this one interrupts
    bool m_isNested;
};

inline void SignalFence()
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

} // namespace

// ---- change of buffer ------------------------------------------------------------------------------------

// Marks the buffer full and queues it; the caller has already let go of it, so it is never queued twice.
static bool HandOver(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaData* pData, ZorvUmaBuffer* pBuffer, bool* pIsPosted)
{
    ZorvStoreFenced(&pBuffer->m_cacheLen, 0U);
    ZorvStoreFenced(&pBuffer->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    bool isQueued = ZorvUmaEnqueue(pData->m_pQueue, pBuffer);
    *pIsPosted = ZorvUmaSemPost(&pProfileInfo->m_semaphore) == 0;
    return isQueued;
}

static void HandOverTraceBuffer(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaBuffer* pBuffer)
{
    bool isPosted;
    if (!HandOver(pProfileInfo, &pProfileInfo->m_umtData, pBuffer, &isPosted))
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmtInsertTraceRecordHdr", "Failed to enqueue the buffer.");
    if (!isPosted)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmtInsertTraceRecordHdr",
                    "Failed to perform post on semaphore.");
}

static ZorvUmaBuffer* AddTraceBuffer(ZorvUmaProfileInfo* pProfileInfo)
{
    return t_zorvState.m_mayAllocate ? ZorvUmtAllocateNewBuffer(&pProfileInfo->m_umtData, pProfileInfo->m_logFd)
                                     : ZorvUmtMapNewBuffer(&pProfileInfo->m_umtData);
}

// A buffer that was added for this thread is READY for all: claim it like any other, and add the next if it is gone.
static ZorvUmaBuffer* ClaimTraceBuffer(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvUmaData* pData = &pProfileInfo->m_umtData;
    ZorvUmaBuffer* pBuffer = ZorvUmaGetFreeBuffer(pData);
    while (pBuffer == nullptr && AddTraceBuffer(pProfileInfo) != nullptr)
        pBuffer = ZorvUmaGetFreeBuffer(pData);
    return pBuffer;
}

static ZORV_COLD void WarnNoBuffer(const ZorvUmaProfileInfo* pProfileInfo)
{
    ZORV_LOG_AS(pProfileInfo->m_logFd, WARN, "ZorvUmtInsertTraceRecordHdr",
                "Failed to write record header, buffer is not allocated in process (%d) thread (%d).",
                ZorvUmaGetPid(), ZorvUmaGetTid());
}

static void CountLostTraceRecord(ZorvUmaProfileInfo* pProfileInfo, uint16_t recType)
{
    ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmtInsertTraceRecordHdr",
                "Failed to write the header for record (%d).", recType);
    __atomic_add_fetch(&pProfileInfo->m_umtData.m_lostRecordCount, 1, __ATOMIC_SEQ_CST);
    t_zorvState.m_lostCount++;
    WarnNoBuffer(pProfileInfo);
}

// A child that was not made by fork(2) holds its parent's record: its locks may be held for ever, and nobody writes
// its buffers.
static bool IsForeign(const ZorvUmaProfileInfo* pProfileInfo)
{
    return pProfileInfo->m_pid != 0 && pProfileInfo->m_pid != ZorvUmaGetPid();
}

// Null when none can be had (counted and logged) or when the streams are being closed.
static ZORV_COLD ZorvUmaBuffer* ChangeTraceBuffer(ZorvUmaProfileInfo* pProfileInfo,
                                                  ZorvUmaPerThreadInfo* pThreadInfo, uint16_t recType)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaBuffer* pBuffer = nullptr;
    if (!IsForeign(pProfileInfo) && ZorvUmaBeginStreamUse(pProfileInfo))
    {
        ZorvUmaBuffer* pFull = pThreadInfo->m_pUmtBuf;
        pThreadInfo->m_pUmtBuf = nullptr;
        if (pFull != nullptr)
            HandOverTraceBuffer(pProfileInfo, pFull);
        pBuffer = ClaimTraceBuffer(pProfileInfo);
        pThreadInfo->m_pUmtBuf = pBuffer;
        if (pBuffer == nullptr)
            CountLostTraceRecord(pProfileInfo, recType);
        ZorvUmaEndStreamUse(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
    return pBuffer;
}

static ZORV_COLD ZorvUmaBuffer* ChangeSampleBuffer(ZorvUmaProfileInfo* pProfileInfo,
                                                   ZorvUmaPerThreadInfo* pThreadInfo)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaBuffer* pBuffer = nullptr;
    if (!IsForeign(pProfileInfo) && ZorvUmaBeginStreamUse(pProfileInfo))
    {
        ZorvUmaBuffer* pFull = pThreadInfo->m_pUmsBuf;
        bool isPosted;
        pThreadInfo->m_pUmsBuf = nullptr;
        if (pFull != nullptr)
            HandOver(pProfileInfo, &pProfileInfo->m_umsData, pFull, &isPosted);
        pBuffer = ZorvUmaGetFreeBuffer(&pProfileInfo->m_umsData);
        pThreadInfo->m_pUmsBuf = pBuffer;
        if (pBuffer == nullptr)
            __atomic_add_fetch(&pProfileInfo->m_umsData.m_lostRecordCount, 1, __ATOMIC_SEQ_CST);
        ZorvUmaEndStreamUse(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
    return pBuffer;
}

static inline bool Fits(const ZorvUmaBuffer* pBuffer, uint32_t size)
{
    return pBuffer != nullptr && size + pBuffer->m_dataLen < pBuffer->m_bufSize;
}

// ---- nested appends --------------------------------------------------------------------------------------

static ZORV_COLD void TakeSpareBuffer(TraceAppend* pAppend)
{
    ZorvUmaPerThreadInfo* pThreadInfo = pAppend->m_pThreadInfo;
    pAppend->m_pInterrupted = pThreadInfo->m_pUmtBuf;
    pThreadInfo->m_pUmtBuf = pThreadInfo->m_pUmtSpareBuf;
    pThreadInfo->m_pUmtSpareBuf = nullptr;
}

static ZORV_COLD void PutSpareBufferBack(TraceAppend* pAppend, ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvUmaPerThreadInfo* pThreadInfo = pAppend->m_pThreadInfo;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaBuffer* pDeeper = pThreadInfo->m_pUmtSpareBuf; // left by an append that interrupted this one
    pThreadInfo->m_pUmtSpareBuf = pThreadInfo->m_pUmtBuf;
    pThreadInfo->m_pUmtBuf = pAppend->m_pInterrupted;
    if (pDeeper != nullptr && ZorvUmaBeginStreamUse(pProfileInfo))
    {
        HandOverTraceBuffer(pProfileInfo, pDeeper);
        ZorvUmaEndStreamUse(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
}

static inline void BeginAppend(TraceAppend* pAppend, ZorvUmaPerThreadInfo* pThreadInfo)
{
    pAppend->m_pThreadInfo = pThreadInfo;
    pAppend->m_isNested = t_zorvState.m_isAppending;
    if (ZORV_UNLIKELY(pAppend->m_isNested))
        TakeSpareBuffer(pAppend);
    t_zorvState.m_isAppending = true;
    SignalFence();
}

static inline void EndAppend(TraceAppend* pAppend, ZorvUmaProfileInfo* pProfileInfo)
{
    t_zorvState.m_appendCount++;
    SignalFence();
    if (ZORV_UNLIKELY(pAppend->m_isNested))
        PutSpareBufferBack(pAppend, pProfileInfo);
    else
        t_zorvState.m_isAppending = false;
}

// ---- headers ---------------------------------------------------------------------------------------------

extern "C" bool ZorvUmtInsertTraceRecordHdr(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, uint64_t startTime,
                                            uint64_t endTime, uint16_t recSize, uint16_t recType, uint16_t subType,
                                            uint16_t flags)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return false;
    ZorvUmaBuffer* pBuffer = pThreadInfo->m_pUmtBuf;
    if (ZORV_UNLIKELY(!Fits(pBuffer, recSize)))
    {
        pBuffer = ChangeTraceBuffer(pProfileInfo, pThreadInfo, recType);
        if (pBuffer == nullptr)
            return false;
    }
    if (ZORV_UNLIKELY(pBuffer->m_pData == nullptr))
    {
        WarnNoBuffer(pProfileInfo);
        return false;
    }
    // What is written over a provisional record withdraws it.
    if (ZORV_UNLIKELY(pBuffer->m_cacheLen != 0))
        ZorvStoreFenced(&pBuffer->m_cacheLen, 0U);
    *reinterpret_cast<ZorvUmtRecordHdr*>(pBuffer->m_pData + pBuffer->m_dataLen) = {
        recType, recSize, subType, flags, startTime, endTime, ZorvUmaCachedPid(), tid};
    return true;
}

extern "C" bool ZorvUmsInsertSampleRecordHdr(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, uint64_t startTime,
                                             uint16_t recSize, uint16_t recType, uint16_t flags)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return false;
    ZorvUmaBuffer* pBuffer = pThreadInfo->m_pUmsBuf;
    if (ZORV_UNLIKELY(!Fits(pBuffer, recSize)))
        pBuffer = ChangeSampleBuffer(pProfileInfo, pThreadInfo);
    if (pBuffer == nullptr || pBuffer->m_pData == nullptr)
        return false;
    auto pHdr = reinterpret_cast<ZorvUmsRecordHdr*>(pBuffer->m_pData + pBuffer->m_dataLen);
    pHdr->m_pid = ZorvUmaCachedPid();
    pHdr->m_tid = tid;
    pHdr->m_recType = recType;
    pHdr->m_recSize = recSize;
    pHdr->m_startTime = startTime;
    pHdr->m_coreId = static_cast<uint16_t>(ZorvUmaGetCpu());
    pHdr->m_flags = flags;
    return true;
}

// The body of the record whose header lies at the end of the buffer's data.
template <typename Body, typename Hdr> static inline Body* BodyAtEnd(ZorvUmaBuffer* pBuffer)
{
    return reinterpret_cast<Body*>(pBuffer->m_pData + pBuffer->m_dataLen + sizeof(Hdr));
}

static inline void Publish(ZorvUmaBuffer* pBuffer, uint32_t size)
{
    __atomic_add_fetch(&pBuffer->m_dataLen, size, __ATOMIC_SEQ_CST);
}

static inline bool HasStorage(const ZorvUmaBuffer* pBuffer)
{
    return pBuffer != nullptr && pBuffer->m_pData != nullptr;
}

// ---- proc and thread-end records -------------------------------------------------------------------------

static void FillProcBody(ZorvUmtProcRecord* pBody, const char* pName, int len, uint64_t pthreadId)
{
    size_t size = len < 0 ? 0 : static_cast<size_t>(len);
    if (size > sizeof(pBody->m_name))
        size = sizeof(pBody->m_name);
    ZorvUmaMemset(pBody, 0, sizeof(*pBody));
    ZorvUmaMemcpy(pBody->m_name, pName, size);
    pBody->m_pthreadId = pthreadId;
}

extern "C" void ZorvUmtWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName, int len,
                                       uint64_t startTime, uint64_t pthreadId)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return;
    TraceAppend append;
    BeginAppend(&append, pThreadInfo);
    if (ZorvUmtInsertTraceRecordHdr(pProfileInfo, tid, startTime, 0, ZORV_UMT_PROC_RECORD_SIZE,
                                    ZORV_UMT_RECORD_PROC, 0, 0) &&
        HasStorage(pThreadInfo->m_pUmtBuf))
    {
        if (pName == nullptr)
            ZORV_LOG(pProfileInfo->m_logFd, WARN, "Failed to write trace proc record in process (%d  : %d)",
                     ZorvUmaGetPid(), ZorvUmaGetTid());
        else
        {
            FillProcBody(BodyAtEnd<ZorvUmtProcRecord, ZorvUmtRecordHdr>(pThreadInfo->m_pUmtBuf), pName, len,
                         pthreadId);
            Publish(pThreadInfo->m_pUmtBuf, ZORV_UMT_PROC_RECORD_SIZE);
        }
    }
    EndAppend(&append, pProfileInfo);
}

extern "C" void ZorvUmsWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName, int len,
                                       uint64_t startTime, uint64_t pthreadId)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return;
    // The profiling signal writes into the same buffer: it waits outside of the scope.
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (ZorvUmsInsertSampleRecordHdr(pProfileInfo, tid, startTime, ZORV_UMS_PROC_RECORD_SIZE, ZORV_UMS_RECORD_PROC,
                                     pProfileInfo->m_umsConfig.m_configFlags) &&
        HasStorage(pThreadInfo->m_pUmsBuf))
    {
        if (pName == nullptr)
            ZORV_LOG(pProfileInfo->m_logFd, WARN, "Failed to write sample proc record in process (%d  : %d)",
                     ZorvUmaGetPid(), ZorvUmaGetTid());
        else
        {
            FillProcBody(BodyAtEnd<ZorvUmsProcRecord, ZorvUmsRecordHdr>(pThreadInfo->m_pUmsBuf), pName, len,
                         pthreadId);
            Publish(pThreadInfo->m_pUmsBuf, ZORV_UMS_PROC_RECORD_SIZE);
        }
    }
    ZorvUmaLeaveAgent(&scope);
}

extern "C" void ZorvUmaWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName, int len,
                                       uint64_t startTime, uint64_t pthreadId)
{
    if (pProfileInfo == nullptr || ZorvUmaIsCollectionStopped(pProfileInfo))
        return;
    char ownName[ZORV_RECORD_NAME_SIZE] = {};
    if (pName == nullptr)
    {
        if (!ZorvUmaGetCurrentThreadName(ownName, sizeof(ownName)))
            return;
        pName = ownName;
        len = static_cast<int>(ZorvUmaStrlen(ownName));
    }
    if (pProfileInfo->m_umtConfig.m_enable)
        ZorvUmtWriteProcRecord(pProfileInfo, tid, pName, len, startTime, pthreadId);
    if (pProfileInfo->m_umsConfig.m_enable)
        ZorvUmsWriteProcRecord(pProfileInfo, tid, pName, len, startTime, pthreadId);
}

static void WriteSampleThreadEnd(ZorvUmaProfileInfo* pProfileInfo, uint64_t now, uint64_t pthreadId)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (ZorvUmsInsertSampleRecordHdr(pProfileInfo, ZorvUmaCachedTid(), now, ZORV_UMS_THREAD_END_RECORD_SIZE,
                                     ZORV_UMS_RECORD_THREAD_END, ZORV_UMS_NONE) &&
        HasStorage(pThreadInfo->m_pUmsBuf))
    {
        BodyAtEnd<ZorvUmsThreadEndRecord, ZorvUmsRecordHdr>(pThreadInfo->m_pUmsBuf)->m_pthreadId = pthreadId;
        Publish(pThreadInfo->m_pUmsBuf, ZORV_UMS_THREAD_END_RECORD_SIZE);
    }
    ZorvUmaLeaveAgent(&scope);
}

static void WriteTraceThreadEnd(ZorvUmaProfileInfo* pProfileInfo, uint64_t now, uint64_t pthreadId)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    TraceAppend append;
    BeginAppend(&append, pThreadInfo);
    if (ZorvUmtInsertTraceRecordHdr(pProfileInfo, ZorvUmaCachedTid(), now, now, ZORV_UMT_THREAD_END_RECORD_SIZE,
                                    ZORV_UMT_RECORD_THREAD_END, 0, ZORV_UMT_FLAG_NONE) &&
        HasStorage(pThreadInfo->m_pUmtBuf))
    {
        BodyAtEnd<ZorvUmtThreadEndRecord, ZorvUmtRecordHdr>(pThreadInfo->m_pUmtBuf)->m_pthreadId = pthreadId;
        Publish(pThreadInfo->m_pUmtBuf, ZORV_UMT_THREAD_END_RECORD_SIZE);
    }
    EndAppend(&append, pProfileInfo);
}

extern "C" void ZorvUmaWriteThreadEndRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t pthreadId)
{
    if (pProfileInfo == nullptr || t_zorvState.m_pInfo == nullptr || ZorvUmaIsCollectionStopped(pProfileInfo))
        return;
    uint64_t now = ZorvUmaGetTime();
    if (pProfileInfo->m_umsConfig.m_enable)
        WriteSampleThreadEnd(pProfileInfo, now, pthreadId);
    if (pProfileInfo->m_umtConfig.m_enable)
        WriteTraceThreadEnd(pProfileInfo, now, pthreadId);
}

// ---- tests of a traced call ------------------------------------------------------------------------------

extern "C" bool ZorvUmtIsEventEnabled(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId evtId)
{
    return pProfileInfo != nullptr && pProfileInfo->m_umtConfig.m_umtEventList[evtId].m_enable;
}

extern "C" uint64_t ZorvUmtGetEventThreshold(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId evtId)
{
    return pProfileInfo == nullptr ? 0 : pProfileInfo->m_umtConfig.m_umtEventList[evtId].m_threshold;
}

extern "C" bool ZorvUmtIsTraceEvent(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId evtId)
{
    return pProfileInfo != nullptr && pProfileInfo->m_umtConfig.m_umtEventList[evtId].m_enable &&
           !ZorvUmaIsCollectionStopped(pProfileInfo);
}

extern "C"
{
__attribute__((alias("ZorvUmtIsTraceEvent"), visibility("hidden"))) bool OwnIsTraceEvent(const ZorvUmaProfileInfo*,
                                                                                        ZorvUmtEventId);
}

bool ZorvUmtIsTraceTestReplaced()
{
    using TraceTest = bool (*)(const ZorvUmaProfileInfo*, ZorvUmtEventId);
    TraceTest volatile pCalled = ZorvUmtIsTraceEvent;
    return pCalled != static_cast<TraceTest>(OwnIsTraceEvent);
}

// ---- records of traced calls -----------------------------------------------------------------------------

static inline uint64_t ParallelRegionId(const ZorvUmaProfileInfo* pProfileInfo)
{
    auto pGetId = __atomic_load_n(&pProfileInfo->m_pZorvGetOpenMPParId, __ATOMIC_RELAXED);
    return pGetId == nullptr ? 0 : pGetId();
}

static ZORV_COLD void WarnAboutThread(ZorvUmaProfileInfo* pProfileInfo, const char* pFunction, const char* pFormat)
{
    if (!ZorvUmaBeginStreamUse(pProfileInfo))
        return; // the log is being closed
    ZORV_LOG_AS(pProfileInfo->m_logFd, WARN, pFunction, pFormat, ZorvUmaGetPid(), ZorvUmaGetTid());
    ZorvUmaEndStreamUse(pProfileInfo);
}

// Each kind of call record: how its body is filled, and what its capture completes.
struct PthreadCall
{
    static constexpr uint16_t RECORD_TYPE = ZORV_UMT_RECORD_PTHREAD;
    using Body = ZorvUmtPthreadRecord;
    Body m_body;
    uint16_t m_subType;
    uint16_t m_flags;
};

struct SyscallCall
{
    static constexpr uint16_t RECORD_TYPE = ZORV_UMT_RECORD_SYSCALL;
    using Body = ZorvUmtSyscallRecord;
    Body m_body;
    uint16_t m_subType;
    uint16_t m_flags;
};

// Header and body at the end of the thread's data, not yet part of it.
template <typename Call>
static inline ZorvUmaBuffer* PlaceCallRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo,
                                             uint64_t startTime, uint64_t endTime, const Call& call)
{
    if (!ZorvUmtInsertTraceRecordHdr(pProfileInfo, ZorvUmaCachedTid(), startTime, endTime, ZORV_UMT_CALL_RECORD_SIZE,
                                     Call::RECORD_TYPE, call.m_subType, call.m_flags))
        return nullptr;
    ZorvUmaBuffer* pBuffer = pThreadInfo->m_pUmtBuf;
    if (!HasStorage(pBuffer))
        return nullptr;
    *BodyAtEnd<typename Call::Body, ZorvUmtRecordHdr>(pBuffer) = call.m_body;
    return pBuffer;
}

template <typename Call>
static inline ZorvUmaBuffer* CacheCall(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime, const Call& call,
                                       const char* pFunction, const char* pFailure)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pThreadInfo == nullptr || ZorvUmaIsCollectionStopped(pProfileInfo))
        return nullptr;
    TraceAppend append;
    BeginAppend(&append, pThreadInfo);
    ZorvUmaBuffer* pBuffer = PlaceCallRecord(pProfileInfo, pThreadInfo, startTime, ZORV_TIME_NOT_ENDED, call);
    if (ZORV_LIKELY(pBuffer != nullptr))
        ZorvStoreFenced(&pBuffer->m_cacheLen, static_cast<uint32_t>(ZORV_UMT_CALL_RECORD_SIZE));
    else
        WarnAboutThread(pProfileInfo, pFunction, pFailure);
    EndAppend(&append, pProfileInfo);
    return pBuffer;
}

template <typename Call>
static inline void CaptureCall(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime, uint64_t endTime,
                               const Call& call, const char* pFunction, const char* pFailure)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pThreadInfo == nullptr || ZorvUmaIsCollectionStopped(pProfileInfo))
        return;
    TraceAppend append;
    BeginAppend(&append, pThreadInfo);
    ZorvUmaBuffer* pBuffer = PlaceCallRecord(pProfileInfo, pThreadInfo, startTime, endTime, call);
    if (ZORV_LIKELY(pBuffer != nullptr))
        Publish(pBuffer, ZORV_UMT_CALL_RECORD_SIZE);
    else
        WarnAboutThread(pProfileInfo, pFunction, pFailure);
    EndAppend(&append, pProfileInfo);
}

static inline ZorvUmtRecordHdr* RecordAtEnd(ZorvUmaBuffer* pBuffer)
{
    return reinterpret_cast<ZorvUmtRecordHdr*>(pBuffer->m_pData + pBuffer->m_dataLen);
}

extern "C" ZorvUmaBuffer* ZorvUmtCachePthreadRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                    uint64_t lockAddress, uint64_t funcVa,
                                                    ZorvPthreadType pthreadType)
{
    if (pProfileInfo == nullptr)
        return nullptr;
    PthreadCall call = {{lockAddress, funcVa, ParallelRegionId(pProfileInfo), 0, 0, 0}, pthreadType, 0};
    return CacheCall(pProfileInfo, startTime, call, __func__,
                     "Failed to cache pthread record for process (%d : %d)");
}

extern "C" void ZorvUmtCapturePthreadRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime, uint64_t endTime,
                                            uint64_t lockAddress, uint64_t funcVa, int retValue,
                                            ZorvPthreadType pthreadType, ZorvUmaBuffer* pCacheBuf)
{
    if (pCacheBuf != nullptr)
    {
        if (pCacheBuf->m_pData == nullptr)
            return;
        RecordAtEnd(pCacheBuf)->m_endTime = endTime;
        BodyAtEnd<ZorvUmtPthreadRecord, ZorvUmtRecordHdr>(pCacheBuf)->m_retValue = retValue;
        Publish(pCacheBuf, RecordAtEnd(pCacheBuf)->m_recSize);
        return;
    }
    if (pProfileInfo == nullptr)
        return;
    PthreadCall call = {{lockAddress, funcVa, ParallelRegionId(pProfileInfo), retValue, 0, 0}, pthreadType, 0};
    CaptureCall(pProfileInfo, startTime, endTime, call, __func__,
                "Failed to write pthread record for process (%d : %d)");
}

extern "C" ZorvUmaBuffer* ZorvUmtCacheSyscallRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                    uint64_t funcVa, ZorvSysCallType sysCallType, ZorvUmtEventId,
                                                    uint16_t flags, uint64_t sysValue)
{
    if (pProfileInfo == nullptr)
        return nullptr;
    SyscallCall call = {{{funcVa}, ParallelRegionId(pProfileInfo), sysValue, 0, {}}, sysCallType, flags};
    return CacheCall(pProfileInfo, startTime, call, __func__,
                     "Failed to cache syscall record for process (%d : %d).");
}

extern "C" void ZorvUmtCaptureSysCallRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime, uint64_t endTime,
                                            uint64_t funcVa, ZorvSysCallType sysCallType, ZorvUmtEventId,
                                            uint16_t flags, uint64_t sysValue, ZorvUmaBuffer* pCacheBuf)
{
    if (pCacheBuf != nullptr)
    {
        if (pCacheBuf->m_pData == nullptr)
            return;
        RecordAtEnd(pCacheBuf)->m_endTime = endTime;
        Publish(pCacheBuf, RecordAtEnd(pCacheBuf)->m_recSize);
        return;
    }
    if (pProfileInfo == nullptr)
        return;
    SyscallCall call = {{{funcVa}, ParallelRegionId(pProfileInfo), sysValue, 0, {}}, sysCallType, flags};
    CaptureCall(pProfileInfo, startTime, endTime, call, __func__,
                "Failed to write syscall record for process (%d : %d).");
}
