// Every member of the pthread family from the main thread, with good and bad outcomes. Says for each call
//   call NAME OBJECT RESULT ADDRESS      (ADDRESS: libc's own function of that name, default version)
// in the order in which they were made, so that the test can lay its list beside the trace.
#include "blackbox.h"
#include <dlfcn.h>
#include <semaphore.h>
#include <time.h>

static void* g_pLibc;

static void Told(const char* pName, unsigned long object, int result)
{
    Say("call %s %lu %d %lu", pName, object, result, (unsigned long)dlsym(g_pLibc, pName));
}

#define CALL(name, object, ...) Told(#name, (unsigned long)(object), name((object)__VA_OPT__(, ) __VA_ARGS__))

static const struct timespec g_past = {1, 0};
static const struct timespec g_invalid = {1, 1000000000};
static const struct timespec g_future = {4000000000, 0};

static void CallMutexes(void)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t checked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    CALL(pthread_mutex_lock, &mutex);
    CALL(pthread_mutex_trylock, &mutex);
    CALL(pthread_mutex_timedlock, &mutex, &g_past);
    CALL(pthread_mutex_timedlock, &mutex, &g_invalid);
    pthread_mutex_unlock(&mutex);
    CALL(pthread_mutex_trylock, &mutex);
    pthread_mutex_unlock(&mutex);
    CALL(pthread_mutex_timedlock, &mutex, &g_future);
    CALL(pthread_mutex_lock, &checked);
    CALL(pthread_mutex_lock, &checked);
    CALL(pthread_mutex_trylock, &checked);
    CALL(pthread_mutex_timedlock, &checked, &g_future);
}

struct Signalled
{
    pthread_cond_t m_cond;
    volatile int m_enough;
};

static void* SignalUntilEnough(void* pArgument)
{
    struct Signalled* pSignalled = pArgument;
    while (!pSignalled->m_enough)
    {
        pthread_cond_signal(&pSignalled->m_cond);
        usleep(500);
    }
    return NULL;
}

static void CallConditions(void)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t checked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    struct Signalled signalled = {PTHREAD_COND_INITIALIZER, 0};
    pthread_t thread;
    CALL(pthread_cond_wait, &signalled.m_cond, &checked);
    CALL(pthread_mutex_lock, &mutex);
    CALL(pthread_cond_timedwait, &signalled.m_cond, &mutex, &g_past);
    CALL(pthread_cond_timedwait, &signalled.m_cond, &mutex, &g_invalid);
    int result = pthread_create(&thread, NULL, SignalUntilEnough, &signalled);
    Told("pthread_create", thread, result);
    CALL(pthread_cond_wait, &signalled.m_cond, &mutex);
    CALL(pthread_cond_timedwait, &signalled.m_cond, &mutex, &g_future);
    signalled.m_enough = 1;
    CALL(pthread_join, thread, NULL);
}

static void CallReadWriteLocks(void)
{
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    CALL(pthread_rwlock_rdlock, &lock);
    CALL(pthread_rwlock_tryrdlock, &lock);
    CALL(pthread_rwlock_timedrdlock, &lock, &g_future);
    CALL(pthread_rwlock_trywrlock, &lock);
    CALL(pthread_rwlock_timedwrlock, &lock, &g_past);
    pthread_rwlock_unlock(&lock);
    pthread_rwlock_unlock(&lock);
    pthread_rwlock_unlock(&lock);
    CALL(pthread_rwlock_wrlock, &lock);
    CALL(pthread_rwlock_wrlock, &lock);
    CALL(pthread_rwlock_rdlock, &lock);
    CALL(pthread_rwlock_tryrdlock, &lock);
    CALL(pthread_rwlock_timedrdlock, &lock, &g_invalid);
    CALL(pthread_rwlock_timedwrlock, &lock, &g_future);
    pthread_rwlock_unlock(&lock);
    CALL(pthread_rwlock_trywrlock, &lock);
    pthread_rwlock_unlock(&lock);
    CALL(pthread_rwlock_timedwrlock, &lock, &g_future);
}

static void CallSpinsAndBarriers(void)
{
    pthread_spinlock_t spin;
    pthread_barrier_t barrier;
    pthread_spin_init(&spin, 0);
    pthread_barrier_init(&barrier, NULL, 1);
    CALL(pthread_spin_lock, &spin);
    CALL(pthread_spin_trylock, &spin);
    pthread_spin_unlock(&spin);
    CALL(pthread_spin_trylock, &spin);
    CALL(pthread_barrier_wait, &barrier);
}

static void CallSemaphores(void)
{
    sem_t semaphore;
    sem_init(&semaphore, 0, 3);
    CALL(sem_wait, &semaphore);
    CALL(sem_trywait, &semaphore);
    CALL(sem_timedwait, &semaphore, &g_future);
    CALL(sem_trywait, &semaphore);
    CALL(sem_timedwait, &semaphore, &g_past);
    CALL(sem_timedwait, &semaphore, &g_invalid);
}

static sem_t g_never;

static void* WaitForever(void* pUnused)
{
    sem_wait(&g_never);
    return pUnused;
}

static void CallThreads(void)
{
    pthread_t thread;
    sem_init(&g_never, 0, 0);
    int result = pthread_create(&thread, NULL, WaitForever, NULL);
    Told("pthread_create", thread, result);
    CALL(pthread_join, pthread_self(), NULL);
    CALL(pthread_cancel, thread);
    CALL(pthread_join, thread, NULL);
}

int main(void)
{
    g_pLibc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    Check(g_pLibc != NULL, "libc");
    CallMutexes();
    CallConditions();
    CallReadWriteLocks();
    CallSpinsAndBarriers();
    CallSemaphores();
    CallThreads();
    return 0;
}
