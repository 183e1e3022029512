// Layouts of the trace file (.umt) and the sample file (.ums), and the codes of the error file.
//
// Everything is little-endian, nothing is packed: each field falls on its natural alignment inside its
// structure, and records follow each other without padding. A reader steps by m_recSize.
// Times are nanoseconds of CLOCK_MONOTONIC (clock_gettime(2)); process ids are getpid(2), thread ids gettid(2).
#pragma once

#include <cstddef>
#include <cstdint>

using ZorvUmtTid = int32_t;

constexpr uint64_t ZORV_FILE_MAGIC_NUM = 0xFFFFFFFFFFFFFFFFULL;
// End time of a call that has not returned.
constexpr uint64_t ZORV_TIME_NOT_ENDED = 0xFFFFFFFFFFFFFFFFULL;
constexpr std::size_t ZORV_RECORD_NAME_SIZE = 32;

enum ZorvAgentErrorMsg : int32_t
{
    ZORV_AGENT_ERROR_NONE = 0,
    ZORV_AGENT_ERROR_PROFILING_SIGNAL = 1, // the program handles the profiling signal itself
    ZORV_AGENT_ERROR_MAX_OPEN_FILES = 2,   // no descriptor left for the counters
    ZORV_AGENT_ERROR_LIBJEMALLOC = 3,      // libjemalloc.so preloaded while tracing
};

// ---- trace file ------------------------------------------------------------------------------------------

enum ZorvUmtFileVersion : uint16_t
{
    ZORV_UMT_FILE_VERSION_NONE = 0,
    ZORV_UMT_FILE_VERSION_1_0 = 1,
    ZORV_UMT_FILE_VERSION_1_1 = 2,
};

enum ZorvUmtRecordType : uint16_t
{
    ZORV_UMT_RECORD_NONE = 0,
    ZORV_UMT_RECORD_PTHREAD = 1,
    ZORV_UMT_RECORD_MEMORY = 2, // reserved, never written
    ZORV_UMT_RECORD_SYSCALL = 3,
    ZORV_UMT_RECORD_PROC = 4,
    ZORV_UMT_RECORD_MMAP = 5,     // reserved, never written
    ZORV_UMT_RECORD_METADATA = 6, // reserved, never written
    ZORV_UMT_RECORD_THREAD_END = 7,
};

enum ZorvUmtFlags : uint16_t
{
    ZORV_UMT_FLAG_NONE = 0,
    ZORV_UMT_FLAG_SYSCALL_ID = 1, // a system-call record carries a call number instead of a function address
};

enum ZorvPthreadType : uint16_t
{
    ZORV_PTHREAD_NONE = 0,
    ZORV_PTHREAD_LOCK_MUTEX = 1,
    ZORV_PTHREAD_UNLOCK_MUTEX = 2,
    ZORV_PTHREAD_WAIT_CV = 3,
    ZORV_PTHREAD_SIGNAL_CV = 4,
    ZORV_PTHREAD_LOCK_RW = 5,
    ZORV_PTHREAD_UNLOCK_RW = 6,
    ZORV_PTHREAD_LOCK_SPIN = 7,
    ZORV_PTHREAD_UNLOCK_SPIN = 8,
    ZORV_PTHREAD_WAIT_BARRIER = 9,
    ZORV_PTHREAD_WAIT_SEMAPHORE = 10,
    ZORV_PTHREAD_POST_SEMAPHORE = 11,
    ZORV_PTHREAD_CREATE = 12,
    ZORV_PTHREAD_JOIN = 13,
    ZORV_PTHREAD_EXIT = 14,
    ZORV_PTHREAD_YIELD = 15,
    ZORV_PTHREAD_CANCEL = 16,
};

enum ZorvSysCallType : uint16_t
{
    ZORV_SYSCALL_TYPE_NONE = 0,
    ZORV_SYSCALL_TYPE_SLEEP = 1,
    ZORV_SYSCALL_TYPE_EVENT_WAIT = 2,
    ZORV_SYSCALL_TYPE_RESOURCE_WAIT = 3,
    ZORV_SYSCALL_TYPE_IO_SYNC = 4,
    ZORV_SYSCALL_TYPE_IO = 5,
    ZORV_SYSCALL_TYPE_OTHER = 6,
    ZORV_SYSCALL_TYPE_MAX = 7,
};

