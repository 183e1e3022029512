// Preloaded behind the agent, in libc's place: holds a call of the pthread family until the test opens the
// gate.
//   ZORV_TEST_GATE=OUT,IN   descriptors: one byte is written to OUT when a call arrives, and the call goes on
//   when
//                           one byte came from IN
//   ZORV_TEST_GATE_RESULT   what the call gives back
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static int HoldCall(void)
{
    int out = -1;
    int in = -1;
    char byte = 'e';
    const char* pResult = getenv("ZORV_TEST_GATE_RESULT");
    if (sscanf(getenv("ZORV_TEST_GATE"), "%d,%d", &out, &in) != 2 || write(out, &byte, 1) != 1 ||
        read(in, &byte, 1) != 1)
    {
        abort();
    }
    return pResult ? atoi(pResult) : 0;
}

#define GATE(name, ...)                                                                                        \
    int name(__VA_ARGS__)                                                                                      \
    {                                                                                                          \
        return HoldCall();                                                                                     \
    }

#pragma GCC diagnostic ignored "-Wunused-parameter"
GATE(pthread_mutex_lock, pthread_mutex_t* pMutex)
GATE(pthread_mutex_trylock, pthread_mutex_t* pMutex)
GATE(pthread_spin_lock, pthread_spinlock_t* pSpin)
GATE(pthread_cancel, pthread_t thread)
GATE(sem_timedwait, sem_t* pSemaphore, const struct timespec* pDeadline)

int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pRoutine)(void*),
                   void* pArgument)
{
    int (*pReal)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) =
        (int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*))dlvsym(RTLD_NEXT, "pthread_create",
                                                                                    "GLIBC_2.34");
    int result = pReal(pThread, pAttributes, pRoutine, pArgument);
    HoldCall();
    return result;
}
