// One counter of the calling thread: opened, switched and closed, and the time-stamp counter's frequency.

#include "ZorvAgentWrappers.h"
#include "ZorvPerfPmcShared.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceHelpers.h"

#include <cerrno>

namespace
{

struct ReadFormat // of a counter read alone
{
    uint64_t m_value;
    uint64_t m_timeEnabled;
    uint64_t m_timeRunning;
    uint64_t m_id;
};
static_assert(sizeof(ReadFormat) == 32);

} // namespace

// ---- opening ---------------------------------------------------------------------------------------------

// An object ahead of the agent that opens or closes the counters knows them by the numbers that it gave.
static bool AreOthersNumbers()
{
    void* volatile const functions[] = {reinterpret_cast<void*>(&fnPerfEventOpen),
                                        reinterpret_cast<void*>(&ZorvUmaPerfEventOpen),
                                        reinterpret_cast<void*>(&ZorvUmaClose)};
    for (void* pFunction : functions)
        if (!ZorvUmaIsOwn(pFunction))
            return true;
    return false;
}

static int OpenForThisThread(perf_event_attr* pAttr, int groupFd, unsigned long flags)
{
    int fd = fnPerfEventOpen(pAttr, 0, -1, groupFd, flags);
    return fd <= 0 || AreOthersNumbers() ? fd : ZorvUmaMoveDescriptor(fd);
}

static int OpenMsrCounter(uint64_t event, int groupFd, uint64_t readFormat)
{
    perf_event_attr attr = {};
    uint64_t config;
    if (!GetPerfMsrEvent(event, &config))
        return -1;
    attr.type = static_cast<uint32_t>(GetMsrPmcType());
    attr.size = PERF_ATTR_SIZE_VER5;
    attr.config = config;
    attr.sample_type = PERF_SAMPLE_IDENTIFIER;
    attr.read_format = readFormat;

    // Descriptor 0 counts as a failed first attempt and stays open.
    int fd = OpenForThisThread(&attr, groupFd, PERF_FLAG_FD_CLOEXEC);
    if (fd > 0)
        return fd;
    fd = OpenForThisThread(&attr, groupFd, fd < 0 ? 0 : PERF_FLAG_FD_CLOEXEC);
    if (fd < 0)
        writeErrorMessage("configureMsrPmcEvent failed : %s.", ZorvUmaStrerror(errno));
    return fd < 0 ? -1 : fd;
}

int configureMsrPmcEvent(uint64_t event, int groupFd)
{
    return OpenMsrCounter(event, groupFd, ZORV_READ_FORMAT_GROUP);
}

int configureCpuPmcEvent(uint64_t event, int groupFd)
{
    perf_event_attr attr = {};
    attr.type = static_cast<uint32_t>(GetCorePmcType());
    attr.config = event;
    attr.read_format = ZORV_READ_FORMAT_GROUP;
    attr.disabled = 1;
    attr.exclude_hv = 1;
    attr.exclude_idle = 1;

    int fd = OpenForThisThread(&attr, groupFd, PERF_FLAG_FD_CLOEXEC);
    if (fd >= 0)
        return fd;
    g_pThreadInfo->m_errorNum = errno;
    writeErrorMessage("configureCpuPmcEvent failed : %s.", ZorvUmaStrerror(g_pThreadInfo->m_errorNum));
    return -1;
}

// ---- switching and closing -------------------------------------------------------------------------------

static int CheckSwitch(int result, const char* pFunction, int fd)
{
    if (result < 0)
        writeErrorMessage("%s failed for fd (%d) : %s.", pFunction, fd, ZorvUmaStrerror(errno));
    return result;
}

int startPERFPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctl(fd, PERF_EVENT_IOC_ENABLE), __func__, fd);
}

int stopPERFPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctl(fd, PERF_EVENT_IOC_DISABLE), __func__, fd);
}

int startPERFGroupPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctlWithFlags(fd, PERF_EVENT_IOC_ENABLE, PERF_IOC_FLAG_GROUP), __func__, fd);
}

int stopPERFGroupPmcCounting(int fd)
{
    return CheckSwitch(ZorvUmaIoctlWithFlags(fd, PERF_EVENT_IOC_DISABLE, PERF_IOC_FLAG_GROUP), __func__, fd);
}

void CloseCounters(const ZorvPcmThreadInfo* pThreadInfo, uint32_t type)
{
    for (uint32_t i = 0; i < pThreadInfo->m_maxConfiguredFds[type]; i++)
        if (pThreadInfo->m_pPmcTypeFds[type][i] >= 0)
            ZorvUmaClose(pThreadInfo->m_pPmcTypeFds[type][i]);
}

// ---- frequency -------------------------------------------------------------------------------------------

static bool ReadLoneCounter(int fd, uint64_t* pCount)
{
    ReadFormat reading = {};
    if (ZorvUmaRead(fd, &reading, sizeof(reading)) <= 0)
        return false;
    *pCount = reading.m_value;
    return true;
}

// An interrupted sleep ends early: the result of nanosleep(2) is compared with EINTR, which it never is.
static void SleepOneSecond()
{
    timespec rest = {1, 0};
    long result;
    do
        result = ZorvRawSyscall(SYS_nanosleep, reinterpret_cast<long>(&rest), reinterpret_cast<long>(&rest));
    while (result == EINTR);
}

// The ticks of one second, 0 for none; whether the kernel refused to read the format into a lone counter's
// room.
static uint64_t CountOneSecond(uint64_t readFormat, bool* pIsRefused)
{
    int fd = OpenMsrCounter(ZORV_PERF_EVENT_TSC, -1, readFormat);
    if (fd < 0)
        return 0;
    startPERFPmcCounting(fd);
    uint64_t first = 0;
    uint64_t second = 0;
    errno = 0;
    bool isRead = ReadLoneCounter(fd, &first);
    *pIsRefused = !isRead && errno == ENOSPC;
    if (!*pIsRefused)
    {
        SleepOneSecond();
        isRead = ReadLoneCounter(fd, &second) && isRead;
    }
    stopPERFPmcCounting(fd);
    ZorvUmaClose(fd);
    return isRead ? second - first : 0;
}

extern "C" int ZorvGetP0FreqFromPerf(uint64_t* p0Freq)
{
    if (p0Freq == nullptr)
        return -1;
    *p0Freq = 0;
    bool isRefused = false;
    uint64_t ticks = CountOneSecond(ZORV_READ_FORMAT_GROUP, &isRefused);
    if (isRefused) // kernels want room for a whole group where the group bit is set
        ticks = CountOneSecond(ZORV_READ_FORMAT_ALONE, &isRefused);
    if (ticks == 0)
        return -1;
    *p0Freq = ticks;
    return 0;
}