struct ZorvUmtFileHdr
{
    uint64_t m_magicNum; // ZORV_FILE_MAGIC_NUM
    int32_t m_pid;
    int32_t m_mpiRankId;    // the configured 16-bit rank, sign-extended
    uint16_t m_fileVersion; // ZORV_UMT_FILE_VERSION_1_1
    uint16_t m_reserved1;
    uint32_t m_reserved2;
};
using ZorvUmtFileHdrT = ZorvUmtFileHdr;

struct ZorvUmtRecordHdr
{
    uint16_t m_recType; // ZorvUmtRecordType
    uint16_t m_recSize; // bytes, this header included
    uint16_t m_subType; // ZorvPthreadType or ZorvSysCallType, else 0
    uint16_t m_flags;   // ZorvUmtFlags
    uint64_t m_startTime;
    uint64_t m_endTime; // ZORV_TIME_NOT_ENDED while the call has not returned
    int32_t m_pid;
    int32_t m_tid;
};
using ZorvUmtRecordHdrT = ZorvUmtRecordHdr;

struct ZorvUmtPthreadRecord // body, behind the header
{
    uint64_t m_lockAddress;
    uint64_t m_funcVa; // address of the library function that was called
    uint64_t m_parId;  // OpenMP parallel-region id or 0
    int32_t m_retValue;
    uint16_t m_csSize; // always 0: no call stack follows
    uint16_t m_padding;
};
using ZorvUmtPthreadRecordT = ZorvUmtPthreadRecord;

struct ZorvUmtSyscallRecord // body, behind the header
{
    union
    {
        uint64_t m_funcVa;
        uint64_t m_sysCallId; // when ZORV_UMT_FLAG_SYSCALL_ID is set
    };
    uint64_t m_parId;
    uint64_t m_sysValue;
    uint16_t m_csSize; // always 0: no call stack follows
    uint16_t m_padding[3];
};
using ZorvUmtSyscallRecordT = ZorvUmtSyscallRecord;

struct ZorvUmtProcRecord // body, behind the header
{
    uint64_t m_pthreadId; // 0 for the main thread at start-up
    uint32_t m_reserved;
    char m_name[ZORV_RECORD_NAME_SIZE]; // zero-filled; a name of 32 bytes has no terminator
    uint32_t m_padding;
};
using ZorvUmtProcRecordT = ZorvUmtProcRecord;

struct ZorvUmtThreadEndRecord // body, behind the header
{
    uint64_t m_pthreadId;
};
using ZorvUmtThreadEndRecordT = ZorvUmtThreadEndRecord;

constexpr uint16_t ZORV_UMT_CALL_RECORD_SIZE = sizeof(ZorvUmtRecordHdr) + sizeof(ZorvUmtPthreadRecord);
constexpr uint16_t ZORV_UMT_PROC_RECORD_SIZE = sizeof(ZorvUmtRecordHdr) + sizeof(ZorvUmtProcRecord);
constexpr uint16_t ZORV_UMT_THREAD_END_RECORD_SIZE = sizeof(ZorvUmtRecordHdr) + sizeof(ZorvUmtThreadEndRecord);

// ---- sample file -----------------------------------------------------------------------------------------

enum ZorvUmsFileVersion : uint16_t
{
    ZORV_UMS_FILE_VERSION_NONE = 0,
    ZORV_UMS_FILE_VERSION_1_0 = 1,
    ZORV_UMS_FILE_VERSION_1_1 = 2,
};

enum ZorvUmsRecordType : uint16_t
{
    ZORV_UMS_RECORD_NONE = 0,
    ZORV_UMS_RECORD_PROC = 1,
    ZORV_UMS_RECORD_MMAP = 2, // never written
    ZORV_UMS_RECORD_SAMPLE = 3,
    ZORV_UMS_RECORD_METADATA = 4,
    ZORV_UMS_RECORD_THREAD_END = 5,
};

