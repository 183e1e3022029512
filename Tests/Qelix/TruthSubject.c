// A program that knows where its time goes: its own clocks measure what the report is to find. The first
// argument says what it does; what it measured stands on standard output, a line "NAME NANOSECONDS" each.
#define _GNU_SOURCE
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

pthread_mutex_t g_queueLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_countLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_barrier_t g_isReady;

static long Now(clockid_t clock)
{
    struct timespec time;
    clock_gettime(clock, &time);
    return time.tv_sec * 1000000000L + time.tv_nsec;
}

static void Sleep(long milliseconds)
{
    struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    while (nanosleep(&time, &time) != 0)
    {
    }
}

static void Tell(const char* pName, long nanoseconds)
{
    printf("%s %ld\n", pName, nanoseconds);
}

static pthread_t Start(void* (*pMain)(void*), void* pArgument)
{
    pthread_t thread;
    if (pthread_create(&thread, NULL, pMain, pArgument) != 0)
    {
        exit(1);
    }
    return thread;
}

// ---- mix: threads that each do one thing -----------------------------------------------------------------

static void* SleepOften(void* pUnused)
{
    long slept = 0;
    (void)pUnused;
    pthread_setname_np(pthread_self(), "sleeper");
    for (int i = 0; i < 20; ++i)
    {
        const long start = Now(CLOCK_MONOTONIC);
        Sleep(50);
        slept += Now(CLOCK_MONOTONIC) - start;
    }
    Tell("sleeper", slept);
    return NULL;
}

static void* HoldOften(void* pUnused)
{
    (void)pUnused;
    pthread_setname_np(pthread_self(), "holder");
    for (int i = 0; i < 10; ++i)
    {
        pthread_mutex_lock(&g_queueLock);
        pthread_barrier_wait(&g_isReady);
        Sleep(100);
        pthread_mutex_unlock(&g_queueLock);
        pthread_barrier_wait(&g_isReady);
    }
    return NULL;
}

static void* WaitOften(void* pUnused)
{
    long waited = 0;
    (void)pUnused;
    pthread_setname_np(pthread_self(), "waiter");
    for (int i = 0; i < 10; ++i)
    {
        pthread_barrier_wait(&g_isReady);
        const long start = Now(CLOCK_MONOTONIC);
        pthread_mutex_lock(&g_queueLock);
        waited += Now(CLOCK_MONOTONIC) - start;
        pthread_mutex_unlock(&g_queueLock);
        pthread_barrier_wait(&g_isReady);
    }
    Tell("waiter", waited);
    return NULL;
}

static void* Burn(void* pUnused)
{
    volatile unsigned long value = 1;
    (void)pUnused;
    pthread_setname_np(pthread_self(), "burner");
    const long start = Now(CLOCK_THREAD_CPUTIME_ID);
    while (Now(CLOCK_THREAD_CPUTIME_ID) - start < 1000000000L)
    {
        for (int i = 0; i < 100000; ++i)
        {
            value = value * 3 + 1;
        }
    }
    Tell("burner", Now(CLOCK_THREAD_CPUTIME_ID) - start);
    return NULL;
}

static int Mix(void)
{
    void* (*const mains[])(void*) = {SleepOften, HoldOften, WaitOften, Burn};
    pthread_t threads[4];
    pthread_barrier_init(&g_isReady, NULL, 2);
    for (int i = 0; i < 4; ++i)
    {
        threads[i] = Start(mains[i], NULL);
    }
    for (int i = 0; i < 4; ++i)
    {
        pthread_join(threads[i], NULL);
    }
    return 0;
}

// ---- queue: workers that share one lock ------------------------------------------------------------------

struct Object
{
    long m_state;
    pthread_mutex_t m_lock;
};

// One holds the object's lock until libc says that another waits for it, and then some: who waits, waits a
// millisecond, however the threads are scheduled.
static void ContendOnce(struct Object* pObject, int isHolder)
{
    const int someoneWaits = 2;
    if (!isHolder)
    {
        pthread_barrier_wait(&g_isReady);
        pthread_mutex_lock(&pObject->m_lock);
        pthread_mutex_unlock(&pObject->m_lock);
        return;
    }
    pthread_mutex_lock(&pObject->m_lock);
    pthread_barrier_wait(&g_isReady);
    while (__atomic_load_n(&pObject->m_lock.__data.__lock, __ATOMIC_ACQUIRE) != someoneWaits)
    {
        Sleep(1);
    }
    Sleep(1);
    pthread_mutex_unlock(&pObject->m_lock);
}

static void* WorkOff(void* pArgument)
{
    struct Object* pObject = pArgument;
    static int next;
    char name[16];
    const int number = __atomic_add_fetch(&next, 1, __ATOMIC_RELAXED);
    snprintf(name, sizeof(name), "worker-%d", number);
    pthread_setname_np(pthread_self(), name);
    ContendOnce(pObject, number == 1);
    for (int i = 0; i < 20; ++i)
    {
        pthread_mutex_lock(&g_queueLock);
        Sleep(5);
        pthread_mutex_unlock(&g_queueLock);
        pthread_mutex_lock(&pObject->m_lock);
        Sleep(1);
        pthread_mutex_unlock(&pObject->m_lock);
        pthread_mutex_lock(&g_countLock);
        pthread_mutex_unlock(&g_countLock);
    }
    return NULL;
}

static int Queue(void)
{
    struct Object* pObject = calloc(1, sizeof(*pObject));
    pthread_t threads[4];
    pthread_mutex_init(&pObject->m_lock, NULL);
    pthread_barrier_init(&g_isReady, NULL, 4);
    for (int i = 0; i < 4; ++i)
    {
        threads[i] = Start(WorkOff, pObject);
    }
    for (int i = 0; i < 4; ++i)
    {
        pthread_join(threads[i], NULL);
    }
    free(pObject);
    return 0;
}

// ---- deadlock: two locks, taken in two orders ------------------------------------------------------------

static void* TakeBoth(void* pIsReverse)
{
    pthread_mutex_t* pFirst = pIsReverse == NULL ? &g_queueLock : &g_countLock;
    pthread_mutex_t* pSecond = pIsReverse == NULL ? &g_countLock : &g_queueLock;
    pthread_setname_np(pthread_self(), pIsReverse == NULL ? "forward" : "reverse");
    pthread_mutex_lock(pFirst);
    pthread_barrier_wait(&g_isReady);
    pthread_mutex_lock(pSecond);
    return NULL;
}

static int Deadlock(void)
{
    pthread_barrier_init(&g_isReady, NULL, 2);
    Start(TakeBoth, NULL);
    Start(TakeBoth, &g_isReady);
    Sleep(300);
    return 0; // the threads are left where they are
}

int main(int argc, char** argv)
{
    const char* pWhat = argc > 1 ? argv[1] : "";
    return strcmp(pWhat, "mix") == 0        ? Mix()
           : strcmp(pWhat, "queue") == 0    ? Queue()
           : strcmp(pWhat, "deadlock") == 0 ? Deadlock()
                                            : 2;
}
