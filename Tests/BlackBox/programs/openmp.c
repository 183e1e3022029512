// openmp LIBRARY HOW: loads the library (unless it is "none"), tells the agent about it as an OpenMP agent
// does, and locks once. HOW is 1 or 0, what the agent is told.
#include "blackbox.h"
#include <dlfcn.h>
#include <stdbool.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

int main(int count, char** ppArguments)
{
    Check(count == 3, "usage");
    Check(strcmp(ppArguments[1], "none") == 0 || dlopen(ppArguments[1], RTLD_NOW), "dlopen");
    void (*pSetInitialized)(bool) = (void (*)(bool))dlsym(RTLD_DEFAULT, "ZorvUmaSetOpenMPAgentInitialized");
    Check(pSetInitialized != NULL, "look-up");
    pSetInitialized(atoi(ppArguments[2]) != 0);
    errno = ERANGE;
    pthread_mutex_lock(&g_mutex);
    Check(errno == ERANGE, "errno");
    pthread_mutex_unlock(&g_mutex);
    return 0;
}
