// How a record gets into its thread's buffer: the path of every traced call, in place.
//
// A record is placed behind the thread's data and becomes part of it by one atomic add of its size, so nobody
// ever sees half of one. No lock, no system call, no allocation while it fits. Only the owner appends to a
// buffer; but a signal handler of the program may run traced calls in the middle of its thread's append. Those
// records go to the thread's spare buffer (m_pAppendFrame tells), so neither overwrites the other. The same
// handler during a traced wait finds the buffer free and writes over the provisional record, which withdraws
// it; the wait notices at its end (m_appendCount) and writes a whole record instead.
//
// The public functions on this path call each other through the dynamic symbol table, where an object ahead of
// the agent can replace them (ZorvDynamicCalls). While nobody has, the path runs in place (ZorvDirectCalls):
// the calls between them would cost as much as the record.
#pragma once

#include "ZorvUserModeTrace.h"

// A record that is handed on through memory is written in small pieces and read back in large ones, which waits
// for each piece to reach the cache: 6 ns a record. Inlined all the way, it never leaves the registers.
#define ZORV_IN_PLACE inline __attribute__((always_inline))
#define ZORV_LAMBDA_IN_PLACE __attribute__((always_inline))

// ---- the controller's flags and the thread's own, in place -----------------------------------------------

// The controller writes any byte it likes: read as a byte, not as a bool. The pointer is null without a block,
// and all ones where its mapping failed.
inline bool ZorvIsFlagSet(bool* const* ppFlag)
{
    auto pFlag = reinterpret_cast<const uint8_t*>(__atomic_load_n(ppFlag, __ATOMIC_RELAXED));
    return reinterpret_cast<uintptr_t>(pFlag) + 1 > 1 && __atomic_load_n(pFlag, __ATOMIC_RELAXED) != 0;
}

inline uint64_t ZorvReadPauseId(const ZorvUmaProfileInfo* pProfileInfo)
{
    const uint64_t* pPauseId = __atomic_load_n(&pProfileInfo->m_pPauseId, __ATOMIC_RELAXED);
    return pPauseId == nullptr ? 0 : __atomic_load_n(pPauseId, __ATOMIC_RELAXED);
}

// Every reason to stop but the controller's.
inline bool ZorvIsThreadStopped(const ZorvUmaProfileInfo* pProfileInfo)
{
    const ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    return pProfileInfo == nullptr || pThreadInfo == nullptr ||
           !__atomic_load_n(&pProfileInfo->m_isProcessInitialized, __ATOMIC_RELAXED) ||
           __atomic_load_n(&pProfileInfo->m_isFlush, __ATOMIC_RELAXED) || pThreadInfo->m_stopCollection;
}

inline bool ZorvFits(const ZorvUmaBuffer* pBuffer, uint32_t size)
{
    return pBuffer != nullptr && size + pBuffer->m_dataLen < pBuffer->m_bufSize;
}

inline bool ZorvHasStorage(const ZorvUmaBuffer* pBuffer)
{
    return pBuffer != nullptr && pBuffer->m_pData != nullptr;
}

// ---- how the path calls ----------------------------------------------------------------------------------

extern __attribute__((visibility("hidden"))) bool g_isPathDirect;
// clock_gettime(2) that leaves errno alone; null until the path is chosen.
extern __attribute__((visibility("hidden"))) int (*g_pClockGetTime)(clockid_t, struct timespec*);

// Decides between the two, once the wrappers are resolved.
void ZorvUmtChoosePath();

struct ZorvDynamicCalls
{
    static uint64_t GetTime()
    {
        return ZorvUmaGetTime();
    }
    static bool IsStopped(const ZorvUmaProfileInfo* pProfileInfo)
    {
        return ZorvUmaIsCollectionStopped(pProfileInfo);
    }
    static uint64_t CurrentPauseId(const ZorvUmaProfileInfo* pProfileInfo)
    {
        return ZorvUmaCurrentPauseId(pProfileInfo);
    }
    static bool IsSamePauseId(uint64_t start, uint64_t end)
    {
        return ZorvUmaIsSamePauseId(start, end);
    }
    static uint64_t Threshold(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId event)
    {
        return ZorvUmtGetEventThreshold(pProfileInfo, event);
    }
    static void AnnounceParked(ZorvUmaBuffer* pBuffer)
    {
        ZorvStoreFenced(&pBuffer->m_cacheLen, static_cast<uint32_t>(ZORV_UMT_CALL_RECORD_SIZE));
    }
    static ZorvUmaBuffer* InsertHdr(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo,
                                    const ZorvUmtRecordHdr& hdr)
    {
        bool isInserted = ZorvUmtInsertTraceRecordHdr(pProfileInfo, hdr.m_tid, hdr.m_startTime, hdr.m_endTime,
                                                      hdr.m_recSize, hdr.m_recType, hdr.m_subType, hdr.m_flags);
        return isInserted && ZorvHasStorage(pThreadInfo->m_pUmtBuf) ? pThreadInfo->m_pUmtBuf : nullptr;
    }
};

