// Modes in which a thread's state or its end is what a signal could disturb.
#include "storm.h"
#include <limits.h>
#include <signal.h>
#include <sys/mman.h>

// ---- errno -----------------------------------------------------------------------------------------------

static void* KeepErrno(void* pUnused)
{
    for (int value = 1; !g_isOver; value = value % 4000 + 1)
    {
        MakeProgress();
        errno = value;
        for (volatile int i = 0; i < 2000; ++i)
        {
            __asm__ volatile("" ::: "memory");
        }
        Check(errno == value, "errno");
    }
    return pUnused;
}

int Errno(void)
{
    RunThreads(KeepErrno, 3);
    return 0;
}

// ---- stacks ----------------------------------------------------------------------------------------------

static void BurnOnAlternateStack(int sig)
{
    (void)sig;
    for (int i = 0; i < 10; ++i)
    {
        BurnNs(30000);
        MakeProgress();
    }
}

enum
{
    CANARIES = 65536
};

// What programs give that follow <signal.h>, and at least room for the frames of two signals.
static size_t StackSize(void)
{
    size_t two = 2 * (size_t)sysconf(_SC_MINSIGSTKSZ) + 2048;
    return two > 8192 ? two : 8192;
}

// The memory below an alternate stack belongs to the program: whoever needs more than there is overwrites it.
static void* UseAlternateStack(void* pUnused)
{
    unsigned char* pMemory = (unsigned char*)malloc(CANARIES + StackSize());
    stack_t stack = {.ss_sp = pMemory + CANARIES, .ss_size = StackSize()};
    memset(pMemory, 0xA5, CANARIES);
    Check(sigaltstack(&stack, NULL) == 0, "sigaltstack");
    while (!g_isOver)
    {
        MakeProgress();
        pthread_kill(pthread_self(), SIGUSR1);
        for (int i = 0; i < CANARIES; ++i)
        {
            if (pMemory[i] != 0xA5)
            {
                fprintf(stderr, "overwritten: %d bytes below an alternate stack\n", CANARIES - i);
                _exit(9);
            }
        }
    }
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, NULL);
    free(pMemory);
    return pUnused;
}

int AlternateStack(void)
{
    struct sigaction action = {.sa_handler = BurnOnAlternateStack, .sa_flags = SA_ONSTACK};
    Check(sigaction(SIGUSR1, &action, NULL) == 0, "sigaction");
    RunThreads(UseAlternateStack, 2);
    return 0;
}

// The storm waits until the thread is on its way, then hits it until it ends.
static void* BurnOnSmallStack(void* pUnused)
{
    JoinStorm();
    for (int i = 0; i < 40; ++i)
    {
        BurnNs(50000);
        MakeProgress();
    }
    LeaveStorm();
    return pUnused;
}

static void CreateSmallThreads(void)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    Check(pthread_attr_setstacksize(&attributes, (size_t)sysconf(_SC_THREAD_STACK_MIN)) == 0, "stack size");
    for (int i = 0; i < 200; ++i)
    {
        pthread_t threads[2];
        for (int k = 0; k < 2; ++k)
        {
            Check(pthread_create(&threads[k], &attributes, BurnOnSmallStack, NULL) == 0, "create");
        }
        pthread_join(threads[0], NULL);
        pthread_join(threads[1], NULL);
    }
}

int SmallestStack(void)
{
    CreateSmallThreads();
    return 0;
}

// ---- ends of threads -------------------------------------------------------------------------------------

static volatile long g_cleanups;

static void CountCleanup(void* pUnused)
{
    (void)pUnused;
    __atomic_add_fetch(&g_cleanups, 1, __ATOMIC_SEQ_CST);
}

