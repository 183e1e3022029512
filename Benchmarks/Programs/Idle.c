// A program that does nothing: what CPU time passes is not its own.
//
//   BenchIdle MILLISECONDS
//
// Prints "CPU_NS WALL_NS" of the sleep, over all threads of the process.
#include "BenchTime.h"

#include <errno.h>

int main(int argc, char** argv)
{
    const long milliseconds = argc == 2 ? atol(argv[1]) : 0;
    if (milliseconds <= 0)
    {
        fprintf(stderr, "usage: %s MILLISECONDS\n", argv[0]);
        return 2;
    }
    struct timespec left = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    const uint64_t wall = BenchTime(CLOCK_MONOTONIC);
    const uint64_t cpu = BenchTime(CLOCK_PROCESS_CPUTIME_ID);
    while (nanosleep(&left, &left) != 0 && errno == EINTR)
        ;
    const uint64_t cpuEnd = BenchTime(CLOCK_PROCESS_CPUTIME_ID);
    const uint64_t wallEnd = BenchTime(CLOCK_MONOTONIC);
    printf("%llu %llu\n", (unsigned long long)(cpuEnd - cpu), (unsigned long long)(wallEnd - wall));
    return 0;
}
