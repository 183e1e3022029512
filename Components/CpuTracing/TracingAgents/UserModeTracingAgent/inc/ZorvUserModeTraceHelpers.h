// The agent's records, its log and clock, the controller's flags, and the buffers that carry records to the
// writer.
//
// Functions that return bool give true on success, those that return a pointer null on failure. All test their
// pointers first and fail quietly. Memory comes from ZorvUmaMalloc; errno may change unless a function says
// otherwise.
#pragma once

#include "ZorvAgentControlTypes.h"
#include "ZorvAgentWrappers.h"
#include "ZorvUserModeTraceTypes.h"

#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

// ---- configuration ---------------------------------------------------------------------------------------

enum ZorvUmaLogType : int
{
    ZORV_UMA_LOG_TYPE_NONE = 0,
    ZORV_UMA_LOG_TYPE_ERROR = 1,
    ZORV_UMA_LOG_TYPE_DEBUG = 2,
    ZORV_UMA_LOG_TYPE_WARN = 3,
    ZORV_UMA_LOG_TYPE_TRACE = 4,
    ZORV_UMA_LOG_TYPE_INFO = 5,
};

enum ZorvUmtEventId : uint32_t
{
    ZORV_UMT_EVENT_PTHREAD = 0,
    ZORV_UMT_EVENT_START = 0,
    ZORV_UMT_EVENT_SLEEP = 1,
    ZORV_UMT_EVENT_WAIT = 2,
    ZORV_UMT_EVENT_LOCK = 3,
    ZORV_UMT_EVENT_IO_SYNC = 4,
    ZORV_UMT_EVENT_IO = 5,
    ZORV_UMT_EVENT_SYSCALL = 6,
    ZORV_UMT_EVENT_MAX = 7,
};

constexpr uint32_t ZORV_UMS_MAX_EVENTS = 64;

// Strings are owned copies that are never freed.
struct ZorvUmaConfig
{
    bool m_profileChildren;
    pid_t m_launchPid; // the launcher, killed when an error code is left for it
    int16_t m_mpiRankId;
    uint32_t m_callStackDepth;
    char* m_pOpenMPAgentPath;
    char* m_pPyAgentScriptPath;
    char* m_pPyAgentLibPath;
    char* m_pPythonTraceType;
    char* m_shmName;
    char* m_pCpuProfilingDir;
    char* m_pMetadataDir;
    char* m_pUserModeAgentPath;
};
using ZorvUmaConfigT = ZorvUmaConfig;

struct ZorvUmsConfig
{
    bool m_enable; // the sample stream is live; cleared at finalisation
    bool m_collectCallStack;
    uint8_t m_timerSignalNum;
    uint16_t m_configFlags;   // ZorvUmsFlags
    uint64_t m_timerInterval; // ns of the thread's CPU time
    uint32_t m_nbrEvents;
    uint64_t m_pmcEvents[ZORV_UMS_MAX_EVENTS];
    uint64_t m_encodedEvents[ZORV_UMS_MAX_EVENTS];
    uint64_t m_recLength; // bytes of a sample record without its call stack
};
using ZorvUmsConfigT = ZorvUmsConfig;

struct ZorvUmtEvent
{
    bool m_enable;
    bool m_callstack;     // configured, not used by the capture
    uint64_t m_threshold; // ns; a call of at least this length is recorded
};
using ZorvUmtEventT = ZorvUmtEvent;

struct ZorvUmtConfig
{
    bool m_enable; // the trace stream is live; cleared at finalisation
    ZorvUmtEvent m_umtEventList[ZORV_UMT_EVENT_MAX];
};
using ZorvUmtConfigT = ZorvUmtConfig;

// ---- buffers ---------------------------------------------------------------------------------------------

enum ZorvUmaBufferState : uint32_t
{
    ZORV_UMA_BUFFER_STATE_NONE = 0,   // storage freed
    ZORV_UMA_BUFFER_STATE_READY = 1,  // empty, any thread may take it
    ZORV_UMA_BUFFER_STATE_IN_USE = 2, // current buffer of one thread
    ZORV_UMA_BUFFER_STATE_FULL = 3,   // handed to the writer
};

