// Locks at every stage of a program's life: constructor, main, exit handler, destructor.
#include "blackbox.h"

static pthread_mutex_t g_mutexes[4] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                                       PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};

static void LockStage(int stage)
{
    pthread_mutex_lock(&g_mutexes[stage]);
    pthread_mutex_unlock(&g_mutexes[stage]);
}

static void __attribute__((constructor)) AtStart(void)
{
    LockStage(0);
}

static void __attribute__((destructor)) AtEnd(void)
{
    LockStage(3);
}

static void InExitHandler(void)
{
    LockStage(2);
}

int main(void)
{
    for (int stage = 0; stage < 4; ++stage)
    {
        Say("%lu", (unsigned long)&g_mutexes[stage]);
    }
    LockStage(1);
    return atexit(InExitHandler);
}
