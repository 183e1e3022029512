// A library whose constructor runs before the agent's: the loader begins with what others depend on.
#include "blackbox.h"

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

int EarlyThreadsStarted(void);

static int g_started;

static void* LockOnce(void* pUnused)
{
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
    Say("early %d %lu", OwnTid(), (unsigned long)pthread_self());
    return pUnused;
}

static void __attribute__((constructor)) StartEarlyThread(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, LockOnce, NULL) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    ++g_started;
}

int EarlyThreadsStarted(void)
{
    return g_started;
}
