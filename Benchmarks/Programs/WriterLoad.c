// As many records as the threads can make: each locks and unlocks a mutex of its own.
//
//   BenchWriterLoad THREADS LOCKS_OF_EACH
//
// Prints "START_NS END_NS PEAK_KIB": when the threads were started and when all were joined (CLOCK_MONOTONIC),
// and the process's largest resident memory.
#include "BenchTime.h"

#include <pthread.h>

enum
{
    MOST_THREADS = 64,
};

static long g_locks;

static void* LockAndUnlock(void* pUnused)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (long i = 0; i < g_locks; i++)
    {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
    return pUnused;
}

int main(int argc, char** argv)
{
    const int threads = argc == 3 ? atoi(argv[1]) : 0;
    g_locks = argc == 3 ? atol(argv[2]) : 0;
    if (threads <= 0 || threads > MOST_THREADS || g_locks <= 0)
    {
        fprintf(stderr, "usage: %s THREADS LOCKS_OF_EACH\n", argv[0]);
        return 2;
    }
    pthread_t handles[MOST_THREADS];
    const uint64_t start = BenchTime(CLOCK_MONOTONIC);
    for (int i = 0; i < threads; i++)
        if (pthread_create(&handles[i], NULL, LockAndUnlock, NULL) != 0)
            return 1;
    for (int i = 0; i < threads; i++)
        pthread_join(handles[i], NULL);
    const uint64_t end = BenchTime(CLOCK_MONOTONIC);
    printf("%llu %llu %ld\n", (unsigned long long)start, (unsigned long long)end, BenchStatusKib("VmHWM"));
    return 0;
}
