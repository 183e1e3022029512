// How threads begin and end: one mode a behaviour. Says "thread NAME TID HANDLE" for every thread that ran.
#include "blackbox.h"
#include <sys/prctl.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

static void LockOnce(void)
{
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
}

static void* Introduce(void* pName)
{
    LockOnce();
    Say("thread %s %d %lu", (const char*)pName, OwnTid(), (unsigned long)pthread_self());
    return pName;
}

static int Joined(void)
{
    pthread_t thread;
    void* pResult = NULL;
    Check(pthread_create(&thread, NULL, Introduce, "joined") == 0, "create");
    Check(pthread_join(thread, &pResult) == 0, "join");
    Check(strcmp(pResult, "joined") == 0, "result of the thread");
    return 0;
}

static volatile pid_t g_detachedTid;

static void* IntroduceDetached(void* pName)
{
    Introduce(pName);
    g_detachedTid = OwnTid();
    return NULL;
}

static void WaitUntilGone(pid_t tid)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%d", tid);
    while (access(path, F_OK) == 0)
    {
        usleep(500);
    }
}

static int Detached(void)
{
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    Check(pthread_create(&thread, &attributes, IntroduceDetached, "detached") == 0, "create");
    while (!g_detachedTid)
    {
        usleep(500);
    }
    WaitUntilGone(g_detachedTid);
    return 0;
}

static void* LeaveByExit(void* pName)
{
    Introduce(pName);
    pthread_exit((void*)5);
}

static int Exits(void)
{
    pthread_t thread;
    void* pResult = NULL;
    Check(pthread_create(&thread, NULL, LeaveByExit, "exits") == 0, "create");
    Check(pthread_join(thread, &pResult) == 0 && pResult == (void*)5, "join");
    return 0;
}

static volatile int g_survivorStarted;

static void* Survive(void* pName)
{
    g_survivorStarted = 1;
    char path[64];
    char state = 0;
    snprintf(path, sizeof(path), "/proc/self/task/%d/stat", getpid());
    while (state != 'Z')
    {
        FILE* pFile = fopen(path, "r");
        Check(pFile && fscanf(pFile, "%*d (%*[^)]) %c", &state) == 1, "stat");
        fclose(pFile);
    }
    return Introduce(pName);
}

static int MainExits(void)
{
    pthread_t thread;
    LockOnce();
    Check(pthread_create(&thread, NULL, Survive, "survivor") == 0, "create");
    while (!g_survivorStarted)
    {
        usleep(500);
    }
    Say("thread main %d %lu", OwnTid(), (unsigned long)pthread_self());
    pthread_exit(NULL);
}

static int NullRoutine(void)
{
    void* (*volatile pNothing)(void*) = NULL;
    pthread_t thread;
    void* pResult = (void*)1;
    Check(pthread_create(&thread, NULL, pNothing, NULL) == 0, "create");
    Say("thread null 0 %lu", (unsigned long)thread);
    Check(pthread_join(thread, &pResult) == 0 && pResult == NULL, "join");
    return 0;
}

static int Many(void)
{
    for (int round = 0; round < 10; ++round)
    {
        pthread_t threads[20];
        for (int i = 0; i < 20; ++i)
        {
            Check(pthread_create(&threads[i], NULL, Introduce, "short") == 0, "create");
        }
        for (int i = 0; i < 20; ++i)
        {
            Check(pthread_join(threads[i], NULL) == 0, "join");
        }
    }
    return 0;
}

static int CreateFails(void)
{
    pthread_attr_t attributes;
    pthread_t thread = 0x1234;
    pthread_attr_init(&attributes);
    Check(pthread_attr_setstacksize(&attributes, (size_t)1 << 46) == 0, "stack size");
    int result = pthread_create(&thread, &attributes, Introduce, "never");
    Say("failed %d %lu", result, (unsigned long)thread);
    return 0;
}

static void* CreateAnother(void* pName)
{
    pthread_t thread;
    Introduce(pName);
    Check(pthread_create(&thread, NULL, Introduce, "grandchild") == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    return NULL;
}

static int Nested(void)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, CreateAnother, "child") == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    return 0;
}

static int InheritsName(void)
{
    prctl(PR_SET_NAME, "fifteen letters");
    return Joined();
}

static const struct
{
    const char* m_pName;
    int (*m_pRun)(void);
} g_modes[] = {
    {"joined", Joined},
    {"detached", Detached},
    {"exits", Exits},
    {"main_exits", MainExits},
    {"null_routine", NullRoutine},
    {"many", Many},
    {"create_fails", CreateFails},
    {"nested", Nested},
    {"inherits_name", InheritsName},
};

int main(int count, char** ppArguments)
{
    Check(count == 2, "usage");
    for (size_t i = 0; i < sizeof(g_modes) / sizeof(g_modes[0]); ++i)
    {
        if (strcmp(ppArguments[1], g_modes[i].m_pName) == 0)
        {
            return g_modes[i].m_pRun();
        }
    }
    Check(0, ppArguments[1]);
}
