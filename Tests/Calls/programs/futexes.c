// futexes OPERATIONS: the syscall function with futex and with other numbers. Says for each call
//   call OPERATION RESULT ERRNO ADDRESS
#include "blackbox.h"
#include <linux/futex.h>
#include <time.h>

#define UNTOUCHED 4242

static const struct timespec g_soon = {0, 1000};
static uint32_t g_words[16];

// The fourth argument of what moves waiters is a count.
static int TakesCount(int operation)
{
    int plain = operation & ~(FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME);
    return plain == FUTEX_REQUEUE || plain == FUTEX_CMP_REQUEUE || plain == FUTEX_WAKE_OP ||
           plain == FUTEX_CMP_REQUEUE_PI;
}

// Operations that would wait find another value in the word, or time out.
static void CallFutex(int operation)
{
    uint32_t* pWord = &g_words[operation & 15];
    long fourth = TakesCount(operation) ? 1 : (long)&g_soon;
    errno = UNTOUCHED;
    long result = syscall(SYS_futex, pWord, operation, 1, fourth, &g_words[15], 1);
    int error = errno;
    Say("call %d %ld %d %lu", operation, result, error, (unsigned long)pWord);
}

// With errno as natively also where a record is parked and completed.
static void CallAllOperations(void)
{
    static const int flags[] = {0, FUTEX_PRIVATE_FLAG, FUTEX_CLOCK_REALTIME,
                                FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME};
    for (int operation = 0; operation < 16; ++operation)
    {
        for (unsigned i = 0; i < sizeof(flags) / sizeof(flags[0]); ++i)
        {
            CallFutex(operation | flags[i]);
        }
    }
    CallFutex(0x40000000);
}

static void CallOtherNumbers(void)
{
    Say("call getpid %d", syscall(SYS_getpid) == getpid());
    errno = UNTOUCHED;
    Say("call missing %ld", syscall(7777, 1, 2, 3, 4, 5, 6));
    Say("errno %d", errno);
    int ends[2];
    Say("call pipe2 %ld", syscall(SYS_pipe2, ends, O_CLOEXEC));
    Say("call read %ld", syscall(SYS_read, -1, NULL, 0));
    // all six arguments arrive
    void* pMemory = (void*)syscall(SYS_mmap, NULL, 4096, 3, 0x22, -1, 0);
    Say("call mmap %d", pMemory != (void*)-1 && *(volatile char*)pMemory == 0);
}

int main(int count, char** ppArguments)
{
    Check(count == 2, "usage");
    if (strcmp(ppArguments[1], "futex") == 0)
    {
        CallAllOperations();
    }
    if (strcmp(ppArguments[1], "other") == 0)
    {
        CallOtherNumbers();
    }
    return 10;
}