enum ZorvUmsFlags : uint16_t
{
    ZORV_UMS_NONE = 0,
    ZORV_UMS_CS = 1,  // samples carry call stacks
    ZORV_UMS_PMC = 2, // samples carry counter values
};

using ZorvUmsFileHdr = ZorvUmtFileHdr; // one layout for both kinds of file
using ZorvUmsFileHdrT = ZorvUmsFileHdr;

struct ZorvUmsRecordHdr
{
    int32_t m_pid;
    int32_t m_tid;
    uint16_t m_recType; // ZorvUmsRecordType
    uint16_t m_recSize; // bytes, this header included
    uint16_t m_coreId;  // CPU of the writing thread, 0 in the metadata record
    uint16_t m_flags;   // ZorvUmsFlags
    uint64_t m_startTime;
};
using ZorvUmsRecordHdrT = ZorvUmsRecordHdr;

using ZorvUmsProcRecord = ZorvUmtProcRecord;
using ZorvUmsProcRecordT = ZorvUmsProcRecord;
using ZorvUmsThreadEndRecord = ZorvUmtThreadEndRecord;
using ZorvUmsThreadEndRecordT = ZorvUmsThreadEndRecord;

struct ZorvUmsIpRecord // body, behind the header; m_csLen addresses follow, innermost first
{
    uint64_t m_parId;
    uint32_t m_reserved;
    uint32_t m_csLen;
};
using ZorvUmsIpRecordT = ZorvUmsIpRecord;

struct ZorvUmsEventInfo // behind the call stack, only with counters; m_numEvents entries follow
{
    uint32_t m_numEvents;
    uint32_t m_reserved;
};
using ZorvUmsEventInfoT = ZorvUmsEventInfo;

struct ZorvUmsEventData
{
    uint64_t m_eventCount;
    uint64_t m_timeEnabled;
    uint64_t m_timeRunning;
    uint64_t m_id; // the kernel's event id, perf_event_open(2)
};
using ZorvUmsEventDataT = ZorvUmsEventData;

struct ZorvUmsEventMetaData // body of the metadata record; m_numEvents encoded event ids (uint64) follow
{
    uint32_t m_numEvents;
    uint32_t m_reserved;
};
using ZorvUmsEventMetaDataT = ZorvUmsEventMetaData;

constexpr uint16_t ZORV_UMS_PROC_RECORD_SIZE = sizeof(ZorvUmsRecordHdr) + sizeof(ZorvUmsProcRecord);
constexpr uint16_t ZORV_UMS_THREAD_END_RECORD_SIZE = sizeof(ZorvUmsRecordHdr) + sizeof(ZorvUmsThreadEndRecord);

// ---- the layouts, asserted -------------------------------------------------------------------------------

#define ZORV_ASSERT_FIELD(type, field, offset, size)                                                           \
    static_assert(offsetof(type, field) == (offset) && sizeof(type::field) == (size))

static_assert(sizeof(ZorvUmtFileHdr) == 24);
ZORV_ASSERT_FIELD(ZorvUmtFileHdr, m_magicNum, 0, 8);
ZORV_ASSERT_FIELD(ZorvUmtFileHdr, m_pid, 8, 4);
ZORV_ASSERT_FIELD(ZorvUmtFileHdr, m_mpiRankId, 12, 4);
ZORV_ASSERT_FIELD(ZorvUmtFileHdr, m_fileVersion, 16, 2);
ZORV_ASSERT_FIELD(ZorvUmtFileHdr, m_reserved1, 18, 2);
ZORV_ASSERT_FIELD(ZorvUmtFileHdr, m_reserved2, 20, 4);

static_assert(sizeof(ZorvUmtRecordHdr) == 32);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_recType, 0, 2);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_recSize, 2, 2);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_subType, 4, 2);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_flags, 6, 2);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_startTime, 8, 8);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_endTime, 16, 8);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_pid, 24, 4);
ZORV_ASSERT_FIELD(ZorvUmtRecordHdr, m_tid, 28, 4);

