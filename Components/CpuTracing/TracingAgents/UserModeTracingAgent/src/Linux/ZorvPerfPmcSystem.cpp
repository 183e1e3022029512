// What the system says of its counters, read once a process.

#include "ZorvPerfPmcShared.h"

namespace
{

constexpr const char* MSR_EVENT_NAMES[] = {"tsc", "irperf", "aperf", "mperf"}; // from ZORV_PERF_EVENT_TSC on
constexpr uint64_t MSR_EVENT_COUNT = sizeof(MSR_EVENT_NAMES) / sizeof(MSR_EVENT_NAMES[0]);

} // namespace

// The bytes read, or a negative value.
static ssize_t ReadSystemFile(const char* pPath, char* pText, size_t size)
{
    int fd = fnOpenFile(pPath, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    ssize_t length = ZorvUmaRead(fd, pText, size);
    ZorvUmaClose(fd);
    return length;
}

bool ZorvIsNmiWatchdogEnabled()
{
    char state = 0;
    return ReadSystemFile("/proc/sys/kernel/nmi_watchdog", &state, 1) > 0 && state == '1';
}

// Two characters and no more: a type number of three digits is cut.
static int ReadPmcType(const char* pPath, int* pCachedType)
{
    int type = __atomic_load_n(pCachedType, __ATOMIC_RELAXED);
    if (type != -1)
        return type;
    char text[3] = {};
    if (ReadSystemFile(pPath, text, sizeof(text) - 1) > 0)
        type = ZorvUmaAtoi(text);
    __atomic_store_n(pCachedType, type, __ATOMIC_RELAXED);
    return type;
}

int GetMsrPmcType()
{
    static int msrType = -1;
    return ReadPmcType("/sys/bus/event_source/devices/msr/type", &msrType);
}

int GetCorePmcType()
{
    static int coreType = -1;
    return ReadPmcType("/sys/bus/event_source/devices/cpu/type", &coreType);
}

// The event's file reads "event=0x" and the hexadecimal value: four characters from the "0x" on.
static uint64_t ReadPerfMsrEvent(const char* pEventName)
{
    char path[64] = {};
    ZorvUmaSnprintf(path, sizeof(path), "%s%s", "/sys/bus/event_source/devices/msr/events/", pEventName);
    char text[17] = {};
    if (ReadSystemFile(path, text, sizeof(text) - 1) <= 0)
        return UINT64_MAX;
    char digits[5] = {};
    ZorvUmaMemcpy(digits, text + 6, 4);
    return ZorvUmaStrtoull(digits, nullptr, 16);
}

bool GetPerfMsrEvent(uint64_t event, uint64_t* pConfig)
{
    static uint64_t PerfMsrEvent[MSR_EVENT_COUNT] = {UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX};
    uint64_t index = event - ZORV_PERF_EVENT_TSC;
    if (index >= MSR_EVENT_COUNT)
        return false;
    uint64_t config = __atomic_load_n(&PerfMsrEvent[index], __ATOMIC_RELAXED);
    if (config == UINT64_MAX)
    {
        config = ReadPerfMsrEvent(MSR_EVENT_NAMES[index]);
        __atomic_store_n(&PerfMsrEvent[index], config, __ATOMIC_RELAXED);
    }
    *pConfig = config;
    return true;
}
