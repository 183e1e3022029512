// How the writer rests between its passes, and who ends a rest.
//
// A pass of the poll costs some 40 us of system time, a look at what it would find next to nothing, and to wake
// for the look 20 us. So the writer naps after work, rests longer the longer nothing comes, and is woken by the
// threads that fill buffers. Only the controller's flags have nobody to tell of them: they are looked at every
// 2 ms, so an idle writer stays below 2 % of a CPU and sees stop and pause within 5 ms. A controller that wakes
// its agents itself (QELIX_CONTROLLER_WAKES) lets them sleep.

#include "ZorvAgentControlTypes.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTrace.h"
#include "ZorvUserModeTraceAppend.h"
#include "ZorvUserModeTraceWriter.h"

#include <cerrno>
#include <linux/futex.h>
#include <sys/mman.h>

namespace
{

constexpr long REST_NS = 2000000;
constexpr long SLEEP_NS = 100000000; // whatever the controller has promised
constexpr int MOST_RESTS = 8;        // between two passes, whatever a look finds
constexpr uint64_t NUDGE_PERIOD_NS = 1000000;
constexpr int PILE_OF_BUFFERS = 16;

// The futex word of the rest says how deep it is, and so what ends it.
constexpr uint32_t WRITER_AWAKE = 0;
constexpr uint32_t WRITER_RESTING =
    1; // over in 2 ms: woken at most once a millisecond, or by a pile of buffers
constexpr uint32_t WRITER_RESTS_NO_MORE = 2;
constexpr uint32_t WRITER_NAPPING = 3;  // over at once: woken by a pile of buffers
constexpr uint32_t WRITER_SLEEPING = 4; // woken by every buffer

} // namespace

static bool IsPiledUp(ZorvUmaProfileInfo* pProfileInfo)
{
    int posts = 0;
    sem_getvalue(&pProfileInfo->m_semaphore, &posts);
    return posts >= PILE_OF_BUFFERS;
}

// Whether the next pass would find anything to do.
static bool IsPassDue(ZorvUmaProfileInfo* pProfileInfo)
{
    int posts = 0;
    sem_getvalue(&pProfileInfo->m_semaphore, &posts);
    bool hasCounters = pProfileInfo->m_umsConfig.m_nbrEvents != 0;
    return posts > 0 || ZorvUmaIsFlushing(pProfileInfo) || ZorvUmaIsStopSet(pProfileInfo) ||
           (hasCounters && ZorvUmaIsPauseSet(pProfileInfo) != ZorvUmaStateOf(pProfileInfo)->m_isPauseSeen);
}

// ---- the words that end a rest ---------------------------------------------------------------------------

static uint32_t* SignalOf(ZorvUmaProfileInfo* pProfileInfo)
{
    return &ZorvUmaStateOf(pProfileInfo)->m_writerSignal;
}

