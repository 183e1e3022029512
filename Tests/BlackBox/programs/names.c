// Renames itself, another thread, and fails to. Says "NAME HANDLE TID" of the threads.
#include "blackbox.h"
#include <semaphore.h>

static sem_t g_mayEnd;
static volatile pid_t g_otherTid;

static void* WaitForEnd(void* pUnused)
{
    g_otherTid = OwnTid();
    sem_wait(&g_mayEnd);
    return pUnused;
}

int main(void)
{
    pthread_t other;
    char name[32] = "";
    sem_init(&g_mayEnd, 0, 0);
    Check(pthread_create(&other, NULL, WaitForEnd, NULL) == 0, "create");
    while (!g_otherTid)
    {
        usleep(500);
    }
    Say("self %d", pthread_setname_np(pthread_self(), "renamed"));
    Say("other %d", pthread_setname_np(other, "a worker"));
    Say("too long %d", pthread_setname_np(pthread_self(), "a name of more than fifteen letters"));
    pthread_getname_np(pthread_self(), name, sizeof(name));
    Say("now %s", name);
    pthread_getname_np(other, name, sizeof(name));
    Say("now %s", name);
    Say("handles %lu %lu", (unsigned long)pthread_self(), (unsigned long)other);
    sem_post(&g_mayEnd);
    pthread_join(other, NULL);
    return 0;
}