// ---- cold parts ------------------------------------------------------------------------------------------

// One append of the calling thread to its trace stream.
struct ZorvTraceAppend
{
    ZorvUmaPerThreadInfo* m_pThreadInfo;
    ZorvUmaBuffer* m_pInterrupted; // current buffer of the append that this one interrupts
    const void* m_pOuterFrame;     // its frame, null: none
};

// Null when none can be had (counted and logged) or when the streams are being closed.
ZorvUmaBuffer* ZorvChangeTraceBuffer(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo,
                                     uint16_t recType);
void ZorvWarnNoBuffer(ZorvUmaProfileInfo* pProfileInfo);
// Logs a message that takes the process id and the thread id, under the function's name.
void ZorvWarnAboutThread(ZorvUmaProfileInfo* pProfileInfo, const char* pFunction, const char* pFormat);
// Whether the append of an outer frame is still under way while one begins at the inner; a jump out of a
// handler leaves a frame that is none.
bool ZorvIsFrameAlive(const void* pOuter, const void* pInner);
void ZorvTakeSpareBuffer(ZorvTraceAppend* pAppend);
void ZorvPutSpareBufferBack(ZorvTraceAppend* pAppend, ZorvUmaProfileInfo* pProfileInfo);

constexpr uint32_t ZORV_FETCH_AHEAD = 8 * ZORV_UMT_CALL_RECORD_SIZE;

// ---- pieces of an append ---------------------------------------------------------------------------------

inline void ZorvSignalFence()
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

// The frame of the append that an append at pInner interrupts, null where there is none.
inline const void* ZorvInterruptedFrame(const void* pInner)
{
    const void* pOuter = t_zorvState.m_pAppendFrame;
    return ZORV_LIKELY(pOuter == nullptr) || !ZorvIsFrameAlive(pOuter, pInner) ? nullptr : pOuter;
}

inline void ZorvBeginAppend(ZorvTraceAppend* pAppend, ZorvUmaPerThreadInfo* pThreadInfo)
{
    pAppend->m_pThreadInfo = pThreadInfo;
    pAppend->m_pOuterFrame = ZorvInterruptedFrame(pAppend);
    if (ZORV_UNLIKELY(pAppend->m_pOuterFrame != nullptr))
        ZorvTakeSpareBuffer(pAppend);
    t_zorvState.m_pAppendFrame = pAppend;
    ZorvSignalFence();
}

inline void ZorvEndAppend(ZorvTraceAppend* pAppend, ZorvUmaProfileInfo* pProfileInfo)
{
    t_zorvState.m_appendCount++;
    ZorvSignalFence();
    if (ZORV_UNLIKELY(pAppend->m_pOuterFrame != nullptr))
        ZorvPutSpareBufferBack(pAppend, pProfileInfo);
    t_zorvState.m_pAppendFrame = pAppend->m_pOuterFrame;
}

// The body of the record whose header lies at the end of the buffer's data.
template <typename Body, typename Hdr> inline Body* ZorvBodyAtEnd(ZorvUmaBuffer* pBuffer)
{
    return reinterpret_cast<Body*>(pBuffer->m_pData + pBuffer->m_dataLen + sizeof(Hdr));
}

inline ZorvUmtRecordHdr* ZorvRecordAtEnd(ZorvUmaBuffer* pBuffer)
{
    return reinterpret_cast<ZorvUmtRecordHdr*>(pBuffer->m_pData + pBuffer->m_dataLen);
}

inline void ZorvPublish(ZorvUmaBuffer* pBuffer, uint32_t size)
{
    __atomic_add_fetch(&pBuffer->m_dataLen, size, __ATOMIC_SEQ_CST);
}

