// What the victims do: memory, modules, names, threads, children.
#include "storm.h"
#include <link.h>
#include <sys/mman.h>
#include <sys/wait.h>

void* ChurnMemory(void* pUnused)
{
    enum
    {
        BLOCKS = 64
    };
    void* pBlocks[BLOCKS] = {NULL};
    unsigned seed = (unsigned)OwnTid();
    while (!g_isOver)
    {
        MakeProgress();
        int index = rand_r(&seed) % BLOCKS;
        size_t size = (size_t)(rand_r(&seed) % (index == 0 ? 400000 : 3000));
        if (index % 3 == 0)
        {
            pBlocks[index] = realloc(pBlocks[index], size + 1);
        }
        else
        {
            free(pBlocks[index]);
            pBlocks[index] = malloc(size);
        }
        Check(pBlocks[index] != NULL, "memory");
        memset(pBlocks[index], index, size);
    }
    for (int i = 0; i < BLOCKS; ++i)
    {
        free(pBlocks[i]);
    }
    return pUnused;
}

// Holds the loader's lock for a while, as a backtrace that another library takes does.
static int Linger(struct dl_phdr_info* pInfo, size_t size, void* pUnused)
{
    (void)size;
    (void)pUnused;
    BurnNs(20000);
    MakeProgress();
    return pInfo->dlpi_addr == 1;
}

void* WalkModules(void* pUnused)
{
    while (!g_isOver)
    {
        MakeProgress();
        dl_iterate_phdr(Linger, NULL);
    }
    return pUnused;
}

void* ChurnModules(void* pUnused)
{
    const char* pModule = getenv("ZORV_TEST_MODULE");
    while (!g_isOver)
    {
        MakeProgress();
        void* pHandle = dlopen(pModule, RTLD_NOW | RTLD_LOCAL);
        Check(pHandle != NULL, "dlopen");
        int (*pCount)(void) = (int (*)(void))dlsym(pHandle, "CountForModule");
        Check(pCount && pCount() == 3, "module");
        Check(dlclose(pHandle) == 0, "dlclose");
    }
    return pUnused;
}

// Code that no module owns, like that of a compiler at run time: the unwinder asks the loader about it each
// time.
void* NewForeignCode(void)
{
    static const unsigned char code[] = {0x48, 0x83, 0xec, 0x08, 0xff, 0xd7, 0x48, 0x83, 0xc4, 0x08, 0xc3};
    void* pCode = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    Check(pCode != MAP_FAILED, "mmap");
    memcpy(pCode, code, sizeof(code));
    Check(mprotect(pCode, 4096, PROT_READ | PROT_EXEC) == 0, "mprotect");
    return pCode;
}

static void BurnShortly(void)
{
    BurnNs(50000);
}

void* RunForeignCode(void* pUnused)
{
    void (*pCall)(void (*)(void)) = (void (*)(void (*)(void)))NewForeignCode();
    while (!g_isOver)
    {
        MakeProgress();
        pCall(BurnShortly);
    }
    munmap((void*)pCall, 4096);
    return pUnused;
}

void* ChangeNames(void* pUnused)
{
    char name[16];
    for (unsigned i = 0; !g_isOver; ++i)
    {
        MakeProgress();
        snprintf(name, sizeof(name), "name %u", i % 1000);
        Check(pthread_setname_np(pthread_self(), name) == 0, "name");
        if (i % 8 == 0) // every name is a record: a minute of nothing else would fill gigabytes
        {
            usleep(500);
        }
    }
    return pUnused;
}

// Lives for a moment only: the signals reach it in its set-up, its routine, its end and behind that.
static void* LiveShortly(void* pUnused)
{
    JoinStorm();
    BurnNs(20000);
    LeaveStorm();
    return pUnused;
}

void* ChurnThreads(void* pUnused)
{
    while (!g_isOver)
    {
        MakeProgress();
        pthread_t thread;
        Check(pthread_create(&thread, NULL, LiveShortly, NULL) == 0, "create");
        pthread_join(thread, NULL);
    }
    return pUnused;
}

static void LiveAsChild(void)
{
    void* pRecord = AgentRecord(); // the child's own
    pid_t pid = getpid();
    for (int i = 0; i < 5; ++i)
    {
        BurnNs(100000);
        QueueSample(pid, pid, pRecord, 0);
    }
    _exit(0); // libc's own list of exit handlers may have been locked by another thread of the parent
}

void ForkChildren(void)
{
    pid_t children[4];
    AgentRecord();
    for (int i = 0; i < 4; ++i)
    {
        children[i] = fork();
        if (children[i] == 0)
        {
            LiveAsChild();
        }
        Check(children[i] > 0, "fork");
    }
    for (int i = 0; i < 4; ++i)
    {
        int status = -1;
        Check(waitpid(children[i], &status, 0) == children[i] && status == 0, "child");
        Say("child %d", children[i]);
    }
}
