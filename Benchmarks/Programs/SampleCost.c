// BenchSampleCost DEPTH COUNT REPETITIONS, COUNT a multiple of 200: the CPU time of one signal that carries the
// timer's code, queued to the own thread below DEPTH frames. Under the agent its handler takes it; natively a
// bare one does that only unwinds into an array. One line a repetition: ns.
#include "BenchTime.h"
#include <dlfcn.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

enum
{
    SIGNAL = 44,
    HANDLER_FRAMES = 8,
    BURST = 200,
    MOST_FRAMES = 1024
};

static int (*g_pBacktrace)(void**, int);
static int g_size;
static void* g_frames[MOST_FRAMES];

static void Unwind(int sig)
{
    (void)sig;
    g_pBacktrace(g_frames, g_size);
}

static void InstallBareHandler(void)
{
    void* pHandle = dlopen("libunwind.so.8", RTLD_NOW | RTLD_LOCAL);
    g_pBacktrace = pHandle ? (int (*)(void**, int))dlsym(pHandle, "unw_backtrace") : NULL;
    struct sigaction action = {.sa_handler = Unwind, .sa_flags = SA_RESTART};
    if (!g_pBacktrace || sigaction(SIGNAL, &action, NULL) != 0)
    {
        fputs("no unwinder\n", stderr);
        exit(1);
    }
}

static siginfo_t TimerSignal(void)
{
    siginfo_t info;
    void* (*pGetRecord)(void) = (void* (*)(void))dlsym(RTLD_DEFAULT, "ZorvUmaGetProfileInfo");
    memset(&info, 0, sizeof(info));
    info.si_signo = SIGNAL;
    info.si_code = SI_TIMER;
    info.si_value.sival_ptr = pGetRecord ? pGetRecord() : NULL;
    return info;
}

static void Measure(long count, long repetitions)
{
    siginfo_t info = TimerSignal();
    long pid = getpid();
    long tid = syscall(SYS_gettid);
    for (long repetition = -1; repetition < repetitions; ++repetition) // the first one warms up
    {
        uint64_t spent = 0;
        for (long burst = 0; burst < count / BURST; ++burst)
        {
            uint64_t start = BenchTime(CLOCK_THREAD_CPUTIME_ID);
            for (long i = 0; i < BURST; ++i)
            {
                syscall(SYS_rt_tgsigqueueinfo, pid, tid, SIGNAL, &info);
            }
            spent += BenchTime(CLOCK_THREAD_CPUTIME_ID) - start;
            usleep(1000); // what is written meanwhile does not run out of buffers
        }
        if (repetition >= 0)
        {
            printf("%.2f\n", (double)spent / (double)(count / BURST * BURST));
        }
    }
}

static __attribute__((noinline, noclone)) int Descend(long levels, long count, long repetitions)
{
    volatile int result = 0;
    if (levels <= 0)
    {
        Measure(count, repetitions);
        return result;
    }
    result += Descend(levels - 1, count, repetitions);
    return result;
}

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        return 2;
    }
    g_size = atoi(argv[1]) + HANDLER_FRAMES;
    if (!dlsym(RTLD_DEFAULT, "ZorvUmaGetProfileInfo"))
    {
        InstallBareHandler();
    }
    return Descend(atol(argv[1]), atol(argv[2]), atol(argv[3]));
}
