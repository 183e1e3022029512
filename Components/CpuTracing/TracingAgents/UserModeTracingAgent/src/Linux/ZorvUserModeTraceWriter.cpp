// What goes straight to the files at the start, and the thread that writes the full buffers.

#include "ZorvUserModeTraceWriter.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTrace.h"
#include "ZorvUserModeTraceAppend.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceSampling.h"

#include <linux/futex.h>

namespace
{

constexpr int MAX_CPUS = 1024;
// A pass of the poll costs some 40 us of system time, a look at what it would find next to nothing. Resting
// this long between looks, an idle writer stays below 2 % of a CPU and sees stop and pause within 5 ms.
constexpr long REST_NS = 2000000;
constexpr int MOST_RESTS = 8; // between two passes, whatever a look finds
// Waking the writer costs a thread as much as a hundred records. One that fills a buffer every 50 us leaves
// that to the writer's own clock, which then rests for a nap only, unless buffers pile up; one that fills them
// seldom has it woken at once.
constexpr long BUSY_REST_NS = 500000;
constexpr uint64_t NUDGE_PERIOD_NS = 1000000;
constexpr int PILE_OF_BUFFERS = 16;
constexpr uint64_t SLICE_NS = 100000;

// States of the futex word of the rest.
constexpr uint32_t WRITER_AWAKE = 0;
constexpr uint32_t WRITER_RESTING = 1;
constexpr uint32_t WRITER_RESTS_NO_MORE = 2;
constexpr uint32_t WRITER_NAPPING = 3; // a rest that is over soon: only a pile of buffers ends it

} // namespace

// ---- file headers and counter metadata -------------------------------------------------------------------

template <typename Hdr> static bool WriteHdr(int fd, const Hdr& hdr)
{
    return ZorvUmaWriteWhole(fd, &hdr, sizeof(hdr)) == static_cast<ssize_t>(sizeof(hdr));
}

extern "C" void ZorvUmaWriteFileHdr(const ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return;
    pid_t pid = ZorvUmaGetPid();
    const ZorvMetadataFileHdr metadataHdr = {ZORV_FILE_MAGIC_NUM, static_cast<uint32_t>(pid), 0,
                                             ZORV_METADATA_FILE_VERSION_1_0};
    const ZorvUmtFileHdr streamHdr = {ZORV_FILE_MAGIC_NUM,       pid, pProfileInfo->m_umaConfig.m_mpiRankId,
                                      ZORV_UMT_FILE_VERSION_1_1, 0,   0};

    if (pProfileInfo->m_metaDataFd >= 0 && !WriteHdr(pProfileInfo->m_metaDataFd, metadataHdr))
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to write the header into metadata file in process (%d).",
                 pid);
    if (pProfileInfo->m_umsConfig.m_enable && pProfileInfo->m_umsData.m_fd >= 0 &&
        !WriteHdr(pProfileInfo->m_umsData.m_fd, streamHdr))
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to write the header into sampling file in process (%d).",
                 pid);
    if (pProfileInfo->m_umtConfig.m_enable && pProfileInfo->m_umtData.m_fd >= 0 &&
        !WriteHdr(pProfileInfo->m_umtData.m_fd, streamHdr))
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to write the header into tracing file in process (%d).",
                 pid);
}

static bool WriteMetadataParts(const ZorvUmaProfileInfo* pProfileInfo, const ZorvUmsRecordHdr& hdr,
                               const void* pBody, size_t bodySize)
{
    int fd = pProfileInfo->m_umsData.m_fd;
    if (fd < 0)
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmsWritePcmMetadata",
                    "Invalid file descriptor for sampling data.");
        return false;
    }
    if (!WriteHdr(fd, hdr))
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmsWritePcmMetadata",
                    "Failed to write pmc meta data header.");
        return false;
    }
    if (ZorvUmaWriteWhole(fd, pBody, bodySize) != static_cast<ssize_t>(bodySize))
    {
        ZORV_LOG_AS(pProfileInfo->m_logFd, ERROR, "ZorvUmsWritePcmMetadata", "Failed to write pmc meta data.");
        return false;
    }
    return true;
}

extern "C" bool ZorvUmsWritePcmMetadata(const ZorvUmaProfileInfo* pProfileInfo)
{
    if (ZorvUmaIsCollectionStopped(pProfileInfo) || !pProfileInfo->m_umsConfig.m_enable ||
        pProfileInfo->m_umsConfig.m_nbrEvents == 0)
        return false;
    const ZorvUmsConfig* pConfig = &pProfileInfo->m_umsConfig;
    size_t idsSize = sizeof(uint64_t) * pConfig->m_nbrEvents;
    size_t bodySize = sizeof(ZorvUmsEventMetaData) + idsSize;
    auto pBody = static_cast<ZorvUmsEventMetaData*>(ZorvUmaMalloc(bodySize));
    if (pBody == nullptr)
        return false;
    *pBody = {pConfig->m_nbrEvents, 0};
    ZorvUmaMemcpy(pBody + 1, pConfig->m_encodedEvents, idsSize);

    const ZorvUmsRecordHdr hdr = {ZorvUmaGetPid(),
                                  ZorvUmaGetTid(),
                                  ZORV_UMS_RECORD_METADATA,
                                  static_cast<uint16_t>(sizeof(ZorvUmsRecordHdr) + bodySize),
                                  0,
                                  pConfig->m_configFlags,
                                  0};
    bool isWritten = WriteMetadataParts(pProfileInfo, hdr, pBody, bodySize);
    ZorvUmaFree(pBody);
    return isWritten;
}

