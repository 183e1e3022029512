// The pthread calls that take a clock, and those that join under other conditions.
#include "every_call.h"
#include <pthread.h>
#include <semaphore.h>
#include <time.h>

static const struct timespec g_past = {1, 0};
static const struct timespec g_far = {4000000000, 0};

static void CallClockedLocks(void)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    sem_t semaphore;
    sem_init(&semaphore, 0, 1);
    CALL_LOCK(pthread_mutex_clocklock, &mutex, CLOCK_MONOTONIC, &g_far);
    CALL_LOCK(pthread_mutex_clocklock, &mutex, CLOCK_MONOTONIC, &g_past);
    CALL_LOCK(pthread_mutex_clocklock, &mutex, 77, &g_past);
    CALL_LOCK(pthread_cond_clockwait, &cond, &mutex, CLOCK_MONOTONIC, &g_past);
    CALL_LOCK(pthread_cond_clockwait, &cond, &mutex, 77, &g_past);
    CALL_LOCK(pthread_rwlock_clockrdlock, &lock, CLOCK_REALTIME, &g_far);
    CALL_LOCK(pthread_rwlock_clockwrlock, &lock, CLOCK_REALTIME, &g_past);
    pthread_rwlock_unlock(&lock);
    CALL_LOCK(pthread_rwlock_clockwrlock, &lock, CLOCK_REALTIME, &g_far);
    CALL_LOCK(sem_clockwait, &semaphore, CLOCK_MONOTONIC, &g_far);
    CALL_LOCK(sem_clockwait, &semaphore, CLOCK_MONOTONIC, &g_past);
    sem_destroy(&semaphore);
}

static void* WaitForMutex(void* pMutex)
{
    pthread_mutex_lock(pMutex);
    pthread_mutex_unlock(pMutex);
    return NULL;
}

// A thread that cannot end before the mutex is unlocked.
static pthread_t StartHeld(pthread_mutex_t* pMutex)
{
    pthread_t thread;
    int result = pthread_create(&thread, NULL, WaitForMutex, pMutex);
    ExpectRecord("pthread_create", thread, result);
    return thread;
}

static void CallJoins(void)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    CALL_LOCK(pthread_mutex_lock, &mutex);
    pthread_t first = StartHeld(&mutex);
    pthread_t second = StartHeld(&mutex);
    CALL_LOCK(pthread_tryjoin_np, first, NULL);
    CALL_LOCK(pthread_timedjoin_np, first, NULL, &g_past);
    CALL_LOCK(pthread_clockjoin_np, second, NULL, CLOCK_MONOTONIC, &g_past);
    CALL_LOCK(pthread_clockjoin_np, second, NULL, 77, &g_past);
    pthread_mutex_unlock(&mutex);
    CALL_LOCK(pthread_timedjoin_np, first, NULL, &g_far);
    CALL_LOCK(pthread_clockjoin_np, second, NULL, CLOCK_REALTIME, &g_far);
    pthread_t self = pthread_self();
    CALL_LOCK(pthread_tryjoin_np, self, NULL);
}

void CallThreads(void)
{
    CallClockedLocks();
    CallJoins();
}
