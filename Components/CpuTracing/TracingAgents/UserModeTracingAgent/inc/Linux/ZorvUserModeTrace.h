// The agent's life in the process: start and end, threads, configuration, the writer thread, and the records.
#pragma once

#include "ZorvUserModeTraceHelpers.h"

extern "C"
{
    // ---- process
    // ---------------------------------------------------------------------------------------------

    ZORV_EXPORT void ZorvUmaInit(); // constructor of the shared object
    ZORV_EXPORT void ZorvUmaFini(); // destructor
    ZORV_EXPORT void ZorvUmaExitHandler();
    ZORV_EXPORT ZorvUmaProfileInfo* ZorvUmaGetProfileInfo(); // null before allocation
    ZORV_EXPORT ZorvUmaProfileInfo* ZorvUmaAllocateProfileInfo();
    ZORV_EXPORT void ZorvUmaFreeProfileInfo();
    ZORV_EXPORT bool ZorvUmaInitProcess(ZorvUmaProfileInfo* pProfileInfo);
    // Once per process; every later call only frees the caller's per-thread record. errno is kept.
    ZORV_EXPORT void ZorvUmaFiniProcess(ZorvUmaProfileInfo* pProfileInfo, bool isFromWriterThread);
    ZORV_EXPORT void ZorvUmaSetOpenMPAgentInitialized(bool isInitialized);
    ZORV_EXPORT void ZorvUmtConfigureEvent(ZorvUmtEventId eventId, char* pValue,
                                           ZorvUmaProfileInfo* pProfileInfo);

    // ---- threads
    // ---------------------------------------------------------------------------------------------

    ZORV_EXPORT ZorvUmaPerThreadInfo* ZorvUmaAllocateThreadInfo(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT void ZorvUmaFreeThreadInfo();
    ZORV_EXPORT bool ZorvUmaInitThread(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT void ZorvUmaFiniThread(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT bool ZorvUmaAllocateCsBuf(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT void* ZorvUmtPthreadCreateWrapper(void* pArg); // ZorvUmtThreadWrapperArg*
    ZORV_EXPORT void* ZorvUmaWriterThread(void* pArg);         // ZorvUmaProfileInfo*

    // ---- records
    // ---------------------------------------------------------------------------------------------

    // Places a header at the end of the thread's data, changing the buffer when it does not fit. The caller
    // fills the body and then advances m_dataLen by the whole record.
    ZORV_EXPORT bool ZorvUmtInsertTraceRecordHdr(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid,
                                                 uint64_t startTime, uint64_t endTime, uint16_t recSize,
                                                 uint16_t recType, uint16_t subType, uint16_t flags);
    ZORV_EXPORT bool ZorvUmsInsertSampleRecordHdr(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid,
                                                  uint64_t startTime, uint16_t recSize, uint16_t recType,
                                                  uint16_t flags);
    ZORV_EXPORT void ZorvUmaWriteFileHdr(const ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT bool ZorvUmsWritePcmMetadata(const ZorvUmaProfileInfo* pProfileInfo);
    // pName null: the calling thread's own name; else len bytes of it, at most 32.
    ZORV_EXPORT void ZorvUmaWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName,
                                            int len, uint64_t startTime, uint64_t pthreadId);
    ZORV_EXPORT void ZorvUmtWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName,
                                            int len, uint64_t startTime, uint64_t pthreadId);
    ZORV_EXPORT void ZorvUmsWriteProcRecord(ZorvUmaProfileInfo* pProfileInfo, ZorvUmtTid tid, const char* pName,
                                            int len, uint64_t startTime, uint64_t pthreadId);
    ZORV_EXPORT void ZorvUmaWriteThreadEndRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t pthreadId);

    // ---- traced calls
    // ----------------------------------------------------------------------------------------

    ZORV_EXPORT bool ZorvUmtIsEventEnabled(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId evtId);
    ZORV_EXPORT uint64_t ZorvUmtGetEventThreshold(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId evtId);
    ZORV_EXPORT bool ZorvUmtIsTraceEvent(const ZorvUmaProfileInfo* pProfileInfo, ZorvUmtEventId evtId);
    // Park a provisional record before a call that may never return; the buffer that holds it, or null.
    ZORV_EXPORT ZorvUmaBuffer* ZorvUmtCachePthreadRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                         uint64_t lockAddress, uint64_t funcVa,
                                                         ZorvPthreadType pthreadType);
    ZORV_EXPORT ZorvUmaBuffer* ZorvUmtCacheSyscallRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                         uint64_t funcVa, ZorvSysCallType sysCallType,
                                                         ZorvUmtEventId evtId, uint16_t flags,
                                                         uint64_t sysValue);
    // Complete the parked record (pCacheBuf not null), or write a whole one.
    ZORV_EXPORT void ZorvUmtCapturePthreadRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                 uint64_t endTime, uint64_t lockAddress, uint64_t funcVa,
                                                 int retValue, ZorvPthreadType pthreadType,
                                                 ZorvUmaBuffer* pCacheBuf);
    ZORV_EXPORT void ZorvUmtCaptureSysCallRecord(ZorvUmaProfileInfo* pProfileInfo, uint64_t startTime,
                                                 uint64_t endTime, uint64_t funcVa, ZorvSysCallType sysCallType,
                                                 ZorvUmtEventId evtId, uint16_t flags, uint64_t sysValue,
                                                 ZorvUmaBuffer* pCacheBuf);
}

// Reads the file named by "QELIX_UMA_CONFIG_FILE"; opens the output files as their directory keys are met.
bool ZorvUmaReadConfig(ZorvUmaProfileInfo* pProfileInfo);

extern __attribute__((visibility("hidden")))
ZorvUmaProfileInfo* g_pProfileInfo; // what ZorvUmaGetProfileInfo gives

// The enable flags of the event classes, as the interposers test them before anything else. While a function of
// the trace test is replaced by an object ahead of the agent, every class reads as enabled here and the test
// decides.
extern __attribute__((visibility("hidden"))) const ZorvUmtEvent* g_pTraceGate;
