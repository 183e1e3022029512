// The program under study in the tests of the command. Its first argument says what it does.
#define _GNU_SOURCE
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_barrier_t g_isHeld;

static void Sleep(long milliseconds)
{
    struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    while (nanosleep(&time, &time) != 0)
    {
    }
}

static void* Hold(void* pMilliseconds)
{
    pthread_setname_np(pthread_self(), "holder");
    pthread_mutex_lock(&g_mutex);
    pthread_barrier_wait(&g_isHeld);
    Sleep((long)pMilliseconds);
    pthread_mutex_unlock(&g_mutex);
    return NULL;
}

static void* Wait(void* pUnused)
{
    (void)pUnused;
    pthread_setname_np(pthread_self(), "waiter");
    pthread_barrier_wait(&g_isHeld);
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
    return NULL;
}

// One thread waits for a mutex as long as another holds it, and that is as long as the argument says.
static int Contend(long milliseconds)
{
    pthread_t holder;
    pthread_t waiter;
    pthread_barrier_init(&g_isHeld, NULL, 2);
    pthread_create(&holder, NULL, Hold, (void*)milliseconds);
    pthread_create(&waiter, NULL, Wait, NULL);
    pthread_join(holder, NULL);
    pthread_join(waiter, NULL);
    printf("%#lx\n", (unsigned long)&g_mutex);
    return 0;
}

// Leaves while a thread waits for a mutex that nobody gives back.
static int Abandon(void)
{
    pthread_t waiter;
    pthread_barrier_init(&g_isHeld, NULL, 2);
    pthread_mutex_lock(&g_mutex);
    pthread_create(&waiter, NULL, Wait, NULL);
    pthread_barrier_wait(&g_isHeld);
    Sleep(100);
    printf("%#lx\n", (unsigned long)&g_mutex);
    return 3;
}

static int Count(long locks)
{
    for (long i = 0; i < locks; ++i)
    {
        pthread_mutex_lock(&g_mutex);
        pthread_mutex_unlock(&g_mutex);
    }
    return 0;
}

static volatile sig_atomic_t g_signal;
static volatile sig_atomic_t g_count;

static void OnSignal(int signal)
{
    g_signal = signal;
    ++g_count;
}

// Waits for a signal and says which one came, and how often.
static int Await(void)
{
    sigset_t blocked;
    sigset_t before;
    struct sigaction action = {.sa_handler = OnSignal};
    sigfillset(&blocked);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    puts("ready");
    fflush(stdout);
    while (g_signal == 0)
    {
        sigsuspend(&before);
    }
    sigprocmask(SIG_SETMASK, &before, NULL);
    printf("signal %d\n", (int)g_signal);
    fflush(stdout);
    getchar(); // until then more may come
    printf("%d in all\n", (int)g_count);
    return 20 + g_signal;
}

int main(int argc, char** argv)
{
    const char* pWhat = argc > 1 ? argv[1] : "";
    const long number = argc > 2 ? strtol(argv[2], NULL, 10) : 0;
    if (strcmp(pWhat, "contend") == 0)
    {
        return Contend(number);
    }
    if (strcmp(pWhat, "abandon") == 0)
    {
        return Abandon();
    }
    if (strcmp(pWhat, "count") == 0)
    {
        return Count(number);
    }
    return strcmp(pWhat, "await") == 0 ? Await() : 2;
}
