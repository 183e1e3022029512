// Small utilities over the wrappers: shared memory, opening of descriptors, and the module map.
#pragma once

#include "ZorvAgentWrappers.h"

#include <cstdint>
#include <sys/types.h>

extern "C"
{
    // Opens or creates the object and maps `size` bytes of it; a new object is zeroed. The address; null when
    // the object cannot be had; MAP_FAILED when only the mapping failed. shm_overview(7).
    ZORV_EXPORT void* fnOpenSharedMemory(const char* pName, size_t size, int* pFd);
    ZORV_EXPORT bool fnCloseSharedMemory(int fd, void* pAddr, size_t size);
    ZORV_EXPORT bool fnUnlinkSharedMemory(const char* pName, void* pAddr, size_t size);

    // Raises the soft limit on open descriptors to the hard limit; true when that changed it. getrlimit(2).
    ZORV_EXPORT bool fnIncreaseFdLimit();
    // open(2) and perf_event_open(2), once more after EMFILE when the limit could be raised. Both clear errno
    // first.
    ZORV_EXPORT int fnOpenFile(const char* pPathname, int flags, mode_t mode);
    ZORV_EXPORT int fnPerfEventOpen(struct perf_event_attr* pAttr, pid_t pid, int cpu, int groupFd,
                                    unsigned long flags);

    // ---- module map: one record for each executable mapping, written straight to the metadata file
    // -----------

    // Lists every executable mapping that has a path, from proc(5) maps; all records carry one time. True
    // unless a write failed or the input was bad. Keeps no state of libc's: it may run in the middle of the
    // program's own strtok(3).
    ZORV_EXPORT bool fnWriteProcessMaps(pid_t pid, int fd);
    // pathLen bytes of the path, without its terminating zero. Times are ns of CLOCK_MONOTONIC.
    ZORV_EXPORT bool fnWriteMmapRecord(uint64_t time, uint64_t startAddr, uint64_t endAddr, int fd,
                                       const char* pFilePath, int pathLen, pid_t pid);
}

// How the records of the module map reach their file; the agent puts its own guarded write here.
extern ssize_t (*g_pWriteMmapBytes)(int fd, const void* pBuf, size_t count);
