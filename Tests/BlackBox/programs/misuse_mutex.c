// Mutexes of every kind, used well and badly.
#include "misuse.h"

static const int g_types[] = {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_RECURSIVE, PTHREAD_MUTEX_ERRORCHECK,
                              PTHREAD_MUTEX_ADAPTIVE_NP};
static const int g_protocols[] = {PTHREAD_PRIO_NONE, PTHREAD_PRIO_INHERIT};

static void Init(pthread_mutex_t* pMutex, int type, int protocol, int robust)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    Check(pthread_mutexattr_settype(&attributes, type) == 0, "type");
    Check(pthread_mutexattr_setprotocol(&attributes, protocol) == 0, "protocol");
    Check(pthread_mutexattr_setrobust(&attributes, robust) == 0, "robust");
    Check(pthread_mutex_init(pMutex, &attributes) == 0, "init");
}

static void* TryFromOutside(void* pArgument)
{
    pthread_mutex_t* pMutex = pArgument;
    struct timespec soon = Soon();
    SHOW(pthread_mutex_trylock(pMutex));
    SHOW(pthread_mutex_timedlock(pMutex, &g_past));
    SHOW(pthread_mutex_timedlock(pMutex, &g_zero));
    SHOW(pthread_mutex_timedlock(pMutex, &g_beforeEpoch));
    SHOW(pthread_mutex_timedlock(pMutex, &g_negative));
    SHOW(pthread_mutex_timedlock(pMutex, &g_tooMany));
    SHOW(pthread_mutex_timedlock(pMutex, &soon));
    SHOW(pthread_mutex_destroy(pMutex));
    return NULL;
}

static void UseByOwner(pthread_mutex_t* pMutex, int type)
{
    SHOW(pthread_mutex_lock(pMutex));
    SHOW(pthread_mutex_trylock(pMutex));
    if (type == PTHREAD_MUTEX_RECURSIVE)
    {
        SHOW(pthread_mutex_lock(pMutex));
        SHOW(pthread_mutex_timedlock(pMutex, &g_past));
        SHOW(pthread_mutex_unlock(pMutex));
        SHOW(pthread_mutex_unlock(pMutex));
        SHOW(pthread_mutex_unlock(pMutex));
    }
    if (type == PTHREAD_MUTEX_ERRORCHECK)
    {
        SHOW(pthread_mutex_lock(pMutex));
        SHOW(pthread_mutex_timedlock(pMutex, &g_future));
    }
    InThread(TryFromOutside, pMutex);
    SHOW(pthread_mutex_unlock(pMutex));
}

static void* UnlockFromOutside(void* pMutex)
{
    SHOW(pthread_mutex_unlock(pMutex));
    return NULL;
}

static void UseKinds(void)
{
    for (size_t i = 0; i < sizeof(g_types) / sizeof(g_types[0]); ++i)
    {
        for (size_t k = 0; k < sizeof(g_protocols) / sizeof(g_protocols[0]); ++k)
        {
            pthread_mutex_t mutex;
            printf("type %d protocol %d\n", g_types[i], g_protocols[k]);
            Init(&mutex, g_types[i], g_protocols[k], PTHREAD_MUTEX_STALLED);
            UseByOwner(&mutex, g_types[i]);
            SHOW(pthread_mutex_timedlock(&mutex, g_pNoDeadline));
            SHOW(pthread_mutex_unlock(&mutex));
            SHOW(pthread_mutex_timedlock(&mutex, &g_past));
            SHOW(pthread_mutex_unlock(&mutex));
            if (g_types[i] == PTHREAD_MUTEX_ERRORCHECK || g_types[i] == PTHREAD_MUTEX_RECURSIVE)
            {
                SHOW(pthread_mutex_unlock(&mutex));
                SHOW(pthread_mutex_lock(&mutex));
                InThread(UnlockFromOutside, &mutex);
                SHOW(pthread_mutex_unlock(&mutex));
            }
            SHOW(pthread_mutex_destroy(&mutex));
        }
    }
}

static void* LockAndDie(void* pMutex)
{
    SHOW(pthread_mutex_lock(pMutex));
    return NULL;
}

static void* TimedLockAndDie(void* pMutex)
{
    SHOW(pthread_mutex_timedlock(pMutex, &g_future));
    return NULL;
}

static void* TryLockAndExit(void* pMutex)
{
    SHOW(pthread_mutex_trylock(pMutex));
    pthread_exit(NULL);
}

static void* (*const g_deaths[])(void*) = {LockAndDie, TimedLockAndDie, TryLockAndExit};

static void UseRobust(void)
{
    for (size_t i = 0; i < sizeof(g_deaths) / sizeof(g_deaths[0]); ++i)
    {
        pthread_mutex_t mutex;
        printf("robust %zu\n", i);
        Init(&mutex, PTHREAD_MUTEX_ERRORCHECK, PTHREAD_PRIO_NONE, PTHREAD_MUTEX_ROBUST);
        InThread(g_deaths[i], &mutex);
        SHOW(pthread_mutex_lock(&mutex)); // EOWNERDEAD
        SHOW(pthread_mutex_consistent(&mutex));
        SHOW(pthread_mutex_unlock(&mutex));
        InThread(g_deaths[i], &mutex);
        SHOW(pthread_mutex_trylock(&mutex));
        SHOW(pthread_mutex_consistent(&mutex));
        SHOW(pthread_mutex_unlock(&mutex));
        InThread(g_deaths[i], &mutex);
        SHOW(pthread_mutex_timedlock(&mutex, &g_future));
        SHOW(pthread_mutex_unlock(&mutex)); // given up without making it consistent
        SHOW(pthread_mutex_lock(&mutex));   // ENOTRECOVERABLE
        SHOW(pthread_mutex_trylock(&mutex));
        SHOW(pthread_mutex_timedlock(&mutex, &g_past));
        SHOW(pthread_mutex_destroy(&mutex));
    }
}

int main(void)
{
    UseKinds();
    UseRobust();
    return 21;
}
