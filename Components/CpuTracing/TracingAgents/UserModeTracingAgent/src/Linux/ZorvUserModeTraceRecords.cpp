// Change of buffers, and the records that are written one by one; the path of a traced call stands in its
// header.

#include "ZorvRawSyscall.h"
#include "ZorvUserModeTrace.h"
#include "ZorvUserModeTraceAppend.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceWriter.h"

#include <cerrno>

// ---- change of buffer ------------------------------------------------------------------------------------

// Whether the record is the process-wide one of the process that this one was forked from.
static bool IsOthers(const ZorvUmaProfileInfo* pProfileInfo)
{
    return ZorvUmaIsForeign() && pProfileInfo == ZorvUmaGetProfileInfo();
}

// Marks the buffer full and queues it; the caller has already let go of it, so it is never queued twice.
static bool HandOver(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaData* pData, ZorvUmaBuffer* pBuffer,
                     bool* pIsPosted)
{
    ZorvStoreFenced(&pBuffer->m_cacheLen, 0U);
    ZorvStoreFenced(&pBuffer->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    bool isQueued = ZorvUmaEnqueue(pData->m_pQueue, pBuffer);
    *pIsPosted = ZorvUmaSemPost(&pProfileInfo->m_semaphore) == 0;
    ZorvUmaNudgeWriter(pProfileInfo);
    return isQueued;
}

static void HandOverTraceBuffer(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaBuffer* pBuffer)
{
    bool isPosted;
    if (!HandOver(pProfileInfo, &pProfileInfo->m_umtData, pBuffer, &isPosted))
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmtInsertTraceRecordHdr",
                    "Failed to enqueue the buffer.");
    if (!isPosted)
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmtInsertTraceRecordHdr",
                    "Failed to perform post on semaphore.");
}

static ZorvUmaBuffer* AddTraceBuffer(ZorvUmaProfileInfo* pProfileInfo)
{
    return t_zorvState.m_mayAllocate ? ZorvUmtAllocateNewBuffer(&pProfileInfo->m_umtData, pProfileInfo->m_logFd)
                                     : ZorvUmtMapNewBuffer(&pProfileInfo->m_umtData);
}

// A buffer that was added for this thread is READY for all: claim it like any other, and add the next if it is
// gone.
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

// A child that the fork interposer has not seen holds its parent's record: its locks may be held for ever, and
// nobody writes its buffers. It records nothing; the flag is not set where it would be the parent's.
static bool IsUsable(const ZorvUmaProfileInfo* pProfileInfo)
{
    if (!IsOthers(pProfileInfo))
        return true;
    if (!ZorvUmaSharesMemory())
        ZorvUmaSetStopCollection(true);
    return false;
}

ZORV_COLD ZorvUmaBuffer* ZorvChangeTraceBuffer(ZorvUmaProfileInfo* pProfileInfo,
                                               ZorvUmaPerThreadInfo* pThreadInfo, uint16_t recType)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaBuffer* pBuffer = nullptr;
    if (IsUsable(pProfileInfo) && ZorvUmaBeginStreamUse(pProfileInfo))
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
    if (IsUsable(pProfileInfo) && ZorvUmaBeginStreamUse(pProfileInfo))
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

// ---- nested appends --------------------------------------------------------------------------------------

// A handler on the thread's own stack runs below the frame that it interrupts, by a signal frame at least; one
// on an alternate stack may run anywhere. sigaltstack(2).
ZORV_COLD bool ZorvIsFrameAlive(const void* pOuter, const void* pInner)
{
    constexpr ptrdiff_t smallestSignalFrame = 512;
    stack_t alternate = {};
    ZorvRawSyscall(SYS_sigaltstack, 0, reinterpret_cast<long>(&alternate));
    return (alternate.ss_flags & SS_ONSTACK) != 0 ||
           static_cast<const char*>(pOuter) - static_cast<const char*>(pInner) > smallestSignalFrame;
}

ZORV_COLD void ZorvTakeSpareBuffer(ZorvTraceAppend* pAppend)
{
    ZorvUmaPerThreadInfo* pThreadInfo = pAppend->m_pThreadInfo;
    pAppend->m_pInterrupted = pThreadInfo->m_pUmtBuf;
    pThreadInfo->m_pUmtBuf = t_zorvState.m_pUmtSpareBuf;
    t_zorvState.m_pUmtSpareBuf = nullptr;
}

