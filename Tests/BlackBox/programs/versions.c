// Bound to the old and to the new version of every versioned name at once.
//   versions table: for each reference, "NAME VERSION ENTRY": which of the agent's entries it reached
//   versions calls: waits through the old and through the new condition functions; says the condition
//   variables'
//                   addresses and libc's two functions
#include "blackbox.h"
#include <dlfcn.h>
#include <semaphore.h>
#include <time.h>

#define NAMES(X)                                                                                               \
    X(pthread_create, PthreadCreate, 2.2.5, 2_2_5, 2.34, 2_34)                                                 \
    X(pthread_mutex_trylock, PthreadMutexTryLock, 2.2.5, 2_2_5, 2.34, 2_34)                                    \
    X(pthread_mutex_timedlock, PthreadMutexTimedLock, 2.2.5, 2_2_5, 2.34, 2_34)                                \
    X(pthread_cond_wait, PthreadCondWait, 2.2.5, 2_2_5, 2.3.2, 2_3_2)                                          \
    X(pthread_cond_timedwait, PthreadCondTimedWait, 2.2.5, 2_2_5, 2.3.2, 2_3_2)                                \
    X(pthread_rwlock_rdlock, PthreadReadLock, 2.2.5, 2_2_5, 2.34, 2_34)                                        \
    X(pthread_rwlock_tryrdlock, PthreadTryReadLock, 2.2.5, 2_2_5, 2.34, 2_34)                                  \
    X(pthread_rwlock_timedrdlock, PthreadTimedReadLock, 2.2.5, 2_2_5, 2.34, 2_34)                              \
    X(pthread_rwlock_wrlock, PthreadWriteLock, 2.2.5, 2_2_5, 2.34, 2_34)                                       \
    X(pthread_rwlock_trywrlock, PthreadTryWriteLock, 2.2.5, 2_2_5, 2.34, 2_34)                                 \
    X(pthread_rwlock_timedwrlock, PthreadTimedWriteLock, 2.2.5, 2_2_5, 2.34, 2_34)                             \
    X(pthread_spin_lock, PthreadSpinLock, 2.2.5, 2_2_5, 2.34, 2_34)                                            \
    X(pthread_spin_trylock, PthreadSpinTryLock, 2.2.5, 2_2_5, 2.34, 2_34)                                      \
    X(pthread_barrier_wait, PthreadBarrierWait, 2.2.5, 2_2_5, 2.34, 2_34)                                      \
    X(sem_wait, SemWait, 2.2.5, 2_2_5, 2.34, 2_34)                                                             \
    X(sem_trywait, SemTryWait, 2.2.5, 2_2_5, 2.34, 2_34)                                                       \
    X(sem_timedwait, SemTimedWait, 2.2.5, 2_2_5, 2.34, 2_34)                                                   \
    X(pthread_join, PthreadJoin, 2.2.5, 2_2_5, 2.34, 2_34)                                                     \
    X(pthread_cancel, PthreadCancel, 2.2.5, 2_2_5, 2.34, 2_34)                                                 \
    X(pthread_setname_np, PthreadSetNameNp, 2.12, 2_12, 2.34, 2_34)

#define BIND(name, entry, old, oldSuffix, new, newSuffix)                                                      \
    __asm__(".symver Old_" #name "," #name "@GLIBC_" #old);                                                    \
    __asm__(".symver New_" #name "," #name "@GLIBC_" #new);                                                    \
    extern __typeof__(name) Old_##name, New_##name;
NAMES(BIND)

static const struct Reference
{
    const char* m_pName;
    const char* m_pVersion;
    void* m_pReached;
    const char* m_pEntries[3]; // plain, old, new
} g_references[] = {
#define ENTRIES(entry, oldSuffix, newSuffix)                                                                   \
    {                                                                                                          \
        "ZorvInterpose" #entry, "ZorvInterpose" #entry "_" #oldSuffix, "ZorvInterpose" #entry "_" #newSuffix   \
    }
#define REFERENCES(name, entry, old, oldSuffix, new, newSuffix)                                                \
    {#name, "old", (void*)Old_##name, ENTRIES(entry, oldSuffix, newSuffix)},                                   \
        {#name, "new", (void*)New_##name, ENTRIES(entry, oldSuffix, newSuffix)},
    NAMES(REFERENCES)};

static void SayTable(void)
{
    static const char* const answers[] = {"plain", "old", "new"};
    for (size_t i = 0; i < sizeof(g_references) / sizeof(g_references[0]); ++i)
    {
        const struct Reference* pReference = &g_references[i];
        const char* pAnswer = "none";
        for (int entry = 0; entry < 3; ++entry)
        {
            if (pReference->m_pReached == dlsym(RTLD_DEFAULT, pReference->m_pEntries[entry]))
            {
                pAnswer = answers[entry];
            }
        }
        Say("%s %s %s", pReference->m_pName, pReference->m_pVersion, pAnswer);
    }
}

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_oldCond; // all zero: the only value that the old functions start from
static pthread_cond_t g_newCond = PTHREAD_COND_INITIALIZER;
static volatile int g_enough;

__asm__(".symver OldCondSignal,pthread_cond_signal@GLIBC_2.2.5");
extern __typeof__(pthread_cond_signal) OldCondSignal;

static void* SignalBoth(void* pUnused)
{
    while (!g_enough)
    {
        OldCondSignal(&g_oldCond);
        pthread_cond_signal(&g_newCond);
        usleep(500);
    }
    return pUnused;
}

static void SayLibcsOwn(const char* pName)
{
    void* pLibc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    Say("%s %lu %lu", pName, (unsigned long)dlvsym(pLibc, pName, "GLIBC_2.2.5"),
        (unsigned long)dlvsym(pLibc, pName, "GLIBC_2.3.2"));
}

static void MakeCalls(void)
{
    pthread_t thread;
    struct timespec past = {1, 0};
    Check(pthread_create(&thread, NULL, SignalBoth, NULL) == 0, "create");
    pthread_mutex_lock(&g_mutex);
    Check(Old_pthread_cond_wait(&g_oldCond, &g_mutex) == 0, "old wait");
    Check(New_pthread_cond_wait(&g_newCond, &g_mutex) == 0, "new wait");
    g_enough = 1;
    pthread_join(thread, NULL);
    Check(Old_pthread_cond_timedwait(&g_oldCond, &g_mutex, &past) == ETIMEDOUT, "old timed wait");
    Check(New_pthread_cond_timedwait(&g_newCond, &g_mutex, &past) == ETIMEDOUT, "new timed wait");
    Say("conds %lu %lu", (unsigned long)&g_oldCond, (unsigned long)&g_newCond);
    SayLibcsOwn("pthread_cond_wait");
    SayLibcsOwn("pthread_cond_timedwait");
}

int main(int count, char** ppArguments)
{
    Check(count == 2, "usage");
    if (strcmp(ppArguments[1], "table") == 0)
    {
        SayTable();
    }
    else
    {
        MakeCalls();
    }
    return 0;
}
