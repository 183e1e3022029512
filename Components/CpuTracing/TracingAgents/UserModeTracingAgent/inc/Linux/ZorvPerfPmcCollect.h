// Hardware counters of each thread, through perf_event_open(2): opened in groups, switched for one thread or
// for the whole process, and read from the profiling signal's handler.
//
// The functions return 0 (ZorvReadPerfEvent 1) on success and -1 on failure. Nothing is logged here: the reason
// stands in a text of the calling thread, overwritten by each failure, see ZorvGetErrorMsg.
#pragma once

#include "ZorvFunctionTypes.h"

#include <cstddef>
#include <cstdint>
#include <pthread.h>

enum ZorvPmcType : uint32_t // also the index of every array below that has one entry a type
{
    ZORV_PMC_TYPE_START = 0,
    ZORV_PMC_TYPE_PERF = 0, // free-running registers, the kernel's PMU "msr"
    ZORV_PMC_TYPE_CORE = 1, // the processor's counters, the kernel's PMU "cpu"
    ZORV_PMC_TYPE_MAX = 2,
};
using ZorvPmcTypeT = ZorvPmcType;

enum ZorvPerfEvent : uint32_t // event codes of ZORV_PMC_TYPE_PERF
{
    ZORV_PERF_EVENT_TSC = 0xFF00,
    ZORV_PERF_EVENT_IRPERF_READ_ONLY = 0xFF01,
    ZORV_PERF_EVENT_APERF_READ_ONLY = 0xFF02,
    ZORV_PERF_EVENT_MPERF_READ_ONLY = 0xFF03,
    ZORV_PERF_EVENT_MAX = 5,
};

// One reading, laid out like ZorvUmsEventData.
struct ZorvPerfPmcData
{
    uint64_t m_value;       // count since the previous reading, not scaled
    uint64_t m_timeEnabled; // ns, totals of the group
    uint64_t m_timeRunning;
    uint64_t m_id; // the kernel's
};
using ZorvPerfPmcDataT = ZorvPerfPmcData;
static_assert(sizeof(ZorvPerfPmcData) == 32);
static_assert(offsetof(ZorvPerfPmcData, m_timeEnabled) == 8);
static_assert(offsetof(ZorvPerfPmcData, m_timeRunning) == 16);
static_assert(offsetof(ZorvPerfPmcData, m_id) == 24);

struct ZorvFdNode
{
    int m_groupFd; // a group's leader; -1 once its thread has closed it
    ZorvFdNode* m_pNext;
};
using ZorvFdNodeT = ZorvFdNode;

struct ZorvPcmProcessInfo
{
    pthread_mutex_t m_lock;                    // appending to the lists; walks take no lock
    ZorvFdNode* m_pFdList[ZORV_PMC_TYPE_MAX];  // leaders of all threads
    ZorvFdNode* m_pCurNode[ZORV_PMC_TYPE_MAX]; // their tails
    uint32_t m_maxPMCs[ZORV_PMC_TYPE_MAX];     // counters of one group
    bool m_processPmcTypes[ZORV_PMC_TYPE_MAX]; // some thread has opened a group
};
using ZorvPcmProcessInfoT = ZorvPcmProcessInfo;

struct ZorvPcmThreadInfo
{
    bool m_pmcTypes[ZORV_PMC_TYPE_MAX];          // the thread has counters of the type
    int* m_pPmcTypeFds[ZORV_PMC_TYPE_MAX];       // all of them in opening order, then -1
    int* m_pPpmcTypeGroupFds[ZORV_PMC_TYPE_MAX]; // the leaders among them, then -1
    uint32_t m_maxConfiguredFds[ZORV_PMC_TYPE_MAX];
    uint32_t m_maxConfiguredGroupFds[ZORV_PMC_TYPE_MAX];
    uint64_t* m_pPrevCounterValue[ZORV_PMC_TYPE_MAX]; // last raw values in reading order
    char* m_pErrorString;
    int m_errorNum; // errno of the last core counter that could not be opened
    volatile bool m_isIntialized;
};
using ZorvPcmThreadInfoT = ZorvPcmThreadInfo;

extern "C"
{
    ZORV_EXPORT int ZorvAllocateProcessInfo(); // once, on the first thread
    ZORV_EXPORT int ZorvInitializePcmAgent();  // on every thread
    // Opens counters of the calling thread. Those of ZORV_PMC_TYPE_PERF count at once, core counters when
    // started.
    ZORV_EXPORT int ZorvConfigurePerfEvent(uint32_t type, uint32_t nbrEvents, const uint64_t* pEventsList);
    ZORV_EXPORT int ZorvStartPerfEvent(); // the calling thread's counters
    ZORV_EXPORT int ZorvStopPerfEvent();
    ZORV_EXPORT int ZorvStartPerfEventAllThreads(); // the groups of every thread
    ZORV_EXPORT int ZorvStopPerfEventAllThreads();
    // One entry a counter, in the order of configuration. Signal-safe: no lock, no allocation; read(2) sets
    // errno.
    ZORV_EXPORT int ZorvReadPerfEvent(uint32_t type, ZorvPerfPmcData* pData);
    ZORV_EXPORT int ZorvFiniPcmAgent(); // on every thread; on the main thread, for the process too
    ZORV_EXPORT const char* ZorvGetErrorMsg();
    ZORV_EXPORT int ZorvGetErrorNum();
    ZORV_EXPORT int
    ZorvGetP0FreqFromPerf(uint64_t* p0Freq); // ticks of the time-stamp counter in one second; takes it
}
