// storm MODE MILLISECONDS [SIGNALS_A_SECOND [heedless]]: says "sent N" with the number of signals that reached
// threads which live on until they have taken them all.
#include "storm.h"

volatile int g_isOver;

static pid_t g_victims[MOST_VICTIMS]; // 0: free
static long g_sent[MOST_VICTIMS];
static long g_progress[MOST_VICTIMS];
static long g_progressSeen[MOST_VICTIMS];
static int g_isHeedless; // sends without regard to progress
static int g_isForFirst; // of the threads that work, only the first is in the storm
static int g_isCalm;
static long g_rate = 10000;
static uint64_t g_end;
static __thread int t_slot = -1;

void JoinStorm(void)
{
    pid_t none = 0;
    pid_t own = OwnTid();
    for (int slot = 0; slot < MOST_VICTIMS; ++slot, none = 0)
    {
        if (__atomic_compare_exchange_n(&g_victims[slot], &none, own, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        {
            t_slot = slot;
            MakeProgress();
            return;
        }
    }
    Check(0, "a free slot");
}

// The slot is locked while a signal is on its way: -1 is nobody's id.
void LeaveStorm(void)
{
    pid_t own = OwnTid();
    for (pid_t expected = own;
         !__atomic_compare_exchange_n(&g_victims[t_slot], &expected, 0, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
         expected = own)
    {
        sched_yield();
    }
    t_slot = -1;
    getppid(); // pending signals are taken on the way back from the kernel
}

void MakeProgress(void)
{
    if (t_slot >= 0)
    {
        __atomic_add_fetch(&g_progress[t_slot], 1, __ATOMIC_SEQ_CST);
    }
}

static int HasProgressed(int slot)
{
    long progress = __atomic_load_n(&g_progress[slot], __ATOMIC_SEQ_CST);
    if (progress == g_progressSeen[slot] && !g_isHeedless)
    {
        return 0;
    }
    g_progressSeen[slot] = progress;
    return 1;
}

static void Send(pid_t pid, void* pRecord, int slot)
{
    pid_t victim = __atomic_load_n(&g_victims[slot], __ATOMIC_SEQ_CST);
    if (victim <= 0 || !HasProgressed(slot) ||
        !__atomic_compare_exchange_n(&g_victims[slot], &victim, -victim, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
    {
        return;
    }
    g_sent[slot] += QueueSample(pid, victim, pRecord, 0);
    __atomic_store_n(&g_victims[slot], victim, __ATOMIC_SEQ_CST);
}

// Each victim gets its rate in small portions; a full signal queue is no error.
static void* Rage(void* pRecord)
{
    pid_t pid = getpid();
    uint64_t start = WallNs();
    long due = 0;
    while (!__atomic_load_n(&g_isCalm, __ATOMIC_SEQ_CST))
    {
        const struct timespec pause = {0, 100000};
        nanosleep(&pause, NULL);
        // what could not be sent in time, on a busy machine, is left out
        long portion = (long)((WallNs() - start) * (uint64_t)g_rate / 1000000000) - due;
        due += portion;
        for (long i = 0; i < portion && i < 20; ++i)
        {
            for (int slot = 0; slot < MOST_VICTIMS; ++slot)
            {
                Send(pid, pRecord, slot);
            }
        }
    }
    return NULL;
}

struct Work
{
    void* (*m_pRoutine)(void*);
    pthread_t m_thread;
    int m_isVictim;
};

static void* WorkInStorm(void* pArgument)
{
    struct Work* pWork = (struct Work*)pArgument;
    if (pWork->m_isVictim)
    {
        JoinStorm();
    }
    pWork->m_pRoutine(NULL);
    if (pWork->m_isVictim)
    {
        LeaveStorm();
    }
    return NULL;
}

static void SleepUntilEnd(void)
{
    while (WallNs() < g_end)
    {
        usleep(1000);
    }
}

void RunThreadsBesideMain(void* (*pRoutine)(void*), int count, void (*pMain)(void))
{
    struct Work works[16];
    for (int i = 0; i < count; ++i)
    {
        works[i].m_pRoutine = i == 0 && g_isForFirst ? BurnInStorm : pRoutine;
        works[i].m_isVictim = i == 0 || !g_isForFirst;
        Check(pthread_create(&works[i].m_thread, NULL, WorkInStorm, &works[i]) == 0, "create");
    }
    pMain();
    g_isOver = 1;
    for (int i = 0; i < count; ++i)
    {
        pthread_join(works[i].m_thread, NULL);
    }
}

void RunThreads(void* (*pRoutine)(void*), int count)
{
    RunThreadsBesideMain(pRoutine, count, SleepUntilEnd);
}

void* BurnInStorm(void* pUnused)
{
    while (!g_isOver)
    {
        BurnNs(20000);
        MakeProgress();
    }
    return pUnused;
}

// ---- modes -----------------------------------------------------------------------------------------------

static int Burn(void)
{
    RunThreads(BurnInStorm, 4);
    return 0;
}

static int Memory(void)
{
    RunThreads(ChurnMemory, 3);
    return 0;
}

// Two kinds of threads at once, two of each.
static void* (*g_pPair[2])(void*);

static void* RunPair(void* pUnused)
{
    static int next;
    return g_pPair[__atomic_fetch_add(&next, 1, __ATOMIC_SEQ_CST) % 2](pUnused);
}

static int Pair(void* (*pOne)(void*), void* (*pOther)(void*))
{
    g_pPair[0] = pOne;
    g_pPair[1] = pOther;
    RunThreads(RunPair, 4);
    return 0;
}

static int Modules(void)
{
    return Pair(WalkModules, RunForeignCode);
}

static int Dlopen(void)
{
    return Pair(ChurnModules, RunForeignCode);
}

static int Throw(void)
{
    return Pair(ThrowAndCatch, RunForeignCode);
}

static int Names(void)
{
    RunThreads(ChangeNames, 3);
    return 0;
}

static int Threads(void)
{
    RunThreads(ChurnThreads, 3);
    return 0;
}

static void ForkUntilEnd(void)
{
    while (WallNs() < g_end)
    {
        ForkChildren();
    }
}

// Children of a process whose other threads are just being sampled, also inside the loader.
static int Fork(void)
{
    g_pPair[0] = RunForeignCode;
    g_pPair[1] = ChurnModules;
    JoinStorm();
    RunThreadsBesideMain(RunPair, 4, ForkUntilEnd);
    LeaveStorm();
    return 0;
}

// Everything at once under the timers alone, and one thread that does little but take signals.
static void* Everything(void* pUnused)
{
    static void* (*const pRoutines[])(void*) = {ChurnMemory, ThrowAndCatch, ChurnModules, ChangeNames,
                                                ChurnThreads};
    static int next;
    return pRoutines[__atomic_fetch_add(&next, 1, __ATOMIC_SEQ_CST) % 5](pUnused);
}

static void ForkNowAndThen(void)
{
    while (WallNs() < g_end)
    {
        ForkChildren();
        usleep(200000);
    }
}

static int Soak(void)
{
    g_isForFirst = 1;
    RunThreadsBesideMain(Everything, 6, ForkNowAndThen);
    return 0;
}

static const struct
{
    const char* m_pName;
    int (*m_pRun)(void);
} g_modes[] = {{"burn", Burn},
               {"memory", Memory},
               {"modules", Modules},
               {"dlopen", Dlopen},
               {"throw", Throw},
               {"names", Names},
               {"threads", Threads},
               {"fork", Fork},
               {"soak", Soak},
               {"errno", Errno},
               {"altstack", AlternateStack},
               {"smallstack", SmallestStack},
               {"cancel", CancelDeferred},
               {"cancel-async", CancelAsynchronous},
               {"exit", ExitUnderLoad},
               {"reset", ResetSignals},
               {"own-unwinder", OwnUnwinder},
               {"exit-threads", ExitThreads},
               {"handlers", HandlersInHandler}};

static int (*FindMode(const char* pName))(void)
{
    for (size_t i = 0; i < sizeof(g_modes) / sizeof(g_modes[0]); ++i)
    {
        if (strcmp(g_modes[i].m_pName, pName) == 0)
        {
            return g_modes[i].m_pRun;
        }
    }
    Check(0, "mode");
    return NULL;
}

int main(int count, char** ppArguments)
{
    pthread_t sender;
    Check(count >= 3, "arguments");
    int (*pRun)(void) = FindMode(ppArguments[1]);
    g_end = WallNs() + (uint64_t)atol(ppArguments[2]) * 1000000;
    g_rate = count > 3 ? atol(ppArguments[3]) : g_rate;
    g_isHeedless = count > 4 && strcmp(ppArguments[4], "heedless") == 0;
    Check(pthread_create(&sender, NULL, Rage, AgentRecord()) == 0, "create");
    int status = pRun();
    __atomic_store_n(&g_isCalm, 1, __ATOMIC_SEQ_CST);
    pthread_join(sender, NULL);
    long sent = 0;
    for (int slot = 0; slot < MOST_VICTIMS; ++slot)
    {
        sent += g_sent[slot];
    }
    Say("sent %ld", sent);
    return status;
}
