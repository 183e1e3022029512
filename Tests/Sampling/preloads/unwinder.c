// Found by the agent in the unwinder's place: makes up call stacks, and tells how it was asked.
//
//   ZORV_TEST_FRAMES=N    how many frames it finds
#define _GNU_SOURCE
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;

int unw_backtrace(void** ppBuffer, int size);

int unw_backtrace(void** ppBuffer, int size)
{
    static int wanted = -100;
    if (wanted == -100)
    {
        wanted = atoi(getenv("ZORV_TEST_FRAMES"));
    }
    // what an unwinder calls on its way is not the program's doing
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
    // the first entry tells the room that there was
    for (int i = 0; i < wanted && i < size; ++i)
    {
        ppBuffer[i] = (void*)(long)(i == 0 ? size : 1000 + i);
    }
    return wanted < size ? wanted : size;
}
