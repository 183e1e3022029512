// Every call that can wait for long: how to start it so that it waits until the process ends.
#pragma once

#include "blackbox.h"
#include <linux/futex.h>
#include <mqueue.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>

int __poll_chk(struct pollfd* pFds, nfds_t count, int timeout, size_t fdsSize);
int __ppoll_chk(struct pollfd* pFds, nfds_t count, const struct timespec* pTimeout, const sigset_t* pMask,
                size_t fdsSize);
ssize_t __read_chk(int fd, void* pBuf, size_t count, size_t bufSize);

static const struct timespec g_hour = {3600, 0};
static int g_empty[2];   // a pipe that nothing is written to
static int g_full[2];    // a pipe that nothing is read from
static int g_sockets[2]; // connected, silent
static int g_listener;
static int g_epoll;
static int g_lockFd;
static pid_t g_child;
static sigset_t g_awaited; // blocked everywhere
static sigset_t g_nothing;
static uint32_t g_word = 1;
static char g_bytes[64];
static struct iovec g_part = {g_bytes, sizeof(g_bytes)};

// ---- what the calls wait for -----------------------------------------------------------------------------

// A child that holds the lock on "locked" and ends with its parent. It makes no call that has an interposer.
static void StartChild(void)
{
    int life[2];
    int ready[2];
    char byte = 0;
    struct flock lock = {.l_type = F_WRLCK};
    Check(pipe(life) == 0 && pipe(ready) == 0, "pipe");
    g_lockFd = open("locked", O_RDWR | O_CREAT, 0600);
    g_child = (pid_t)syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    if (g_child == 0)
    {
        syscall(SYS_close, life[1]);
        syscall(SYS_fcntl, g_lockFd, F_SETLKW, &lock);
        syscall(SYS_write, ready[1], &byte, 1);
        while (syscall(SYS_read, life[0], &byte, 1) > 0)
        {
        }
        long result = SYS_exit;
        __asm__ volatile("syscall" : "+a"(result) : "D"(0L) : "rcx", "r11", "memory");
    }
    Check(read(ready[0], &byte, 1) == 1, "child");
}

static void OpenListener(void)
{
    struct sockaddr name = {.sa_family = AF_UNIX}; // the kernel chooses an abstract name
    g_listener = socket(AF_UNIX, SOCK_STREAM, 0);
    Check(bind(g_listener, &name, sizeof(sa_family_t)) == 0 && listen(g_listener, 1) == 0, "listen");
}

static void PrepareWaitingCalls(void)
{
    struct epoll_event event = {.events = EPOLLIN};
    Check(pipe(g_empty) == 0 && pipe(g_full) == 0, "pipe");
    fcntl(g_full[1], F_SETFL, O_NONBLOCK);
    while (write(g_full[1], g_bytes, sizeof(g_bytes)) > 0)
    {
    }
    fcntl(g_full[1], F_SETFL, 0);
    Check(socketpair(AF_UNIX, SOCK_STREAM, 0, g_sockets) == 0, "socketpair");
    g_epoll = epoll_create1(0);
    Check(epoll_ctl(g_epoll, EPOLL_CTL_ADD, g_empty[0], &event) == 0, "epoll_ctl");
    OpenListener();
    StartChild();
    Check(flock(open("flocked", O_RDWR | O_CREAT, 0600), LOCK_EX) == 0, "flock");
    unlink("fifo");
    Check(mkfifo("fifo", 0600) == 0, "mkfifo");
    sigemptyset(&g_nothing);
    sigemptyset(&g_awaited);
    sigaddset(&g_awaited, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &g_awaited, NULL);
}

// ---- the calls -------------------------------------------------------------------------------------------

#define WAITING(name, ...)                                                                                     \
    static long Wait_##name(void)                                                                              \
    {                                                                                                          \
        return (long)(__VA_ARGS__);                                                                            \
    }
#define READABLE (&(struct pollfd){g_empty[0], POLLIN, 0})

