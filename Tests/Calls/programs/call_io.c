// Reading and writing, one after the other through every entry.
#include "every_call.h"
#include <sys/sendfile.h>
#include <sys/uio.h>

ssize_t __read_chk(int fd, void* pBuf, size_t count, size_t bufSize);
ssize_t __pread_chk(int fd, void* pBuf, size_t count, off_t offset, size_t bufSize);
ssize_t __pread64_chk(int fd, void* pBuf, size_t count, off64_t offset, size_t bufSize);

static char g_bytes[32];
static char g_more[32];
static char* volatile g_pNowhere = (char*)1;

static void NoteBytes(void)
{
    Note("  bytes %.*s|%.*s\n", (int)sizeof(g_bytes), g_bytes, (int)sizeof(g_more), g_more);
    memset(g_bytes, 0, sizeof(g_bytes));
    memset(g_more, 0, sizeof(g_more));
}

static void CallWrites(int fd)
{
    struct iovec parts[2] = {{(char*)"kl", 2}, {(char*)"mno", 3}};
    CALL(write, fd, "abcdefghij", 10);
    CALL(write, fd, g_pNowhere, 10);
    CALL(write, -1, "abc", 3);
    CALL(write, fd, "abc", 0);
    CALL(writev, fd, parts, 2);
    CALL(writev, fd, parts, -1);
    CALL(pwrite, fd, "B", 1, 1);
    CALL(pwrite, fd, "B", 1, -1);
    CALL(pwrite64, fd, "CD", 2, 2);
    CALL(pwrite64, -1, "CD", 2, 2);
    CALL(pwritev, fd, parts, 2, 20);
    CALL(pwritev, fd, parts, 2, -3);
    CALL(pwritev64, fd, parts, 1, 25);
    CALL(pwritev64, -1, parts, 1, 25);
    CALL(pwritev2, fd, parts, 2, -1, 0);
    CALL(pwritev2, fd, parts, 2, 0, 0x7fff);
    CALL(pwritev64v2, fd, parts, 1, 27, 0);
    CALL(pwritev64v2, -1, parts, 1, 27, 0);
}

static void CallReads(int fd)
{
    struct iovec parts[2] = {{g_bytes, 4}, {g_more, 3}};
    CALL(lseek, fd, 0, SEEK_SET);
    CALL(read, fd, g_bytes, 7);
    NoteBytes();
    CALL(read, fd, g_pNowhere, 7);
    CALL(read, -1, g_bytes, 7);
    CALL(__read_chk, fd, g_bytes, 5, sizeof(g_bytes));
    NoteBytes();
    CALL(pread, fd, g_bytes, 6, 9);
    CALL(pread, fd, g_bytes, 6, -1);
    NoteBytes();
    CALL(pread64, fd, g_bytes, 8, 20);
    CALL(pread64, fd, g_bytes, 8, 2000);
    NoteBytes();
    CALL(__pread_chk, fd, g_bytes, 3, 1, sizeof(g_bytes));
    CALL(__pread64_chk, fd, g_more, 4, 2, sizeof(g_more));
    CALL(__pread64_chk, -1, g_more, 4, 2, sizeof(g_more));
    NoteBytes();
    CALL(readv, fd, parts, 2);
    CALL(readv, -1, parts, 2);
    NoteBytes();
    CALL(preadv, fd, parts, 2, 3);
    CALL(preadv, fd, parts, 2, -3);
    NoteBytes();
    CALL(preadv64, fd, parts, 2, 4);
    NoteBytes();
    CALL(preadv2, fd, parts, 2, 5, 0);
    CALL(preadv2, fd, parts, 2, 5, 0x7fff);
    NoteBytes();
    CALL(preadv64v2, fd, parts, 2, 6, 0);
    NoteBytes();
}

static void CallCopies(int fd)
{
    int to = CALL(open, "copied", O_RDWR | O_CREAT, 0600);
    off_t from = 2;
    off_t at = 0;
    CALL(sendfile, to, fd, &from, 5);
    CALL(sendfile, -1, fd, &from, 5);
    CALL(sendfile64, to, fd, &from, 4);
    Note("  offset %ld\n", (long)from);
    from = 1;
    at = 9;
    CALL(copy_file_range, fd, &from, to, &at, 6, 0);
    CALL(copy_file_range, fd, &from, to, &at, 6, 77);
    Note("  offsets %ld %ld\n", (long)from, (long)at);
    CALL(pread, to, g_bytes, sizeof(g_bytes), 0);
    NoteBytes();
    CALL(close, to);
}

static void CallPipes(void)
{
    int first[2];
    int second[2];
    struct iovec part = {(char*)"vmspliced", 9};
    CALL(pipe, first);
    CALL(pipe, (int*)(void*)g_pNowhere);
    CALL(pipe2, second, O_NONBLOCK | O_CLOEXEC);
    CALL(pipe2, second, 0x7fff);
    Note("  ends %d %d %d %d\n", first[0], first[1], second[0], second[1]);
    CALL(vmsplice, first[1], &part, 1, 0);
    CALL(vmsplice, -1, &part, 1, 0);
    CALL(tee, first[0], second[1], 4, 0);
    CALL(tee, first[0], first[1], 4, 0);
    CALL(splice, first[0], NULL, second[1], NULL, 5, 0);
    CALL(splice, first[0], &(off_t){0}, second[1], NULL, 5, 0);
    CALL(read, second[0], g_bytes, sizeof(g_bytes));
    CALL(read, second[0], g_bytes, sizeof(g_bytes));
    NoteBytes();
    CALL(close, second[0]);
    CALL(write, second[1], "abc", 3);
    CALL(close, second[1]);
    CALL(close, first[0]);
    CALL(close, first[1]);
}

void CallReadsAndWrites(void)
{
    CALL_KIND(signal, SIGPIPE, SIG_IGN);
    int fd = CALL(open, "bytes", O_RDWR | O_CREAT, 0600);
    CallWrites(fd);
    CallReads(fd);
    CallCopies(fd);
    CALL(close, fd);
    CallPipes();
}
