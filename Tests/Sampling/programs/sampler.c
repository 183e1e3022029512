// Does what the test tells it, one command a line, and answers each with "done". Samples come from signals that
// it queues to itself, so their number is exact. Ends with status 3 at the end of input.
#include "sampled.h"
#include <sys/prctl.h>
#include <sys/wait.h>

RANGED(sample_self) static void SampleSelf(long times)
{
    void* pRecord = AgentRecord();
    pid_t pid = getpid();
    pid_t tid = OwnTid();
    for (long i = 0; i < times; ++i)
    {
        Check(!pRecord || QueueSample(pid, tid, pRecord, 0), "queue");
    }
}

// Not a tail call: each level keeps its frame.
RANGED(recurse) static long Recurse(long levels)
{
    volatile long deeper = levels;
    if (levels == 0)
    {
        SampleSelf(1);
        return deeper;
    }
    deeper += Recurse(levels - 1);
    return deeper;
}

static void Deep(long levels)
{
    Recurse(levels);
}

static void Overrun(long count)
{
    Check(QueueSample(getpid(), OwnTid(), AgentRecord(), (int)count), "queue");
}

static void WithoutRecord(long unused)
{
    (void)unused;
    siginfo_t info = {.si_signo = SAMPLING_SIGNAL, .si_code = SI_TIMER};
    Check(QueueSignal(getpid(), OwnTid(), SAMPLING_SIGNAL, &info) == 0, "queue");
}

// The profiling signal from everybody but the timer.
static void Foreign(long unused)
{
    (void)unused;
    union sigval value = {.sival_ptr = AgentRecord()};
    Check(kill(getpid(), SAMPLING_SIGNAL) == 0, "kill");
    Check(pthread_kill(pthread_self(), SAMPLING_SIGNAL) == 0, "pthread_kill");
    Check(raise(SAMPLING_SIGNAL) == 0, "raise");
    Check(sigqueue(getpid(), SAMPLING_SIGNAL, value) == 0, "sigqueue");
    // the main thread takes what was sent to the process on its way out of the calls above
    Check(kill(getpid(), 0) == 0, "kill");
}

RANGED(burn) static void Burn(long milliseconds)
{
    BurnNs((uint64_t)milliseconds * 1000000);
}

static void Sleep(long milliseconds)
{
    usleep((useconds_t)milliseconds * 1000);
}

static void* SampleInThread(void* pTimes)
{
    SampleSelf((long)pTimes);
    return (void*)(long)OwnTid();
}

static void* BurnInThread(void* pMilliseconds)
{
    Burn((long)pMilliseconds);
    return (void*)(long)OwnTid();
}

static void RunThread(void* (*pRoutine)(void*), long argument)
{
    pthread_t thread;
    void* pTid = NULL;
    Check(pthread_create(&thread, NULL, pRoutine, (void*)argument) == 0, "create");
    Check(pthread_join(thread, &pTid) == 0, "join");
    Say("thread %ld", (long)pTid);
}

static void Thread(long times)
{
    RunThread(SampleInThread, times);
}

static void BurnThread(long milliseconds)
{
    RunThread(BurnInThread, milliseconds);
}

static void RunChild(void (*pWork)(long), long argument)
{
    pid_t child = fork();
    if (child == 0)
    {
        pWork(argument);
        exit(0);
    }
    int status = 0;
    Check(child > 0 && waitpid(child, &status, 0) == child && status == 0, "child");
    Say("child %d", child);
}

static void Fork(long times)
{
    RunChild(SampleSelf, times);
}

static void ForkBurn(long milliseconds)
{
    RunChild(Burn, milliseconds);
}

static void ForkThread(long times)
{
    RunChild(Thread, times);
}

static void Name(long unused)
{
    (void)unused;
    Check(prctl(PR_SET_NAME, "renamed") == 0, "name");
}

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void Lock(long times)
{
    for (long i = 0; i < times; ++i)
    {
        pthread_mutex_lock(&g_mutex);
        pthread_mutex_unlock(&g_mutex);
    }
}

// Calls one function of the agent directly.
static void Again(long unused)
{
    (void)unused;
    int (*pConfigure)(void*) = (int (*)(void*))dlsym(RTLD_DEFAULT, "ZorvUmaConfigureTimerAndPmc");
    Check(pConfigure != NULL, "look-up");
    Say("result %d", pConfigure(AgentRecord()) & 1);
}

static void OpenMp(long unused)
{
    (void)unused;
    void (*pSet)(int) = (void (*)(int))dlsym(RTLD_DEFAULT, "ZorvUmaSetOpenMPAgentInitialized");
    Check(pSet != NULL, "look-up");
    pSet(1);
}

static const struct
{
    const char* m_pName;
    void (*m_pRun)(long);
} g_commands[] = {{"sample", SampleSelf},
                  {"deep", Deep},
                  {"overrun", Overrun},
                  {"without-record", WithoutRecord},
                  {"foreign", Foreign},
                  {"burn", Burn},
                  {"sleep", Sleep},
                  {"thread", Thread},
                  {"fork", Fork},
                  {"lock", Lock},
                  {"name", Name},
                  {"again", Again},
                  {"fork-burn", ForkBurn},
                  {"fork-thread", ForkThread},
                  {"burn-thread", BurnThread},
                  {"openmp", OpenMp}};

int main(void)
{
    char line[256];
    SAY_RANGE(sample_self);
    SAY_RANGE(recurse);
    SAY_RANGE(burn);
    Say("ready");
    while (Hear(line, sizeof(line)))
    {
        char command[64] = "";
        long argument = 1;
        sscanf(line, "%63s %ld", command, &argument);
        for (size_t i = 0; i < sizeof(g_commands) / sizeof(g_commands[0]); ++i)
        {
            if (strcmp(command, g_commands[i].m_pName) == 0)
            {
                g_commands[i].m_pRun(argument);
            }
        }
        Say("done");
    }
    return 3;
}
