// Time and memory as the kernel accounts them to this process.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static inline uint64_t BenchTime(clockid_t clock)
{
    struct timespec now;
    if (clock_gettime(clock, &now) != 0)
        abort();
    return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

// A line of /proc/self/status in KiB, such as "VmRSS"; 0 when the kernel has no such line.
static inline long BenchStatusKib(const char* pName)
{
    char line[256];
    long value = 0;
    FILE* pFile = fopen("/proc/self/status", "r");
    while (pFile && fgets(line, sizeof line, pFile))
        if (strncmp(line, pName, strlen(pName)) == 0 && line[strlen(pName)] == ':')
            value = atol(line + strlen(pName) + 1);
    if (pFile)
        fclose(pFile);
    return value;
}
