// Does what the test tells it, one command a line, and answers each with "done". Ends with status 3 at the end
// of input. So a test changes the world around the program at known points.
#include "blackbox.h"
#include <dlfcn.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void Lock(long times)
{
    for (long i = 0; i < times; ++i)
    {
        pthread_mutex_lock(&g_mutex);
        pthread_mutex_unlock(&g_mutex);
    }
}

static void* LockInThread(void* pTimes)
{
    Lock((long)pTimes);
    return (void*)(long)OwnTid();
}

static void RunThread(long times)
{
    pthread_t thread;
    void* pTid = NULL;
    Check(pthread_create(&thread, NULL, LockInThread, (void*)times) == 0, "create");
    Check(pthread_join(thread, &pTid) == 0, "join");
    Say("thread %ld", (long)pTid);
}

// Who called the start routine: the file name tells libc's own start from a wrapper.
static void* SayCaller(void* pUnused)
{
    Dl_info info = {0};
    dladdr(__builtin_extract_return_addr(__builtin_return_address(0)), &info);
    const char* pSlash = info.dli_fname ? strrchr(info.dli_fname, '/') : NULL;
    Say("caller %s", pSlash ? pSlash + 1 : "unknown");
    return pUnused;
}

static void RunCaller(long unused)
{
    (void)unused;
    pthread_t thread;
    Check(pthread_create(&thread, NULL, SayCaller, NULL) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
}

static void NameSelf(long unused)
{
    (void)unused;
    Say("named %d", pthread_setname_np(pthread_self(), "stepper"));
}

static const struct
{
    const char* m_pName;
    void (*m_pRun)(long);
} g_commands[] = {{"lock", Lock}, {"thread", RunThread}, {"caller", RunCaller}, {"name", NameSelf}};

static void Run(const char* pName, long argument)
{
    for (size_t i = 0; i < sizeof(g_commands) / sizeof(g_commands[0]); ++i)
    {
        if (strcmp(pName, g_commands[i].m_pName) == 0)
        {
            g_commands[i].m_pRun(argument);
            Say("done");
            return;
        }
    }
    Check(0, pName);
}

int main(void)
{
    char line[64];
    while (Hear(line, sizeof(line)))
    {
        char name[32] = "";
        long argument = 0;
        sscanf(line, "%31s %ld", name, &argument);
        Run(name, argument);
    }
    return 3;
}
