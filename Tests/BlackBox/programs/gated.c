// Makes one call of the pthread family between two handshakes. The object gate.so, preloaded behind the agent,
// stands in for libc and holds the call until the test lets it go on.
#include "blackbox.h"
#include <semaphore.h>
#include <time.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_spinlock_t g_spin;
static sem_t g_semaphore;

static void* DoNothing(void* pArgument)
{
    return pArgument;
}

static long Blocking(void)
{
    return pthread_mutex_lock(&g_mutex);
}

static long Try(void)
{
    return pthread_mutex_trylock(&g_mutex);
}

static long Timed(void)
{
    struct timespec deadline = {4000000000, 0};
    return sem_timedwait(&g_semaphore, &deadline);
}

static long TimedAtZero(void)
{
    struct timespec deadline = {0, 0};
    return sem_timedwait(&g_semaphore, &deadline);
}

static long Spin(void)
{
    return pthread_spin_lock(&g_spin);
}

static long Cancel(void)
{
    return pthread_cancel((pthread_t)0x5151);
}

static long CancelSelf(void)
{
    return pthread_cancel(pthread_self());
}

static pthread_t g_created;

static long Create(void)
{
    return pthread_create(&g_created, NULL, DoNothing, NULL);
}

static const struct
{
    const char* m_pName;
    long (*m_pCall)(void);
} g_calls[] = {
    {"blocking", Blocking},         {"try", Try},       {"timed", Timed},
    {"timed_at_zero", TimedAtZero}, {"spin", Spin},     {"cancel", Cancel},
    {"cancel_self", CancelSelf},    {"create", Create},
};

// pthread_exit does not come back, and libc's own is called: there is nothing to hold.
static void* Exit(void* pUnused)
{
    (void)pUnused;
    char line[16];
    Say("ready %d", OwnTid());
    Hear(line, sizeof(line));
    pthread_exit(NULL);
}

static int RunExit(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, Exit, NULL) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    return 0;
}

int main(int count, char** ppArguments)
{
    char line[16];
    Check(count == 2, "usage");
    if (strcmp(ppArguments[1], "exit") == 0)
    {
        return RunExit();
    }
    for (size_t i = 0; i < sizeof(g_calls) / sizeof(g_calls[0]); ++i)
    {
        if (strcmp(ppArguments[1], g_calls[i].m_pName) == 0)
        {
            Say("ready %d", OwnTid());
            Hear(line, sizeof(line));
            long result = g_calls[i].m_pCall();
            Say("result %ld", result);
        }
    }
    Hear(line, sizeof(line));
    if (g_created)
    {
        pthread_join(g_created, NULL);
    }
    return 0;
}
