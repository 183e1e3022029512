// Read-write locks, spin locks and barriers, used well and badly.
#include "misuse.h"

static void* TryFromOutside(void* pArgument)
{
    pthread_rwlock_t* pLock = pArgument;
    struct timespec soon = Soon();
    SHOW(pthread_rwlock_tryrdlock(pLock));
    SHOW(pthread_rwlock_trywrlock(pLock));
    SHOW(pthread_rwlock_timedwrlock(pLock, &g_past));
    SHOW(pthread_rwlock_timedwrlock(pLock, &g_zero));
    SHOW(pthread_rwlock_timedwrlock(pLock, &g_beforeEpoch));
    SHOW(pthread_rwlock_timedwrlock(pLock, &g_negative));
    SHOW(pthread_rwlock_timedwrlock(pLock, &g_tooMany));
    SHOW(pthread_rwlock_timedwrlock(pLock, &soon));
    return NULL;
}

static void* ReadFromOutside(void* pArgument)
{
    pthread_rwlock_t* pLock = pArgument;
    struct timespec soon = Soon();
    SHOW(pthread_rwlock_timedrdlock(pLock, &g_past));
    SHOW(pthread_rwlock_timedrdlock(pLock, &g_zero));
    SHOW(pthread_rwlock_timedrdlock(pLock, &g_negative));
    SHOW(pthread_rwlock_timedrdlock(pLock, &g_tooMany));
    SHOW(pthread_rwlock_timedrdlock(pLock, &soon));
    return NULL;
}

static void UseForReading(pthread_rwlock_t* pLock)
{
    SHOW(pthread_rwlock_rdlock(pLock));
    SHOW(pthread_rwlock_tryrdlock(pLock));
    SHOW(pthread_rwlock_timedrdlock(pLock, g_pNoDeadline));
    SHOW(pthread_rwlock_timedrdlock(pLock, &g_past));
    SHOW(pthread_rwlock_timedrdlock(pLock, &g_negative));
    SHOW(pthread_rwlock_trywrlock(pLock));
    InThread(TryFromOutside, pLock);
    for (int i = 0; i < 5; ++i)
    {
        SHOW(pthread_rwlock_unlock(pLock));
    }
}

static void UseForWriting(pthread_rwlock_t* pLock)
{
    SHOW(pthread_rwlock_wrlock(pLock));
    SHOW(pthread_rwlock_wrlock(pLock));
    SHOW(pthread_rwlock_rdlock(pLock));
    SHOW(pthread_rwlock_trywrlock(pLock));
    SHOW(pthread_rwlock_tryrdlock(pLock));
    SHOW(pthread_rwlock_timedrdlock(pLock, &g_future));
    SHOW(pthread_rwlock_timedwrlock(pLock, &g_future));
    InThread(TryFromOutside, pLock);
    InThread(ReadFromOutside, pLock);
    SHOW(pthread_rwlock_unlock(pLock));
    SHOW(pthread_rwlock_timedwrlock(pLock, g_pNoDeadline));
    SHOW(pthread_rwlock_unlock(pLock));
    SHOW(pthread_rwlock_timedwrlock(pLock, &g_past));
    SHOW(pthread_rwlock_unlock(pLock));
}

static void UseReadWriteLocks(void)
{
    static const int kinds[] = {PTHREAD_RWLOCK_PREFER_READER_NP, PTHREAD_RWLOCK_PREFER_WRITER_NP,
                                PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP};
    for (size_t i = 0; i < sizeof(kinds) / sizeof(kinds[0]); ++i)
    {
        pthread_rwlock_t lock;
        pthread_rwlockattr_t attributes;
        printf("kind %d\n", kinds[i]);
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, kinds[i]);
        pthread_rwlock_init(&lock, &attributes);
        UseForReading(&lock);
        UseForWriting(&lock);
        SHOW(pthread_rwlock_destroy(&lock));
    }
}

static void* TrySpin(void* pSpin)
{
    SHOW(pthread_spin_trylock(pSpin));
    return NULL;
}

static void UseSpinLocks(void)
{
    pthread_spinlock_t spin;
    SHOW(pthread_spin_init(&spin, PTHREAD_PROCESS_PRIVATE));
    SHOW(pthread_spin_lock(&spin));
    SHOW(pthread_spin_trylock(&spin));
    InThread(TrySpin, (void*)&spin);
    SHOW(pthread_spin_unlock(&spin));
    SHOW(pthread_spin_trylock(&spin));
    SHOW(pthread_spin_unlock(&spin));
    SHOW(pthread_spin_destroy(&spin));
}

static void* WaitAtBarrier(void* pBarrier)
{
    errno = UNTOUCHED;
    int result = pthread_barrier_wait(pBarrier);
    Check(errno == UNTOUCHED, "errno");
    return (void*)(long)result;
}

static void UseBarriers(void)
{
    pthread_barrier_t barrier;
    pthread_t thread;
    void* pResult = NULL;
    SHOW(pthread_barrier_init(&barrier, NULL, 0));
    SHOW(pthread_barrier_init(&barrier, NULL, 1));
    SHOW(pthread_barrier_wait(&barrier));
    SHOW(pthread_barrier_destroy(&barrier));
    SHOW(pthread_barrier_init(&barrier, NULL, 2));
    Check(pthread_create(&thread, NULL, WaitAtBarrier, &barrier) == 0, "create");
    int own = pthread_barrier_wait(&barrier);
    Check(pthread_join(thread, &pResult) == 0, "join");
    // one of the two is the serial thread, whichever
    SHOW(own + (int)(long)pResult);
    SHOW(pthread_barrier_destroy(&barrier));
}

int main(void)
{
    UseReadWriteLocks();
    UseSpinLocks();
    UseBarriers();
    return 22;
}
