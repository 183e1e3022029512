// The agent's records and file layouts as the tests understand them. They are typed here a second time on
// purpose: a header shared with the agent would make the same mistake on both sides.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>
#include <time.h>

namespace agent
{

// ---- constants -------------------------------------------------------------------------------------------

enum : uint32_t
{
    ZORV_UMA_BUFFER_STATE_NONE = 0,
    ZORV_UMA_BUFFER_STATE_READY = 1,
    ZORV_UMA_BUFFER_STATE_IN_USE = 2,
    ZORV_UMA_BUFFER_STATE_FULL = 3,
};

enum : int
{
    ZORV_UMT_EVENT_PTHREAD = 0,
    ZORV_UMT_EVENT_SLEEP = 1,
    ZORV_UMT_EVENT_WAIT = 2,
    ZORV_UMT_EVENT_LOCK = 3,
    ZORV_UMT_EVENT_IO_SYNC = 4,
    ZORV_UMT_EVENT_IO = 5,
    ZORV_UMT_EVENT_SYSCALL = 6,
    ZORV_UMT_EVENT_MAX = 7,
};

enum : int
{
    ZORV_UMA_LOG_TYPE_NONE = 0,
    ZORV_UMA_LOG_TYPE_ERROR = 1,
    ZORV_UMA_LOG_TYPE_DEBUG = 2,
    ZORV_UMA_LOG_TYPE_WARN = 3,
    ZORV_UMA_LOG_TYPE_TRACE = 4,
    ZORV_UMA_LOG_TYPE_INFO = 5,
};

enum : uint16_t
{
    ZORV_UMT_RECORD_PTHREAD = 1,
    ZORV_UMT_RECORD_SYSCALL = 3,
    ZORV_UMT_RECORD_PROC = 4,
    ZORV_UMT_RECORD_THREAD_END = 7,
    ZORV_UMS_RECORD_PROC = 1,
    ZORV_UMS_RECORD_METADATA = 4,
    ZORV_UMS_RECORD_THREAD_END = 5,
    ZORV_UMS_CS = 1,
    ZORV_UMS_PMC = 2,
    ZORV_UMT_FLAG_SYSCALL_ID = 1,
    ZORV_SYSCALL_TYPE_SLEEP = 1,
    ZORV_SYSCALL_TYPE_IO = 5,
    ZORV_PTHREAD_LOCK_MUTEX = 1,
    ZORV_PTHREAD_WAIT_CV = 3,
    ZORV_PTHREAD_LOCK_RW = 5,
    ZORV_PTHREAD_LOCK_SPIN = 7,
    ZORV_PTHREAD_WAIT_BARRIER = 9,
    ZORV_PTHREAD_WAIT_SEMAPHORE = 10,
    ZORV_PTHREAD_CREATE = 12,
    ZORV_PTHREAD_JOIN = 13,
    ZORV_PTHREAD_EXIT = 14,
    ZORV_PTHREAD_CANCEL = 16,
};

constexpr uint64_t NOT_ENDED = ~uint64_t{0};
constexpr uint32_t CALL_RECORD_SIZE = 64;
constexpr std::size_t SHARED_BLOCK_SIZE = 64;
constexpr int BUFFERS_A_STREAM = 8;

// ---- the agent's records in memory -----------------------------------------------------------------------

struct ZorvLibHandlers
{
    void* m_pLibcHandle;
    void* m_pLibPthreadHandle;
    void* m_pLibRtHandle;
};

struct ZorvUmaConfig
{
    bool m_profileChildren;
    pid_t m_launchPid;
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

struct ZorvUmsConfig
{
    bool m_enable;
    bool m_collectCallStack;
    uint8_t m_timerSignalNum;
    uint16_t m_configFlags;
    uint64_t m_timerInterval;
    uint32_t m_nbrEvents;
    uint64_t m_pmcEvents[64];
    uint64_t m_encodedEvents[64];
    uint64_t m_recLength;
};

struct ZorvUmtEvent
{
    bool m_enable;
    bool m_callstack;
    uint64_t m_threshold;
};

struct ZorvUmtConfig
{
    bool m_enable;
    ZorvUmtEvent m_umtEventList[ZORV_UMT_EVENT_MAX];
};

struct ZorvUmaBuffer
{
    uint32_t m_dataLen;
    uint32_t m_cacheLen;
    uint32_t m_state;
    uint32_t m_bufSize;
    char* m_pData;
    ZorvUmaBuffer* m_pNext;
};

struct ZorvUmaListNode
{
    ZorvUmaBuffer m_buffer;
    ZorvUmaListNode* m_pNext;
};

struct ZorvUmaQueue
{
    ZorvUmaBuffer* m_pFront;
    ZorvUmaBuffer* m_pRear;
    pthread_mutex_t m_lock;
};

struct ZorvUmaData
{
    ZorvUmaListNode* m_pBufList;
    ZorvUmaListNode* m_pListEnd;
    ZorvUmaQueue* m_pQueue;
    int m_fd;
    bool m_isTrace;
    pthread_mutex_t m_lock;
    uint32_t m_lostRecordCount;
};

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
    pthread_mutex_t m_lock;
    pthread_t m_writerThreadId;
    sem_t m_semaphore;
    void* m_pMappedAddr;
    bool* m_pIsPaused;
    bool* m_pIsStopped;
    uint64_t* m_pPauseId;
    bool m_isFlush;
    bool m_isPcmAgentPaused;
    uint64_t (*m_pZorvGetOpenMPParId)();
    uint64_t m_timerOverrunCnt;
    pid_t m_pid;
    bool m_isProcessInitialized;
};

struct ZorvUmaPerThreadInfo
{
    void** m_pUmsCsBuf;
    void** m_pUmtCsBuf;
    ZorvUmaBuffer* m_pUmsBuf;
    ZorvUmaBuffer* m_pUmtBuf;
    timer_t m_timerId;
    bool m_stopCollection;
};

struct ZorvUmtThreadWrapperArg
{
    void* (*m_pStartRoutine)(void*);
    void* m_pArg;
    ZorvUmaProfileInfo* m_pProfileInfo;
};

// ---- layouts in the files --------------------------------------------------------------------------------

struct TraceHeader
{
    uint16_t m_recType;
    uint16_t m_recSize;
    uint16_t m_subType;
    uint16_t m_flags;
    uint64_t m_startTime;
    uint64_t m_endTime;
    int32_t m_pid;
    int32_t m_tid;
};

struct PthreadRecord
{
    TraceHeader m_hdr;
    uint64_t m_lockAddress;
    uint64_t m_funcVa;
    uint64_t m_parId;
    int32_t m_retValue;
    uint16_t m_csSize;
    uint16_t m_padding;
};

struct SyscallRecord
{
    TraceHeader m_hdr;
    uint64_t m_funcVa;
    uint64_t m_parId;
    uint64_t m_sysValue;
    uint16_t m_csSize;
    uint16_t m_padding[3];
};

struct ProcBody
{
    uint64_t m_pthreadId;
    uint32_t m_reserved;
    char m_name[32];
    uint32_t m_padding;
};

struct SampleHeader
{
    int32_t m_pid;
    int32_t m_tid;
    uint16_t m_recType;
    uint16_t m_recSize;
    uint16_t m_coreId;
    uint16_t m_flags;
    uint64_t m_startTime;
};

struct StreamFileHeader
{
    uint64_t m_magicNum;
    int32_t m_pid;
    int32_t m_mpiRankId;
    uint16_t m_fileVersion;
    uint16_t m_reserved1;
    uint32_t m_reserved2;
};

struct MetadataFileHeader
{
    uint64_t m_magicNum;
    uint32_t m_pid;
    uint16_t m_reserved;
    uint16_t m_fileVersion;
};

static_assert(sizeof(TraceHeader) == 32 && sizeof(SampleHeader) == 24 && sizeof(ProcBody) == 48);
static_assert(sizeof(PthreadRecord) == CALL_RECORD_SIZE && sizeof(SyscallRecord) == CALL_RECORD_SIZE);
static_assert(sizeof(StreamFileHeader) == 24 && sizeof(MetadataFileHeader) == 16);
static_assert(offsetof(ProcBody, m_name) == 12);

constexpr uint32_t TRACE_PROC_SIZE = sizeof(TraceHeader) + sizeof(ProcBody);
constexpr uint32_t SAMPLE_PROC_SIZE = sizeof(SampleHeader) + sizeof(ProcBody);
constexpr uint32_t TRACE_THREAD_END_SIZE = sizeof(TraceHeader) + 8;
constexpr uint32_t SAMPLE_THREAD_END_SIZE = sizeof(SampleHeader) + 8;

} // namespace agent
