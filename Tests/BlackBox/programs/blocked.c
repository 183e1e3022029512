// Ends while a thread of its own is blocked: blocked CALL END. Says the blocked thread's id and what it waits
// on.
#include "blocking_calls.h"
#include <signal.h>

static volatile pid_t g_blockedTid;
static const struct BlockingCall* g_pCall;

static void* Block(void* pUnused)
{
    g_blockedTid = OwnTid();
    g_pCall->m_pBlock();
    return pUnused;
}

static void StartBlockedThread(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, Block, NULL) == 0, "create");
    while (!g_blockedTid)
    {
        usleep(500);
    }
    WaitUntilParked(g_blockedTid, g_pCall->m_pObject, g_pCall->m_objectSize);
    Say("blocked %d %lu", g_blockedTid, BlockingObject(g_pCall));
}

static void* ExitFromThread(void* pUnused)
{
    (void)pUnused;
    exit(9);
}

// The main thread itself waits while another thread ends the process.
static int EndFromThread(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, ExitFromThread, NULL) == 0, "create");
    pthread_join(thread, NULL);
    return 1;
}

static int EndFromMain(void)
{
    return 9;
}

static void ExitInHandler(int signal)
{
    (void)signal;
    exit(9);
}

static void* SignalMainOnceParked(void* pMain)
{
    WaitUntilParked(getpid(), NULL, 0);
    pthread_kill(*(pthread_t*)pMain, SIGUSR1);
    return NULL;
}

// The main thread is inside a traced wait when its own handler ends the process.
static int EndFromHandler(void)
{
    pthread_t self = pthread_self();
    pthread_t thread;
    signal(SIGUSR1, ExitInHandler);
    Check(pthread_create(&thread, NULL, SignalMainOnceParked, &self) == 0, "create");
    BlockJoin();
    return 1;
}

static int Linger(void)
{
    char line[16];
    while (Hear(line, sizeof(line)))
    {
        Say("done");
    }
    return 9;
}

static const struct
{
    const char* m_pName;
    int (*m_pEnd)(void);
} g_ends[] = {
    {"main", EndFromMain}, {"thread", EndFromThread}, {"handler", EndFromHandler}, {"linger", Linger}};

int main(int count, char** ppArguments)
{
    Check(count == 3, "usage");
    PrepareBlockingCalls();
    g_pCall = FindBlockingCall(ppArguments[1]);
    StartBlockedThread();
    for (size_t i = 0; i < sizeof(g_ends) / sizeof(g_ends[0]); ++i)
    {
        if (strcmp(ppArguments[2], g_ends[i].m_pName) == 0)
        {
            return g_ends[i].m_pEnd();
        }
    }
    Check(0, ppArguments[2]);
}
