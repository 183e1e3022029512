// Calls that reach into the agent's own state: the profiling signal, a thread's name, and raw system calls.

#include "ZorvUserModeTraceSignals.h"
#include "ZorvUserModeTraceInterposers.h"
#include "ZorvUserModeTraceProcess.h"
#include "ZorvUserModeTraceSampling.h"

#include <cerrno>
#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

extern "C" __sighandler_t __sysv_signal(int sig, __sighandler_t handler) noexcept;

// ---- sigaction, signal -----------------------------------------------------------------------------------

bool ZorvUmsIsProfilingSignal(int sig)
{
    const ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    // While no signal is configured its number is 0, which is no signal at all.
    // After the end of the collection the signal is the program's.
    return sig != 0 && pProfileInfo != nullptr && sig == pProfileInfo->m_umsConfig.m_timerSignalNum &&
           !pProfileInfo->m_isFlush;
}

static bool IsRealHandler(__sighandler_t handler)
{
    return handler != SIG_DFL && handler != SIG_IGN;
}

// A program that saves all actions and puts them back later, as debuggers do, takes nothing from us.
static bool IsOurHandler(__sighandler_t handler)
{
    return reinterpret_cast<void*>(handler) == reinterpret_cast<void*>(&ZorvUmsSignalHandler);
}

static bool IsOurAction(const struct sigaction* pAction)
{
    return (pAction->sa_flags & SA_SIGINFO) != 0 && IsOurHandler(pAction->sa_handler);
}

// signal(2) would hand our handler on without what it is to be told.
static ZORV_COLD __sighandler_t PutOurHandlerBack(int sig)
{
    struct sigaction ours = {};
    struct sigaction old = {};
    ours.sa_sigaction = ZorvUmsSignalHandler;
    ours.sa_flags = SA_RESTART | SA_SIGINFO;
    ZorvUmsExpectOpenHandler();
    bool isInstalled = ZorvUmaSigAction(sig, &ours, &old) == 0;
    ZorvUmsCloseHandlerToCancellations(sig);
    return isInstalled ? old.sa_handler : SIG_ERR;
}

static bool InstallsHandler(const struct sigaction* pAction)
{
    if (pAction == nullptr)
        return false;
    if ((pAction->sa_flags & SA_SIGINFO) != 0)
        return pAction->sa_sigaction != nullptr;
    return IsRealHandler(pAction->sa_handler);
}

// The program takes the agent's signal: the launcher is told, and the process ends, one way or the other.
static ZORV_COLD void RefuseSignal(int sig)
{
    int savedErrno = errno;
    if (!ZorvUmaWriteErrorFile(ZorvUmaGetProfileInfo(), ZORV_AGENT_ERROR_PROFILING_SIGNAL))
    {
        ZorvUmaFprintf(
            stderr,
            "ERROR : Application has own signal handler for signal (%d). Provide un-used realtime signal "
            "with --profiling-signal.\n",
            sig);
        ZorvUmaFileFlush(stderr);
        ZorvUmaExit(0);
    }
    errno = savedErrno;
}

template <ZorvEntryPoint* pEntry, typename, typename Pointer>
using OtherCall = ZorvGatedCall<ZorvDirectPattern, pEntry,
                                ZorvCallClass{ZORV_SYSCALL_TYPE_OTHER, ZORV_UMT_EVENT_SYSCALL}, Pointer>;

// A program that resets every signal must not die of a timer that it does not know of: while this process
// samples, the handler stays and the program is told that its call was done. It may ignore the signal.
bool ZorvUmsIsArmedSignal(int sig)
{
    return ZorvUmsIsProfilingSignal(sig) && ZorvUmaGetProfileInfo()->m_umsConfig.m_enable;
}

// libc refuses a number that is none, and the two that it keeps for itself, before it looks at the action.
static bool IsProgramsSignal(int sig)
{
    return sig > 0 && sig < _NSIG && (sig < __SIGRTMIN || sig >= SIGRTMIN);
}

