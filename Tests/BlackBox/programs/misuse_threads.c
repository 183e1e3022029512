// Creating, joining, naming, cancelling and leaving threads, used well and badly.
#include "misuse.h"
#include <sched.h>
#include <signal.h>

// One for each waiting thread: a thread that was only told to end may still be on its way out.
static sem_t g_mayEnd[4];
static volatile pid_t g_waitingTid;

static void* ReturnArgument(void* pArgument)
{
    return pArgument;
}

static void* ExitWithArgument(void* pArgument)
{
    pthread_exit(pArgument);
}

static void* WaitForEnd(void* pSemaphore)
{
    g_waitingTid = OwnTid();
    while (sem_wait(pSemaphore) != 0)
    {
    }
    return pSemaphore;
}

// Only then is it certain that the thread has said all it has to say before its wait.
static void WaitUntilWaiting(sem_t* pSemaphore)
{
    while (!g_waitingTid)
    {
        sched_yield();
    }
    WaitUntilParked(g_waitingTid, pSemaphore, sizeof(*pSemaphore));
    g_waitingTid = 0;
}

static void* TouchErrno(void* pUnused)
{
    int before = errno; // fresh in a new thread
    errno = 77;
    SHOW(before);
    return pUnused;
}

static void CreateAndJoin(void)
{
    pthread_t thread;
    void* pResult = NULL;
    SHOW(pthread_create(&thread, NULL, ReturnArgument, (void*)17));
    SHOW(pthread_join(thread, &pResult));
    SHOW(pResult);
    SHOW(pthread_create(&thread, NULL, ExitWithArgument, (void*)18));
    SHOW(pthread_join(thread, &pResult));
    SHOW(pResult);
    SHOW(InThread(TouchErrno, (void*)19));
    SHOW(pthread_join(pthread_self(), NULL)); // EDEADLK
}

static void CreateBadly(void)
{
    pthread_attr_t attributes;
    pthread_t thread;
    SHOW(pthread_attr_init(&attributes));
    SHOW(pthread_attr_setstacksize(&attributes, 1));
    SHOW(pthread_attr_setstacksize(&attributes, (size_t)1 << 46));
    SHOW(pthread_create(&thread, &attributes, ReturnArgument, NULL)); // EAGAIN
    SHOW(pthread_attr_setstacksize(&attributes, PTHREAD_STACK_MIN));
    SHOW(pthread_create(&thread, &attributes, ReturnArgument, NULL)); // the smallest stack there is
    SHOW(pthread_join(thread, NULL));
    SHOW(pthread_attr_setdetachstate(&attributes, 99));
    SHOW(pthread_attr_destroy(&attributes));
}

static void DetachAndJoin(void)
{
    pthread_t thread;
    sem_t* pMayEnd = &g_mayEnd[0];
    SHOW(pthread_create(&thread, NULL, WaitForEnd, pMayEnd));
    WaitUntilWaiting(pMayEnd);
    SHOW(pthread_tryjoin_np(thread, NULL));
    SHOW(pthread_timedjoin_np(thread, NULL, &g_past));
    SHOW(pthread_detach(thread));
    SHOW(pthread_detach(thread));
    SHOW(pthread_join(thread, NULL)); // EINVAL
    SHOW(pthread_kill(thread, 0));
    SHOW(sem_post(pMayEnd));
}

static void NameThreads(void)
{
    char name[16] = "";
    pthread_t thread;
    sem_t* pMayEnd = &g_mayEnd[1];
    SHOW(pthread_create(&thread, NULL, WaitForEnd, pMayEnd));
    WaitUntilWaiting(pMayEnd);
    SHOW(pthread_setname_np(pthread_self(), "short"));
    SHOW(pthread_setname_np(pthread_self(), ""));
    SHOW(pthread_setname_np(pthread_self(), "exactly fifteen"));
    SHOW(pthread_setname_np(pthread_self(), "sixteen letters!")); // ERANGE
    SHOW(pthread_setname_np(thread, "other"));
    SHOW(pthread_setname_np(thread, "sixteen letters!"));
    SHOW(pthread_getname_np(thread, name, sizeof(name)));
    SHOW(strcmp(name, "other"));
    SHOW(pthread_getname_np(pthread_self(), name, sizeof(name)));
    SHOW(strcmp(name, "exactly fifteen"));
    SHOW(sem_post(pMayEnd));
    SHOW(pthread_join(thread, NULL));
}

static void* BeDeaf(void* pSemaphore)
{
    int state = 0;
    SHOW(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state));
    WaitForEnd(pSemaphore);
    SHOW(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state));
    pthread_testcancel();
    SHOW(1); // never
    return NULL;
}

static void CancelThreads(void)
{
    pthread_t thread;
    void* pResult = NULL;
    SHOW(pthread_create(&thread, NULL, WaitForEnd, &g_mayEnd[2]));
    WaitUntilWaiting(&g_mayEnd[2]);
    SHOW(pthread_cancel(thread));
    SHOW(pthread_join(thread, &pResult));
    SHOW(pResult == PTHREAD_CANCELED);
    Check(pthread_create(&thread, NULL, BeDeaf, &g_mayEnd[3]) == 0, "create");
    WaitUntilWaiting(&g_mayEnd[3]);
    SHOW(pthread_cancel(thread));
    SHOW(pthread_cancel(thread));
    Check(sem_post(&g_mayEnd[3]) == 0, "post"); // not shown: the thread has more to say
    SHOW(pthread_join(thread, &pResult));
    SHOW(pResult == PTHREAD_CANCELED);
}

static void* CancelSelf(void* pUnused)
{
    (void)pUnused;
    SHOW(pthread_cancel(pthread_self()));
    pthread_testcancel();
    return NULL;
}

static void* ShowSignalMask(void* pUnused)
{
    sigset_t mask;
    SHOW(pthread_sigmask(SIG_SETMASK, NULL, &mask));
    for (int signal = 1; signal < 65; ++signal)
    {
        printf("%d", sigismember(&mask, signal) == 1);
    }
    puts("");
    return pUnused;
}

static void ShowWhatThreadsInherit(void)
{
    sigset_t some;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR2);
    InThread(ShowSignalMask, NULL);
    SHOW(pthread_sigmask(SIG_BLOCK, &some, NULL));
    InThread(ShowSignalMask, NULL);
    SHOW(InThread(CancelSelf, NULL) == (long)PTHREAD_CANCELED);
    SHOW(sched_getscheduler(0));
}

static pthread_key_t g_key;

static void DestroyValue(void* pValue)
{
    SHOW(*(int*)pValue);
}

static void* UseKey(void* pValue)
{
    SHOW(pthread_setspecific(g_key, pValue));
    return NULL;
}

static void* UseKeyAndExit(void* pValue)
{
    SHOW(pthread_setspecific(g_key, pValue));
    pthread_exit(NULL);
}

static void DestroyThreadValues(void)
{
    int value = 31;
    SHOW(pthread_key_create(&g_key, DestroyValue) == 0);
    InThread(UseKey, &value);
    InThread(UseKeyAndExit, &value);
}

int main(void)
{
    setvbuf(stdout, NULL, _IOFBF, 1 << 16);
    CreateAndJoin();
    CreateBadly();
    DetachAndJoin();
    NameThreads();
    CancelThreads();
    ShowWhatThreadsInherit();
    DestroyThreadValues();
    return 24;
}
