// signals CALL ACTION NUMBER: a handler, or something else, for a signal. Says "survived" with result and
// errno.
#include "process.h"
#include <signal.h>
#include <sys/prctl.h>

__sighandler_t __sysv_signal(int signal, __sighandler_t handler);

#define UNTOUCHED 4242

static volatile int g_handled;

static void Handle(int signal)
{
    g_handled = signal;
}

static void HandleInfo(int signal, siginfo_t* pInfo, void* pContext)
{
    (void)pContext;
    g_handled = pInfo->si_signo == signal ? signal : -1;
}

static __sighandler_t HandlerOf(const char* pAction)
{
    return strcmp(pAction, "ignore") == 0 ? SIG_IGN : strcmp(pAction, "default") == 0 ? SIG_DFL : Handle;
}

static long Sigaction(const char* pAction, int number)
{
    struct sigaction action = {.sa_handler = HandlerOf(pAction)};
    if (strcmp(pAction, "query") == 0)
    {
        return sigaction(number, NULL, &action);
    }
    if (strncmp(pAction, "info", 4) == 0)
    {
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = strcmp(pAction, "info-null") == 0 ? NULL : HandleInfo;
    }
    return sigaction(number, &action, NULL);
}

int main(int count, char** ppArguments)
{
    if (count == 2)
    {
        Say("renamed %d", prctl(PR_SET_NAME, ppArguments[1]));
        Say("too long %d", prctl(PR_SET_NAME, "a name of more than fifteen letters"));
        Say("bad %d", prctl(PR_SET_NAME, (char*)1));
        Say("other %d", prctl(PR_GET_DUMPABLE));
        return 71;
    }
    Check(count == 4, "usage");
    const char* pCall = ppArguments[1];
    int number = atoi(ppArguments[3]);
    errno = UNTOUCHED;
    long result = strcmp(pCall, "sigaction") == 0 ? Sigaction(ppArguments[2], number)
                  : strcmp(pCall, "signal") == 0  ? (long)signal(number, HandlerOf(ppArguments[2]))
                                                  : (long)__sysv_signal(number, HandlerOf(ppArguments[2]));
    int error = errno;
    Say("survived %ld errno %d", result, error);
    if (strcmp(ppArguments[2], "handler") == 0 || strcmp(ppArguments[2], "info") == 0)
    {
        raise(number);
        Say("handled %d", g_handled);
    }
    return 70;
}
