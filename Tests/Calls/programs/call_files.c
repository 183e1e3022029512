// Opening, positioning, sizing, locking and closing files.
#include "every_call.h"
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

int __open_2(const char* pPath, int flags);
int __open64_2(const char* pPath, int flags);
int __openat_2(int dirFd, const char* pPath, int flags);
int __openat64_2(int dirFd, const char* pPath, int flags);

static void NoteMode(const char* pPath)
{
    struct stat status;
    int result = stat(pPath, &status);
    Note("  mode of %s: %d %o, size %ld\n", pPath, result, result ? 0 : status.st_mode,
         result ? 0 : status.st_size);
}

static void CallOpens(void)
{
    umask(022);
    int fd = CALL(open, "a", O_RDWR | O_CREAT | O_EXCL, 0666);
    NoteMode("a");
    CALL(open, "a", O_RDWR | O_CREAT | O_EXCL, 0666);
    CALL(open, "missing", O_RDONLY);
    CALL(open, (const char*)1, O_RDONLY);
    CALL(open64, "b", O_WRONLY | O_CREAT, 0751);
    NoteMode("b");
    CALL(__open_2, "a", O_RDONLY);
    CALL(__open64_2, "missing", O_RDONLY);
    CALL(openat, AT_FDCWD, "c", O_WRONLY | O_CREAT, 01700);
    NoteMode("c");
    CALL(openat, fd, "below a file", O_RDONLY);
    CALL(openat64, AT_FDCWD, "d", O_RDWR | O_CREAT | O_TMPFILE, 0600);
    CALL(openat64, -1, "d", O_RDWR | O_CREAT, 0604);
    CALL(openat64, AT_FDCWD, "d", O_RDWR | O_CREAT, 0604);
    NoteMode("d");
    CALL(__openat_2, AT_FDCWD, "c", O_RDONLY);
    CALL(__openat64_2, AT_FDCWD, "c", O_RDONLY | O_DIRECTORY);
    CALL(creat, "e", 0777);
    NoteMode("e");
    CALL(creat, "missing/e", 0777);
    CALL(creat64, "f", 0400);
    NoteMode("f");
    for (int i = 3; i <= 16; ++i)
    {
        CALL(close, i);
    }
}

static void CallSizes(int fd)
{
    CALL(ftruncate, fd, 1000);
    CALL(ftruncate, fd, -1);
    CALL(ftruncate64, fd, 5000000000);
    NoteMode("sized");
    CALL(truncate, "sized", 77);
    CALL(truncate, "missing", 77);
    CALL(truncate64, "sized", 4000);
    NoteMode("sized");
    CALL(lseek, fd, 100, SEEK_SET);
    CALL(lseek, fd, -1, SEEK_SET);
    CALL(lseek, fd, 0, 77);
    CALL(lseek64, fd, 5, SEEK_CUR);
    CALL(lseek64, fd, 0, SEEK_END);
    CALL(fallocate, fd, 0, 0, 8000);
    CALL(fallocate, -1, 0, 0, 8000);
    CALL(fallocate64, fd, FALLOC_FL_KEEP_SIZE, 8000, 100);
    CALL(fallocate64, fd, 0, -5, 100);
    NoteMode("sized");
    CALL(readahead, fd, 0, 4096);
    CALL(readahead, -1, 0, 4096);
}

static void CallSyncs(int fd)
{
    CALL(fsync, fd);
    CALL(fsync, -1);
    CALL(fdatasync, fd);
    CALL(fdatasync, -1);
    CALL(syncfs, fd);
    CALL(syncfs, -1);
    CALL(sync_file_range, fd, 0, 4096, SYNC_FILE_RANGE_WRITE);
    CALL(sync_file_range, fd, -1, 4096, SYNC_FILE_RANGE_WRITE);
    CALL_VOID(sync);
}

static void CallLocks(int fd)
{
    int other = CALL(open, "sized", O_RDWR);
    CALL(flock, fd, LOCK_EX);
    CALL(flock, other, LOCK_EX | LOCK_NB);
    CALL(flock, fd, LOCK_UN);
    CALL(flock, fd, 77);
    CALL(lockf, fd, F_LOCK, 10);
    CALL(lockf, fd, F_TEST, 10);
    CALL(lockf, -1, F_LOCK, 10);
    CALL(lockf64, fd, F_TLOCK, 5);
    CALL(lockf64, fd, F_ULOCK, 0);
    CALL(lockf64, fd, 77, 0);
    CALL(close, other);
}

// The optional word: an int, a pointer, or none at all.
static void CallControls(int fd)
{
    struct flock range = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 1, .l_len = 2};
    int word = 0;
    CALL(fcntl, fd, F_GETFD);
    CALL(fcntl, fd, F_SETFD, FD_CLOEXEC);
    CALL(fcntl, fd, F_GETFD);
    CALL(fcntl, fd, F_SETLK, &range);
    CALL(fcntl, fd, F_GETLK, &range);
    Note("  lock type %d\n", range.l_type);
    CALL(fcntl, fd, F_DUPFD, 20);
    CALL(fcntl, fd, F_DUPFD, -1);
    CALL(fcntl, -1, F_GETFD);
    CALL(fcntl64, fd, F_SETFL, O_APPEND);
    Note("  appending %d\n", CALL(fcntl64, fd, F_GETFL) & O_APPEND);
    CALL(fcntl64, fd, 7777, &range);
    CALL(ioctl, fd, FIONREAD, &word);
    Note("  readable %d\n", word);
    CALL(ioctl, fd, TIOCGWINSZ, &word);
    CALL(ioctl, fd, FIOCLEX);
    CALL(ioctl, -1, FIOCLEX);
    CALL(close, 20);
}

static void CallDuplicates(int fd)
{
    CALL(dup, fd);
    CALL(dup, -1);
    CALL(dup2, fd, 30);
    CALL(dup2, fd, fd);
    CALL(dup2, -1, 30);
    CALL(dup3, fd, 31, O_CLOEXEC);
    CALL(dup3, fd, fd, 0);
    CALL(fcntl, 31, F_GETFD);
    CALL(close, 30);
    CALL(close, 31);
    CALL(close, 4);
    CALL(close, 4);
}

static void CallEpolls(int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data.fd = 1};
    int epoll = CALL(epoll_create, 1);
    CALL(epoll_create, 0);
    int other = CALL(epoll_create1, EPOLL_CLOEXEC);
    CALL(epoll_create1, 77);
    CALL(epoll_ctl, epoll, EPOLL_CTL_ADD, other, &event);
    CALL(epoll_ctl, epoll, EPOLL_CTL_ADD, other, &event);
    CALL(epoll_ctl, epoll, EPOLL_CTL_ADD, fd, &event);
    CALL(close, other);
    CALL(close, epoll);
}

void CallFiles(void)
{
    CallOpens();
    int fd = CALL(open, "sized", O_RDWR | O_CREAT, 0600);
    CallSizes(fd);
    CallSyncs(fd);
    CallLocks(fd);
    CallControls(fd);
    CallDuplicates(fd);
    CallEpolls(fd);
    CALL(close, fd);
    CALL(close, -1);
}
