// The agent's own descriptors, in a process whose descriptors are not the agent's.
//
// The program must get the numbers that it would get without the agent, and it may close or overwrite any
// number: a shell's redirection, a daemon that closes everything. So the agent's files are kept high and
// close-on-exec, and before each write (they are rare and large) the descriptor is compared with the file that
// it stood for. Where the program has taken it, the file is opened again; nothing is ever written to, or closed
// of, what is the program's.
//
// A number that once stood for one of the files never stands for another: whoever still holds an old number is
// led to the right file, or to none.

#include "Linux/ZorvUserModeTrace.h"
#include "ZorvAgentUtils.h"
#include "ZorvRawSyscall.h"

#include <cerrno>
#include <climits>
#include <initializer_list>

namespace
{

constexpr uint32_t MAX_KEPT_FILES =
    24;                              // six of a process and its unwinder's, and those of its parent in a child
constexpr uint32_t MAX_NUMBERS = 64; // of one file, the current one first
constexpr int USUAL_LOWEST_FD = 512; // high enough for shells and small enough for the kernel's table
constexpr int FIRST_FREE_FD = 3;
constexpr int OPEN_ATTEMPTS = 3;
constexpr int FLIGHT = 64; // away from a program that takes one number after the other
constexpr int WRITE_STEPS = 5000;
constexpr long WRITE_STEP_NS = 200000; // 1 s for a write that is under way
constexpr size_t PROC_PATH_SIZE = 64;
constexpr size_t PATH_SIZE = 4096;

struct KeptFile
{
    int m_fds[MAX_NUMBERS]; // 0: none; the agent never keeps 0 to 2
    pid_t m_pid;
    dev_t m_device;
    ino_t m_inode;
    int m_reopenFlags;
    char* m_pPath; // absolute; null: cannot be opened again
};

KeptFile g_keptFiles[MAX_KEPT_FILES];
int g_highestFd;
uint32_t g_writesUnderWay;
// Taken with every signal blocked, like all locks of the agent; a forked child makes it anew.
pthread_mutex_t g_filesLock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

int g_lowestOwnFd = INT_MAX;

// The calls of this file are the instructions: their libc names are interposed ones, or cancellation points.
static int FcntlOwn(int fd, int command, long argument)
{
    return static_cast<int>(ZorvRawSyscall(SYS_fcntl, fd, command, argument));
}

static bool StatFd(int fd, struct stat* pStat)
{
    return ZorvRawSyscall(SYS_fstat, fd, reinterpret_cast<long>(pStat)) == 0;
}

static KeptFile* FindKeptOf(int fd, pid_t pid)
{
    if (fd < FIRST_FREE_FD)
        return nullptr;
    for (KeptFile& file : g_keptFiles)
        for (uint32_t i = 0; i < MAX_NUMBERS && file.m_fds[i] != 0; i++)
            if (file.m_fds[i] == fd && (pid == 0 || file.m_pid == pid))
                return &file;
    return nullptr;
}

static KeptFile* FindKept(int fd)
{
    return FindKeptOf(fd, ZorvUmaCachedPid());
}

static bool IsStill(const KeptFile* pFile, int fd)
{
    struct stat now;
    return StatFd(fd, &now) && now.st_dev == pFile->m_device && now.st_ino == pFile->m_inode;
}

// ---- numbers ---------------------------------------------------------------------------------------------

// Where the agent's numbers begin: high, but inside what the program is allowed.
static int LowestOwnFd()
{
    struct rlimit limit;
    if (ZorvUmaGetrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > USUAL_LOWEST_FD + MAX_KEPT_FILES)
        return USUAL_LOWEST_FD;
    int half = static_cast<int>(limit.rlim_cur / 2);
    return half > FIRST_FREE_FD ? half : FIRST_FREE_FD;
}

// At or above the first of these numbers where there is room, or -1.
static int DuplicateTo(int fd, std::initializer_list<int> lowestOnes)
{
    int duplicate = -1;
    for (int lowest : lowestOnes)
        if (duplicate < 0)
            duplicate = FcntlOwn(fd, F_DUPFD_CLOEXEC, lowest);
    return duplicate < 0 ? -1 : duplicate;
}

// Under a number that no file of ours ever had.
static int DuplicateAway(int fd)
{
    return DuplicateTo(fd, {g_highestFd + FLIGHT, g_highestFd + 1});
}

// A high duplicate in place of `fd`; `fd` itself where there is no room, unless it is one of the standard
// streams'.
static int MoveHigh(int fd)
{
    int moved = DuplicateTo(fd, {LowestOwnFd(), FIRST_FREE_FD});
    if (moved < 0 && fd >= FIRST_FREE_FD)
        return fd;
    ZorvUmaClose(fd);
    return moved;
}

int ZorvUmaMoveDescriptor(int fd)
{
    int savedErrno = errno;
    fd = MoveHigh(fd);
    errno = savedErrno;
    return fd;
}

static void RememberNumber(int fd)
{
    if (fd > g_highestFd)
        g_highestFd = fd;
    if (fd >= FIRST_FREE_FD && fd < g_lowestOwnFd)
        g_lowestOwnFd = fd;
}

// ---- keeping ---------------------------------------------------------------------------------------------

// As the kernel knows it: the program may change its directory. Null where there is no /proc.
static char* PathOf(int fd)
{
    char link[PROC_PATH_SIZE];
    char path[PATH_SIZE];
    ZorvUmaSnprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t length = ZorvUmaReadlink(link, path, sizeof(path) - 1);
    if (length <= 0)
        return nullptr;
    path[length] = '\0';
    return ZorvUmaStrdup(path);
}

static bool IsFree(const KeptFile& file)
{
    return file.m_fds[0] == 0;
}

static KeptFile* Remember(int fd)
{
    struct stat now;
    if (fd < FIRST_FREE_FD || !StatFd(fd, &now))
        return nullptr;
    for (KeptFile& file : g_keptFiles)
    {
        if (!IsFree(file))
            continue;
        file = {};
        file.m_pid = ZorvUmaCachedPid();
        file.m_device = now.st_dev;
        file.m_inode = now.st_ino;
        __atomic_store_n(&file.m_fds[0], fd, __ATOMIC_RELEASE);
        return &file;
    }
    return nullptr;
}

static KeptFile* MoveAndRemember(int* pFd)
{
    int savedErrno = errno;
    *pFd = MoveHigh(*pFd);
    RememberNumber(*pFd);
    KeptFile* pFile = Remember(*pFd);
    errno = savedErrno;
    return pFile;
}

int ZorvUmaKeepDescriptor(int fd)
{
    if (fd >= 0)
        MoveAndRemember(&fd);
    return fd;
}

static bool KeepFile(int* pFd)
{
    if (*pFd < 0 || ZorvUmaIsKept(*pFd))
        return true;
    KeptFile* pFile = MoveAndRemember(pFd);
    if (pFile != nullptr)
    {
        pFile->m_reopenFlags = FcntlOwn(*pFd, F_GETFL, 0) | O_CLOEXEC;
        pFile->m_pPath = PathOf(*pFd);
    }
    return *pFd >= 0;
}

// An object ahead of the agent that opens its files knows them by the numbers that it gave.
static bool IsOpenedByOthers()
{
    void* volatile const functions[] = {
        reinterpret_cast<void*>(&fnOpenFile), reinterpret_cast<void*>(&fnOpenSharedMemory),
        reinterpret_cast<void*>(&ZorvUmaOpen), reinterpret_cast<void*>(&ZorvUmaOpenWithMode),
        reinterpret_cast<void*>(&ZorvUmaShmOpen)};
    for (void* pFunction : functions)
        if (!ZorvUmaIsOwn(pFunction))
            return true;
    return !ZorvUmaIsLibcAsked();
}

bool ZorvUmaKeepFilesOf(ZorvUmaProfileInfo* pProfileInfo)
{
    if (IsOpenedByOthers())
        return true;
    bool areKept = true;
    for (int* pFd : {&pProfileInfo->m_logFd, &pProfileInfo->m_errFd, &pProfileInfo->m_umtData.m_fd,
                     &pProfileInfo->m_umsData.m_fd, &pProfileInfo->m_metaDataFd})
        areKept = KeepFile(pFd) && areKept;
    pProfileInfo->m_shmFd = ZorvUmaKeepDescriptor(pProfileInfo->m_shmFd);
    return areKept;
}

bool ZorvUmaIsStillOwn(int fd)
{
    const KeptFile* pFile = FindKeptOf(fd, 0);
    return pFile == nullptr || IsStill(pFile, fd);
}

bool ZorvUmaIsKept(int fd)
{
    const KeptFile* pFile = FindKept(fd);
    return pFile != nullptr && IsStill(pFile, fd);
}

void ZorvUmaForgetKeptFile(int fd)
{
    KeptFile* pFile = FindKept(fd);
    if (pFile != nullptr)
        *pFile = {};
}

// Under its number of now, and forgotten behind that: a program that puts a file of its own there meanwhile
// waits for the lock.
void ZorvUmaCloseKeptFile(int fd)
{
    if (fd < 0)
        return;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaPthreadMutexLock(&g_filesLock);
    KeptFile* pFile = FindKept(fd);
    if (pFile != nullptr)
        fd = pFile->m_fds[0];
    if (pFile == nullptr || IsStill(pFile, fd))
        ZorvUmaClose(fd);
    if (pFile != nullptr)
        *pFile = {};
    ZorvUmaPthreadMutexUnlock(&g_filesLock);
    ZorvUmaLeaveAgent(&scope);
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
        if (IsFree(file) || file.m_pid == ZorvUmaCachedPid())
            continue;
        if (IsStill(&file, file.m_fds[0]))
            ZorvUmaClose(file.m_fds[0]);
        file = {};
    }
}

