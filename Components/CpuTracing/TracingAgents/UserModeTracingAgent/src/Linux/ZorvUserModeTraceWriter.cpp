// What goes straight to the files at the start, and the thread that writes the full buffers.

#include "ZorvUserModeTraceWriter.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTrace.h"
#include "ZorvUserModeTraceLog.h"
#include "ZorvUserModeTraceSampling.h"

namespace
{

constexpr int MAX_CPUS = 1024;
constexpr uint64_t SLICE_NS = 100000;

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
    long restNs = ZorvUmaLongestRest(pProfileInfo);
    while (!ZorvUmaIsFlushing(pProfileInfo))
    {
        if (pProfileInfo->m_umsConfig.m_nbrEvents != 0)
            ZorvUmsFollowPause(pProfileInfo);
        bool hasWorked = DrainQueues(pProfileInfo);
        if (ZorvUmaIsStopSet(pProfileInfo) && !ZorvUmaIsFlushing(pProfileInfo))
            ZorvUmaFiniProcess(pProfileInfo, true);
        if (ZorvUmaIsFlushing(pProfileInfo))
            return;
        if (hasWorked)
        {
            restNs = ZORV_BUSY_REST_NS;
            continue;
        }
        ZorvUmaRestBetweenPasses(pProfileInfo, &restNs);
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
