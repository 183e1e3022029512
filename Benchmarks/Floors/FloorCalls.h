// The calls that the floors interpose, one row each: every loop of Programs/CallCost.c has its row here.
//
//   FLOOR_CALL(name, result type, parameters, arguments, the value a record keeps as the call's object)
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <sys/types.h>

#define FLOOR_CALLS(FLOOR_CALL)                                                                                \
    FLOOR_CALL(pthread_mutex_lock, int, (pthread_mutex_t * pMutex), (pMutex), (uintptr_t)pMutex)               \
    FLOOR_CALL(sem_wait, int, (sem_t * pSemaphore), (pSemaphore), (uintptr_t)pSemaphore)                       \
    FLOOR_CALL(write, ssize_t, (int fd, const void* pData, size_t size), (fd, pData, size), (uintptr_t)fd)     \
    FLOOR_CALL(read, ssize_t, (int fd, void* pData, size_t size), (fd, pData, size), (uintptr_t)fd)

#define FLOOR_EXPORT __attribute__((visibility("default")))
#define FLOOR_UNLIKELY(condition) __builtin_expect(!!(condition), 0)
