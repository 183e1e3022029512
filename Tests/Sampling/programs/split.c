// split THREADS MILLISECONDS: each thread spends its CPU time on three functions, about 60 to 30 to 10, and
// says what its own clock gives for each. The slices vary, or they would beat with the sampling interval.
#include "sampled.h"

enum
{
    MOST_THREADS = 64
};

static volatile uint64_t g_sink;

#define BURN_FUNCTION(name)                                                                                    \
    RANGED(name) static uint64_t name(uint64_t ns)                                                             \
    {                                                                                                          \
        uint64_t start = CpuNs();                                                                              \
        uint64_t now = start;                                                                                  \
        while (now < start + ns)                                                                               \
        {                                                                                                      \
            for (int i = 0; i < 2000; ++i)                                                                     \
            {                                                                                                  \
                g_sink += (uint64_t)i;                                                                         \
            }                                                                                                  \
            now = CpuNs();                                                                                     \
        }                                                                                                      \
        return now - start;                                                                                    \
    }

BURN_FUNCTION(spend_a)
BURN_FUNCTION(spend_b)
BURN_FUNCTION(spend_c)

static long g_milliseconds;

static void* Spend(void* pSeed)
{
    uint64_t spent[3] = {0, 0, 0};
    unsigned seed = (unsigned)(uintptr_t)pSeed;
    uint64_t end = CpuNs() + (uint64_t)g_milliseconds * 1000000;
    while (CpuNs() < end)
    {
        // 0.5 to 3.5 ms for the smallest share
        uint64_t unit = 500000 + (uint64_t)(rand_r(&seed) % 3000) * 1000;
        spent[0] += spend_a(6 * unit);
        spent[1] += spend_b(3 * unit);
        spent[2] += spend_c(unit);
    }
    Say("spent %d %lu %lu %lu %lu", OwnTid(), spent[0], spent[1], spent[2], CpuNs());
    return NULL;
}

static void* SleepOn(void* pUnused)
{
    Say("sleeper %d", OwnTid());
    usleep((useconds_t)g_milliseconds * 1000);
    return pUnused;
}

int main(int count, char** ppArguments)
{
    pthread_t threads[MOST_THREADS];
    pthread_t sleeper;
    int threadCount = atoi(ppArguments[1]);
    g_milliseconds = atol(ppArguments[2]);
    Check(count == 3 && threadCount < MOST_THREADS, "arguments");
    SAY_RANGE(spend_a);
    SAY_RANGE(spend_b);
    SAY_RANGE(spend_c);
    Check(pthread_create(&sleeper, NULL, SleepOn, NULL) == 0, "create");
    for (int i = 0; i < threadCount; ++i)
    {
        Check(pthread_create(&threads[i], NULL, Spend, (void*)(uintptr_t)(i + 1)) == 0, "create");
    }
    for (int i = 0; i < threadCount; ++i)
    {
        pthread_join(threads[i], NULL);
    }
    pthread_join(sleeper, NULL);
    return 0;
}