struct ZorvUmaBuffer
{
    uint32_t m_dataLen;  // bytes of complete records; grows by an atomic add of a whole record
    uint32_t m_cacheLen; // bytes behind them that hold a provisional record, 0 when none
    ZorvUmaBufferState m_state;
    uint32_t m_bufSize;
    char* m_pData;
    ZorvUmaBuffer* m_pNext; // link while queued
};
using ZorvUmaBufferT = ZorvUmaBuffer;

// A buffer is handed out as the address inside its node, so it never moves.
struct ZorvUmaListNode
{
    ZorvUmaBuffer m_buffer;
    ZorvUmaListNode* m_pNext;
};
using ZorvUmaListNodeT = ZorvUmaListNode;

struct ZorvUmaQueue
{
    ZorvUmaBuffer* m_pFront;
    ZorvUmaBuffer* m_pRear;
    pthread_mutex_t m_lock;
};
using ZorvUmaQueueT = ZorvUmaQueue;

struct ZorvUmaData
{
    ZorvUmaListNode* m_pBufList; // every buffer of the stream
    ZorvUmaListNode* m_pListEnd;
    ZorvUmaQueue* m_pQueue; // full buffers
    int m_fd;
    bool m_isTrace;
    pthread_mutex_t m_lock; // the list, and the step from READY to IN_USE
    uint32_t m_lostRecordCount;
};
using ZorvUmaDataT = ZorvUmaData;

// ---- process and thread ----------------------------------------------------------------------------------

struct ZorvUmaProfileInfo
{
    ZorvUmaConfig m_umaConfig;
    ZorvUmsConfig m_umsConfig;
    ZorvUmtConfig m_umtConfig;
    ZorvUmaData m_umsData;
    ZorvUmaData m_umtData;
    int m_metaDataFd;
    int m_logFd;
    int m_errFd;
    int m_shmFd;
    pthread_mutex_t m_errLock;
    pthread_mutex_t m_lock; // thread set-up against finalisation
    pthread_t m_writerThreadId;
    sem_t m_semaphore; // posted for each queued buffer
    void* m_pMappedAddr;
    bool* m_pIsPaused; // into the controller's block, as the next two
    bool* m_pIsStopped;
    uint64_t* m_pPauseId;
    bool m_isFlush; // finalisation has begun: nothing is recorded any more
    bool m_isPcmAgentPaused;
    uint64_t (*m_pZorvGetOpenMPParId)();
    uint64_t m_timerOverrunCnt;
    pid_t m_pid;
    bool m_isProcessInitialized;
};
using ZorvUmaProfileInfoT = ZorvUmaProfileInfo;

// What the agent keeps beside the process record. The record is a shared shape: others build one of their own,
// and nothing may lie behind its last member.
struct ZorvProcessState
{
    pid_t m_finalisingTid;      // 0 until finalisation has begun
    bool m_isFinalised;         // the finalising thread has closed everything
    bool m_isWriterDone;        // the writer has said its last line
    bool m_isPauseSeen;         // the pause flag as the writer has last acted on it
    bool m_isPauseFailed;       // and has told that it could not follow it
    bool m_keepsStorage;        // a thread did not leave its buffer change: nothing may be freed
    uint32_t m_threadCount;     // threads that own a per-thread record
    uint32_t m_streamUsers;     // threads inside a buffer change or a log line of their own
    uint32_t m_writerSignal;    // futex word that ends the writer's rest
    uint64_t m_nudgeTime;       // when a thread last ended it
    long m_cpuCount;            // configured CPUs, 0: not asked
    bool m_isWokenByController; // when it changes its flags: the writer need not look at them
};

struct ZorvUmaPerThreadInfo
{
    void** m_pUmsCsBuf; // call-stack buffers, ZorvUmaCsBufRoom addresses each
    void** m_pUmtCsBuf;
    ZorvUmaBuffer* m_pUmsBuf; // current buffers; they belong to their stream's list
    ZorvUmaBuffer* m_pUmtBuf;
    timer_t m_timerId;
    bool m_stopCollection;
};
using ZorvUmaPerThreadInfoT = ZorvUmaPerThreadInfo;