template <ZorvEntryPoint* pEntry, typename Detail, typename Pointer> struct GuardedSigaction
{
    // The call is made, and asks only.
    static ZORV_COLD int Pretend(int sig, struct sigaction* pOldAction)
    {
        struct sigaction current = {};
        int result = OtherCall<pEntry, Detail, Pointer>::Call(sig, nullptr, &current);
        if (result == 0 && pOldAction != nullptr)
            *pOldAction = {}; // what the program had before: the default
        return result;
    }

    // What the program puts back was installed with an empty mask, and looks so.
    static ZORV_COLD int OfProfilingSignal(int sig, const struct sigaction* pAction,
                                           struct sigaction* pOldAction)
    {
        if (pAction != nullptr)
            ZorvUmsExpectOpenHandler();
        int result = OtherCall<pEntry, Detail, Pointer>::Call(sig, pAction, pOldAction);
        if (pAction != nullptr && InstallsHandler(pAction))
            ZorvUmsCloseHandlerToCancellations(sig);
        if (result == 0 && pOldAction != nullptr)
            pOldAction->sa_mask.__val[0] &= ~ZORV_UMS_CANCELLATION;
        return result;
    }

    static int Call(int sig, const struct sigaction* pAction, struct sigaction* pOldAction)
    {
        if (ZORV_UNLIKELY(ZorvUmsIsProfilingSignal(sig) && InstallsHandler(pAction) && !IsOurAction(pAction)))
            RefuseSignal(sig);
        if (ZORV_UNLIKELY(ZorvUmsIsArmedSignal(sig) && pAction != nullptr && pAction->sa_handler == SIG_DFL))
            return Pretend(sig, pOldAction);
        if (IsProgramsSignal(sig) && InstallsHandler(pAction) && (pAction->sa_flags & SA_NODEFER) != 0)
            ZorvUmaExpectNestedHandlers();
        if (ZORV_UNLIKELY(ZorvUmsIsProfilingSignal(sig)))
            return OfProfilingSignal(sig, pAction, pOldAction);
        return OtherCall<pEntry, Detail, Pointer>::Call(sig, pAction, pOldAction);
    }
};

template <ZorvEntryPoint* pEntry, typename Detail, typename Pointer> struct GuardedSignal
{
    static __sighandler_t Call(int sig, __sighandler_t handler)
    {
        if (ZORV_UNLIKELY(ZorvUmsIsProfilingSignal(sig) && IsRealHandler(handler)))
        {
            if (IsOurHandler(handler))
                return PutOurHandlerBack(sig);
            RefuseSignal(sig);
        }
        if (ZORV_UNLIKELY(ZorvUmsIsArmedSignal(sig) && handler == SIG_DFL))
            return SIG_DFL;
        return OtherCall<pEntry, Detail, Pointer>::Call(sig, handler);
    }
};

ZORV_INTERPOSE_SINGLE(GuardedSigaction, void, ZorvInterposeSigaction, sigaction, 3, AllOnes)
ZORV_INTERPOSE_SINGLE(GuardedSignal, void, ZorvInterposeSignal, signal, 2, Zero)

// Its handlers run with their own signal open.
template <ZorvEntryPoint* pEntry, typename Detail, typename Pointer> struct GuardedSysvSignal
{
    static __sighandler_t Call(int sig, __sighandler_t handler)
    {
        if (IsRealHandler(handler))
            ZorvUmaExpectNestedHandlers();
        return GuardedSignal<pEntry, Detail, Pointer>::Call(sig, handler);
    }
};

ZORV_INTERPOSE_SINGLE(GuardedSysvSignal, void, ZorvInterposeSysvSignal, __sysv_signal, 2, Zero)

// The System V call, which also holds a signal back. It leaves no record.
template <ZorvEntryPoint* pEntry, typename, typename> struct GuardedSigset
{
    static __sighandler_t Call(int sig, __sighandler_t handler)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return SIG_ERR;
        bool takesSignal = IsRealHandler(handler) && handler != SIG_HOLD;
        if (ZORV_UNLIKELY(ZorvUmsIsProfilingSignal(sig) && takesSignal))
            RefuseSignal(sig);
        if (ZORV_LIKELY(!ZorvUmsIsArmedSignal(sig) || (handler != SIG_DFL && handler != SIG_HOLD)))
            return ZorvCallReal<__sighandler_t>(pReal, sig, handler);
        bool wasHeld = t_zorvState.m_isSignalUnwanted;
        t_zorvState.m_isSignalUnwanted = handler == SIG_HOLD;
        return wasHeld ? SIG_HOLD : SIG_DFL;
    }
};

ZORV_INTERPOSE_SINGLE(GuardedSigset, void, ZorvInterposeSigset, sigset, 2, Zero)

// ---- prctl -----------------------------------------------------------------------------------------------

static void WriteNewName(ZorvUmaProfileInfo* pProfileInfo)
{
    int savedErrno = errno;
    char name[ZORV_RECORD_NAME_SIZE] = {};
    if (ZorvUmaGetThreadName(name) == 0)
        ZorvUmaWriteProcRecord(pProfileInfo, ZorvUmaGetTid(), name, static_cast<int>(ZorvUmaStrlen(name)),
                               ZorvUmaGetTime(), 0);
    errno = savedErrno;
}

