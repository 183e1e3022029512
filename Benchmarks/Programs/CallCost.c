// What one uncontended call costs the thread that makes it.
//
//   BenchCallCost LOOP ITERATIONS REPETITIONS [alone]
//
// Prints "CPU_NS WALL_NS" a call for each repetition, the first (unmeasured) tenth left out, and at the end
// "calls N": how often the call was made in all.
//
// A second thread sleeps throughout. libc skips the locked instructions of a mutex in a process with a single
// thread; the agent has a thread of its own, and the programs it is made for have several, so comparing it with
// a single-threaded loop would charge it with that. "alone" leaves the second thread out.
#include "BenchTime.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static sem_t g_semaphore;

static void LoopMutex(long count)
{
    for (long i = 0; i < count; i++)
    {
        pthread_mutex_lock(&g_mutex);
        pthread_mutex_unlock(&g_mutex);
    }
}

static void LoopSemaphore(long count)
{
    sem_init(&g_semaphore, 0, 1);
    for (long i = 0; i < count; i++)
    {
        sem_wait(&g_semaphore);
        sem_post(&g_semaphore);
    }
}

// Opened through libc's own calls: only the loop's call is made by a name that can be interposed.
static void LoopWrite(long count)
{
    const int fd = fileno(fopen("/dev/null", "w"));
    for (long i = 0; i < count; i++)
        if (write(fd, "x", 1) != 1)
            abort();
}

static void LoopRead(long count)
{
    char byte;
    const int fd = fileno(fopen("/dev/zero", "r"));
    for (long i = 0; i < count; i++)
        if (read(fd, &byte, 1) != 1)
            abort();
}

struct Loop
{
    const char* m_pName;
    void (*m_pRun)(long count);
};

static const struct Loop g_loops[] = {
    {"mutex", LoopMutex},
    {"semaphore", LoopSemaphore},
    {"write", LoopWrite},
    {"read", LoopRead},
};

static const struct Loop* FindLoop(const char* pName)
{
    for (size_t i = 0; i < sizeof g_loops / sizeof g_loops[0]; i++)
        if (strcmp(g_loops[i].m_pName, pName) == 0)
            return &g_loops[i];
    return NULL;
}

static volatile int g_isAsleep;

static void* SleepForEver(void* pUnused)
{
    g_isAsleep = 1;
    for (;;)
        pause();
    return pUnused;
}

static int StartSleeper(void)
{
    pthread_t sleeper;
    if (pthread_create(&sleeper, NULL, SleepForEver, NULL) != 0)
        return 0;
    while (!g_isAsleep)
        usleep(100);
    return 1;
}

static void Measure(const struct Loop* pLoop, long iterations)
{
    const uint64_t wall = BenchTime(CLOCK_MONOTONIC);
    const uint64_t cpu = BenchTime(CLOCK_THREAD_CPUTIME_ID);
    pLoop->m_pRun(iterations);
    const uint64_t cpuEnd = BenchTime(CLOCK_THREAD_CPUTIME_ID);
    const uint64_t wallEnd = BenchTime(CLOCK_MONOTONIC);
    printf("%.3f %.3f\n", (double)(cpuEnd - cpu) / (double)iterations,
           (double)(wallEnd - wall) / (double)iterations);
}

int main(int argc, char** argv)
{
    const struct Loop* pLoop = argc > 3 ? FindLoop(argv[1]) : NULL;
    const long iterations = argc > 3 ? atol(argv[2]) : 0;
    const long repetitions = argc > 3 ? atol(argv[3]) : 0;
    if (!pLoop || iterations <= 0 || repetitions <= 0)
    {
        fprintf(stderr, "usage: %s LOOP ITERATIONS REPETITIONS [alone]\n", argv[0]);
        return 2;
    }
    if (argc == 4 && !StartSleeper())
        return 1;
    pLoop->m_pRun(iterations / 10);
    for (long i = 0; i < repetitions; i++)
        Measure(pLoop, iterations);
    printf("calls %ld\n", iterations / 10 + iterations * repetitions);
    return 0;
}
