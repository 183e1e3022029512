// cancelled CALL KIND: a thread is cancelled inside CALL; its cleanup handlers and destructors say that they
// ran.
//   blocked:  cancelled while blocked
//   deferred: cancelled while blocked, then released (for calls that are no cancellation point)
//   async:    asynchronous cancellation while blocked
//   pending:  cancelled before the call
extern "C"
{
#include "blocking_calls.h"
#include <sched.h>
}

struct Guard
{
    const char* m_pName;
    ~Guard()
    {
        Say("destructor %s", m_pName);
    }
};

static volatile pid_t g_tid;
static volatile int g_wasCancelled;
static const BlockingCall* g_pCall;
static const char* g_pKind;

static bool IsKind(const char* pKind)
{
    return strcmp(g_pKind, pKind) == 0;
}

static void CleanUp(void* pName)
{
    Say("cleanup %s", static_cast<const char*>(pName));
}

static void Call()
{
    Guard guard{"inner"};
    pthread_cleanup_push(CleanUp, const_cast<char*>("inner"));
    int type = 0;
    pthread_setcanceltype(IsKind("async") ? PTHREAD_CANCEL_ASYNCHRONOUS : PTHREAD_CANCEL_DEFERRED, &type);
    int result = g_pCall->m_pBlock();
    pthread_setcanceltype(type, nullptr);
    Say("returned %d", result);
    pthread_testcancel();
    Say("still alive");
    pthread_cleanup_pop(1);
}

static void* Run(void* pUnused)
{
    Guard guard{"outer"};
    pthread_cleanup_push(CleanUp, const_cast<char*>("outer"));
    g_tid = OwnTid();
    while (IsKind("pending") && !g_wasCancelled)
    {
        sched_yield(); // no cancellation point
    }
    Call();
    pthread_cleanup_pop(1);
    return pUnused;
}

static int CancelParked(pthread_t thread)
{
    WaitUntilParked(g_tid, g_pCall->m_pObject, g_pCall->m_objectSize);
    int result = pthread_cancel(thread);
    if (IsKind("deferred"))
    {
        g_pCall->m_pRelease();
    }
    return result;
}

static int CancelBeforeTheCall(pthread_t thread)
{
    int result = pthread_cancel(thread);
    g_wasCancelled = 1;
    g_pCall->m_pRelease();
    return result;
}

int main(int count, char** ppArguments)
{
    Check(count == 3, "usage");
    PrepareBlockingCalls();
    g_pCall = FindBlockingCall(ppArguments[1]);
    g_pKind = ppArguments[2];
    pthread_t thread;
    void* pResult = nullptr;
    Check(pthread_create(&thread, nullptr, Run, nullptr) == 0, "create");
    while (!g_tid)
    {
        usleep(500);
    }
    int cancelled = IsKind("pending") ? CancelBeforeTheCall(thread) : CancelParked(thread);
    Check(pthread_join(thread, &pResult) == 0, "join");
    Say("cancel %d", cancelled);
    Say("joined %s", pResult == PTHREAD_CANCELED ? "cancelled" : "alive");
    return 4;
}
