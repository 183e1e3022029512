// The floor of an agent that records: around the call the clock is read twice, a 64-byte record is parked
// before it and completed after it with one atomic add. The buffer has the agent's size and wraps instead of
// being written, so nothing here is a system call, an allocation or a second thread.
#define _GNU_SOURCE
#include "FloorCalls.h"

#include <dlfcn.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum
{
    FLOOR_BUFFER_SIZE = 32768,
    FLOOR_RECORD_TYPE = 1,
};

struct FloorRecord
{
    uint16_t m_recType;
    uint16_t m_recSize;
    uint16_t m_subType;
    uint16_t m_flags;
    uint64_t m_startTime;
    uint64_t m_endTime;
    int32_t m_pid;
    int32_t m_tid;
    uint64_t m_object;
    uint64_t m_funcVa;
    uint64_t m_parId;
    int32_t m_retValue;
    uint16_t m_csSize;
    uint16_t m_padding;
};
_Static_assert(sizeof(struct FloorRecord) == 64, "the record of the agent has 64 bytes");

struct FloorBuffer
{
    uint32_t m_dataLen;
    int32_t m_pid;
    int32_t m_tid;
    uint8_t m_data[FLOOR_BUFFER_SIZE] __attribute__((aligned(64)));
};

static __thread struct FloorBuffer g_buffer;

static uint64_t Now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

static __attribute__((noinline, cold)) void LearnIds(void)
{
    g_buffer.m_pid = getpid();
    g_buffer.m_tid = gettid();
}

static inline struct FloorRecord* Park(uint64_t startTime, uint64_t object, uint64_t funcVa)
{
    if (FLOOR_UNLIKELY(!g_buffer.m_tid))
        LearnIds();
    if (FLOOR_UNLIKELY(g_buffer.m_dataLen + sizeof(struct FloorRecord) >= FLOOR_BUFFER_SIZE))
        g_buffer.m_dataLen = 0;
    struct FloorRecord* pRecord = (struct FloorRecord*)(g_buffer.m_data + g_buffer.m_dataLen);
    *pRecord = (struct FloorRecord){
        .m_recType = FLOOR_RECORD_TYPE,
        .m_recSize = sizeof(struct FloorRecord),
        .m_subType = 1,
        .m_startTime = startTime,
        .m_endTime = UINT64_MAX,
        .m_pid = g_buffer.m_pid,
        .m_tid = g_buffer.m_tid,
        .m_object = object,
        .m_funcVa = funcVa,
    };
    return pRecord;
}

static inline void Complete(struct FloorRecord* pRecord, uint64_t endTime, int32_t retValue)
{
    pRecord->m_endTime = endTime;
    pRecord->m_retValue = retValue;
    __atomic_fetch_add(&g_buffer.m_dataLen, sizeof(struct FloorRecord), __ATOMIC_SEQ_CST);
}

#define RECORD_CALL(name, result, parameters, arguments, object)                                               \
    FLOOR_EXPORT result name parameters                                                                        \
    {                                                                                                          \
        static result(*s_pReal) parameters;                                                                    \
        if (FLOOR_UNLIKELY(!s_pReal))                                                                          \
            *(void**)&s_pReal = dlsym(RTLD_NEXT, #name);                                                       \
        struct FloorRecord* pRecord = Park(Now(), (object), (uintptr_t)s_pReal);                               \
        const result value = s_pReal arguments;                                                                \
        Complete(pRecord, Now(), (int32_t)value);                                                              \
        return value;                                                                                          \
    }

FLOOR_CALLS(RECORD_CALL)
