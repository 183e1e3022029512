// A thread that libc's own pthread_create made behind the agent's back.
#include "blackbox.h"
#include <dlfcn.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void* LockAndTell(void* pUnused)
{
    for (int i = 0; i < 1000; ++i)
    {
        pthread_mutex_lock(&g_mutex);
        pthread_mutex_unlock(&g_mutex);
    }
    Say("thread %d", OwnTid());
    return pUnused;
}

int main(void)
{
    void* pLibc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    int (*pCreate)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) =
        (int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*))dlsym(pLibc, "pthread_create");
    pthread_t thread;
    Check(pCreate(&thread, NULL, LockAndTell, NULL) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
    return 0;
}