WAITING(sleep, sleep(3600))
WAITING(nanosleep, nanosleep(&g_hour, NULL))
WAITING(clock_nanosleep, clock_nanosleep(CLOCK_MONOTONIC, 0, &g_hour, NULL))
WAITING(usleep, usleep(3600000000u))
WAITING(pause, pause())
WAITING(sigsuspend, sigsuspend(&g_awaited))
WAITING(sigwait, sigwait(&g_awaited, &(int){0}))
WAITING(sigwaitinfo, sigwaitinfo(&g_awaited, NULL))
WAITING(sigtimedwait, sigtimedwait(&g_awaited, NULL, &g_hour))
WAITING(flock, flock(open("flocked", O_RDWR), LOCK_EX))
WAITING(lockf, lockf(g_lockFd, F_LOCK, 1))
WAITING(lockf64, lockf64(g_lockFd, F_LOCK, 1))
WAITING(poll, poll(READABLE, 1, -1))
WAITING(__poll_chk, __poll_chk(READABLE, 1, -1, sizeof(struct pollfd)))
WAITING(ppoll, ppoll(READABLE, 1, NULL, NULL))
WAITING(__ppoll_chk, __ppoll_chk(READABLE, 1, &g_hour, &g_awaited, sizeof(struct pollfd)))
WAITING(select, select(0, NULL, NULL, NULL, NULL))
WAITING(pselect, pselect(0, NULL, NULL, NULL, NULL, &g_awaited))
WAITING(epoll_wait, epoll_wait(g_epoll, &(struct epoll_event){0}, 1, -1))
WAITING(epoll_pwait, epoll_pwait(g_epoll, &(struct epoll_event){0}, 1, -1, &g_awaited))
WAITING(wait, wait(NULL))
WAITING(waitpid, waitpid(g_child, NULL, 0))
WAITING(waitid, waitid(P_ALL, 0, &(siginfo_t){0}, WEXITED))
WAITING(wait3, wait3(NULL, 0, NULL))
WAITING(wait4, wait4(g_child, NULL, 0, NULL))
WAITING(futex, syscall(SYS_futex, &g_word, FUTEX_WAIT | FUTEX_PRIVATE_FLAG, 1, NULL))
WAITING(read, read(g_empty[0], g_bytes, 1))
WAITING(__read_chk, __read_chk(g_empty[0], g_bytes, 1, sizeof(g_bytes)))
WAITING(readv, readv(g_empty[0], &g_part, 1))
WAITING(write, write(g_full[1], g_bytes, sizeof(g_bytes)))
WAITING(writev, writev(g_full[1], &g_part, 1))
WAITING(open, open("fifo", O_RDONLY))
WAITING(open64, open64("fifo", O_RDONLY))
WAITING(openat, openat(AT_FDCWD, "fifo", O_RDONLY))
WAITING(accept, accept(g_listener, NULL, NULL))
WAITING(accept4, accept4(g_listener, NULL, NULL, 0))
WAITING(recv, recv(g_sockets[0], g_bytes, 1, 0))
WAITING(recvfrom, recvfrom(g_sockets[0], g_bytes, 1, 0, NULL, NULL))
WAITING(recvmsg, recvmsg(g_sockets[0], &(struct msghdr){.msg_iov = &g_part, .msg_iovlen = 1}, 0))
WAITING(fcntl, fcntl(g_lockFd, F_SETLKW, &(struct flock){.l_type = F_WRLCK}))

struct WaitingCall
{
    const char* m_pName;
    int m_number; // of the system call in which the thread is seen waiting
    char m_kind;  // p: a cancellation point, n: none, r: one that goes on waiting when a signal interrupts it
    long (*m_pWait)(void);
};

static const struct WaitingCall g_waitingCalls[] = {
    {"sleep", SYS_clock_nanosleep, 'p', Wait_sleep},
    {"nanosleep", SYS_clock_nanosleep, 'p', Wait_nanosleep},
    {"clock_nanosleep", SYS_clock_nanosleep, 'p', Wait_clock_nanosleep},
    {"usleep", SYS_clock_nanosleep, 'p', Wait_usleep},
    {"pause", SYS_pause, 'p', Wait_pause},
    {"sigsuspend", SYS_rt_sigsuspend, 'p', Wait_sigsuspend},
    {"sigwait", SYS_rt_sigtimedwait, 'r', Wait_sigwait},
    {"sigwaitinfo", SYS_rt_sigtimedwait, 'p', Wait_sigwaitinfo},
    {"sigtimedwait", SYS_rt_sigtimedwait, 'p', Wait_sigtimedwait},
    {"flock", SYS_flock, 'n', Wait_flock},
    {"lockf", SYS_fcntl, 'p', Wait_lockf},
    {"lockf64", SYS_fcntl, 'p', Wait_lockf64},
    {"poll", SYS_poll, 'p', Wait_poll},
    {"__poll_chk", SYS_poll, 'p', Wait___poll_chk},
    {"ppoll", SYS_ppoll, 'p', Wait_ppoll},
    {"__ppoll_chk", SYS_ppoll, 'p', Wait___ppoll_chk},
    {"select", SYS_pselect6, 'p', Wait_select},
    {"pselect", SYS_pselect6, 'p', Wait_pselect},
    {"epoll_wait", SYS_epoll_wait, 'p', Wait_epoll_wait},
    {"epoll_pwait", SYS_epoll_pwait, 'p', Wait_epoll_pwait},
    {"wait", SYS_wait4, 'p', Wait_wait},
    {"waitpid", SYS_wait4, 'p', Wait_waitpid},
    {"waitid", SYS_waitid, 'p', Wait_waitid},
    {"wait3", SYS_wait4, 'p', Wait_wait3},
    {"wait4", SYS_wait4, 'p', Wait_wait4},
    {"futex", SYS_futex, 'n', Wait_futex},
    {"read", SYS_read, 'p', Wait_read},
    {"__read_chk", SYS_read, 'p', Wait___read_chk},
    {"readv", SYS_readv, 'p', Wait_readv},
    {"write", SYS_write, 'p', Wait_write},
    {"writev", SYS_writev, 'p', Wait_writev},
    {"open", SYS_openat, 'p', Wait_open},
    {"open64", SYS_openat, 'p', Wait_open64},
    {"openat", SYS_openat, 'p', Wait_openat},
    {"accept", SYS_accept, 'p', Wait_accept},
    {"accept4", SYS_accept4, 'p', Wait_accept4},
    {"recv", SYS_recvfrom, 'p', Wait_recv},
    {"recvfrom", SYS_recvfrom, 'p', Wait_recvfrom},
    {"recvmsg", SYS_recvmsg, 'p', Wait_recvmsg},
    {"fcntl", SYS_fcntl, 'p', Wait_fcntl},
};
