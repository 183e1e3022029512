// Condition variables and semaphores, used well and badly, interrupted as well.
#include "misuse.h"
#include <signal.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_cond = PTHREAD_COND_INITIALIZER;
static sem_t g_semaphore;
static volatile sig_atomic_t g_signals;

static void Count(int signal)
{
    (void)signal;
    ++g_signals;
}

static void UseConditions(void)
{
    pthread_mutex_t checked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    struct timespec soon = Soon();
    SHOW(pthread_cond_wait(&g_cond, &checked)); // EPERM: not the owner
    SHOW(pthread_cond_timedwait(&g_cond, &checked, &g_past));
    SHOW(pthread_mutex_lock(&g_mutex));
    SHOW(pthread_cond_timedwait(&g_cond, &g_mutex, &g_past));
    SHOW(pthread_cond_timedwait(&g_cond, &g_mutex, &g_zero));
    SHOW(pthread_cond_timedwait(&g_cond, &g_mutex, &g_beforeEpoch));
    SHOW(pthread_cond_timedwait(&g_cond, &g_mutex, &g_negative));
    SHOW(pthread_cond_timedwait(&g_cond, &g_mutex, &g_tooMany));
    SHOW(pthread_cond_timedwait(&g_cond, &g_mutex, &soon));
    SHOW(pthread_mutex_trylock(&g_mutex)); // the waits gave the mutex back
    SHOW(pthread_mutex_unlock(&g_mutex));
}

static volatile int g_stage;

static void* Handshake(void* pUnused)
{
    for (int stage = 1; stage <= 20; stage += 2)
    {
        SHOW(pthread_mutex_lock(&g_mutex));
        while (g_stage != stage)
        {
            Check(pthread_cond_wait(&g_cond, &g_mutex) == 0, "wait");
        }
        g_stage = stage + 1;
        SHOW(pthread_cond_broadcast(&g_cond));
        SHOW(pthread_mutex_unlock(&g_mutex));
    }
    return pUnused;
}

static void PlayPingPong(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, Handshake, NULL) == 0, "create");
    pthread_mutex_lock(&g_mutex);
    for (int stage = 0; stage < 20; stage += 2)
    {
        g_stage = stage + 1;
        pthread_cond_signal(&g_cond);
        while (g_stage != stage + 2)
        {
            Check(pthread_cond_timedwait(&g_cond, &g_mutex, &g_future) == 0, "timed wait");
        }
    }
    pthread_mutex_unlock(&g_mutex);
    SHOW(pthread_join(thread, NULL));
}

static void UseSemaphores(void)
{
    struct timespec soon = Soon();
    SHOW(sem_init(&g_semaphore, 0, 2));
    SHOW(sem_wait(&g_semaphore));
    SHOW(sem_trywait(&g_semaphore));
    SHOW(sem_trywait(&g_semaphore));
    SHOW(sem_timedwait(&g_semaphore, &g_past));
    SHOW(sem_timedwait(&g_semaphore, &g_zero));
    SHOW(sem_timedwait(&g_semaphore, &g_beforeEpoch));
    SHOW(sem_timedwait(&g_semaphore, &g_negative));
    SHOW(sem_timedwait(&g_semaphore, &g_tooMany));
    SHOW(sem_timedwait(&g_semaphore, &soon));
    SHOW(sem_post(&g_semaphore));
    SHOW(sem_timedwait(&g_semaphore, &g_past)); // taken at once
    SHOW(sem_init(&g_semaphore, 0, SEM_VALUE_MAX));
    SHOW(sem_post(&g_semaphore));
    SHOW(sem_init(&g_semaphore, 0, 0));
}

// A handler without SA_RESTART interrupts a semaphore's wait, not a mutex's or a condition's.
static void* InterruptMain(void* pThread)
{
    pthread_t main = *(pthread_t*)pThread;
    WaitUntilParked(getpid(), &g_semaphore, sizeof(g_semaphore));
    pthread_kill(main, SIGUSR1);
    return NULL;
}

static void BeInterrupted(void)
{
    struct sigaction action = {.sa_handler = Count};
    pthread_t self = pthread_self();
    pthread_t thread;
    SHOW(sigaction(SIGUSR1, &action, NULL));
    Check(pthread_create(&thread, NULL, InterruptMain, &self) == 0, "create");
    SHOW(sem_wait(&g_semaphore));
    pthread_join(thread, NULL);
    Check(pthread_create(&thread, NULL, InterruptMain, &self) == 0, "create");
    SHOW(sem_timedwait(&g_semaphore, &g_future));
    pthread_join(thread, NULL);
    SHOW(g_signals);
}

int main(void)
{
    UseConditions();
    PlayPingPong();
    UseSemaphores();
    BeInterrupted();
    return 23;
}
