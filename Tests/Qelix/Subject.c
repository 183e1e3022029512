// The program under study in the tests of the command. Its first argument says what it does.
#define _GNU_SOURCE
#include <fcntl.h>
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

// Calls that are known by name and number.
static int Calls(void)
{
    const int fd = open("/dev/null", O_WRONLY);
    for (int i = 0; i < 3; ++i)
    {
        Sleep(1);
    }
    for (int i = 0; i < 7; ++i)
    {
        if (write(fd, "x", 1) != 1)
        {
            return 1;
        }
    }
    return Count(11);
}

static long ThreadNs(void)
{
    struct timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1000000000L + time.tv_nsec;
}

// Burns so much CPU time of this thread; returns what it really was.
#define WORK(NAME, FACTOR)                                                                                             \
    static __attribute__((noinline, noclone)) long NAME(long nanoseconds)                                             \
    {                                                                                                                  \
        volatile unsigned long value = (FACTOR);                                                                       \
        const long start = ThreadNs();                                                                                 \
        long now = start;                                                                                              \
        while (now - start < nanoseconds)                                                                              \
        {                                                                                                              \
            for (int i = 0; i < 20000; ++i)                                                                            \
            {                                                                                                          \
                value = value * (FACTOR) + 1;                                                                          \
            }                                                                                                          \
            now = ThreadNs();                                                                                          \
        }                                                                                                              \
        return now - start;                                                                                            \
    }

WORK(WorkSixty, 3)
WORK(WorkThirty, 5)
WORK(WorkTen, 7)

static long g_worked[3];

// In turns, so that a machine that is busy for a while takes from all three alike.
static void* Work(void* pMilliseconds)
{
    const long turnMs = 100;
    const long tenthNs = turnMs * 100000;
    pthread_setname_np(pthread_self(), "burner");
    for (long left = (long)pMilliseconds; left > 0; left -= turnMs)
    {
        __atomic_add_fetch(&g_worked[0], WorkSixty(6 * tenthNs), __ATOMIC_RELAXED);
        __atomic_add_fetch(&g_worked[1], WorkThirty(3 * tenthNs), __ATOMIC_RELAXED);
        __atomic_add_fetch(&g_worked[2], WorkTen(tenthNs), __ATOMIC_RELAXED);
    }
    return NULL;
}

// Threads that burn CPU in three functions, 60 to 30 to 10; says how much it was in each.
static int Burn(long milliseconds, long count)
{
    pthread_t threads[16];
    for (long i = 0; i < count; ++i)
    {
        pthread_create(&threads[i], NULL, Work, (void*)milliseconds);
    }
    for (long i = 0; i < count; ++i)
    {
        pthread_join(threads[i], NULL);
    }
    printf("%ld %ld %ld\n", g_worked[0], g_worked[1], g_worked[2]);
    return 0;
}

// Ten functions, from a fifth of the CPU time down to a fiftieth.
WORK(ShareTwenty, 11)
WORK(ShareSixteen, 13)
WORK(ShareFourteen, 17)
WORK(ShareTwelve, 19)
WORK(ShareTen, 23)
WORK(ShareNine, 29)
WORK(ShareSeven, 31)
WORK(ShareSix, 37)
WORK(ShareFour, 41)
WORK(ShareTwo, 43)

static int Shares(long milliseconds)
{
    const long turnMs = 400;
    const long hundredthNs = turnMs * 10000;
    for (long left = milliseconds; left > 0; left -= turnMs)
    {
        ShareTwenty(20 * hundredthNs);
        ShareSixteen(16 * hundredthNs);
        ShareFourteen(14 * hundredthNs);
        ShareTwelve(12 * hundredthNs);
        ShareTen(10 * hundredthNs);
        ShareNine(9 * hundredthNs);
        ShareSeven(7 * hundredthNs);
        ShareSix(6 * hundredthNs);
        ShareFour(4 * hundredthNs);
        ShareTwo(2 * hundredthNs);
    }
    return 0;
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
    if (strcmp(pWhat, "calls") == 0)
    {
        return Calls();
    }
    if (strcmp(pWhat, "burn") == 0 && argc > 3)
    {
        return Burn(number, strtol(argv[3], NULL, 10));
    }
    if (strcmp(pWhat, "shares") == 0)
    {
        return Shares(number);
    }
    return strcmp(pWhat, "await") == 0 ? Await() : 2;
}