// State of the calling thread. Initial-exec: reading it allocates nothing and calls nothing.
struct ZorvThreadState
{
    ZorvUmaPerThreadInfo* m_pInfo;
    // What a signal handler of the program records while it interrupts an append of this thread goes here.
    ZorvUmaBuffer* m_pUmtSpareBuf;
    pid_t m_tid;                // 0 until asked for; forgotten in a forked child
    uint32_t m_appendCount;     // provisional and complete trace records written by this thread
    uint32_t m_lostCount;       // trace records lost by this thread
    uint32_t m_agentDepth;      // nesting of ZorvUmaEnterAgent
    const void* m_pAppendFrame; // stack frame between the reservation and the publication of a trace record
    const void* m_pLoaderFrame; // stack frame of a call that may hold the loader's locks
    uintptr_t m_stackBegin;     // lowest address of the stack; 0 where it may grow
    bool m_isDying;             // the process is about to end: nothing is allocated or freed any more
    bool m_isUnwinding;         // what the thread calls now is the unwinder's doing
    bool m_holdsTurn;           // over a fork(2)
    bool m_canUnwind;           // the unwinder's first use on this thread is behind it
    bool m_hasMissedTurn;       // the thread's last sample has waited for its turn in vain
    bool m_isSignalUnwanted;    // the program believes to have blocked the profiling signal
    bool m_isInterrupted;       // by the profiling signal: nothing may be prepared
    bool m_mayAllocate;         // set in a scope: no handler of the program has interrupted its allocator here
};
// constinit: an access that might have to construct would call a function first.
extern constinit
    __attribute__((visibility("hidden"), tls_model("initial-exec"))) thread_local ZorvThreadState t_zorvState;

// What ZorvUmaEnterAgent has put aside.
struct ZorvAgentScope
{
    sigset_t m_signals;
    int m_cancelState;
    int m_cancelType;
    int m_errno;
};

// ---- internal helpers ------------------------------------------------------------------------------------

// Slow paths of the agent run between these two: no signal handler of the program interrupts them (it might end
// the process or come back here while a lock is held), no cancellation ends the thread in them, errno is kept.
void ZorvUmaEnterAgent(ZorvAgentScope* pScope);
void ZorvUmaLeaveAgent(const ZorvAgentScope* pScope);

// The state of the process's own record; one that is shared by all others.
ZorvProcessState* ZorvUmaStateOf(const ZorvUmaProfileInfo* pProfileInfo);

// A thread that is about to touch queues, lists or the log says so; false once finalisation is closing them.
bool ZorvUmaBeginStreamUse(ZorvUmaProfileInfo* pProfileInfo);
void ZorvUmaEndStreamUse(ZorvUmaProfileInfo* pProfileInfo);

