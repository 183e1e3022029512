// The agent's own descriptors, in a process whose descriptors are not the agent's.
//
// The program must get the numbers that it would get without the agent, and it may close or overwrite any number: a
// shell's redirection, a daemon that closes everything. So the agent's files are kept high and close-on-exec, and
// before each write (they are rare and large) the descriptor is compared with the file that it stood for. Where the
// program has taken it, the file is opened again; nothing is ever written to, or closed of, what is the program's.

#include "Linux/ZorvUserModeTrace.h"
#include "ZorvAgentUtils.h"
#include "ZorvRawSyscall.h"

#include <cerrno>
#include <initializer_list>

namespace
{

constexpr uint32_t MAX_KEPT_FILES = 24;  // six of a process, and those of its parent in a forked child
constexpr int USUAL_LOWEST_FD = 512;     // high enough for shells and small enough for the kernel's table
constexpr int FIRST_FREE_FD = 3;
constexpr size_t PROC_PATH_SIZE = 64;
constexpr size_t PATH_SIZE = 4096;

struct KeptFile
{
    int m_fd; // 0: the slot is free; the agent never keeps 0 to 2
    pid_t m_pid;
    dev_t m_device;
    ino_t m_inode;
    int m_reopenFlags;
    char* m_pPath; // absolute; null: cannot be opened again
};

KeptFile g_keptFiles[MAX_KEPT_FILES];

} // namespace

// The calls of this file are the instructions: their libc names are interposed ones, or cancellation points.
static int FcntlOwn(int fd, int command, long argument)
{
    return static_cast<int>(ZorvRawSyscall(SYS_fcntl, fd, command, argument));
}

static bool StatFd(int fd, struct stat* pStat)
{
    return ZorvRawSyscall(SYS_fstat, fd, reinterpret_cast<long>(pStat)) == 0;
}

static KeptFile* FindKept(int fd)
{
    for (KeptFile& file : g_keptFiles)
        if (file.m_fd == fd && fd >= FIRST_FREE_FD && file.m_pid == ZorvUmaCachedPid())
            return &file;
    return nullptr;
}

static bool IsStill(const KeptFile* pFile, int fd)
{
    struct stat now;
    return StatFd(fd, &now) && now.st_dev == pFile->m_device && now.st_ino == pFile->m_inode;
}

// Where the agent's numbers begin: high, but inside what the program is allowed.
static int LowestOwnFd()
{
    struct rlimit limit;
    if (ZorvUmaGetrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > USUAL_LOWEST_FD + MAX_KEPT_FILES)
        return USUAL_LOWEST_FD;
    int half = static_cast<int>(limit.rlim_cur / 2);
    return half > FIRST_FREE_FD ? half : FIRST_FREE_FD;
}

// A high duplicate in place of `fd`; `fd` itself where there is no room, unless it is one of the standard streams'.
static int MoveHigh(int fd)
{
    int moved = -1;
    for (int lowest : {LowestOwnFd(), FIRST_FREE_FD})
        if (moved < 0)
            moved = FcntlOwn(fd, F_DUPFD_CLOEXEC, lowest);
    if (moved < 0 && fd >= FIRST_FREE_FD)
        return fd;
    ZorvUmaClose(fd);
    return moved < 0 ? -1 : moved;
}

// The path as the kernel knows it: the program may change its directory.
static char* AbsolutePathOf(int fd, const char* pPath)
{
    if (pPath[0] == '/')
        return ZorvUmaStrdup(pPath);
    char link[PROC_PATH_SIZE];
    char path[PATH_SIZE];
    ZorvUmaSnprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t length = ZorvUmaReadlink(link, path, sizeof(path) - 1);
    if (length <= 0)
        return ZorvUmaStrdup(pPath);
    path[length] = '\0';
    return ZorvUmaStrdup(path);
}

