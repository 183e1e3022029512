// A signal handler makes COUNT traced calls while its thread is inside CALL: nested CALL COUNT.
// Says who waited on what and how many times the wait was entered.
#include "blocking_calls.h"
#include <signal.h>

static pthread_mutex_t g_handlerMutex = PTHREAD_MUTEX_INITIALIZER;
static volatile sig_atomic_t g_handlerRan;
static volatile pid_t g_waiterTid;
static const struct BlockingCall* g_pCall;
static int g_count;

static void LockInHandler(int signal)
{
    (void)signal;
    int saved = errno;
    for (int i = 0; i < g_count; ++i)
    {
        pthread_mutex_lock(&g_handlerMutex);
        pthread_mutex_unlock(&g_handlerMutex);
    }
    g_handlerRan = 1;
    errno = saved;
}

static void* Wait(void* pUnused)
{
    long entered = 0;
    int result;
    g_waiterTid = OwnTid();
    do
    {
        ++entered;
        result = g_pCall->m_pBlock();
    } while (result == -1 && errno == EINTR);
    Check(result == 0, "the wait");
    (void)pUnused;
    return (void*)entered;
}

static void InterruptWaiter(pthread_t waiter)
{
    WaitUntilParked(g_waiterTid, g_pCall->m_pObject, g_pCall->m_objectSize);
    Check(pthread_kill(waiter, SIGUSR1) == 0, "kill");
    while (!g_handlerRan)
    {
        usleep(500);
    }
    WaitUntilParked(g_waiterTid, g_pCall->m_pObject, g_pCall->m_objectSize);
}

int main(int count, char** ppArguments)
{
    Check(count == 3, "usage");
    struct sigaction action = {.sa_handler = LockInHandler, .sa_flags = SA_RESTART};
    Check(sigaction(SIGUSR1, &action, NULL) == 0, "sigaction");
    PrepareBlockingCalls();
    g_pCall = FindBlockingCall(ppArguments[1]);
    g_count = atoi(ppArguments[2]);

    pthread_t waiter;
    void* pEntered = NULL;
    Check(pthread_create(&waiter, NULL, Wait, NULL) == 0, "create");
    while (!g_waiterTid)
    {
        usleep(500);
    }
    InterruptWaiter(waiter);
    g_pCall->m_pRelease();
    Check(pthread_join(waiter, &pEntered) == 0, "join");
    Say("%d %lu %lu %ld", g_waiterTid, BlockingObject(g_pCall), (unsigned long)&g_handlerMutex, (long)pEntered);
    return 0;
}