static void* BurnUntilCancelled(void* pIsAsynchronous)
{
    int old;
    volatile int isEndless = 1;
    JoinStorm();
    pthread_cleanup_push(CountCleanup, NULL);
    if (pIsAsynchronous)
    {
        pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &old);
    }
    while (isEndless)
    {
        MakeProgress();
        for (volatile int i = 0; i < 1000; ++i)
        {
        }
        if (!pIsAsynchronous)
        {
            pthread_testcancel();
        }
    }
    pthread_cleanup_pop(0);
    return NULL;
}

// A cancelled thread cannot leave the storm: its slot is never used again, so the number of rounds is bounded.
static int CancelThreads(void* pIsAsynchronous)
{
    enum
    {
        ROUNDS = MOST_VICTIMS / 2
    };
    for (int i = 0; i < ROUNDS; ++i)
    {
        pthread_t threads[2];
        void* pResult = NULL;
        for (int k = 0; k < 2; ++k)
        {
            Check(pthread_create(&threads[k], NULL, BurnUntilCancelled, pIsAsynchronous) == 0, "create");
        }
        usleep(20000);
        for (int k = 0; k < 2; ++k)
        {
            Check(pthread_cancel(threads[k]) == 0, "cancel");
            Check(pthread_join(threads[k], &pResult) == 0, "join");
            if (pResult != PTHREAD_CANCELED)
            {
                fprintf(stderr, "a cancelled thread gave %p\n", pResult);
                abort();
            }
        }
    }
    Check(g_cleanups == 2 * ROUNDS, "cleanup handlers");
    return 0;
}

int CancelDeferred(void)
{
    return CancelThreads(NULL);
}

int CancelAsynchronous(void)
{
    return CancelThreads((void*)1);
}

static void* EndByExit(void* pUnused)
{
    JoinStorm();
    BurnNs(200000);
    LeaveStorm();
    pthread_exit(pUnused);
}

int ExitThreads(void)
{
    for (int i = 0; i < 300; ++i)
    {
        pthread_t threads[3];
        for (int k = 0; k < 3; ++k)
        {
            Check(pthread_create(&threads[k], NULL, EndByExit, NULL) == 0, "create");
        }
        for (int k = 0; k < 3; ++k)
        {
            pthread_join(threads[k], NULL);
        }
    }
    return 0;
}

// ---- the end of the process ------------------------------------------------------------------------------

static void* BurnForever(void* pUnused)
{
    JoinStorm();
    for (;;)
    {
        BurnNs(20000);
        MakeProgress();
    }
    return pUnused;
}

// Four threads are sampled before, during and after the finalisation.
int ExitUnderLoad(void)
{
    for (int i = 0; i < 4; ++i)
    {
        pthread_t thread;
        Check(pthread_create(&thread, NULL, BurnForever, NULL) == 0, "create");
        pthread_detach(thread);
    }
    usleep(20000);
    exit(5);
}

// ---- signals ---------------------------------------------------------------------------------------------

typedef void (*Handler)(int);

static void ResetByAction(int sig)
{
    struct sigaction action = {.sa_handler = SIG_DFL};
    sigaction(sig, &action, NULL);
}

static void ResetBySignal(int sig)
{
    signal(sig, SIG_DFL);
}

static void ResetBySigset(int sig)
{
    sigset(sig, SIG_DFL);
}

static void IgnoreByAction(int sig)
{
    struct sigaction action = {.sa_handler = SIG_IGN};
    sigaction(sig, &action, NULL);
}

static void IgnoreBySigignore(int sig)
{
    sigignore(sig);
}

static void RestoreByAction(int sig)
{
    struct sigaction found;
    if (sigaction(sig, NULL, &found) == 0)
    {
        Check(found.sa_mask.__val[0] == 0, "mask");
        sigaction(sig, &found, NULL);
    }
}

static void RestoreBySignal(int sig)
{
    sighandler_t found = signal(sig, SIG_IGN);
    if (found != SIG_ERR)
    {
        signal(sig, found);
    }
}