ZORV_COLD void ZorvPutSpareBufferBack(ZorvTraceAppend* pAppend, ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvUmaPerThreadInfo* pThreadInfo = pAppend->m_pThreadInfo;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaBuffer* pDeeper = t_zorvState.m_pUmtSpareBuf; // left by an append that interrupted this one
    t_zorvState.m_pUmtSpareBuf = pThreadInfo->m_pUmtBuf;
    pThreadInfo->m_pUmtBuf = pAppend->m_pInterrupted;
    if (pDeeper != nullptr && ZorvUmaBeginStreamUse(pProfileInfo))
    {
        HandOverTraceBuffer(pProfileInfo, pDeeper);
        ZorvUmaEndStreamUse(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
}

// ---- headers ---------------------------------------------------------------------------------------------

ZORV_COLD void ZorvWarnNoBuffer(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (!IsOthers(pProfileInfo) && ZorvUmaBeginStreamUse(pProfileInfo)) // else the log is being closed
    {
        WarnNoBuffer(pProfileInfo);
        ZorvUmaEndStreamUse(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
}

ZORV_COLD void ZorvWarnAboutThread(ZorvUmaProfileInfo* pProfileInfo, const char* pFunction, const char* pFormat)
{
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (!IsOthers(pProfileInfo) && ZorvUmaBeginStreamUse(pProfileInfo))
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, WARN, pFunction, pFormat, ZorvUmaGetPid(), ZorvUmaGetTid());
        ZorvUmaEndStreamUse(pProfileInfo);
    }
    ZorvUmaLeaveAgent(&scope);
}

extern "C" bool ZorvUmtInsertTraceRecordHdr(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid,
                                            uint64_t startTime, uint64_t endTime, uint16_t recSize,
                                            uint16_t recType, uint16_t subType, uint16_t flags)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return false;
    const ZorvUmtRecordHdr hdr = {recType, recSize, subType, flags, startTime, endTime, ZorvUmaCachedPid(),
                                  tid};
    return ZorvInsertTraceHdr(pProfileInfo, pThreadInfo, hdr) != nullptr;
}

extern "C" bool ZorvUmsInsertSampleRecordHdr(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid,
                                             uint64_t startTime, uint16_t recSize, uint16_t recType,
                                             uint16_t flags)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return false;
    ZorvUmaBuffer* pBuffer = pThreadInfo->m_pUmsBuf;
    if (ZORV_UNLIKELY(!ZorvFits(pBuffer, recSize)))
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

extern "C" void ZorvUmtWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName,
                                       int len, uint64_t startTime, uint64_t pthreadId)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return;
    ZorvTraceAppend append;
    ZorvBeginAppend(&append, pThreadInfo);
    if (ZorvUmtInsertTraceRecordHdr(pProfileInfo, tid, startTime, 0, ZORV_UMT_PROC_RECORD_SIZE,
                                    ZORV_UMT_RECORD_PROC, 0, 0) &&
        ZorvHasStorage(pThreadInfo->m_pUmtBuf))
    {
        if (pName == nullptr)
            ZORV_LOG(pProfileInfo->m_logFd, WARN, "Failed to write trace proc record in process (%d  : %d)",
                     ZorvUmaGetPid(), ZorvUmaGetTid());
        else
        {
            FillProcBody(ZorvBodyAtEnd<ZorvUmtProcRecord, ZorvUmtRecordHdr>(pThreadInfo->m_pUmtBuf), pName, len,
                         pthreadId);
            ZorvPublish(pThreadInfo->m_pUmtBuf, ZORV_UMT_PROC_RECORD_SIZE);
        }
    }
    ZorvEndAppend(&append, pProfileInfo);
}

extern "C" void ZorvUmsWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName,
                                       int len, uint64_t startTime, uint64_t pthreadId)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pProfileInfo == nullptr || pThreadInfo == nullptr)
        return;
    // The profiling signal writes into the same buffer: it waits outside of the scope.
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (ZorvUmsInsertSampleRecordHdr(pProfileInfo, tid, startTime, ZORV_UMS_PROC_RECORD_SIZE,
                                     ZORV_UMS_RECORD_PROC, pProfileInfo->m_umsConfig.m_configFlags) &&
        ZorvHasStorage(pThreadInfo->m_pUmsBuf))
    {
        if (pName == nullptr)
            ZORV_LOG(pProfileInfo->m_logFd, WARN, "Failed to write sample proc record in process (%d  : %d)",
                     ZorvUmaGetPid(), ZorvUmaGetTid());
        else
        {
            FillProcBody(ZorvBodyAtEnd<ZorvUmsProcRecord, ZorvUmsRecordHdr>(pThreadInfo->m_pUmsBuf), pName, len,
                         pthreadId);
            ZorvPublish(pThreadInfo->m_pUmsBuf, ZORV_UMS_PROC_RECORD_SIZE);
        }
    }
    ZorvUmaLeaveAgent(&scope);
}

extern "C" void ZorvUmaWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName,
                                       int len, uint64_t startTime, uint64_t pthreadId)
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
        ZorvHasStorage(pThreadInfo->m_pUmsBuf))
    {
        ZorvBodyAtEnd<ZorvUmsThreadEndRecord, ZorvUmsRecordHdr>(pThreadInfo->m_pUmsBuf)->m_pthreadId =
            pthreadId;
        ZorvPublish(pThreadInfo->m_pUmsBuf, ZORV_UMS_THREAD_END_RECORD_SIZE);
    }
    ZorvUmaLeaveAgent(&scope);
}

