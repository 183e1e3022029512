// Sleeping, and waiting for events and signals; each wait is over soon, or is interrupted by a timer.
#include "every_call.h"
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>

int __poll_chk(struct pollfd* pFds, nfds_t count, int timeout, size_t fdsSize);
int __ppoll_chk(struct pollfd* pFds, nfds_t count, const struct timespec* pTimeout, const sigset_t* pMask,
                size_t fdsSize);

static const struct timespec g_soon = {0, 1000};
static const struct timespec g_hour = {3600, 0};

static void Nothing(int signal)
{
    (void)signal;
}

// Interrupts the thread every few milliseconds: whatever is slept through once is interrupted the next time.
static void Interrupt(int isOn)
{
    struct itimerval interval = {.it_interval = {0, isOn ? 3000 : 0}, .it_value = {0, isOn ? 3000 : 0}};
    setitimer(ITIMER_REAL, &interval, NULL);
}

static void CallSleeps(void)
{
    struct timespec left = {0, 0};
    const struct timespec invalid = {0, 1000000000};
    CALL(sleep, 0);
    CALL(usleep, 10);
    CALL(nanosleep, &g_soon, &left);
    CALL(nanosleep, &invalid, &left);
    CALL(clock_nanosleep, CLOCK_MONOTONIC, 0, &g_soon, &left);
    CALL(clock_nanosleep, 77, 0, &g_soon, &left);
}

static void CallInterruptedSleeps(void)
{
    struct timespec left = {0, 0};
    struct sigaction action = {.sa_handler = Nothing};
    sigset_t all;
    sigemptyset(&all);
    CALL(sigaction, SIGALRM, &action, NULL);
    Interrupt(1);
    CALL_KIND(sleep, 3600); // what is left may be rounded up
    CALL(usleep, 4000000000);
    CALL(nanosleep, &g_hour, &left);
    Note("  nearly all is left %d\n", left.tv_sec > 3590);
    CALL(clock_nanosleep, CLOCK_REALTIME, 0, &g_hour, &left);
    Note("  nearly all is left %d\n", left.tv_sec > 3590);
    CALL(pause);
    CALL(sigsuspend, &all);
    CALL(poll, NULL, 0, -1);
    CALL(select, 0, NULL, NULL, NULL, NULL);
    Interrupt(0);
}

static void CallSignalWaits(void)
{
    sigset_t wanted;
    siginfo_t info;
    int signal = 0;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGUSR1);
    sigprocmask(SIG_BLOCK, &wanted, NULL);
    CALL(kill, getpid(), SIGUSR1);
    CALL(sigwait, &wanted, &signal);
    Note("  signal %d\n", signal);
    CALL(kill, getpid(), SIGUSR1);
    CALL(sigwaitinfo, &wanted, &info);
    Note("  signal %d of this process %d\n", info.si_signo, info.si_pid == getpid());
    CALL(sigtimedwait, &wanted, &info, &g_soon);
    CALL(sigwaitinfo, (sigset_t*)1, &info);
    CALL(kill, getpid(), SIGUSR1);
    CALL(sigtimedwait, &wanted, NULL, &g_hour);
}

static void CallPolls(int fd)
{
    struct pollfd fds[2] = {{fd, POLLIN, 0}, {77, POLLIN, 0}};
    struct timeval now = {0, 0};
    fd_set readable;
    CALL(poll, fds, 2, -1);
    Note("  events %d %d\n", fds[0].revents, fds[1].revents);
    CALL(poll, NULL, 0, 0);
    CALL(poll, (struct pollfd*)1, 1, 0);
    CALL(__poll_chk, fds, 1, 0, sizeof(fds));
    CALL(ppoll, fds, 1, &g_soon, NULL);
    CALL(__ppoll_chk, fds, 2, NULL, NULL, sizeof(fds));
    CALL(ppoll, NULL, 0, &(struct timespec){-1, 0}, NULL);
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    CALL(select, fd + 1, &readable, NULL, NULL, &now);
    Note("  readable %d\n", FD_ISSET(fd, &readable) != 0);
    CALL(select, -1, NULL, NULL, NULL, NULL);
    CALL(pselect, fd + 1, &readable, NULL, NULL, &g_soon, NULL);
    CALL(pselect, 0, NULL, NULL, NULL, &g_soon, NULL);
}

static void CallEpollWaits(int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data.u64 = 0x123456789ull};
    sigset_t none;
    sigemptyset(&none);
    int epoll = CALL(epoll_create1, 0);
    CALL(epoll_wait, epoll, &event, 1, 0);
    CALL(epoll_ctl, epoll, EPOLL_CTL_ADD, fd, &event);
    memset(&event, 0, sizeof(event));
    CALL(epoll_wait, epoll, &event, 1, -1);
    Note("  event %u of %lx\n", event.events, (unsigned long)event.data.u64);
    CALL(epoll_pwait, epoll, &event, 1, 100, &none);
    CALL(epoll_pwait, epoll, &event, 0, 100, &none);
    CALL(epoll_wait, fd, &event, 1, 0);
    CALL(close, epoll);
}

void CallWaits(void)
{
    int ends[2];
    CallSleeps();
    CallInterruptedSleeps();
    CallSignalWaits();
    CALL(pipe, ends);
    CALL(write, ends[1], "x", 1);
    CallPolls(ends[0]);
    CallEpollWaits(ends[0]);
    CALL(close, ends[0]);
    CALL(close, ends[1]);
}
