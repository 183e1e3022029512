// Samples of the threads on their own CPU time: timers, counters, and the profiling signal's handler.
#pragma once

#include "ZorvUserModeTraceHelpers.h"

extern "C"
{
    // Installs the handler and arms the initialising thread. True where sampling is off.
    ZORV_EXPORT bool ZorvUmaConfigureTimerAndPmc(ZorvUmaProfileInfo* pProfileInfo);
    ZORV_EXPORT bool ZorvUmsStartPcmCollection(ZorvUmaProfileInfo* pProfileInfo, bool isThread);
    // The timer measures the calling thread's CPU time and signals that thread. timer_create(2),
    // SIGEV_THREAD_ID.
    ZORV_EXPORT bool ZorvUmsCreateTimer(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo);
    // True also for a thread that has none; a timer id of 0 counts as none.
    ZORV_EXPORT bool ZorvUmsDestroyTimer(ZorvUmaProfileInfo* pProfileInfo, ZorvUmaPerThreadInfo* pThreadInfo);
    ZORV_EXPORT void ZorvUmsSignalHandler(int signum, siginfo_t* pSigInfo, void* pUContext);
    ZORV_EXPORT void ZorvUmsCaptureSampleRecord(ZorvUmaProfileInfo* pProfileInfo);
}

// Addresses that a thread's call-stack buffer holds: the configured depth, and the frames of the handler and of
// the signal's delivery. The sum is of 32 bits: it may wrap, also to none.
constexpr uint32_t ZORV_UMA_HANDLER_FRAMES = 8;
inline uint32_t ZorvUmaCsBufRoom(const ZorvUmaProfileInfo* pProfileInfo)
{
    return pProfileInfo->m_umaConfig.m_callStackDepth + ZORV_UMA_HANDLER_FRAMES;
}

// libc's own signal for cancellations, as a mask of the kernel's; sigfillset(3) and sigaddset(3) leave it out.
constexpr uint64_t ZORV_UMS_CANCELLATION = 1ULL << (__SIGRTMIN - 1);

// Behind the installation of the handler: has the kernel block cancellations in it, which saves every sample a
// system call. Before it is installed anew: until it is closed again the handler does so by itself.
void ZorvUmsCloseHandlerToCancellations(int signum);
void ZorvUmsExpectOpenHandler();

// Finds the unwinder, before the first thread is armed; a failure is logged once, and no sample is written
// then.
void ZorvUmsOpenUnwinder(ZorvUmaProfileInfo* pProfileInfo);
// The unwinder's first use on a thread allocates: it happens in the thread's set-up, never in the handler.
void ZorvUmsPrepareThread(const ZorvUmaProfileInfo* pProfileInfo);
// Behind a dlopen(3) that gave this handle: lets the unwinder know the modules that came.
void ZorvUmsFollowLoader(void* pHandle);
// Around a dlclose(3): nobody unwinds through what it takes away.
void ZorvUmsBeginUnload();
void ZorvUmsEndUnload();
// In a forked child: the turn to unwind may be held by a thread that does not exist here.
void ZorvUmsForgetTurn();
// In the parent, before and behind a fork(2): nobody is inside the unwinder meanwhile.
void ZorvUmsHoldTurnForFork();
void ZorvUmsEndHoldForFork();

// Stops the calling thread's counters and closes them; failures are logged under the caller's name.
void ZorvUmsFiniThreadCounters(ZorvUmaProfileInfo* pProfileInfo, const char* pFunction);
// The same for all threads of the process.
void ZorvUmsFiniProcessCounters(ZorvUmaProfileInfo* pProfileInfo);
// The writer's step: counters stop when a pause begins and start again when it ends.
void ZorvUmsFollowPause(ZorvUmaProfileInfo* pProfileInfo);

// Around an exec: no timer's signal may be pending in the new image, which has no handler for it. Resume after
// a failed exec arms the thread again.
bool ZorvUmsSuspendForExec();
void ZorvUmsResumeAfterExec(bool wasArmed);