// A number out of the program's way in place of this one, or this one where there is no room. errno is kept.
int ZorvUmaMoveDescriptor(int fd);
// Takes charge of a descriptor of the agent: moves it out of the program's way (never 0 to 2, close-on-exec)
// and remembers what it stands for. The new number, or -1.
int ZorvUmaKeepDescriptor(int fd);
// The same for every descriptor that the start of the process has opened, its files so that they can be opened
// again. False where there is no room for one.
bool ZorvUmaKeepFilesOf(ZorvUmaProfileInfo* pProfileInfo);
// Closes the descriptor, unless it has become the program's.
void ZorvUmaCloseKeptFile(int fd);
void ZorvUmaForgetKeptFile(int fd); // somebody else closes it
// fsync(2), close, -1: nobody writes to a number that is about to be given away.
void ZorvUmaSyncAndClose(int* pFd);
// Whether the number still stands for the agent's file, as it does for one that was never kept.
bool ZorvUmaIsStillOwn(int fd);
bool ZorvUmaIsKept(int fd); // one of this process's, and still its file
// The number under which the file can be written: the same, a new one where the program has taken it, or -1.
int ZorvUmaOwnDescriptor(int fd);
// What the program does to numbers spares the agent's, which for the program do not exist: the number to go on
// with, -1 in the place of one of ours; the smallest of ours in a range, -1 for none; and the program is about
// to put a file of its own under the number.
extern __attribute__((visibility("hidden"))) int g_lowestOwnFd;
bool ZorvUmaIsOwnNumber(int fd);
inline int ZorvUmaProgramsNumber(int fd)
{
    return ZORV_LIKELY(fd < g_lowestOwnFd) || !ZorvUmaIsOwnNumber(fd) ? fd : -1;
}
int ZorvUmaNextOwnNumber(unsigned first, unsigned last);
void ZorvUmaVacate(int fd);
// In a forked child: closes what the agent keeps there of its parent.
void ZorvUmaDropParentsFiles();
void ZorvUmaRenewFilesLock();
// Writes all or nothing of a piece of a file: what a failed or short write leaves behind is cut off again, for
// it would end every reader's walk right there. Result as ZorvUmaWrite.
ssize_t ZorvUmaWriteWhole(int fd, const void* pBuf, size_t count);
// Writes to a file of the agent. A file-size limit never raises its signal in the program (setrlimit(2)).
// Result as ZorvUmaWrite.
ssize_t ZorvUmaWriteOwnFile(int fd, const void* pBuf, size_t count);

// Fills with zeroes what is not zero already: fresh pages stay untouched and cost no memory.
void ZorvUmaZeroStorage(char* pStorage, size_t size);

// A buffer that comes from the kernel, READY and on the list: for a thread that may have been interrupted
// inside its allocator. Null without memory.
ZorvUmaBuffer* ZorvUmtMapNewBuffer(ZorvUmaData* pData);
// Frees, unless the process is about to end anyway and its thread may be inside the allocator.
void ZorvUmaRelease(void* pMemory);

// Whether the process is another one than that of the records: a child that fork(2)'s interposer has not seen.
bool ZorvUmaIsForeign();
// Whether it is such a child and shares its parent's memory (vfork(2)): what it changes is its parent's.
bool ZorvUmaSharesMemory();
void ZorvUmaMarkMemory(); // as this process's own
// A handler may run with its own signal open from now on: an empty mask no longer says that there is none.
void ZorvUmaExpectNestedHandlers();

// Ids from memory: no system call on the way of a record.
pid_t ZorvUmaAskTid();
pid_t ZorvUmaAskPid();
extern __attribute__((visibility("hidden"))) pid_t g_cachedPid;
inline pid_t ZorvUmaCachedTid()
{
    return ZORV_LIKELY(t_zorvState.m_tid != 0) ? t_zorvState.m_tid : ZorvUmaAskTid();
}
inline pid_t ZorvUmaCachedPid()
{
    return ZORV_LIKELY(g_cachedPid != 0) ? g_cachedPid : ZorvUmaAskPid();
}
void ZorvUmaForgetCachedIds(); // in a forked child

// A locked instruction; mfence costs eight times as much and orders no more here.
inline void ZorvFullFence()
{
    asm volatile("lock; orl $0, (%%rsp)" ::: "memory", "cc");
}
// A store followed by a full fence, in one instruction.
template <typename T> inline void ZorvStoreFenced(T* pWhere, T value)
{
    __atomic_exchange_n(pWhere, value, __ATOMIC_SEQ_CST);
}
inline void ZorvStoreFenced(bool* pWhere, bool value)
{
    __atomic_exchange_n(reinterpret_cast<uint8_t*>(pWhere), static_cast<uint8_t>(value), __ATOMIC_SEQ_CST);
}