static bool ChangeSignal(ZorvUmaProfileInfo* pProfileInfo, uint32_t from, uint32_t to)
{
    return __atomic_compare_exchange_n(SignalOf(pProfileInfo), &from, to, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
}

static void WakeOnSignal(ZorvUmaProfileInfo* pProfileInfo)
{
    ZorvRawSyscall(SYS_futex, reinterpret_cast<long>(SignalOf(pProfileInfo)), FUTEX_WAKE_PRIVATE, 1);
}

// The instruction itself: libc's sleeping calls are traced ones and cancellation points.
static void WaitForSignal(ZorvUmaProfileInfo* pProfileInfo, uint32_t kind, long restNs)
{
    const timespec timeout = {0, restNs};
    ZorvRawSyscall(SYS_futex, reinterpret_cast<long>(SignalOf(pProfileInfo)), FUTEX_WAIT_PRIVATE, kind,
                   reinterpret_cast<long>(&timeout));
}

// The controller's flags as one word that can be waited on; null where there is none.
static const uint32_t* ControlWord(const ZorvUmaProfileInfo* pProfileInfo)
{
    static_assert(offsetof(ZorvAgentSharedInfo, m_umaFlags) == 0 &&
                  offsetof(ZorvAgentSharedDetails, m_isPause) == 0 &&
                  offsetof(ZorvAgentSharedDetails, m_isStop) < sizeof(uint32_t));
    const void* pBlock = pProfileInfo->m_pMappedAddr;
    return pBlock == MAP_FAILED ? nullptr : static_cast<const uint32_t*>(pBlock);
}

// Waits for a thread's signal or a change of the controller's flags, whichever comes first. False where the
// kernel, or what filters the process's system calls, knows no such wait. futex_waitv in the kernel's
// userspace-api/futex2
static bool WaitForAny(ZorvUmaProfileInfo* pProfileInfo, uint32_t kind, const uint32_t* pControl,
                       uint32_t control)
{
    timespec deadline;
    if (g_pClockGetTime == nullptr || g_pClockGetTime(CLOCK_MONOTONIC, &deadline) != 0)
        return false;
    deadline.tv_nsec += SLEEP_NS;
    if (deadline.tv_nsec >= 1000000000)
    {
        deadline.tv_sec++;
        deadline.tv_nsec -= 1000000000;
    }
    const futex_waitv words[] = {
        {kind, reinterpret_cast<uintptr_t>(SignalOf(pProfileInfo)), FUTEX_32 | FUTEX_PRIVATE_FLAG, 0},
        {control, reinterpret_cast<uintptr_t>(pControl), FUTEX_32, 0},
    };
    long result = ZorvRawSyscall(SYS_futex_waitv, reinterpret_cast<long>(words), 2, 0,
                                 reinterpret_cast<long>(&deadline), CLOCK_MONOTONIC);
    return result >= 0 || result == -EAGAIN || result == -ETIMEDOUT || result == -EINTR;
}

// ---- rests -----------------------------------------------------------------------------------------------

long ZorvUmaLongestRest(const ZorvUmaProfileInfo* pProfileInfo)
{
    return ZorvUmaStateOf(pProfileInfo)->m_isWokenByController ? SLEEP_NS : REST_NS;
}

static uint32_t KindOf(long restNs)
{
    return restNs > REST_NS ? WRITER_SLEEPING : restNs > ZORV_BUSY_REST_NS ? WRITER_RESTING : WRITER_NAPPING;
}

static void Rest(ZorvUmaProfileInfo* pProfileInfo, long restNs)
{
    const uint32_t kind = KindOf(restNs);
    if (!ChangeSignal(pProfileInfo, WRITER_AWAKE, kind))
        return;
    const uint32_t* pControl = ControlWord(pProfileInfo);
    const uint32_t control = pControl == nullptr ? 0 : __atomic_load_n(pControl, __ATOMIC_SEQ_CST);
    // Whoever comes now sees the rest and ends it; whoever came before is seen here.
    if (!IsPassDue(pProfileInfo))
    {
        if (kind != WRITER_SLEEPING)
            WaitForSignal(pProfileInfo, kind, restNs);
        else if (pControl == nullptr || !WaitForAny(pProfileInfo, kind, pControl, control))
            ZorvUmaStateOf(pProfileInfo)->m_isWokenByController = false;
    }
    ChangeSignal(pProfileInfo, kind, WRITER_AWAKE);
}

// Up to the rest that looks at the flags, and only from there into the sleep that waits for their wake.
static long NextRest(const ZorvUmaProfileInfo* pProfileInfo, long restNs)
{
    if (restNs >= REST_NS)
        return ZorvUmaLongestRest(pProfileInfo);
    const long longer = restNs + restNs / 4;
    return longer < REST_NS ? longer : REST_NS;
}

void ZorvUmaRestBetweenPasses(ZorvUmaProfileInfo* pProfileInfo, long* pRestNs)
{
    for (int rest = 0; rest < MOST_RESTS && (rest == 0 || !IsPassDue(pProfileInfo)); rest++)
    {
        Rest(pProfileInfo, *pRestNs);
        *pRestNs = NextRest(pProfileInfo, *pRestNs);
    }
}

// ---- wakes -----------------------------------------------------------------------------------------------

static bool IsWakeDue(ZorvUmaProfileInfo* pProfileInfo)
{
    uint64_t* pLast = &ZorvUmaStateOf(pProfileInfo)->m_nudgeTime;
    // Not the clock of the records: what an object ahead of the agent puts there may count its calls.
    timespec time = {};
    if (g_pClockGetTime == nullptr || g_pClockGetTime(CLOCK_MONOTONIC, &time) != 0)
        return true;
    uint64_t now = static_cast<uint64_t>(time.tv_sec) * 1000000000ULL + static_cast<uint64_t>(time.tv_nsec);
    if (!IsPiledUp(pProfileInfo) && now - __atomic_load_n(pLast, __ATOMIC_RELAXED) < NUDGE_PERIOD_NS)
        return false;
    __atomic_store_n(pLast, now, __ATOMIC_RELAXED);
    return true;
}

void ZorvUmaNudgeWriter(ZorvUmaProfileInfo* pProfileInfo)
{
    const uint32_t signal = __atomic_load_n(SignalOf(pProfileInfo), __ATOMIC_SEQ_CST);
    const bool isDue = signal == WRITER_SLEEPING || (signal == WRITER_RESTING && IsWakeDue(pProfileInfo)) ||
                       (signal == WRITER_NAPPING && IsPiledUp(pProfileInfo));
    if (isDue && ChangeSignal(pProfileInfo, signal, WRITER_AWAKE))
        WakeOnSignal(pProfileInfo);
}

void ZorvUmaWakeWriter(ZorvUmaProfileInfo* pProfileInfo)
{
    __atomic_store_n(SignalOf(pProfileInfo), WRITER_RESTS_NO_MORE, __ATOMIC_SEQ_CST);
    WakeOnSignal(pProfileInfo);
}