int ZorvUmaKeepFile(int fd, const char* pPath, int flags)
{
    if (fd < 0)
        return fd;
    int savedErrno = errno;
    fd = MoveHigh(fd);
    struct stat now;
    if (fd >= FIRST_FREE_FD && StatFd(fd, &now))
        for (KeptFile& file : g_keptFiles)
        {
            if (file.m_fd != 0 && file.m_fd != fd)
                continue;
            file = {fd, ZorvUmaCachedPid(), now.st_dev, now.st_ino, flags & ~(O_CREAT | O_TRUNC | O_EXCL),
                    pPath == nullptr ? nullptr : AbsolutePathOf(fd, pPath)};
            break;
        }
    errno = savedErrno;
    return fd;
}

bool ZorvUmaIsStillOwn(int fd)
{
    const KeptFile* pFile = FindKept(fd);
    return pFile == nullptr || IsStill(pFile, fd);
}

void ZorvUmaCloseKeptFile(int fd)
{
    if (fd < 0)
        return;
    KeptFile* pFile = FindKept(fd);
    bool isOwn = pFile == nullptr || IsStill(pFile, fd);
    if (pFile != nullptr)
        pFile->m_fd = 0;
    if (isOwn)
        ZorvUmaClose(fd);
}

void ZorvUmaForgetKeptFile(int fd)
{
    KeptFile* pFile = FindKept(fd);
    if (pFile != nullptr)
        pFile->m_fd = 0;
}

void ZorvUmaSyncAndClose(int* pFd)
{
    int fd = *pFd;
    if (fd < 0)
        return;
    __atomic_store_n(pFd, -1, __ATOMIC_SEQ_CST);
    if (ZorvUmaIsStillOwn(fd))
        ZorvUmaFsync(fd);
    ZorvUmaCloseKeptFile(fd);
}

void ZorvUmaDropParentsFiles()
{
    for (KeptFile& file : g_keptFiles)
    {
        if (file.m_fd == 0 || file.m_pid == ZorvUmaCachedPid())
            continue;
        int fd = file.m_fd;
        file.m_fd = 0;
        if (IsStill(&file, fd))
            ZorvUmaClose(fd);
    }
}

// The process record names descriptors by number: each that named the old one names the new one.
static void Rename(int oldFd, int newFd)
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    if (pProfileInfo == nullptr)
        return;
    for (int* pFd : {&pProfileInfo->m_umsData.m_fd, &pProfileInfo->m_umtData.m_fd, &pProfileInfo->m_metaDataFd,
                     &pProfileInfo->m_logFd, &pProfileInfo->m_errFd})
        if (*pFd == oldFd)
            __atomic_store_n(pFd, newFd, __ATOMIC_SEQ_CST);
}

static ZORV_COLD int OpenAgain(KeptFile* pFile)
{
    if (pFile->m_pPath == nullptr)
        return -1;
    int fd = fnOpenFile(pFile->m_pPath, pFile->m_reopenFlags, 0);
    if (fd < 0)
        return -1;
    fd = MoveHigh(fd);
    if (fd < 0 || !IsStill(pFile, fd))
    {
        if (fd >= 0)
            ZorvUmaClose(fd);
        return -1;
    }
    ZorvRawSyscall(SYS_lseek, fd, 0, SEEK_END);
    int oldFd = pFile->m_fd;
    pFile->m_fd = fd;
    Rename(oldFd, fd);
    return fd;
}

int ZorvUmaOwnDescriptor(int fd)
{
    KeptFile* pFile = FindKept(fd);
    if (pFile == nullptr || IsStill(pFile, fd))
        return fd;
    return OpenAgain(pFile);
}

ssize_t ZorvUmaWriteOwnFile(int fd, const void* pBuf, size_t count)
{
    fd = ZorvUmaOwnDescriptor(fd);
    sigset_t sizeSignal;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&sizeSignal);
    sigaddset(&sizeSignal, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &sizeSignal, &before);
    sigpending(&pending);

    ssize_t written = ZorvUmaWrite(fd, pBuf, count);

    int savedErrno = errno;
    if (written == -1 && savedErrno == EFBIG && sigismember(&pending, SIGXFSZ) == 0)
    {
        // Take back the signal that this write raised, and only that one.
        timespec now = {};
        ZorvRawSyscall(SYS_rt_sigtimedwait, reinterpret_cast<long>(&sizeSignal), 0, reinterpret_cast<long>(&now),
                       _NSIG / 8);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = savedErrno;
    return written;
}