void ZorvUmaRenewFilesLock()
{
    g_filesLock = PTHREAD_MUTEX_INITIALIZER;
    g_writesUnderWay = 0;
}

// ---- opening again ---------------------------------------------------------------------------------------

// The process record names descriptors by number: each that named the old one names the new one.
static void Rename(int oldFd, int newFd)
{
    ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    if (pProfileInfo == nullptr)
        return;
    for (int* pFd : {&pProfileInfo->m_umsData.m_fd, &pProfileInfo->m_umtData.m_fd, &pProfileInfo->m_metaDataFd,
                     &pProfileInfo->m_logFd, &pProfileInfo->m_errFd})
    {
        int expected = oldFd; // unless the file is being closed
        __atomic_compare_exchange_n(pFd, &expected, newFd, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    }
}

static void GiveNumber(KeptFile* pFile, int fd)
{
    int oldFd = pFile->m_fds[0];
    for (uint32_t i = MAX_NUMBERS - 1; i > 0; i--)
        pFile->m_fds[i] = pFile->m_fds[i - 1];
    pFile->m_fds[0] = fd;
    Rename(oldFd, fd);
}

static bool IsUnused(int fd)
{
    return FcntlOwn(fd, F_GETFD, 0) == -EBADF;
}

// The file under its old number, if that is free, else under one that no file of ours ever had; -1 where that
// fails. No other number is tried: before it could be given back, the program might have put a file of its own
// there.
static int OpenUnder(const KeptFile* pFile, int oldFd)
{
    int fd = fnOpenFile(pFile->m_pPath, pFile->m_reopenFlags, 0);
    if (fd < 0)
        return -1;
    if (!IsStill(pFile, fd))
    {
        ZorvUmaClose(fd); // another file has its name now
        return -1;
    }
    if (IsUnused(oldFd))
    {
        int back = DuplicateTo(fd, {oldFd});
        ZorvUmaClose(fd);
        fd = back;
    }
    if (fd >= 0 && fd != oldFd)
    {
        int away = DuplicateAway(fd);
        ZorvUmaClose(fd);
        fd = away;
    }
    RememberNumber(fd);
    return IsStill(pFile, fd) ? fd : -1; // else the program was faster, and it is the program's
}

static ZORV_COLD int OpenAgain(KeptFile* pFile)
{
    // A child of vfork(2) shares this table with its parent.
    if (pFile->m_pPath == nullptr || pFile->m_pid != ZorvUmaGetPid())
        return -1;
    int oldFd = pFile->m_fds[0];
    int fd = -1;
    for (int attempt = 0; attempt < OPEN_ATTEMPTS && fd < 0; attempt++)
        fd = OpenUnder(pFile, oldFd);
    if (fd < 0)
        return -1;
    ZorvRawSyscall(SYS_lseek, fd, 0, SEEK_END);
    if (fd != oldFd)
        GiveNumber(pFile, fd);
    return fd;
}

int ZorvUmaOwnDescriptor(int fd)
{
    KeptFile* pFile = FindKept(fd);
    if (pFile == nullptr)
        return fd;
    int current = __atomic_load_n(&pFile->m_fds[0], __ATOMIC_RELAXED);
    if (IsStill(pFile, current))
        return current;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaPthreadMutexLock(&g_filesLock);
    current = pFile->m_fds[0];
    if (!IsStill(pFile, current))
        current = OpenAgain(pFile);
    ZorvUmaPthreadMutexUnlock(&g_filesLock);
    ZorvUmaLeaveAgent(&scope);
    return current;
}

// ---- what the program does to numbers --------------------------------------------------------------------

// Those of a parent count as well: a child that is not profiled has kept them. A program may ask for a million
// numbers in a row.
bool ZorvUmaIsOwnNumber(int fd)
{
    if (fd > g_highestFd)
        return false;
    for (const KeptFile& file : g_keptFiles)
        if (file.m_fds[0] == fd)
            return IsStill(&file, fd);
    return false;
}

int ZorvUmaNextOwnNumber(unsigned first, unsigned last)
{
    int next = -1;
    for (const KeptFile& file : g_keptFiles)
    {
        int fd = file.m_fds[0];
        bool isInside =
            !IsFree(file) && static_cast<unsigned>(fd) >= first && static_cast<unsigned>(fd) <= last;
        if (isInside && (next < 0 || fd < next) && IsStill(&file, fd))
            next = fd;
    }
    return next;
}

// Who has looked at the number before it changed may still be about to write to it.
static void AwaitWrites()
{
    const timespec step = {0, WRITE_STEP_NS};
    ZorvFullFence();
    for (int i = 0; i < WRITE_STEPS && __atomic_load_n(&g_writesUnderWay, __ATOMIC_SEQ_CST) != 0; i++)
        ZorvRawSyscall(SYS_nanosleep, reinterpret_cast<long>(&step));
}

// While the file is still open, so that no number is ever missing. What cannot be renamed stays.
void ZorvUmaVacate(int fd)
{
    if (ZorvUmaIsForeign())
        return; // a child with numbers of its own; the lock, if not the file, is its parent's
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    ZorvUmaPthreadMutexLock(&g_filesLock);
    KeptFile* pFile = FindKept(fd);
    bool isOurs = pFile != nullptr && pFile->m_fds[0] == fd && IsStill(pFile, fd);
    int moved = isOurs && pFile->m_pPath != nullptr ? DuplicateAway(fd) : -1;
    if (moved >= 0)
    {
        RememberNumber(moved);
        GiveNumber(pFile, moved);
    }
    ZorvUmaPthreadMutexUnlock(&g_filesLock);
    if (moved >= 0)
        AwaitWrites();
    ZorvUmaLeaveAgent(&scope);
}

// ---- writing ---------------------------------------------------------------------------------------------

// The number is looked at last of all, and renewed; a program that closes it even then has it opened once more.
static ssize_t WriteUnderOwnNumber(int* pFd, const void* pBuf, size_t count)
{
    ssize_t written = -1;
    for (int attempt = 0; attempt < OPEN_ATTEMPTS; attempt++)
    {
        *pFd = ZorvUmaOwnDescriptor(*pFd);
        written = ZorvUmaWrite(*pFd, pBuf, count);
        if (written != -1 || errno != EBADF || FindKept(*pFd) == nullptr)
            break;
    }
    return written;
}

// Without a signal for a file that may not grow.
static ssize_t WriteUnsignalled(int* pFd, const void* pBuf, size_t count)
{
    sigset_t sizeSignal;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&sizeSignal);
    sigaddset(&sizeSignal, SIGXFSZ);
    ZorvRawSigmask(SIG_BLOCK, &sizeSignal, &before);
    sigpending(&pending);

    ssize_t written = WriteUnderOwnNumber(pFd, pBuf, count);

    int savedErrno = errno;
    if (written == -1 && savedErrno == EFBIG && sigismember(&pending, SIGXFSZ) == 0)
    {
        // Take back the signal that this write raised, and only that one.
        timespec now = {};
        ZorvRawSyscall(SYS_rt_sigtimedwait, reinterpret_cast<long>(&sizeSignal), 0,
                       reinterpret_cast<long>(&now), _NSIG / 8);
    }
    ZorvRawSigmask(SIG_SETMASK, &before, nullptr);
    errno = savedErrno;
    return written;
}

