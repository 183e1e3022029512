// forks MODE: children made in every way. Says
//   child PID STATUS            for each child that it can name
//   work PID CALLS ADDRESS      for traced calls of the process, of the function at that address
#include "process.h"
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>

extern char** environ;

#define THREADS 8

static char g_self[4096];

static unsigned long g_workAddress;

static void SaidWork(int calls)
{
    Work(calls);
    Say("work %d %d %lu", getpid(), calls, g_workAddress);
}

static void Told(pid_t child)
{
    Say("child %d %d", child, StatusOf(child));
}

// ---- fork ------------------------------------------------------------------------------------------------

static pid_t ForkWorker(int calls, int status)
{
    pid_t child = fork();
    if (child == 0)
    {
        SaidWork(calls);
        exit(status);
    }
    return child;
}

static int Fork(void)
{
    SaidWork(100);
    Told(ForkWorker(1000, 21));
    SaidWork(10);
    return 20;
}

static void* ForkInThread(void* pChild)
{
    Work(5);
    *(pid_t*)pChild = ForkWorker(300, 22);
    Work(5);
    return NULL;
}

static int ForkFromThread(void)
{
    pthread_t thread;
    pid_t child = 0;
    Check(pthread_create(&thread, NULL, ForkInThread, &child) == 0, "create");
    Check(pthread_join(thread, NULL) == 0, "join");
    Told(child);
    return 20;
}

// The child lives on in the forking thread and starts threads of its own.
static void* WorkInThread(void* pCalls)
{
    SaidWork(*(int*)pCalls);
    return NULL;
}

static int ForkThenThreads(void)
{
    pid_t child = fork();
    if (child == 0)
    {
        static int calls[THREADS];
        pthread_t threads[THREADS];
        for (int i = 0; i < THREADS; ++i)
        {
            calls[i] = 100 + i;
            Check(pthread_create(&threads[i], NULL, WorkInThread, &calls[i]) == 0, "create");
        }
        for (int i = 0; i < THREADS; ++i)
        {
            pthread_join(threads[i], NULL);
        }
        exit(23);
    }
    Told(child);
    return 20;
}

static int ForkNested(void)
{
    for (int depth = 0; depth < 5; ++depth)
    {
        SaidWork(10 + depth);
        pid_t child = fork();
        if (child != 0)
        {
            Told(child);
            exit(30 + depth);
        }
    }
    SaidWork(77);
    return 29;
}

static int ForkLoop(void)
{
    for (int i = 0; i < 200; ++i)
    {
        pid_t child = fork();
        if (child == 0)
        {
            Work(3);
            _exit(i & 127);
        }
        Check(StatusOf(child) == (i & 127), "a child's status");
    }
    SaidWork(20);
    return 20;
}

static volatile int g_isEnough;

static void* WorkUntilEnough(void* pUnused)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    while (!g_isEnough)
    {
        pthread_mutex_lock(&mutex);
        Work(10);
        pthread_mutex_unlock(&mutex);
        free(malloc(1000));
    }
    return pUnused;
}

// Buffers, locks and the allocator are in every state when the process is copied.
static int ForkAmongThreads(void)
{
    pthread_t threads[THREADS];
    for (int i = 0; i < THREADS; ++i)
    {
        Check(pthread_create(&threads[i], NULL, WorkUntilEnough, NULL) == 0, "create");
    }
    for (int i = 0; i < 25; ++i)
    {
        pid_t child = fork();
        if (child == 0)
        {
            Work(2000);
            exit(24);
        }
        Check(StatusOf(child) == 24, "a child's status");
    }
    g_isEnough = 1;
    for (int i = 0; i < THREADS; ++i)
    {
        pthread_join(threads[i], NULL);
    }
    return 20;
}

// What the child is told, and what it does after being told that it is none.
static int ForkAndTellResult(void)
{
    pid_t self = getpid();
    errno = 0;
    pid_t child = fork();
    int error = errno;
    if (getpid() != self)
    {
        Say("in the child %d, errno %d", child, error);
        Work(10);
        _exit(25);
    }
    Say("in the parent %d", child > 0);
    Told(child);
    return 20;
}

static int ForkThenExec(void)
{
    pid_t child = fork();
    if (child == 0)
    {
        Work(50);
        execl(g_self, "forks", "work", (char*)NULL);
        _exit(1);
    }
    Told(child);
    return 20;
}

static int JustWork(void)
{
    SaidWork(40);
    return 26;
}

// ---- vfork, spawn, shells --------------------------------------------------------------------------------

static int VforkThenExec(void)
{
    SaidWork(30);
    pid_t child = vfork();
    if (child == 0)
    {
        execl(g_self, "forks", "work", (char*)NULL);
        _exit(1);
    }
    Told(child);
    SaidWork(31);
    return 20;
}

static int VforkThenExit(void)
{
    SaidWork(30);
    for (int i = 0; i < 20; ++i)
    {
        pid_t child = vfork();
        if (child == 0)
        {
            execl("/missing/program", "missing", (char*)NULL);
            _exit(27);
        }
        Told(child);
        SaidWork(1);
    }
    SaidWork(31);
    return 20;
}

static int VforkThenRawExit(void)
{
    SaidWork(30);
    pid_t child = vfork();
    if (child == 0)
    {
        syscall(SYS_exit_group, 28);
    }
    Told(child);
    SaidWork(31);
    return 20;
}

