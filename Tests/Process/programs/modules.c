// modules MODE [FILE]: modules that arrive while the program runs, and executable mappings.
#include "process.h"
#include <link.h>
#include <sys/mman.h>

__asm__(".symver OldDlopen, dlopen@GLIBC_2.2.5");
__asm__(".symver OldDlmopen, dlmopen@GLIBC_2.3.4");
void* OldDlopen(const char* pFile, int mode);
void* OldDlmopen(Lmid_t space, const char* pFile, int mode);

#define UNTOUCHED 4242

static const char* g_pFile;

// What became of a load: where the module says it is from, errno, and the loader's message.
static void Tell(const char* pWhat, void* pHandle, int error)
{
    char message[512];
    const char* pMessage = dlerror();
    snprintf(message, sizeof(message), "%s", pMessage ? pMessage : "-");
    const char* (*pPlace)(void) = pHandle ? (const char* (*)(void))dlsym(pHandle, "PluginPlace") : NULL;
    Say("%s %s, place %s, errno %d, message %s, then %s", pWhat, pHandle ? "loaded" : "failed",
        pPlace ? pPlace() : "-", error, message, dlerror() ? "another" : "none");
}

#define LOAD(what, call)                                                                                       \
    do                                                                                                         \
    {                                                                                                          \
        dlerror();                                                                                             \
        errno = UNTOUCHED;                                                                                     \
        void* pHandle_ = (call);                                                                               \
        int error_ = errno;                                                                                    \
        Tell(what, pHandle_, error_);                                                                          \
    } while (0)

static int Load(void)
{
    LOAD("dlopen", dlopen(g_pFile, RTLD_NOW));
    LOAD("again", dlopen(g_pFile, RTLD_NOW | RTLD_NOLOAD));
    LOAD("itself", dlopen(NULL, RTLD_NOW));
    return 60;
}

static int LoadOld(void)
{
    LOAD("dlopen", OldDlopen(g_pFile, RTLD_NOW));
    return 60;
}

static int LoadApart(void)
{
    LOAD("dlmopen", dlmopen(LM_ID_NEWLM, g_pFile, RTLD_NOW));
    return 60;
}

static int LoadApartOld(void)
{
    LOAD("dlmopen", OldDlmopen(LM_ID_BASE, g_pFile, RTLD_NOW));
    return 60;
}

// What does not exist, what is no module, and odd arguments.
static int FailToLoad(void)
{
    LOAD("missing", dlopen("/missing/module.so", RTLD_NOW));
    LOAD("missing name", dlopen("missing-module.so", RTLD_LAZY));
    LOAD("no module", dlopen("/etc/passwd", RTLD_NOW));
    LOAD("no mode", dlopen("libc.so.6", 0));
    LOAD("empty", dlopen("", RTLD_NOW));
    LOAD("not loaded", dlopen(g_pFile, RTLD_NOW | RTLD_NOLOAD));
    LOAD("bad space", dlmopen(99, g_pFile, RTLD_NOW));
    LOAD("missing origin", dlopen("$ORIGIN/missing.so", RTLD_NOW));
    LOAD("missing in a new space", dlmopen(LM_ID_NEWLM, "missing-module.so", RTLD_NOW));
    return 60;
}

// The text of a failure waits while other interposed calls are made, some for the first time.
static int KeepMessage(void)
{
    char buffer[8];
    dlerror();
    dlopen("/missing/module.so", RTLD_NOW);
    int fd = open("/dev/null", O_RDWR);
    Check(write(fd, "x", 1) == 1 && read(fd, buffer, 1) == 0 && pread(fd, buffer, 1, 0) == 0, "descriptor");
    lseek(fd, 0, SEEK_SET);
    fsync(fd);
    close(fd);
    pthread_setname_np(pthread_self(), "named");
    usleep(1);
    const char* pMessage = dlerror();
    Say("message %s", pMessage ? pMessage : "-");
    Say("then %s", dlerror() ? "another" : "none");
    return 60;
}

// A tokenisation in progress while modules are listed.
static int KeepTokens(void)
{
    char text[] = "one two,three four";
    Say("%s", strtok(text, " ,"));
    LOAD("dlopen", dlopen(g_pFile, RTLD_NOW));
    Say("%s", strtok(NULL, " ,"));
    int fd = open(g_pFile, O_RDONLY);
    mmap(NULL, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
    Say("%s", strtok(NULL, " ,"));
    Say("%s", strtok(NULL, " ,"));
    Say("%s", strtok(NULL, " ,") ? "more" : "end");
    return 60;
}

static void TellMapping(const char* pWhat, void* pMapping, size_t size)
{
    int error = errno;
    Say("map %s %s errno %d %lu %zu", pWhat, pMapping == MAP_FAILED ? "failed" : "mapped", error,
        (unsigned long)pMapping, size);
}

#define MAP(what, size, protection, flags, fd)                                                                 \
    do                                                                                                         \
    {                                                                                                          \
        errno = UNTOUCHED;                                                                                     \
        void* pMapping_ = mmap(NULL, size, protection, flags, fd, 0);                                          \
        TellMapping(what, pMapping_, size);                                                                    \
    } while (0)

static int Map(void)
{
    int fd = open(g_pFile, O_RDONLY);
    int zero = open("/dev/zero", O_RDWR);
    int unlinked = open("unlinked", O_RDWR | O_CREAT, 0600);
    Check(unlink("unlinked") == 0 && ftruncate(unlinked, 4096) == 0, "unlinked");
    MAP("data", 4096, PROT_READ, MAP_PRIVATE, fd);
    MAP("code", 8192, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd);
    errno = UNTOUCHED;
    TellMapping("code64", mmap64(NULL, 4096, PROT_EXEC, MAP_SHARED, fd, 4096), 4096);
    MAP("anonymous", 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1);
    MAP("anonymous-with-file", 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, fd);
    MAP("device", 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, zero);
    MAP("unlinked", 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, unlinked);
    MAP("failing", 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, 99);
    MAP("failing-size", 0, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd);
    MAP("failing-right", 4096, PROT_WRITE | PROT_EXEC, MAP_SHARED, fd);
    return 60;
}

static const struct Mode g_modes[] = {
    {"load", Load},       {"load_old", LoadOld},    {"load_apart", LoadApart}, {"load_apart_old", LoadApartOld},
    {"fail", FailToLoad}, {"message", KeepMessage}, {"tokens", KeepTokens},    {"map", Map},
};

int main(int count, char** ppArguments)
{
    Check(count >= 2, "usage");
    g_pFile = ppArguments[2];
    return RUN_MODE(g_modes, ppArguments[1]);
}
