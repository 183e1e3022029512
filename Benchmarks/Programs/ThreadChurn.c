// Many short threads, one after the other, each of which takes one lock.
//
//   BenchThreadChurn COUNT
//
// Prints "RESIDENT_KIB PEAK_KIB WALL_NS": the memory after the last thread has ended, and the wall time of all.
#include "BenchTime.h"

#include <pthread.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void* TakeOneLock(void* pUnused)
{
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
    return pUnused;
}

int main(int argc, char** argv)
{
    const long count = argc == 2 ? atol(argv[1]) : 0;
    if (count <= 0)
    {
        fprintf(stderr, "usage: %s COUNT\n", argv[0]);
        return 2;
    }
    const uint64_t start = BenchTime(CLOCK_MONOTONIC);
    for (long i = 0; i < count; i++)
    {
        pthread_t thread;
        if (pthread_create(&thread, NULL, TakeOneLock, NULL) != 0)
            return 1;
        pthread_join(thread, NULL);
    }
    const uint64_t wall = BenchTime(CLOCK_MONOTONIC) - start;
    printf("%ld %ld %llu\n", BenchStatusKib("VmRSS"), BenchStatusKib("VmHWM"), (unsigned long long)wall);
    return 0;
}