// ---- rest and wake ---------------------------------------------------------------------------------------

static bool IsFlushing(const ZorvUmaProfileInfo* pProfileInfo)
{
    return __atomic_load_n(&pProfileInfo->m_isFlush, __ATOMIC_SEQ_CST);
}

// Whether the next pass would find anything to do.
static bool IsPassDue(ZorvUmaProfileInfo* pProfileInfo)
{
    int posts = 0;
    sem_getvalue(&pProfileInfo->m_semaphore, &posts);
    bool hasCounters = pProfileInfo->m_umsConfig.m_nbrEvents != 0;
    return posts > 0 || IsFlushing(pProfileInfo) || ZorvUmaIsStopSet(pProfileInfo) ||
           (hasCounters && ZorvUmaIsPauseSet(pProfileInfo) != ZorvUmaStateOf(pProfileInfo)->m_isPauseSeen);
}

static bool ChangeSignal(ZorvUmaProfileInfo* pProfileInfo, uint32_t from, uint32_t to)
{
    return __atomic_compare_exchange_n(&ZorvUmaStateOf(pProfileInfo)->m_writerSignal, &from, to, false,
                                       __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

static long Futex(ZorvUmaProfileInfo* pProfileInfo, int operation, uint32_t value, const timespec* pTimeout)
{
    return ZorvRawSyscall(SYS_futex, reinterpret_cast<long>(&ZorvUmaStateOf(pProfileInfo)->m_writerSignal),
                          operation, value, reinterpret_cast<long>(pTimeout));
}

// The instruction itself: libc's sleeping calls are traced ones and cancellation points.
static void Rest(ZorvUmaProfileInfo* pProfileInfo, long restNs)
{
    const uint32_t kind = restNs > BUSY_REST_NS ? WRITER_RESTING : WRITER_NAPPING;
    if (!ChangeSignal(pProfileInfo, WRITER_AWAKE, kind))
        return;
    // Whoever comes now sees the rest and ends it; whoever came before is seen here.
    if (!IsPassDue(pProfileInfo))
    {
        const timespec timeout = {0, restNs};
        Futex(pProfileInfo, FUTEX_WAIT_PRIVATE, kind, &timeout);
    }
    ChangeSignal(pProfileInfo, kind, WRITER_AWAKE);
}

static bool IsPiledUp(ZorvUmaProfileInfo* pProfileInfo)
{
    int posts = 0;
    sem_getvalue(&pProfileInfo->m_semaphore, &posts);
    return posts >= PILE_OF_BUFFERS;
}

static bool IsNudgeDue(ZorvUmaProfileInfo* pProfileInfo, uint32_t signal)
{
    if (signal != WRITER_RESTING)
        return signal == WRITER_NAPPING && IsPiledUp(pProfileInfo);
    uint64_t* pLast = &ZorvUmaStateOf(pProfileInfo)->m_nudgeTime;
    // libc's own clock, not that of the records: what an object ahead of the agent puts there may count its
    // calls.
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
    uint32_t* pSignal = &ZorvUmaStateOf(pProfileInfo)->m_writerSignal;
    const uint32_t signal = __atomic_load_n(pSignal, __ATOMIC_SEQ_CST);
    if (IsNudgeDue(pProfileInfo, signal) && ChangeSignal(pProfileInfo, signal, WRITER_AWAKE))
        Futex(pProfileInfo, FUTEX_WAKE_PRIVATE, 1, nullptr);
}

void ZorvUmaWakeWriter(ZorvUmaProfileInfo* pProfileInfo)
{
    __atomic_store_n(&ZorvUmaStateOf(pProfileInfo)->m_writerSignal, WRITER_RESTS_NO_MORE, __ATOMIC_SEQ_CST);
    Futex(pProfileInfo, FUTEX_WAKE_PRIVATE, 1, nullptr);
}

// ---- writer thread ---------------------------------------------------------------------------------------

// Whatever CPUs and scheduling class the program gave to the thread that created it, the writer runs anywhere
// and never ahead of the program's threads.
static void LeaveProgramsScheduling(const ZorvUmaProfileInfo* pProfileInfo)
{
    // Asked before the thread started where possible: the answer comes from a file, whose number the program
    // might get.
    long known = ZorvUmaStateOf(pProfileInfo)->m_cpuCount;
    long cpus = known > 0 ? known : ZorvUmaSysconf(_SC_NPROCESSORS_CONF);
    if (cpus > 0)
    {
        cpu_set_t set;
        CPU_ZERO(&set);
        for (long cpu = 0; cpu < cpus && cpu < MAX_CPUS; cpu++)
            CPU_SET(cpu, &set);
        ZorvUmaPthreadSetAffinity(ZorvUmaPthreadSelf(), sizeof(set), &set);
    }
    struct sched_attr // sched_setattr(2); libc has no such call
    {
        uint32_t m_size;
        uint32_t m_policy;
        uint64_t m_flags;
        int32_t m_nice;
        uint32_t m_priority;
        uint64_t m_runtime;
        uint64_t m_deadline;
        uint64_t m_period;
    } attr = {};
    if (ZorvRawSyscall(SYS_sched_getattr, 0, reinterpret_cast<long>(&attr), sizeof(attr), 0) != 0)
        return;
    if (attr.m_policy == SCHED_FIFO || attr.m_policy == SCHED_RR || attr.m_policy == SCHED_DEADLINE)
        attr.m_policy = SCHED_OTHER;
    attr.m_size = sizeof(attr);
    attr.m_priority = 0;
    // It runs often and briefly: with a slice of that length it waits for no thread that computes. Kernels
    // before 6.12 take no slice from here.
    attr.m_runtime = attr.m_policy == SCHED_OTHER ? SLICE_NS : 0;
    ZorvRawSyscall(SYS_sched_setattr, 0, reinterpret_cast<long>(&attr), 0);
}

// Whether a post was there to be taken.
static bool DrainQueues(ZorvUmaProfileInfo* pProfileInfo)
{
    if (ZorvUmaSemWait(pProfileInfo) != 0)
        return false;
    if (pProfileInfo->m_umsConfig.m_enable)
        ZorvUmaWriteBuffer(&pProfileInfo->m_umsData, pProfileInfo->m_logFd);
    if (pProfileInfo->m_umtConfig.m_enable)
        ZorvUmaWriteBuffer(&pProfileInfo->m_umtData, pProfileInfo->m_logFd);
    return true;
}

static void RunWriter(ZorvUmaProfileInfo* pProfileInfo)
{
    long restNs = REST_NS;
    while (!IsFlushing(pProfileInfo))
    {
        if (pProfileInfo->m_umsConfig.m_nbrEvents != 0)
            ZorvUmsFollowPause(pProfileInfo);
        bool hasWorked = DrainQueues(pProfileInfo);
        if (ZorvUmaIsStopSet(pProfileInfo) && !IsFlushing(pProfileInfo))
            ZorvUmaFiniProcess(pProfileInfo, true);
        if (IsFlushing(pProfileInfo))
            return;
        if (hasWorked)
        {
            restNs = BUSY_REST_NS;
            continue;
        }
        for (int rest = 0; rest < MOST_RESTS && (rest == 0 || !IsPassDue(pProfileInfo)); rest++)
        {
            Rest(pProfileInfo, restNs);
            restNs = restNs < REST_NS ? restNs + restNs / 4 : REST_NS;
        }
    }
}

extern "C" void* ZorvUmaWriterThread(void* pArg)
{
    auto pProfileInfo = static_cast<ZorvUmaProfileInfo*>(pArg);
    if (pProfileInfo == nullptr)
        return nullptr;
    if (ZorvUmaAllocateThreadInfo(pProfileInfo) == nullptr)
    {
        ZORV_LOG(pProfileInfo->m_logFd, ERROR, "Failed to allocate memory in writer thread.");
        __atomic_store_n(&ZorvUmaStateOf(pProfileInfo)->m_isWriterDone, true, __ATOMIC_SEQ_CST);
        return nullptr;
    }
    LeaveProgramsScheduling(pProfileInfo);
    ZorvUmaSetCurrentThreadName("ZorUmtWriter");
    ZORV_LOG(pProfileInfo->m_logFd, INFO, "Writer thread id is (%d).", ZorvUmaGetTid());

    RunWriter(pProfileInfo);

    ZORV_LOG(pProfileInfo->m_logFd, INFO, "Timer overrun count (%lu).",
             static_cast<unsigned long>(pProfileInfo->m_timerOverrunCnt));
    ZORV_LOG(pProfileInfo->m_logFd, INFO, "Exit from the writer thread (%d).", ZorvUmaGetTid());
    __atomic_store_n(&ZorvUmaStateOf(pProfileInfo)->m_isWriterDone, true, __ATOMIC_SEQ_CST);
    ZorvUmaFreeThreadInfo();
    // Returning ends the thread like pthread_exit(NULL), which would make libc load its unwinder first, and
    // that aborts a program whose descriptor table is full.
    return nullptr;
}
