// Cost of dlopen in a process with many mappings.
//
//   BenchLoadModule MAPPINGS COUNT MODULE
//
// Prints the wall time of each dlopen in nanoseconds; the module is closed again in between. Every other
// mapping is executable, so that neighbours do not become one.
#define _GNU_SOURCE
#include "BenchTime.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

static int MakeMappings(long count)
{
    const int fd = open("/proc/self/exe", O_RDONLY);
    for (long i = 0; i < count; i++)
        if (mmap(NULL, 4096, i % 2 ? PROT_READ | PROT_EXEC : PROT_READ, MAP_PRIVATE, fd, 0) == MAP_FAILED)
            return 0;
    return close(fd) == 0;
}

int main(int argc, char** argv)
{
    const long count = argc > 3 ? atol(argv[2]) : 0;
    if (count <= 0)
    {
        fprintf(stderr, "usage: %s MAPPINGS COUNT MODULE\n", argv[0]);
        return 2;
    }
    if (!MakeMappings(atol(argv[1])))
        return 1;
    for (long i = 0; i < count; i++)
    {
        const uint64_t start = BenchTime(CLOCK_MONOTONIC);
        void* pModule = dlopen(argv[3], RTLD_NOW | RTLD_LOCAL);
        const uint64_t end = BenchTime(CLOCK_MONOTONIC);
        if (!pModule || dlclose(pModule) != 0)
        {
            fprintf(stderr, "%s\n", dlerror());
            return 1;
        }
        printf("%llu\n", (unsigned long long)(end - start));
    }
    return 0;
}
