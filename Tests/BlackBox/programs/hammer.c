// hammer THREADS LOCKS: every thread locks one shared and one own mutex in turn, LOCKS calls in all.
// LOCKS 0: until the test says anything.
#include "blackbox.h"

static pthread_mutex_t g_shared = PTHREAD_MUTEX_INITIALIZER;
static int g_started;
static volatile int g_enough;
static long g_locks;

static void* Hammer(void* pUnused)
{
    pthread_mutex_t own = PTHREAD_MUTEX_INITIALIZER;
    __atomic_add_fetch(&g_started, 1, __ATOMIC_SEQ_CST);
    for (long i = 0; g_locks ? i < g_locks : !g_enough; ++i)
    {
        pthread_mutex_t* pMutex = i % 2 ? &own : &g_shared;
        pthread_mutex_lock(pMutex);
        pthread_mutex_unlock(pMutex);
    }
    return pUnused;
}

int main(int count, char** ppArguments)
{
    pthread_t threads[64];
    char line[16];
    Check(count == 3, "usage");
    int number = atoi(ppArguments[1]);
    g_locks = atol(ppArguments[2]);
    for (int i = 0; i < number; ++i)
    {
        Check(pthread_create(&threads[i], NULL, Hammer, NULL) == 0, "create");
    }
    if (!g_locks)
    {
        while (__atomic_load_n(&g_started, __ATOMIC_SEQ_CST) < number)
        {
            usleep(500);
        }
        Say("running");
        Hear(line, sizeof(line));
        g_enough = 1;
    }
    for (int i = 0; i < number; ++i)
    {
        Check(pthread_join(threads[i], NULL) == 0, "join");
    }
    Say("hammered");
    return 5;
}
