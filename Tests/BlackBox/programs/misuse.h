// Prints what a call gave back and what it did to errno. The same source runs natively and under the agent, and
// the outputs must be equal.
#pragma once

#include "blackbox.h"
#include <limits.h>
#include <semaphore.h>
#include <time.h>

// No libc function sets this errno: it shows that a call left errno alone.
#define UNTOUCHED 4242

#define SHOW(call)                                                                                             \
    do                                                                                                         \
    {                                                                                                          \
        errno = UNTOUCHED;                                                                                     \
        long result_ = (long)(call);                                                                           \
        int errno_ = errno;                                                                                    \
        printf("%3d %s = %ld, errno %d\n", __LINE__, #call, result_, errno_);                                  \
    } while (0)

// No deadline at all, hidden from the compiler, which knows that libc's headers forbid it.
static const struct timespec* volatile g_pNoDeadline __attribute__((unused)) = NULL;
static const struct timespec g_past = {1, 0};
static const struct timespec g_zero = {0, 0};
static const struct timespec g_beforeEpoch = {-1, 0};
static const struct timespec g_negative = {1, -1};
static const struct timespec g_tooMany = {1, 1000000000};
static const struct timespec g_future = {4000000000, 0};

static inline struct timespec Soon(void)
{
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += 3000000;
    if (deadline.tv_nsec >= 1000000000)
    {
        deadline.tv_nsec -= 1000000000;
        ++deadline.tv_sec;
    }
    return deadline;
}

// Runs a routine in a thread of its own and hands back what it returned.
static inline long InThread(void* (*pRoutine)(void*), void* pArgument)
{
    pthread_t thread;
    void* pResult = NULL;
    Check(pthread_create(&thread, NULL, pRoutine, pArgument) == 0, "create");
    Check(pthread_join(thread, &pResult) == 0, "join");
    return (long)pResult;
}
