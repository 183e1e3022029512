// A program with the agent's unwinder: it is sampled inside the loader while its first own use of the unwinder
// holds that one's lock, and is about to ask the loader.
#include "../preloads/held.h"
#include "sampled.h"
#include <link.h>

static int (*g_pBacktrace)(void**, int);
static struct Held* g_pHeld;
static volatile int g_isInLoader;

static void* UseUnwinder(void* pUnused)
{
    void* pFrame;
    while (!g_isInLoader)
    {
        sched_yield();
    }
    g_pHeld->m_holdNext = 1;
    g_pBacktrace(&pFrame, 1);
    return pUnused;
}

static int BeSampled(struct dl_phdr_info* pInfo, size_t size, void* pRecord)
{
    (void)pInfo, (void)size;
    g_isInLoader = 1;
    while (!g_pHeld->m_isHeld)
    {
        sched_yield();
    }
    QueueSample(getpid(), getpid(), pRecord, 0);
    g_pHeld->m_isReleased = 1;
    return 1;
}

int main(void)
{
    void* pHandle = dlopen("libunwind.so.8", RTLD_NOW | RTLD_LOCAL);
    Check(pHandle != NULL, "dlopen");
    g_pBacktrace = (int (*)(void**, int))dlsym(pHandle, "unw_backtrace");
    g_pHeld = (struct Held*)dlsym(pHandle, "g_held");
    Check(g_pBacktrace && g_pHeld, "look-up");
    pthread_t thread;
    Check(pthread_create(&thread, NULL, UseUnwinder, NULL) == 0, "create");
    dl_iterate_phdr(BeSampled, AgentRecord());
    pthread_join(thread, NULL);
    return 0;
}
