// ends WAY: works, and then ends in one of all ways. The calls of Work must be in the trace.
//   ends WAY thread: another thread ends the process while main waits for it
#include "process.h"
#include <setjmp.h>
#include <signal.h>
#include <sys/time.h>

__asm__(".symver OldQuickExit, quick_exit@GLIBC_2.10");
void OldQuickExit(int status) __attribute__((noreturn));

static void AtExit(void)
{
    Say("at exit");
}

static void AtQuickExit(void)
{
    Say("at quick exit");
}

static void __attribute__((destructor)) Destroy(void)
{
    Say("destructor");
}

static void Tell(int signal)
{
    char text[] = "handler  \n";
    text[8] = (char)('0' + signal);
    Check(write(STDOUT_FILENO, text, sizeof(text) - 1) > 0, "write");
}

static void TellAndExit(int signal)
{
    Tell(signal);
    _exit(51);
}

static sigjmp_buf g_place;

static void Jump(int signal)
{
    Tell(signal);
    siglongjmp(g_place, 1);
}

static int Return(void)
{
    return 40;
}

static int Exit(void)
{
    exit(41);
}

static int UnderscoreExit(void)
{
    _exit(42);
}

static int CapitalExit(void)
{
    _Exit(43);
}

static int QuickExit(void)
{
    quick_exit(44);
}

static int QuickExitOld(void)
{
    OldQuickExit(45);
}

static int Abort(void)
{
    abort();
}

static int AbortHandled(void)
{
    signal(SIGABRT, Tell);
    abort();
}

static int AbortExits(void)
{
    signal(SIGABRT, TellAndExit);
    abort();
}

static int AbortIgnored(void)
{
    signal(SIGABRT, SIG_IGN);
    abort();
}

// The process survives its abort and goes on as natively.
static int AbortJumps(void)
{
    signal(SIGABRT, Jump);
    if (sigsetjmp(g_place, 1) == 0)
    {
        abort();
    }
    Work(10);
    void* pBlock = malloc(100000);
    int fd = open("/dev/null", O_WRONLY);
    Say("survived %d %d", pBlock != NULL, fd);
    free(pBlock);
    return 46;
}

static int RawExit(void)
{
    syscall(SYS_exit, 47);
    return 1;
}

static int RawExitGroup(void)
{
    syscall(SYS_exit_group, 48);
    return 1;
}

static int ExitNegative(void)
{
    _exit(-1);
}

static int PthreadExit(void)
{
    pthread_exit(NULL);
}

// Finalised twice in a row, and calls in between.
static int ExitInExitHandler(void)
{
    atexit(AtQuickExit);
    on_exit((void (*)(int, void*))(void*)UnderscoreExit, NULL);
    exit(49);
}

static int KilledBySignal(void)
{
    raise(SIGTERM);
    return 1;
}

static const struct Mode g_ways[] = {
    {"return", Return},
    {"exit", Exit},
    {"_exit", UnderscoreExit},
    {"_Exit", CapitalExit},
    {"quick_exit", QuickExit},
    {"quick_exit_old", QuickExitOld},
    {"abort", Abort},
    {"abort_handled", AbortHandled},
    {"abort_exits", AbortExits},
    {"abort_ignored", AbortIgnored},
    {"abort_jumps", AbortJumps},
    {"raw_exit", RawExit},
    {"raw_exit_group", RawExitGroup},
    {"exit_negative", ExitNegative},
    {"pthread_exit", PthreadExit},
    {"exit_in_exit_handler", ExitInExitHandler},
    {"killed", KilledBySignal},
};

static const char* g_pWay;

static void* EndInThread(void* pUnused)
{
    Work(100);
    RUN_MODE(g_ways, g_pWay);
    return pUnused;
}

static int EndFromThread(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, EndInThread, NULL) == 0, "create");
    pthread_join(thread, NULL);
    return 39;
}

// ---- the end comes in a signal handler, at any instruction -----------------------------------------------

static void ExitNow(int signal)
{
    (void)signal;
    _exit(52);
}

static void ExitFully(int signal)
{
    (void)signal;
    exit(53);
}

static void AbortNow(int signal)
{
    (void)signal;
    abort();
}

static void InterruptIn(int microseconds, void (*pHandler)(int))
{
    struct itimerval timer = {.it_value = {0, microseconds}};
    signal(SIGALRM, pHandler);
    setitimer(ITIMER_REAL, &timer, NULL);
}

static void __attribute__((noreturn)) AllocateForEver(void)
{
    void* blocks[64] = {0};
    for (unsigned i = 0;; ++i)
    {
        free(blocks[i % 64]);
        blocks[i % 64] = malloc(i * 7919 % 5000);
    }
}

static void __attribute__((noreturn)) WorkForEver(void)
{
    for (;;)
    {
        Work(1);
    }
}

// Children, one after the other, that are ended by a handler at another moment each.
static int EndInHandlers(int times, void (*pHandler)(int), void (*pBody)(void), int expected)
{
    for (int i = 0; i < times; ++i)
    {
        pid_t child = fork();
        if (child == 0)
        {
            InterruptIn(50 + i * 37 % 3000, pHandler);
            pBody();
        }
        int status = StatusOf(child);
        if (status != expected)
        {
            Say("status %d", status);
        }
    }
    return 50;
}

static int HandlerInMalloc(void)
{
    return EndInHandlers(300, ExitNow, AllocateForEver, 52);
}

static int HandlerInWork(void)
{
    return EndInHandlers(150, ExitNow, WorkForEver, 52);
}

static int AbortInWork(void)
{
    return EndInHandlers(60, AbortNow, WorkForEver, 1000 + SIGABRT);
}

static int ExitInWork(void)
{
    return EndInHandlers(60, ExitFully, WorkForEver, 53);
}

static const struct Mode g_repeated[] = {
    {"_exit_in_malloc", HandlerInMalloc},
    {"_exit_in_work", HandlerInWork},
    {"abort_in_work", AbortInWork},
    {"exit_in_work", ExitInWork},
};

int main(int count, char** ppArguments)
{
    Check(count == 2 || count == 3, "usage");
    if (count == 3 && strcmp(ppArguments[2], "repeated") == 0)
    {
        return RUN_MODE(g_repeated, ppArguments[1]);
    }
    Say("address %lu", WorkAddress());
    atexit(AtExit);
    at_quick_exit(AtQuickExit);
    Work(1000);
    g_pWay = ppArguments[1];
    return count == 3 ? EndFromThread() : RUN_MODE(g_ways, g_pWay);
}