// The writer has emptied the buffer on another CPU, whose cache holds its lines. Asking for those that the next
// records will be written to, well ahead, hides the way from there; behind the storage it does nothing.
inline void ZorvFetchAhead(const ZorvUmaBuffer* pBuffer)
{
    asm volatile("prefetchw %0" : : "m"(pBuffer->m_pData[pBuffer->m_dataLen + ZORV_FETCH_AHEAD]));
}

// Places the header at the end of the thread's data; null where it cannot be.
ZORV_IN_PLACE ZorvUmaBuffer* ZorvInsertTraceHdr(ZorvUmaProfileInfo* pProfileInfo,
                                                ZorvUmaPerThreadInfo* pThreadInfo, ZorvUmtRecordHdr hdr)
{
    ZorvUmaBuffer* pBuffer = pThreadInfo->m_pUmtBuf;
    if (ZORV_UNLIKELY(!ZorvFits(pBuffer, hdr.m_recSize)))
    {
        pBuffer = ZorvChangeTraceBuffer(pProfileInfo, pThreadInfo, hdr.m_recType);
        if (pBuffer == nullptr)
            return nullptr;
    }
    if (ZORV_UNLIKELY(pBuffer->m_pData == nullptr))
    {
        ZorvWarnNoBuffer(pProfileInfo);
        return nullptr;
    }
    // What is written over a provisional record withdraws it.
    if (ZORV_UNLIKELY(pBuffer->m_cacheLen != 0))
        ZorvStoreFenced(&pBuffer->m_cacheLen, 0U);
    *ZorvRecordAtEnd(pBuffer) = hdr;
    return pBuffer;
}

// Nothing here changes errno: the clock keeps it, and so does every cold part.
struct ZorvDirectCalls
{
    static uint64_t GetTime()
    {
        timespec now;
        if (ZORV_UNLIKELY(g_pClockGetTime(CLOCK_MONOTONIC, &now) != 0))
            return 0;
        return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
    }
    static bool IsStopped(const ZorvUmaProfileInfo* pProfileInfo)
    {
        return ZorvIsThreadStopped(pProfileInfo) || ZorvIsFlagSet(&pProfileInfo->m_pIsStopped);
    }
    static uint64_t CurrentPauseId(const ZorvUmaProfileInfo* pProfileInfo)
    {
        return ZORV_UNLIKELY(ZorvIsFlagSet(&pProfileInfo->m_pIsPaused)) ? ZorvReadPauseId(pProfileInfo) : 0;
    }
    static bool IsSamePauseId(uint64_t start, uint64_t end)
    {
        return start != 0 && start == end;
    }
    static uint64_t Threshold(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId event)
    {
        return pProfileInfo->m_umtConfig.m_umtEventList[event].m_threshold;
    }
    // The locked instruction costs a tenth of the record and would add nothing here: this processor makes
    // stores visible in their order, so whoever learns of the call from anything that the call does sees the
    // record first, and a thread that sleeps in the call has passed the scheduler's own fence.
    static ZORV_IN_PLACE void AnnounceParked(ZorvUmaBuffer* pBuffer)
    {
        __atomic_store_n(&pBuffer->m_cacheLen, static_cast<uint32_t>(ZORV_UMT_CALL_RECORD_SIZE),
                         __ATOMIC_RELEASE);
    }
    static ZORV_IN_PLACE ZorvUmaBuffer* InsertHdr(ZorvUmaProfileInfo* pProfileInfo,
                                                  ZorvUmaPerThreadInfo* pThreadInfo, ZorvUmtRecordHdr hdr)
    {
        return ZorvInsertTraceHdr(pProfileInfo, pThreadInfo, hdr);
    }
};

// ---- records of traced calls -----------------------------------------------------------------------------

// Each kind of call record: how its body is laid out, and what is said when it finds no room.
struct ZorvPthreadCallRecord
{
    static constexpr uint16_t RECORD_TYPE = ZORV_UMT_RECORD_PTHREAD;
    static constexpr const char* CACHE_FUNCTION = "ZorvUmtCachePthreadRecord";
    static constexpr const char* CACHE_FAILURE = "Failed to cache pthread record for process (%d : %d)";
    static constexpr const char* CAPTURE_FUNCTION = "ZorvUmtCapturePthreadRecord";
    static constexpr const char* CAPTURE_FAILURE = "Failed to write pthread record for process (%d : %d)";
    using Body = ZorvUmtPthreadRecord;
    Body m_body;
    uint16_t m_subType;
    uint16_t m_flags;
};

