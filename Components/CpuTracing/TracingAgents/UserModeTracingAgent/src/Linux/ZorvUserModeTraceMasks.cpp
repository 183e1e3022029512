// Masks of the program over the profiling signal. Programs block every signal in the threads that work; a
// timer's signal would then stay pending, the thread would never be sampled, and a sigwait(3) on all signals
// would be told of one that nobody sent. So the signal stays open, and the program is told that its mask is as
// it wants it.

#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceLoader.h"
#include "ZorvUserModeTraceSignals.h"

#include <sys/uio.h>

static int ProfilingSignal()
{
    return ZorvUmaGetProfileInfo()->m_umsConfig.m_timerSignalNum;
}

// Whether the program's masks are to leave the signal open, in this thread.
static bool IsSignalKept()
{
    const ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    return pProfileInfo != nullptr && pProfileInfo->m_umsConfig.m_enable &&
           ZorvUmsIsArmedSignal(pProfileInfo->m_umsConfig.m_timerSignalNum);
}

static sigset_t OnlyProfilingSignal()
{
    sigset_t profiling;
    sigemptyset(&profiling);
    sigaddset(&profiling, ProfilingSignal());
    return profiling;
}

// The set without the signal: itself, where it has none.
static const sigset_t* WithoutSignal(const sigset_t* pSet, sigset_t* pCopy)
{
    if (pSet == nullptr || sigismember(pSet, ProfilingSignal()) != 1)
        return pSet;
    *pCopy = *pSet;
    sigdelset(pCopy, ProfilingSignal());
    return pCopy;
}

// What the kernel would read of a set, read by the kernel: for calls that refuse an address that is none.
static bool CopySet(const sigset_t* pSet, sigset_t* pCopy)
{
    constexpr size_t size = _NSIG / 8;
    sigemptyset(pCopy);
    const iovec to = {pCopy, size};
    const iovec from = {const_cast<sigset_t*>(pSet), size};
    return ZorvRawSyscall(SYS_process_vm_readv, ZorvUmaGetPid(), reinterpret_cast<long>(&to), 1,
                          reinterpret_cast<long>(&from), 1) == static_cast<long>(size);
}

const sigset_t* ZorvUmsProgramsSignals(const sigset_t* pSet, sigset_t* pCopy)
{
    if (ZORV_LIKELY(!IsSignalKept() || pSet == nullptr || !CopySet(pSet, pCopy)))
        return pSet;
    sigdelset(pCopy, ProfilingSignal());
    return pCopy;
}

void ZorvUmsAdmitSignal()
{
    const ZorvUmaPerThreadInfo* pThreadInfo = t_zorvState.m_pInfo;
    if (pThreadInfo == nullptr || pThreadInfo->m_timerId == nullptr || !IsSignalKept())
        return;
    sigset_t before;
    const sigset_t profiling = OnlyProfilingSignal();
    ZorvRawSigmask(SIG_UNBLOCK, &profiling, &before);
    if (sigismember(&before, ProfilingSignal()) == 1)
        t_zorvState.m_isSignalUnwanted = true;
}

void ZorvUmsBeginMaskInheritance()
{
    if (ZORV_LIKELY(!t_zorvState.m_isSignalUnwanted))
        return;
    const sigset_t profiling = OnlyProfilingSignal();
    ZorvRawSigmask(SIG_BLOCK, &profiling, nullptr);
}

void ZorvUmsEndMaskInheritance()
{
    if (ZORV_LIKELY(!t_zorvState.m_isSignalUnwanted))
        return;
    const sigset_t profiling = OnlyProfilingSignal();
    ZorvRawSigmask(SIG_UNBLOCK, &profiling, nullptr);
}

// ---- the program's calls ---------------------------------------------------------------------------------

// What the program believes of the signal behind a change of its mask.
static bool IsUnwantedAfter(int how, const sigset_t* pSet)
{
    bool isMember = sigismember(pSet, ProfilingSignal()) == 1;
    if (how == SIG_SETMASK)
        return isMember;
    return how == SIG_BLOCK ? t_zorvState.m_isSignalUnwanted || isMember
                            : t_zorvState.m_isSignalUnwanted && !isMember;
}

static int ChangeMask(void* pReal, int how, const sigset_t* pSet, sigset_t* pOld)
{
    bool wasUnwanted = t_zorvState.m_isSignalUnwanted;
    bool isUnwanted = pSet == nullptr ? wasUnwanted : IsUnwantedAfter(how, pSet);
    sigset_t programs;
    if (how != SIG_UNBLOCK)
        pSet = WithoutSignal(pSet, &programs);
    int result = ZorvCallReal<int>(pReal, how, pSet, pOld);
    if (result != 0)
        return result;
    t_zorvState.m_isSignalUnwanted = isUnwanted;
    if (pOld != nullptr && wasUnwanted)
        sigaddset(pOld, ProfilingSignal());
    return result;
}

// The unwinder masks signals while it holds its lock, through sets that open libc's cancellation signal: a
// thread cancelled there would take the lock along.
static int ChangeMaskOfUnwinder(int how, const sigset_t* pSet, sigset_t* pOld)
{
    sigset_t closed;
    if (pSet != nullptr && how != SIG_UNBLOCK)
    {
        closed = *pSet;
        closed.__val[0] |= 1UL << (__SIGRTMIN - 1);
        pSet = &closed;
    }
    ZorvRawSigmask(how, pSet, pOld);
    return 0;
}

template <ZorvEntryPoint* pEntry, typename, typename> struct GuardedMask
{
    static inline __attribute__((always_inline)) int Call(int how, const sigset_t* pSet, sigset_t* pOld)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (ZORV_UNLIKELY(pReal == nullptr))
            return -1;
        if (ZORV_UNLIKELY(t_zorvState.m_isUnwinding))
            return ChangeMaskOfUnwinder(how, pSet, pOld);
        // So it does for the program, and a sample of this thread would wait for that lock.
        // A child of vfork(2) has a mask of its own and no timer, but its parent's memory.
        if (ZORV_LIKELY(!IsSignalKept() || ZorvUmsIsUnwinder(__builtin_return_address(0)) ||
                        ZorvUmaIsForeign()))
            return ZorvCallReal<int>(pReal, how, pSet, pOld);
        return ChangeMask(pReal, how, pSet, pOld);
    }
};

ZORV_INTERPOSE_SINGLE(GuardedMask, void, ZorvInterposePthreadSigmask, pthread_sigmask, 3, AllOnes)
ZORV_INTERPOSE_SINGLE(GuardedMask, void, ZorvInterposeSigprocmask, sigprocmask, 3, AllOnes)

// The System V forms, of one signal.
template <ZorvEntryPoint* pEntry, bool isHeld> struct OneSignalMask
{
    static int Call(int sig)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (ZORV_UNLIKELY(pReal == nullptr))
            return -1;
        if (ZORV_LIKELY(!ZorvUmsIsArmedSignal(sig) || ZorvUmaIsForeign()))
            return ZorvCallReal<int>(pReal, sig);
        t_zorvState.m_isSignalUnwanted = isHeld;
        return 0;
    }
};

template <ZorvEntryPoint* pEntry, typename, typename> using HoldSignal = OneSignalMask<pEntry, true>;
template <ZorvEntryPoint* pEntry, typename, typename> using ReleaseSignal = OneSignalMask<pEntry, false>;

ZORV_INTERPOSE_SINGLE(HoldSignal, void, ZorvInterposeSighold, sighold, 1, AllOnes)
ZORV_INTERPOSE_SINGLE(ReleaseSignal, void, ZorvInterposeSigrelse, sigrelse, 1, AllOnes)
