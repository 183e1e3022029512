// waiting CALL exit COUNT     that many threads wait in the call when main returns
// waiting CALL cancel KIND    a waiting thread is cancelled; KIND: deferred, async, or pending (before the
// call) waiting CALL interrupt      a waiting thread gets a signal that has a handler
#include "waiting_calls.h"

#define UNTOUCHED 4242
#define MAX_THREADS 64

static const struct WaitingCall* g_pCall;
static volatile pid_t g_tids[MAX_THREADS];
static volatile int g_wasCancelled;
static const char* g_pKind = "";

// Is the thread inside the system call in which this call waits?
static int IsWaiting(pid_t tid)
{
    char path[64];
    char text[16] = "";
    snprintf(path, sizeof(path), "/proc/self/task/%d/syscall", tid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    Check(fd >= 0 && read(fd, text, sizeof(text) - 1) > 0, "look at a thread");
    close(fd);
    return strcmp(strtok(text, " \n"), "running") != 0 && atoi(text) == g_pCall->m_number;
}

static void AwaitWaiting(const volatile pid_t* pTid)
{
    while (!*pTid || !IsWaiting(*pTid))
    {
        syscall(SYS_sched_yield);
    }
}

static void* WaitForEver(void* pTid)
{
    *(volatile pid_t*)pTid = OwnTid();
    g_pCall->m_pWait();
    return NULL;
}

static int ExitOverThreads(int count)
{
    pthread_t thread;
    for (int i = 0; i < count; ++i)
    {
        Check(pthread_create(&thread, NULL, WaitForEver, (void*)&g_tids[i]) == 0, "create");
    }
    for (int i = 0; i < count; ++i)
    {
        AwaitWaiting(&g_tids[i]);
        Say("waits %d", g_tids[i]);
    }
    return 9;
}

static void CleanUp(void* pName)
{
    Say("cleanup %s", (const char*)pName);
}

static void* BeCancelled(void* pTid)
{
    int type;
    pthread_cleanup_push(CleanUp, "outer");
    pthread_cleanup_push(CleanUp, "inner");
    *(volatile pid_t*)pTid = OwnTid();
    while (strcmp(g_pKind, "pending") == 0 && !g_wasCancelled)
    {
    }
    pthread_setcanceltype(strcmp(g_pKind, "async") == 0 ? PTHREAD_CANCEL_ASYNCHRONOUS : PTHREAD_CANCEL_DEFERRED,
                          &type);
    long result = g_pCall->m_pWait();
    Say("returned %ld", result);
    pthread_cleanup_pop(0);
    pthread_cleanup_pop(0);
    return NULL;
}

static int CancelThread(void)
{
    pthread_t thread;
    void* pResult = NULL;
    Check(pthread_create(&thread, NULL, BeCancelled, (void*)&g_tids[0]) == 0, "create");
    if (strcmp(g_pKind, "pending") != 0)
    {
        AwaitWaiting(&g_tids[0]);
    }
    Say("cancel %d", pthread_cancel(thread));
    g_wasCancelled = 1;
    Check(pthread_join(thread, &pResult) == 0, "join");
    Say("joined %s", pResult == PTHREAD_CANCELED ? "cancelled" : "alive");
    return 4;
}

static void Nothing(int signal)
{
    (void)signal;
}

static void* BeInterrupted(void* pTid)
{
    *(volatile pid_t*)pTid = OwnTid();
    errno = UNTOUCHED;
    long result = g_pCall->m_pWait();
    int error = errno;
    // what is left of a sleep may be rounded up
    Say("returned %ld, errno %d", result > 3590 ? 3590 : result, error);
    return NULL;
}

static int InterruptThread(void)
{
    pthread_t thread;
    struct sigaction action = {.sa_handler = Nothing};
    sigaction(SIGUSR1, &action, NULL);
    Check(pthread_create(&thread, NULL, BeInterrupted, (void*)&g_tids[0]) == 0, "create");
    AwaitWaiting(&g_tids[0]);
    pthread_kill(thread, SIGUSR1);
    Check(pthread_join(thread, NULL) == 0, "join");
    return 5;
}

int main(int count, char** ppArguments)
{
    Check(count >= 3, "usage");
    for (size_t i = 0; i < sizeof(g_waitingCalls) / sizeof(g_waitingCalls[0]); ++i)
    {
        if (strcmp(g_waitingCalls[i].m_pName, ppArguments[1]) == 0)
        {
            g_pCall = &g_waitingCalls[i];
        }
    }
    Check(g_pCall != NULL, ppArguments[1]);
    PrepareWaitingCalls();
    if (strcmp(ppArguments[2], "exit") == 0)
    {
        return ExitOverThreads(atoi(ppArguments[3]));
    }
    if (strcmp(ppArguments[2], "cancel") == 0)
    {
        g_pKind = ppArguments[3];
        return CancelThread();
    }
    return InterruptThread();
}
