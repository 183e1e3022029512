// Every blocking call of the pthread family on an object that nobody releases: one row a call.
// Block() is what the thread under test runs, Release() lets it return.
#pragma once

#include "blackbox.h"
#include <semaphore.h>
#include <time.h>

struct BlockingCall
{
    const char* m_pName;
    int (*m_pBlock)(void);
    void (*m_pRelease)(void);
    const void* m_pObject; // the recorded address; null: see BlockingObject
    size_t m_objectSize;   // where the futex lies; 0: anywhere
};

static pthread_mutex_t g_takenMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t g_condMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_cond = PTHREAD_COND_INITIALIZER;
static pthread_rwlock_t g_writeLocked = PTHREAD_RWLOCK_INITIALIZER;
static pthread_barrier_t g_barrier;
static sem_t g_semaphore;
static pthread_t g_endless;
static sem_t g_endlessMayEnd;
static volatile pid_t g_endlessTid;

static struct timespec Tomorrow(void)
{
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 86400;
    return deadline;
}

// Under the agent this wait is recorded as well: by the endless thread, on g_endlessMayEnd.
static void* WaitForEnd(void* pArgument)
{
    g_endlessTid = OwnTid();
    while (sem_wait(&g_endlessMayEnd) != 0)
    {
    }
    return pArgument;
}

static void PrepareBlockingCalls(void)
{
    Check(pthread_mutex_lock(&g_takenMutex) == 0, "mutex");
    Check(pthread_rwlock_wrlock(&g_writeLocked) == 0, "rwlock");
    Check(pthread_barrier_init(&g_barrier, NULL, 2) == 0, "barrier");
    Check(sem_init(&g_semaphore, 0, 0) == 0 && sem_init(&g_endlessMayEnd, 0, 0) == 0, "semaphore");
    Check(pthread_create(&g_endless, NULL, WaitForEnd, NULL) == 0, "thread");
    while (!g_endlessTid)
    {
        usleep(500);
    }
    WaitUntilParked(g_endlessTid, &g_endlessMayEnd, sizeof(g_endlessMayEnd));
}

static void UnlockCondMutex(void* pUnused)
{
    (void)pUnused;
    pthread_mutex_unlock(&g_condMutex);
}

static int BlockMutex(void)
{
    int result = pthread_mutex_lock(&g_takenMutex);
    if (result == 0)
    {
        pthread_mutex_unlock(&g_takenMutex);
    }
    return result;
}

static int BlockTimedMutex(void)
{
    struct timespec deadline = Tomorrow();
    int result = pthread_mutex_timedlock(&g_takenMutex, &deadline);
    if (result == 0)
    {
        pthread_mutex_unlock(&g_takenMutex);
    }
    return result;
}

static int BlockCond(void)
{
    int result;
    pthread_mutex_lock(&g_condMutex);
    pthread_cleanup_push(UnlockCondMutex, NULL);
    result = pthread_cond_wait(&g_cond, &g_condMutex);
    pthread_cleanup_pop(1);
    return result;
}

static int BlockTimedCond(void)
{
    struct timespec deadline = Tomorrow();
    int result;
    pthread_mutex_lock(&g_condMutex);
    pthread_cleanup_push(UnlockCondMutex, NULL);
    result = pthread_cond_timedwait(&g_cond, &g_condMutex, &deadline);
    pthread_cleanup_pop(1);
    return result;
}

static int BlockRead(void)
{
    return pthread_rwlock_rdlock(&g_writeLocked);
}

static int BlockTimedRead(void)
{
    struct timespec deadline = Tomorrow();
    return pthread_rwlock_timedrdlock(&g_writeLocked, &deadline);
}

static int BlockWrite(void)
{
    return pthread_rwlock_wrlock(&g_writeLocked);
}

static int BlockTimedWrite(void)
{
    struct timespec deadline = Tomorrow();
    return pthread_rwlock_timedwrlock(&g_writeLocked, &deadline);
}

static int BlockBarrier(void)
{
    int result = pthread_barrier_wait(&g_barrier);
    return result == PTHREAD_BARRIER_SERIAL_THREAD ? 0 : result;
}

static int BlockSemaphore(void)
{
    return sem_wait(&g_semaphore);
}

static int BlockTimedSemaphore(void)
{
    struct timespec deadline = Tomorrow();
    return sem_timedwait(&g_semaphore, &deadline);
}

static int BlockJoin(void)
{
    return pthread_join(g_endless, NULL);
}

static void ReleaseMutex(void)
{
    pthread_mutex_unlock(&g_takenMutex);
}

static void ReleaseCond(void)
{
    pthread_mutex_lock(&g_condMutex);
    pthread_cond_broadcast(&g_cond);
    pthread_mutex_unlock(&g_condMutex);
}

static void ReleaseRwLock(void)
{
    pthread_rwlock_unlock(&g_writeLocked);
}

static void ReleaseBarrier(void)
{
    pthread_barrier_wait(&g_barrier);
}

static void ReleaseSemaphore(void)
{
    sem_post(&g_semaphore);
}

static void ReleaseJoin(void)
{
    sem_post(&g_endlessMayEnd);
}

static const struct BlockingCall g_blockingCalls[] = {
    {"mutex_lock", BlockMutex, ReleaseMutex, &g_takenMutex, sizeof(g_takenMutex)},
    {"mutex_timedlock", BlockTimedMutex, ReleaseMutex, &g_takenMutex, sizeof(g_takenMutex)},
    {"cond_wait", BlockCond, ReleaseCond, &g_cond, sizeof(g_cond)},
    {"cond_timedwait", BlockTimedCond, ReleaseCond, &g_cond, sizeof(g_cond)},
    {"rdlock", BlockRead, ReleaseRwLock, &g_writeLocked, sizeof(g_writeLocked)},
    {"timedrdlock", BlockTimedRead, ReleaseRwLock, &g_writeLocked, sizeof(g_writeLocked)},
    {"wrlock", BlockWrite, ReleaseRwLock, &g_writeLocked, sizeof(g_writeLocked)},
    {"timedwrlock", BlockTimedWrite, ReleaseRwLock, &g_writeLocked, sizeof(g_writeLocked)},
    {"barrier_wait", BlockBarrier, ReleaseBarrier, &g_barrier, sizeof(g_barrier)},
    {"sem_wait", BlockSemaphore, ReleaseSemaphore, &g_semaphore, sizeof(g_semaphore)},
    {"sem_timedwait", BlockTimedSemaphore, ReleaseSemaphore, &g_semaphore, sizeof(g_semaphore)},
    {"join", BlockJoin, ReleaseJoin, NULL, 0},
};

static inline const struct BlockingCall* FindBlockingCall(const char* pName)
{
    for (size_t i = 0; i < sizeof(g_blockingCalls) / sizeof(g_blockingCalls[0]); ++i)
    {
        if (strcmp(g_blockingCalls[i].m_pName, pName) == 0)
        {
            return &g_blockingCalls[i];
        }
    }
    Check(0, pName);
    return NULL;
}

static inline unsigned long BlockingObject(const struct BlockingCall* pCall)
{
    return pCall->m_pObject ? (unsigned long)pCall->m_pObject : (unsigned long)g_endless;
}