static_assert(sizeof(ZorvUmtPthreadRecord) == 32);
ZORV_ASSERT_FIELD(ZorvUmtPthreadRecord, m_lockAddress, 0, 8);
ZORV_ASSERT_FIELD(ZorvUmtPthreadRecord, m_funcVa, 8, 8);
ZORV_ASSERT_FIELD(ZorvUmtPthreadRecord, m_parId, 16, 8);
ZORV_ASSERT_FIELD(ZorvUmtPthreadRecord, m_retValue, 24, 4);
ZORV_ASSERT_FIELD(ZorvUmtPthreadRecord, m_csSize, 28, 2);

static_assert(sizeof(ZorvUmtSyscallRecord) == 32);
ZORV_ASSERT_FIELD(ZorvUmtSyscallRecord, m_funcVa, 0, 8);
ZORV_ASSERT_FIELD(ZorvUmtSyscallRecord, m_sysCallId, 0, 8);
ZORV_ASSERT_FIELD(ZorvUmtSyscallRecord, m_parId, 8, 8);
ZORV_ASSERT_FIELD(ZorvUmtSyscallRecord, m_sysValue, 16, 8);
ZORV_ASSERT_FIELD(ZorvUmtSyscallRecord, m_csSize, 24, 2);

static_assert(sizeof(ZorvUmtProcRecord) == 48);
ZORV_ASSERT_FIELD(ZorvUmtProcRecord, m_pthreadId, 0, 8);
ZORV_ASSERT_FIELD(ZorvUmtProcRecord, m_reserved, 8, 4);
ZORV_ASSERT_FIELD(ZorvUmtProcRecord, m_name, 12, 32);

static_assert(sizeof(ZorvUmtThreadEndRecord) == 8);
static_assert(ZORV_UMT_CALL_RECORD_SIZE == 64);
static_assert(sizeof(ZorvUmtRecordHdr) + sizeof(ZorvUmtSyscallRecord) == ZORV_UMT_CALL_RECORD_SIZE);
static_assert(ZORV_UMT_PROC_RECORD_SIZE == 80);
static_assert(ZORV_UMT_THREAD_END_RECORD_SIZE == 40);

static_assert(sizeof(ZorvUmsRecordHdr) == 24);
ZORV_ASSERT_FIELD(ZorvUmsRecordHdr, m_pid, 0, 4);
ZORV_ASSERT_FIELD(ZorvUmsRecordHdr, m_tid, 4, 4);
ZORV_ASSERT_FIELD(ZorvUmsRecordHdr, m_recType, 8, 2);
ZORV_ASSERT_FIELD(ZorvUmsRecordHdr, m_recSize, 10, 2);
ZORV_ASSERT_FIELD(ZorvUmsRecordHdr, m_coreId, 12, 2);
ZORV_ASSERT_FIELD(ZorvUmsRecordHdr, m_flags, 14, 2);
ZORV_ASSERT_FIELD(ZorvUmsRecordHdr, m_startTime, 16, 8);

static_assert(sizeof(ZorvUmsIpRecord) == 16);
ZORV_ASSERT_FIELD(ZorvUmsIpRecord, m_parId, 0, 8);
ZORV_ASSERT_FIELD(ZorvUmsIpRecord, m_reserved, 8, 4);
ZORV_ASSERT_FIELD(ZorvUmsIpRecord, m_csLen, 12, 4);

static_assert(sizeof(ZorvUmsEventInfo) == 8);
ZORV_ASSERT_FIELD(ZorvUmsEventInfo, m_numEvents, 0, 4);
static_assert(sizeof(ZorvUmsEventData) == 32);
ZORV_ASSERT_FIELD(ZorvUmsEventData, m_eventCount, 0, 8);
ZORV_ASSERT_FIELD(ZorvUmsEventData, m_timeEnabled, 8, 8);
ZORV_ASSERT_FIELD(ZorvUmsEventData, m_timeRunning, 16, 8);
ZORV_ASSERT_FIELD(ZorvUmsEventData, m_id, 24, 8);
static_assert(sizeof(ZorvUmsEventMetaData) == 8);
ZORV_ASSERT_FIELD(ZorvUmsEventMetaData, m_numEvents, 0, 4);

static_assert(ZORV_UMS_PROC_RECORD_SIZE == 72);
static_assert(ZORV_UMS_THREAD_END_RECORD_SIZE == 32);
