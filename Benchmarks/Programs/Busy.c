// Threads that only compute: what a helper thread takes from them shows in the wall time.
//
//   BenchBusy THREADS MILLION_STEPS_OF_EACH
//
// Prints the wall time in nanoseconds.
#include "BenchTime.h"

#include <pthread.h>

enum
{
    MOST_THREADS = 256,
    MILLION = 1000000,
};

static long g_steps;

static void* Compute(void* pUnused)
{
    volatile uint64_t state = 1;
    for (long i = 0; i < g_steps; i++)
        state = state * 6364136223846793005u + 1442695040888963407u;
    return pUnused;
}

int main(int argc, char** argv)
{
    const int threads = argc == 3 ? atoi(argv[1]) : 0;
    g_steps = argc == 3 ? atol(argv[2]) * MILLION : 0;
    if (threads <= 0 || threads > MOST_THREADS || g_steps <= 0)
    {
        fprintf(stderr, "usage: %s THREADS MILLION_STEPS_OF_EACH\n", argv[0]);
        return 2;
    }
    pthread_t handles[MOST_THREADS];
    const uint64_t start = BenchTime(CLOCK_MONOTONIC);
    for (int i = 0; i < threads; i++)
        if (pthread_create(&handles[i], NULL, Compute, NULL) != 0)
            return 1;
    for (int i = 0; i < threads; i++)
        pthread_join(handles[i], NULL);
    printf("%llu\n", (unsigned long long)(BenchTime(CLOCK_MONOTONIC) - start));
    return 0;
}
