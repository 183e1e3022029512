// Cost of a whole process: start, run and wait, COUNT times.
//
//   BenchSpawn COUNT PROGRAM ARGS...
//
// Prints the wall time of each in nanoseconds. What BENCH_CHILD_PRELOAD names is preloaded into the children
// alone: this program stays native in every variant.
#define _GNU_SOURCE
#include "BenchTime.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    const long count = argc > 2 ? atol(argv[1]) : 0;
    if (count <= 0)
    {
        fprintf(stderr, "usage: %s COUNT PROGRAM ARGS...\n", argv[0]);
        return 2;
    }
    const char* pPreload = getenv("BENCH_CHILD_PRELOAD");
    if (pPreload)
        setenv("LD_PRELOAD", pPreload, 1);
    for (long i = 0; i < count; i++)
    {
        pid_t child;
        int status;
        const uint64_t start = BenchTime(CLOCK_MONOTONIC);
        if (posix_spawn(&child, argv[2], NULL, NULL, argv + 2, environ) != 0 ||
            waitpid(child, &status, 0) != child)
            return 1;
        const uint64_t end = BenchTime(CLOCK_MONOTONIC);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        {
            fprintf(stderr, "%s ended with status 0x%x\n", argv[2], (unsigned)status);
            return 1;
        }
        printf("%llu\n", (unsigned long long)(end - start));
    }
    return 0;
}