struct ZorvSyscallCallRecord
{
    static constexpr uint16_t RECORD_TYPE = ZORV_UMT_RECORD_SYSCALL;
    static constexpr const char* CACHE_FUNCTION = "ZorvUmtCacheSyscallRecord";
    static constexpr const char* CACHE_FAILURE = "Failed to cache syscall record for process (%d : %d).";
    static constexpr const char* CAPTURE_FUNCTION = "ZorvUmtCaptureSysCallRecord";
    static constexpr const char* CAPTURE_FAILURE = "Failed to write syscall record for process (%d : %d).";
    using Body = ZorvUmtSyscallRecord;
    Body m_body;
    uint16_t m_subType;
    uint16_t m_flags;
};

uint64_t ZorvAskParallelRegion(uint64_t (*pGetId)()); // keeps errno
inline uint64_t ZorvParallelRegionId(const ZorvUmaProfileInfo* pProfileInfo)
{
    auto pGetId = __atomic_load_n(&pProfileInfo->m_pZorvGetOpenMPParId, __ATOMIC_RELAXED);
    return ZORV_LIKELY(pGetId == nullptr) ? 0 : ZorvAskParallelRegion(pGetId);
}

// Header and body at the end of the thread's data, not yet part of it.
template <typename Calls, typename Record>
ZORV_IN_PLACE ZorvUmaBuffer* ZorvPlaceCallRecord(ZorvUmaProfileInfo* pProfileInfo,
                                                 ZorvUmaPerThreadInfo* pThreadInfo, uint64_t startTime,
                                                 uint64_t endTime, Record record)
{
    const ZorvUmtRecordHdr hdr = {
        Record::RECORD_TYPE, ZORV_UMT_CALL_RECORD_SIZE, record.m_subType, record.m_flags, startTime, endTime,
        ZorvUmaCachedPid(),  ZorvUmaCachedTid()};
    ZorvUmaBuffer* pBuffer = Calls::InsertHdr(pProfileInfo, pThreadInfo, hdr);
    if (ZORV_UNLIKELY(pBuffer == nullptr))
        return nullptr;
    ZorvFetchAhead(pBuffer);
    *ZorvBodyAtEnd<typename Record::Body, ZorvUmtRecordHdr>(pBuffer) = record.m_body;
    return pBuffer;
}

// Parks a provisional record; null where it cannot be.
template <typename Calls, typename Record>
ZORV_IN_PLACE ZorvUmaBuffer* ZorvParkRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo,
                                            uint64_t startTime, Record record)
{
    ZorvTraceAppend append;
    ZorvBeginAppend(&append, pThreadInfo);
    ZorvUmaBuffer* pBuffer =
        ZorvPlaceCallRecord<Calls>(pProfileInfo, pThreadInfo, startTime, ZORV_TIME_NOT_ENDED, record);
    if (ZORV_LIKELY(pBuffer != nullptr))
        Calls::AnnounceParked(pBuffer);
    else
        ZorvWarnAboutThread(pProfileInfo, Record::CACHE_FUNCTION, Record::CACHE_FAILURE);
    ZorvEndAppend(&append, pProfileInfo);
    return pBuffer;
}

// The same, unless collection is stopped for the thread.
template <typename Calls, typename Record>
inline ZorvUmaBuffer* ZorvCacheCall(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime, const Record& record)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pThreadInfo == nullptr || Calls::IsStopped(pProfileInfo))
        return nullptr;
    return ZorvParkRecord<Calls>(pProfileInfo, pThreadInfo, startTime, record);
}

// Writes a whole record.
template <typename Calls, typename Record>
inline void ZorvCaptureCall(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime, uint64_t endTime,
                            const Record& record)
{
    ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pThreadInfo == nullptr || Calls::IsStopped(pProfileInfo))
        return;
    ZorvTraceAppend append;
    ZorvBeginAppend(&append, pThreadInfo);
    ZorvUmaBuffer* pBuffer = ZorvPlaceCallRecord<Calls>(pProfileInfo, pThreadInfo, startTime, endTime, record);
    if (ZORV_LIKELY(pBuffer != nullptr))
        ZorvPublish(pBuffer, ZORV_UMT_CALL_RECORD_SIZE);
    else
        ZorvWarnAboutThread(pProfileInfo, Record::CAPTURE_FUNCTION, Record::CAPTURE_FAILURE);
    ZorvEndAppend(&append, pProfileInfo);
}