static void BeginWrite()
{
    __atomic_add_fetch(&g_writesUnderWay, 1, __ATOMIC_SEQ_CST);
}

static void EndWrite()
{
    __atomic_sub_fetch(&g_writesUnderWay, 1, __ATOMIC_SEQ_CST);
}

ssize_t ZorvUmaWriteOwnFile(int fd, const void* pBuf, size_t count)
{
    BeginWrite();
    ssize_t written = WriteUnsignalled(&fd, pBuf, count);
    EndWrite();
    return written;
}

static ssize_t WriteOrCutBack(int fd, const void* pBuf, size_t count)
{
    BeginWrite();
    fd = ZorvUmaOwnDescriptor(fd);
    long start = fd < 0 ? -1 : ZorvRawSyscall(SYS_lseek, fd, 0, SEEK_CUR);
    ssize_t written = WriteUnsignalled(&fd, pBuf, count);
    if (written != static_cast<ssize_t>(count) && start >= 0 && ZorvUmaIsStillOwn(fd))
    {
        ZorvRawSyscall(SYS_ftruncate, fd, start);
        ZorvRawSyscall(SYS_lseek, fd, start, SEEK_SET);
    }
    EndWrite();
    return written;
}

ssize_t ZorvUmaWriteWhole(int fd, const void* pBuf, size_t count)
{
    // Threads that load modules share the metadata file and its position.
    static pthread_mutex_t wholeLock = PTHREAD_MUTEX_INITIALIZER;
    static pid_t lockPid;
    ZorvAgentScope scope;
    ZorvUmaEnterAgent(&scope);
    if (lockPid != ZorvUmaCachedPid())
    {
        wholeLock = PTHREAD_MUTEX_INITIALIZER; // a forked child has one thread when it comes here first
        lockPid = ZorvUmaCachedPid();
    }
    ZorvUmaPthreadMutexLock(&wholeLock);
    ssize_t written = WriteOrCutBack(fd, pBuf, count);
    ZorvUmaPthreadMutexUnlock(&wholeLock);
    ZorvUmaLeaveAgent(&scope);
    return written;
}