// What a child of vfork usually does to its descriptors before its exec.
static int VforkAndRedirect(void)
{
    SaidWork(30);
    pid_t child = vfork();
    if (child == 0)
    {
        int fd = open("/dev/null", O_WRONLY);
        dup2(fd, STDERR_FILENO);
        close(fd);
        setenv("LD_PRELOAD", getenv("LD_PRELOAD") ? getenv("LD_PRELOAD") : "", 1);
        execl(g_self, "forks", "work", (char*)NULL);
        _exit(1);
    }
    Told(child);
    SaidWork(31);
    return 20;
}

static int Spawn(void)
{
    char* arguments[] = {"forks", "work", NULL};
    for (int i = 0; i < 3; ++i)
    {
        pid_t child = 0;
        Check(posix_spawn(&child, g_self, NULL, NULL, arguments, environ) == 0, "posix_spawn");
        Told(child);
    }
    pid_t missing = 0;
    Say("missing %d", posix_spawn(&missing, "/missing/program", NULL, NULL, arguments, environ));
    SaidWork(5);
    return 20;
}

static int System(void)
{
    char command[5000];
    snprintf(command, sizeof(command), "%s work; exit 4", g_self);
    Say("system %d", system(command));
    SaidWork(5);
    return 20;
}

static int Popen(void)
{
    char command[5000];
    char line[200];
    snprintf(command, sizeof(command), "%s work", g_self);
    FILE* pPipe = popen(command, "r");
    Check(pPipe && fgets(line, sizeof(line), pPipe), "popen");
    Say("%.*s", (int)strcspn(line, "\n"), line);
    Say("pclose %d", pclose(pPipe));
    SaidWork(5);
    return 20;
}

// ---- children of other calls -----------------------------------------------------------------------------

static int RawClone(void)
{
    SaidWork(30);
    pid_t child = (pid_t)syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    if (child == 0)
    {
        Work(20);
        exit(6);
    }
    Told(child);
    SaidWork(5);
    return 20;
}

static int CloneRoutine(void* pUnused)
{
    (void)pUnused;
    Work(20);
    return 7;
}

static int LibcClone(void)
{
    static char stack[1 << 18];
    SaidWork(30);
    pid_t child = clone(CloneRoutine, stack + sizeof(stack), SIGCHLD, NULL);
    Told(child);
    SaidWork(5);
    return 20;
}

static int LibcInnerFork(void)
{
    SaidWork(30);
    pid_t child = _Fork();
    if (child == 0)
    {
        Work(20);
        _exit(8);
    }
    Told(child);
    SaidWork(5);
    return 20;
}

// The parent ends inside of daemon; the rest is told by the child.
static int Daemon(void)
{
    SaidWork(30);
    errno = 4242;
    int result = daemon(1, 1);
    int error = errno;
    Say("daemon %d errno %d session %d", result, error, getsid(0) == getpid());
    Say("next descriptor %d", dup(0));
    SaidWork(50);
    return 20;
}

// Everything is closed and the directory is left: the result goes to a file.
static int DaemonDetached(void)
{
    char directory[4096];
    int fd = open("told", O_WRONLY | O_CREAT, 0600);
    int result = daemon(0, 0);
    struct
    {
        char m_text[4600];
    } line;
    char target[3][64] = {"", "", ""};
    for (int i = 0; i < 3; ++i)
    {
        char link[32];
        snprintf(link, sizeof(link), "/proc/self/fd/%d", i);
        Check(readlink(link, target[i], sizeof(target[i]) - 1) > 0, "readlink");
    }
    Work(50);
    int length = snprintf(line.m_text, sizeof(line.m_text), "%d %s %s %s %s next %d\n", result,
                          getcwd(directory, sizeof(directory)), target[0], target[1], target[2], dup(0));
    Check(write(fd, line.m_text, (size_t)length) == length, "write");
    return 20;
}

static int Forkpty(void)
{
    int master = -1;
    char line[64] = "";
    SaidWork(30);
    pid_t child = forkpty(&master, NULL, NULL, NULL);
    if (child == 0)
    {
        Work(60);
        dprintf(STDOUT_FILENO, "terminal %d\n", isatty(STDIN_FILENO));
        exit(9);
    }
    Check(read(master, line, sizeof(line) - 1) > 0, "read");
    Say("%.10s, master %d", line, master);
    Told(child);
    SaidWork(5);
    return 20;
}

static const struct Mode g_modes[] = {
    {"fork", Fork},
    {"thread", ForkFromThread},
    {"threads_in_child", ForkThenThreads},
    {"nested", ForkNested},
    {"loop", ForkLoop},
    {"among_threads", ForkAmongThreads},
    {"result", ForkAndTellResult},
    {"exec", ForkThenExec},
    {"work", JustWork},
    {"vfork_exec", VforkThenExec},
    {"vfork_exit", VforkThenExit},
    {"vfork_raw_exit", VforkThenRawExit},
    {"vfork_redirect", VforkAndRedirect},
    {"spawn", Spawn},
    {"system", System},
    {"popen", Popen},
    {"raw_clone", RawClone},
    {"clone", LibcClone},
    {"inner_fork", LibcInnerFork},
    {"daemon", Daemon},
    {"daemon_detached", DaemonDetached},
    {"forkpty", Forkpty},
};

int main(int count, char** ppArguments)
{
    Check(count == 2 && readlink("/proc/self/exe", g_self, sizeof(g_self) - 1) > 0, "usage");
    g_workAddress = WorkAddress();
    return RUN_MODE(g_modes, ppArguments[1]);
}
