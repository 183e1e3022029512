// The floor of start and end: a preloaded object that does nothing but keep one thread waiting, from its
// constructor to its destructor. An agent with a writer thread cannot be cheaper than this.
#include <pthread.h>
#include <semaphore.h>

static sem_t g_end;
static pthread_t g_thread;
static int g_isRunning;

static void* WaitForEnd(void* pUnused)
{
    while (sem_wait(&g_end) != 0)
        ;
    return pUnused;
}

__attribute__((constructor)) static void StartWaiting(void)
{
    g_isRunning = sem_init(&g_end, 0, 0) == 0 && pthread_create(&g_thread, NULL, WaitForEnd, NULL) == 0;
}

__attribute__((destructor)) static void EndWaiting(void)
{
    if (!g_isRunning)
        return;
    sem_post(&g_end);
    pthread_join(g_thread, NULL);
}