static void WriteTraceThreadEnd(ZorvUmaProfileInfo* pProfileInfo, uint64_t now, uint64_t pthreadId)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    ZorvTraceAppend append;
    ZorvBeginAppend(&append, pThreadInfo);
    if (ZorvUmtInsertTraceRecordHdr(pProfileInfo, ZorvUmaCachedTid(), now, now, ZORV_UMT_THREAD_END_RECORD_SIZE,
                                    ZORV_UMT_RECORD_THREAD_END, 0, ZORV_UMT_FLAG_NONE) &&
        ZorvHasStorage(pThreadInfo->m_pUmtBuf))
    {
        ZorvBodyAtEnd<ZorvUmtThreadEndRecord, ZorvUmtRecordHdr>(pThreadInfo->m_pUmtBuf)->m_pthreadId =
            pthreadId;
        ZorvPublish(pThreadInfo->m_pUmtBuf, ZORV_UMT_THREAD_END_RECORD_SIZE);
    }
    ZorvEndAppend(&append, pProfileInfo);
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

// ---- records of traced calls -----------------------------------------------------------------------------

// Whatever record is parked is completed. One that was withdrawn may have been written over in part, and what
// lies there then is no record: its size would take every later one along.
static bool HasRecordAtEnd(ZorvUmaBuffer* pBuffer)
{
    if (pBuffer->m_pData == nullptr)
        return false;
    const ZorvUmtRecordHdr* pHdr = ZorvRecordAtEnd(pBuffer);
    bool isCall = pHdr->m_recType == ZORV_UMT_RECORD_PTHREAD || pHdr->m_recType == ZORV_UMT_RECORD_SYSCALL;
    return pBuffer->m_cacheLen != 0 || pHdr->m_recSize == ZORV_UMT_CALL_RECORD_SIZE ||
           (isCall && pHdr->m_recSize > ZORV_UMT_CALL_RECORD_SIZE);
}

extern "C" ZorvUmaBuffer* ZorvUmtCachePthreadRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                    uint64_t lockAddress, uint64_t funcVa,
                                                    ZorvPthreadType pthreadType)
{
    if (pProfileInfo == nullptr)
        return nullptr;
    const ZorvPthreadCallRecord record = {
        {lockAddress, funcVa, ZorvParallelRegionId(pProfileInfo), 0, 0, 0}, pthreadType, ZORV_UMT_FLAG_NONE};
    return ZorvCacheCall<ZorvDynamicCalls>(pProfileInfo, startTime, record);
}

extern "C" void ZorvUmtCapturePthreadRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                            uint64_t endTime, uint64_t lockAddress, uint64_t funcVa,
                                            int retValue, ZorvPthreadType pthreadType, ZorvUmaBuffer* pCacheBuf)
{
    if (pCacheBuf != nullptr)
    {
        if (!HasRecordAtEnd(pCacheBuf))
            return;
        ZorvRecordAtEnd(pCacheBuf)->m_endTime = endTime;
        ZorvBodyAtEnd<ZorvUmtPthreadRecord, ZorvUmtRecordHdr>(pCacheBuf)->m_retValue = retValue;
        ZorvPublish(pCacheBuf, ZorvRecordAtEnd(pCacheBuf)->m_recSize);
        return;
    }
    if (pProfileInfo == nullptr)
        return;
    const ZorvPthreadCallRecord record = {
        {lockAddress, funcVa, ZorvParallelRegionId(pProfileInfo), retValue, 0, 0},
        pthreadType,
        ZORV_UMT_FLAG_NONE};
    ZorvCaptureCall<ZorvDynamicCalls>(pProfileInfo, startTime, endTime, record);
}

extern "C" ZorvUmaBuffer* ZorvUmtCacheSyscallRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                    uint64_t funcVa, ZorvSysCallType sysCallType,
                                                    ZorvUmtEventId, uint16_t flags, uint64_t sysValue)
{
    if (pProfileInfo == nullptr)
        return nullptr;
    const ZorvSyscallCallRecord record = {
        {{funcVa}, ZorvParallelRegionId(pProfileInfo), sysValue, 0, {}}, sysCallType, flags};
    return ZorvCacheCall<ZorvDynamicCalls>(pProfileInfo, startTime, record);
}

extern "C" void ZorvUmtCaptureSysCallRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                            uint64_t endTime, uint64_t funcVa, ZorvSysCallType sysCallType,
                                            ZorvUmtEventId, uint16_t flags, uint64_t sysValue,
                                            ZorvUmaBuffer* pCacheBuf)
{
    if (pCacheBuf != nullptr)
    {
        if (!HasRecordAtEnd(pCacheBuf))
            return;
        ZorvRecordAtEnd(pCacheBuf)->m_endTime = endTime;
        ZorvPublish(pCacheBuf, ZorvRecordAtEnd(pCacheBuf)->m_recSize);
        return;
    }
    if (pProfileInfo == nullptr)
        return;
    const ZorvSyscallCallRecord record = {
        {{funcVa}, ZorvParallelRegionId(pProfileInfo), sysValue, 0, {}}, sysCallType, flags};
    ZorvCaptureCall<ZorvDynamicCalls>(pProfileInfo, startTime, endTime, record);
}