static void ResetByRawCall(int sig)
{
    char action[64] = {0}; // a kernel's sigaction of zeroes is SIG_DFL without flags
    syscall(SYS_rt_sigaction, sig, action, NULL, _NSIG / 8);
}

// As daemons do it, in each of the ways there are; then it works on for long enough to be sampled.
int ResetSignals(void)
{
    static const struct
    {
        const char* m_pName;
        void (*m_pReset)(int);
    } ways[] = {{"sigaction", ResetByAction}, {"signal", ResetBySignal},        {"sigset", ResetBySigset},
                {"ignore", IgnoreByAction},   {"sigignore", IgnoreBySigignore}, {"raw", ResetByRawCall},
                {"restore", RestoreByAction}, {"restore-signal", RestoreBySignal}};
    const char* pWanted = getenv("ZORV_TEST_RESET");
    JoinStorm();
    for (size_t i = 0; i < sizeof(ways) / sizeof(ways[0]); ++i)
    {
        if (strcmp(ways[i].m_pName, pWanted) == 0)
        {
            for (int sig = 1; sig < _NSIG; ++sig)
            {
                ways[i].m_pReset(sig);
            }
            BurnNs(100000000);
        }
    }
    LeaveStorm();
    return 0;
}

// A handler of the program's that interrupts the sampling handler, and calls what is traced.
static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void LockInHandler(int sig)
{
    (void)sig;
    if (pthread_mutex_trylock(&g_mutex) == 0)
    {
        pthread_mutex_unlock(&g_mutex);
    }
}

static pthread_t g_interrupted[3];
static volatile int g_interruptedCount;

static void* BurnInterrupted(void* pUnused)
{
    static int next;
    g_interrupted[__atomic_fetch_add(&next, 1, __ATOMIC_SEQ_CST)] = pthread_self();
    __atomic_add_fetch(&g_interruptedCount, 1, __ATOMIC_SEQ_CST);
    return BurnInStorm(pUnused);
}

static void* InterruptThreads(void* pUnused)
{
    while (g_interruptedCount < 3)
    {
        usleep(100);
    }
    while (!g_isOver)
    {
        MakeProgress();
        for (int i = 0; i < 3; ++i)
        {
            pthread_kill(g_interrupted[i], SIGUSR1);
        }
        usleep(50);
    }
    return pUnused;
}

int HandlersInHandler(void)
{
    struct sigaction action = {.sa_handler = LockInHandler, .sa_flags = SA_RESTART};
    pthread_t interrupter;
    Check(sigaction(SIGUSR1, &action, NULL) == 0, "sigaction");
    Check(pthread_create(&interrupter, NULL, InterruptThreads, NULL) == 0, "create");
    RunThreads(BurnInterrupted, 3);
    pthread_join(interrupter, NULL);
    return 0;
}

// ---- a program with the same unwinder --------------------------------------------------------------------

static int (*g_pBacktrace)(void**, int);

static void UnwindSelf(void)
{
    void* frames[32];
    Check(g_pBacktrace(frames, 32) > 0, "backtrace");
}

static void* Unwind(void* pUnused)
{
    void (*pCall)(void (*)(void)) = (void (*)(void (*)(void)))NewForeignCode();
    while (!g_isOver)
    {
        MakeProgress();
        pCall(UnwindSelf);
    }
    return pUnused;
}

static void* UnwindOrWalk(void* pUnused)
{
    static int next;
    return __atomic_fetch_add(&next, 1, __ATOMIC_SEQ_CST) % 2 ? Unwind(pUnused) : WalkModules(pUnused);
}

int OwnUnwinder(void)
{
    void* pHandle = dlopen("libunwind.so.8", RTLD_NOW | RTLD_LOCAL);
    Check(pHandle != NULL, "dlopen");
    g_pBacktrace = (int (*)(void**, int))dlsym(pHandle, "unw_backtrace");
    Check(g_pBacktrace != NULL, "look-up");
    RunThreads(UnwindOrWalk, 4);
    return 0;
}