template <ZorvEntryPoint* pEntry, typename, typename> struct NamingPrctl
{
    // That the collection has not stopped is known by now: only the switch is asked.
    static int Timed(ZorvUmaProfileInfo* pProfileInfo, void* pReal, int option, unsigned long a2,
                     unsigned long a3, unsigned long a4, unsigned long a5)
    {
        if (!ZorvUmtIsEventEnabled(pProfileInfo, ZORV_UMT_EVENT_SYSCALL))
            return ZorvCallReal<int>(pReal, option, a2, a3, a4, a5);
        ZorvTracedCall call = {};
        call.m_pProfileInfo = pProfileInfo;
        call.m_funcVa = reinterpret_cast<uint64_t>(pReal);
        call.m_class = {ZORV_SYSCALL_TYPE_OTHER, ZORV_UMT_EVENT_SYSCALL};
        return ZorvDirectPattern::Run<ZorvHalvesOutOfLine, int>(&call, pReal, option, a2, a3, a4, a5);
    }

    static int Call(int option, unsigned long a2, unsigned long a3, unsigned long a4, unsigned long a5)
    {
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        void* pReal = ZorvRealOf(pEntry);
        if (pReal == nullptr)
            return -1;
        if (ZorvUmaIsCollectionStopped(pProfileInfo))
            return ZorvCallReal<int>(pReal, option, a2, a3, a4, a5);
        int result = Timed(pProfileInfo, pReal, option, a2, a3, a4, a5);
        if (option == PR_SET_NAME && result == 0)
            WriteNewName(pProfileInfo);
        return result;
    }
};

ZORV_INTERPOSE_SINGLE(NamingPrctl, void, ZorvInterposePrctl, prctl, 1_4WORDS, AllOnes)

// ---- syscall ---------------------------------------------------------------------------------------------

// The waiting operations of futex(2), as bits of their numbers.
static constexpr uint32_t g_waitingFutexOps = 1U << FUTEX_WAIT | 1U << FUTEX_LOCK_PI | 1U << FUTEX_TRYLOCK_PI |
                                              1U << FUTEX_WAIT_BITSET | 1U << FUTEX_WAIT_REQUEUE_PI;
static_assert(g_waitingFutexOps == 0xb41);

static bool IsWaitingFutex(unsigned long operation)
{
    auto plain =
        static_cast<uint32_t>(operation) & ~static_cast<uint32_t>(FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME);
    return plain <= FUTEX_WAIT_REQUEUE_PI && (g_waitingFutexOps >> plain & 1U) != 0;
}

// The reset of every signal, by its number: the kernel's structure begins with the handler.
static bool ResetsArmedSignal(long number, unsigned long sig, unsigned long action)
{
    return number == SYS_rt_sigaction && action != 0 && ZorvUmsIsArmedSignal(static_cast<int>(sig)) &&
           *reinterpret_cast<const __sighandler_t*>(action) == SIG_DFL;
}

template <ZorvEntryPoint* pEntry, typename, typename> struct RawSyscall
{
    static __attribute__((noinline)) long Futex(void* pReal, unsigned long a1, unsigned long a2,
                                                unsigned long a3, unsigned long a4, unsigned long a5,
                                                unsigned long a6)
    {
        constexpr long number = SYS_futex;
        ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
        if (!ZorvUmtIsTraceEvent(pProfileInfo, ZORV_UMT_EVENT_LOCK))
            return ZorvCallReal<long>(pReal, number, a1, a2, a3, a4, a5, a6);
        ZorvTracedCall call;
        call.m_pProfileInfo = pProfileInfo;
        call.m_funcVa = number;
        call.m_value = a1;
        call.m_class = {ZORV_SYSCALL_TYPE_RESOURCE_WAIT, ZORV_UMT_EVENT_LOCK};
        call.m_flags = ZORV_UMT_FLAG_SYSCALL_ID;
        return ZorvParkedPattern::Run<ZorvHalvesOutOfLine, long>(&call, pReal, number, a1, a2, a3, a4, a5, a6);
    }

    static long Call(long number, unsigned long a1, unsigned long a2, unsigned long a3, unsigned long a4,
                     unsigned long a5, unsigned long a6)
    {
        void* pReal = ZorvRealOf(pEntry);
        if (ZORV_UNLIKELY(pReal == nullptr))
            return -1;
        if (number == SYS_futex && IsWaitingFutex(a2))
            return Futex(pReal, a1, a2, a3, a4, a5, a6);
        if (ZORV_UNLIKELY(ResetsArmedSignal(number, a1, a2)))
            return 0;
        if (ZORV_UNLIKELY(number == SYS_exit || number == SYS_exit_group))
            ZorvUmaFiniDyingProcess();
        return ZorvCallReal<long>(pReal, number, a1, a2, a3, a4, a5, a6);
    }
};

ZORV_INTERPOSE_SINGLE(RawSyscall, void, ZorvInterposeSyscall, syscall, 1_6WORDS, AllOnes)