extern "C"
{
    // ---- log, error file, clock, names
    // -----------------------------------------------------------------------

    // Opens the log and error files of this process under "QELIX_SESSION_DIR"; true when both are open.
    ZORV_EXPORT bool ZorvUmaOpenLogAndErrorFile(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT void ZorvUmaCloseLogAndErrorFile(ZorvUmaProfileInfo* pProfileInfo);
    // One line, one write(2), then fsync(2). Always 0; errno is kept.
    ZORV_EXPORT int ZorvUmaWriteLogFile(int fd, ZorvUmaLogType logType, const char* pFunction, int line,
                                        const char* pFormat, ...) __attribute__((format(printf, 5, 6)));
    // Leaves the code for the launcher, kills the launcher and ends the process. Returns false when the code
    // could not be written, and true only if exit(3) itself could not be reached.
    ZORV_EXPORT bool ZorvUmaWriteErrorFile(ZorvUmaProfileInfo* pProfileInfo, ZorvAgentErrorMsg code);
    ZORV_EXPORT uint64_t ZorvUmaGetTime(); // ns of CLOCK_MONOTONIC, 0 when the clock fails
    ZORV_EXPORT bool ZorvUmaGetCurrentThreadName(char* pName, size_t size);

    // ---- the controller's flags
    // ------------------------------------------------------------------------------

    ZORV_EXPORT bool ZorvUmaInitSharedMemory(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT bool ZorvUmaFiniSharedMemory(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT bool ZorvUmaIsPauseSet(const ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT bool ZorvUmaIsStopSet(const ZorvUmaProfileInfo* pProfileInfo);
    // The id of the pause that is on, 0 while running.
    ZORV_EXPORT uint64_t ZorvUmaCurrentPauseId(const ZorvUmaProfileInfo* pProfileInfo);
    // Whether a call began and ended inside one and the same pause.
    ZORV_EXPORT bool ZorvUmaIsSamePauseId(uint64_t startPauseId, uint64_t endPauseId);
    // Whether the calling thread may not record. A pause is no stop.
    ZORV_EXPORT bool ZorvUmaIsCollectionStopped(const ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT void ZorvUmaSetStopCollection(bool stopCollection);
    // Takes a post if there is one, 0; else -1 at once. Never blocks: the deadline has always passed.
    ZORV_EXPORT int ZorvUmaSemWait(ZorvUmaProfileInfo* pProfileInfo);

    // ---- buffers, list, queue
    // --------------------------------------------------------------------------------

    // Opens DIR/NAME_HOST_PID.FORMAT for writing, truncated, into *pFd.
    ZORV_EXPORT bool ZorvUmaOpenFileForWrite(const char* pDirPath, int* pFd, const char* pFileName,
                                             const char* pFormat, int logFd);
    ZORV_EXPORT bool ZorvUmaInitDataWriting(ZorvUmaData* pData, const char* pDirPath, const char* pFileName,
                                            const char* pFormat, int logFd);
    ZORV_EXPORT bool ZorvUmaCreateBuffers(ZorvUmaData* pData, int logFd);
    ZORV_EXPORT ZorvUmaBuffer* ZorvUmtAllocateNewBuffer(ZorvUmaData* pData, int logFd); // READY, on the list
    ZORV_EXPORT ZorvUmaBuffer* ZorvUmaInsertIntoList(ZorvUmaData* pData, ZorvUmaBuffer buffer);
    ZORV_EXPORT ZorvUmaBuffer* ZorvUmaGetFreeBuffer(ZorvUmaData* pData); // first READY one, now IN_USE
    ZORV_EXPORT bool ZorvUmaCreateQueue(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT void ZorvUmaDestroyQueue(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT bool ZorvUmaIsQueueEmpty(ZorvUmaQueue* pQueue);
    ZORV_EXPORT bool ZorvUmaEnqueue(ZorvUmaQueue* pQueue, ZorvUmaBuffer* pBuffer);
    ZORV_EXPORT ZorvUmaBuffer* ZorvUmaDequeue(ZorvUmaQueue* pQueue);
    // Drains the queue into the file; the result is that of the last buffer, false for an empty queue.
    ZORV_EXPORT bool ZorvUmaWriteBuffer(ZorvUmaData* pData, int logFd);
    // Writes what is left, frees what no living thread can reach, closes the file, logs the lost count.
    ZORV_EXPORT bool ZorvUmaFiniDataWriting(ZorvUmaData* pData, int logFd, bool isStopped);
}
