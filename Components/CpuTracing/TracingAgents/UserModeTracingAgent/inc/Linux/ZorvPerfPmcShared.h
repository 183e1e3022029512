// What the files of the counters share among themselves; ZorvPerfPmcCollect.h is their public side.
#pragma once

#include "ZorvAgentUtils.h"
#include "ZorvPerfPmcCollect.h"

constexpr uint32_t g_maxFds[ZORV_PMC_TYPE_MAX] = {4, 64};
constexpr uint32_t g_maxGroupFds[ZORV_PMC_TYPE_MAX] = {4, 64};

constexpr uint64_t ZORV_READ_FORMAT_ALONE =
    PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING | PERF_FORMAT_ID;
constexpr uint64_t ZORV_READ_FORMAT_GROUP = ZORV_READ_FORMAT_ALONE | PERF_FORMAT_GROUP;

extern ZorvPcmProcessInfo* g_pProcessInfo;
extern constinit __attribute__((tls_model("initial-exec"))) thread_local ZorvPcmThreadInfo* g_pThreadInfo;

// Leaves the calling thread's error text.
__attribute__((format(printf, 1, 2))) void writeErrorMessage(const char* pFormatString, ...);

// ---- what the system says of its counters ----------------------------------------------------------------

bool ZorvIsNmiWatchdogEnabled(); // it holds one counter of the core
int GetMsrPmcType();             // -1 while the system does not tell, as the next
int GetCorePmcType();
// The config of a pseudo-event, all ones when the system does not tell; false for any other code.
bool GetPerfMsrEvent(uint64_t event, uint64_t* pConfig);

// ---- one counter of the calling thread -------------------------------------------------------------------

// The descriptor, or -1 with the reason in the error text.
int configureMsrPmcEvent(uint64_t event, int groupFd);
int configureCpuPmcEvent(uint64_t event, int groupFd);
// The result of ioctl(2), a failure in the error text.
int startPERFPmcCounting(int fd);
int stopPERFPmcCounting(int fd);
int startPERFGroupPmcCounting(int fd);
int stopPERFGroupPmcCounting(int fd);
void CloseCounters(const ZorvPcmThreadInfo* pThreadInfo, uint32_t type);

// ---- the process record ----------------------------------------------------------------------------------

// Null when there is none; else it stays until LeaveProcessInfo.
ZorvPcmProcessInfo* EnterProcessInfo();
void LeaveProcessInfo();
// Frees the record unless another thread is still inside it, walking the lists or ending.
void FreeProcessInfo(ZorvPcmProcessInfo* pProcessInfo);

void ZorvInsertGroupFd(ZorvPcmProcessInfo* pProcessInfo, uint32_t type, int fd);
// Turns the calling thread's nodes into -1, and waits until no walk can still use a number that it took.
void WithdrawLeaders();
// An earlier record of the calling thread is given up: its counters stay open, and their nodes as they are.
void ForgetOwnNodes();
