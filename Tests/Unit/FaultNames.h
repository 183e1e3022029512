// The names that tests can replace. Functions with a variable argument list are missing: they cannot be passed
// on.
#pragma once

// the loader's interface; passed on to libc
#define ZORV_LOADER_NAMES(X) X(dlsym) X(dlvsym) X(dlopen) X(dlclose) X(dl_iterate_phdr)

#define ZORV_ACCESS_NAMES(X)                                                                                   \
    X(ZorvUmaGetLibHandles)                                                                                    \
    X(fnIncreaseFdLimit)                                                                                       \
    X(fnOpenFile) X(fnPerfEventOpen) X(ZorvUmaMalloc) X(ZorvUmaCalloc) X(ZorvUmaFree) X(ZorvUmaOpen) X(        \
        ZorvUmaOpenWithMode) X(ZorvUmaClose) X(ZorvUmaFsync) X(ZorvUmaRead) X(ZorvUmaWrite) X(ZorvUmaReadlink) \
        X(ZorvUmaStat) X(ZorvUmaTruncate) X(ZorvUmaFtruncate) X(ZorvUmaMmap) X(ZorvUmaMunmap)                  \
            X(ZorvUmaFileOpen) X(ZorvUmaFileGets) X(ZorvUmaFileFlush) X(ZorvUmaFileClose) X(ZorvUmaIoctl)      \
                X(ZorvUmaIoctlWithFlags) X(ZorvUmaGetCpu) X(ZorvUmaGetenv) X(ZorvUmaGetThreadName)             \
                    X(ZorvUmaSetCurrentThreadName) X(ZorvUmaGetHostName) X(ZorvUmaGetPid) X(ZorvUmaGetTid)     \
                        X(ZorvUmaPthreadCreate) X(ZorvUmaPthreadMutexInit) X(ZorvUmaPthreadMutexLock)          \
                            X(ZorvUmaPthreadMutexUnlock) X(ZorvUmaPthreadSelf) X(ZorvUmaPthreadSetAffinity)    \
                                X(ZorvUmaPthreadGetName) X(ZorvUmaPthreadJoin) X(ZorvUmaPthreadCancel)         \
                                    X(ZorvUmaPthreadExit) X(ZorvUmaSysconf) X(ZorvUmaSigAction) X(ZorvUmaKill) \
                                        X(ZorvUmaAtexit) X(ZorvUmaOnExit) X(ZorvUmaExit) X(ZorvUmaSemInit)     \
                                            X(ZorvUmaSemPost) X(ZorvUmaSemTimedWait) X(ZorvUmaTimerCreate)     \
                                                X(ZorvUmaTimerSetTime) X(ZorvUmaTimerDelete) X(ZorvUmaStrstr)  \
                                                    X(ZorvUmaStrdup) X(ZorvUmaMemset) X(ZorvUmaMemcpy)         \
                                                        X(ZorvUmaVprintf) X(ZorvUmaVfprintf)                   \
                                                            X(ZorvUmaVsprintf) X(ZorvUmaVsnprintf)             \
                                                                X(ZorvUmaVsscanf) X(ZorvUmaShmOpen)            \
                                                                    X(ZorvUmaShmUnlink)                        \
                                                                        X(ZorvUmaPerfEventOpen)                \
                                                                            X(ZorvUmaGetrlimit)                \
                                                                                X(ZorvUmaSetrlimit)

#define ZORV_AGENT_NAMES(X)                                                                                    \
    X(ZorvUmaClockGetTime)                                                                                     \
    X(ZorvUmaOpenLogAndErrorFile)                                                                              \
    X(ZorvUmaCloseLogAndErrorFile)                                                                             \
    X(ZorvUmaWriteErrorFile) X(ZorvUmaGetTime) X(ZorvUmaGetCurrentThreadName) X(ZorvUmtConfigureEvent)         \
        X(ZorvUmaInit) X(ZorvUmaGetProfileInfo) X(ZorvUmaAllocateProfileInfo) X(ZorvUmaAllocateThreadInfo)     \
            X(ZorvUmaFreeThreadInfo) X(ZorvUmaInitProcess) X(ZorvUmaFiniProcess) X(ZorvUmaInitThread) X(       \
                ZorvUmaFiniThread) X(ZorvUmaWriteThreadEndRecord) X(fnOpenSharedMemory) X(fnCloseSharedMemory) \
                X(ZorvUmaInitSharedMemory) X(ZorvUmaFiniSharedMemory) X(ZorvUmaIsPauseSet) X(ZorvUmaIsStopSet) \
                    X(ZorvUmaCurrentPauseId) X(ZorvUmaIsSamePauseId) X(ZorvUmaIsCollectionStopped)             \
                        X(ZorvUmaSemWait) X(ZorvUmaInitDataWriting) X(ZorvUmaOpenFileForWrite)                 \
                            X(ZorvUmaCreateBuffers) X(ZorvUmtAllocateNewBuffer) X(ZorvUmaInsertIntoList)       \
                                X(ZorvUmaGetFreeBuffer) X(ZorvUmaCreateQueue) X(ZorvUmaDestroyQueue)           \
                                    X(ZorvUmaEnqueue) X(ZorvUmaDequeue) X(ZorvUmaWriteBuffer)                  \
                                        X(ZorvUmaFiniDataWriting) X(ZorvUmsWritePcmMetadata)                   \
                                            X(ZorvUmaWriteProcRecord) X(ZorvUmtInsertTraceRecordHdr)           \
                                                X(ZorvUmsInsertSampleRecordHdr) X(ZorvUmtIsEventEnabled)       \
                                                    X(ZorvUmtGetEventThreshold) X(ZorvUmtIsTraceEvent)         \
                                                        X(ZorvUmtCachePthreadRecord)                           \
                                                            X(ZorvUmtCapturePthreadRecord)                     \
                                                                X(ZorvUmtCacheSyscallRecord)                   \
                                                                    X(ZorvUmtCaptureSysCallRecord)             \
                                                                        X(ZorvUmaAllocateCsBuf)

// While nobody replaces a function on the path of a record, the agent runs that path in place. A program that
// tests it there replaces system access alone.
#ifdef ZORV_FAULTS_OFF_THE_PATH
#define ZORV_FAULT_NAMES(X) ZORV_LOADER_NAMES(X) ZORV_ACCESS_NAMES(X)
#else
#define ZORV_FAULT_NAMES(X) ZORV_LOADER_NAMES(X) ZORV_ACCESS_NAMES(X) ZORV_AGENT_NAMES(X)
#endif

enum FaultId
{
#define ZORV_FAULT_ID(name) FAULT_##name,
    ZORV_FAULT_NAMES(ZORV_FAULT_ID)
#undef ZORV_FAULT_ID
        FAULT_COUNT,
    FAULT_FIRST_OF_AGENT = FAULT_ZorvUmaGetLibHandles,
};
