// limits MODE: a program at the edge of what the system gives it; the test compares with the same program
// natively.
#include "blackbox.h"
#include <limits.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/resource.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static volatile sig_atomic_t g_signals;

static void Count(int signal)
{
    (void)signal;
    ++g_signals;
}

static void* Lock(void* pTimes)
{
    for (long i = 0; i < (long)pTimes; ++i)
    {
        pthread_mutex_lock(&g_mutex);
        pthread_mutex_unlock(&g_mutex);
    }
    return NULL;
}

static void LockInThread(long times)
{
    pthread_t thread;
    Check(pthread_create(&thread, NULL, Lock, (void*)times) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
}

static void WriteOwnFile(void)
{
    static char block[65536];
    int fd = open("own file", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    Check(fd >= 0, "open");
    for (int i = 0; i < 4; ++i)
    {
        errno = 0;
        long written = write(fd, block, sizeof(block));
        Say("written %ld errno %d signals %d", written, errno, (int)g_signals);
    }
}

static int FileSizeCaught(void)
{
    signal(SIGXFSZ, Count);
    LockInThread(5000);
    WriteOwnFile();
    return 11;
}

static int FileSizeDefault(void)
{
    LockInThread(5000);
    WriteOwnFile();
    return 11;
}

// Only the agent's files pass the limit: its writes end on the program's own thread at exit.
static int FileSizeUntouched(void)
{
    Lock((void*)5000L);
    Say("alive");
    return 11;
}

static int FullDescriptorTable(void)
{
    int last = 0;
    Lock((void*)2000L);
    for (int fd = dup(STDIN_FILENO); fd >= 0; fd = dup(STDIN_FILENO))
    {
        last = fd;
    }
    Say("full %d errno %d", last >= 0, errno);
    LockInThread(2000);
    pthread_t thread;
    Check(pthread_create(&thread, NULL, Lock, (void*)10L) == 0, "create");
    pthread_join(thread, NULL);
    return 11;
}

static int ShowDescriptorLimit(void)
{
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    Say("limit %lu %lu", (unsigned long)limit.rlim_cur, (unsigned long)limit.rlim_max);
    return 11;
}

// A signal for the process stays pending while the program's only thread blocks it: no thread of ours takes it.
static int ProcessSignal(void)
{
    sigset_t all, pending;
    signal(SIGUSR1, Count);
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, NULL);
    kill(getpid(), SIGUSR1);
    Lock((void*)1000L);
    sigpending(&pending);
    Say("pending %d ran %d", sigismember(&pending, SIGUSR1), (int)g_signals);
    sigprocmask(SIG_UNBLOCK, &all, NULL);
    Say("ran %d", (int)g_signals);
    return 11;
}

// libc has every thread of the process follow, by a signal of its own.
static int ChangeIdentity(void)
{
    int changed = setgid(getgid());
    Say("setgid %d", changed);
    changed = setuid(getuid());
    Say("setuid %d", changed);
    return 11;
}

static int CloseEverything(void)
{
    Lock((void*)100L);
    for (int fd = 3; fd < 256; ++fd)
    {
        close(fd);
    }
    Lock((void*)2000L);
    LockInThread(2000);
    Say("closed");
    return 11;
}

// Closes every descriptor that it did not open, as a daemon does, and opens files of its own under those
// numbers.
static int ReuseDescriptors(void)
{
    enum
    {
        FILES = 16
    };
    int fds[FILES];
    for (int fd = 3; fd < 1024; ++fd)
    {
        close(fd);
    }
    for (int i = 0; i < FILES; ++i)
    {
        char name[32];
        snprintf(name, sizeof(name), "own file %d", i);
        fds[i] = open(name, O_RDWR | O_CREAT | O_TRUNC, 0600);
        Check(write(fds[i], "mine", 4) == 4, "write");
    }
    Lock((void*)2000L);
    LockInThread(2000);
    for (int i = 0; i < FILES; ++i)
    {
        char content[64] = "";
        Check(pread(fds[i], content, sizeof(content) - 1, 0) >= 0, "read");
        Say("%s", content);
    }
    return 11;
}

static int TokenizeMeanwhile(void)
{
    char text[] = "one:two:three:four";
    Say("%s", strtok(text, ":"));
    LockInThread(2000);
    Say("%s", strtok(NULL, ":"));
    Lock((void*)2000L);
    Say("%s", strtok(NULL, ":"));
    return 11;
}

static const struct
{
    const char* m_pName;
    int (*m_pRun)(void);
} g_modes[] = {
    {"file_size_caught", FileSizeCaught},
    {"file_size_default", FileSizeDefault},
    {"file_size_untouched", FileSizeUntouched},
    {"full_descriptor_table", FullDescriptorTable},
    {"show_descriptor_limit", ShowDescriptorLimit},
    {"process_signal", ProcessSignal},
    {"change_identity", ChangeIdentity},
    {"close_everything", CloseEverything},
    {"reuse_descriptors", ReuseDescriptors},
    {"tokenize", TokenizeMeanwhile},
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
