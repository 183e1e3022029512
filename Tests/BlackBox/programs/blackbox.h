// What the test programs share: talking to the test through pipes, and knowing that a thread is parked.
#pragma once

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static inline pid_t OwnTid(void)
{
    return (pid_t)syscall(SYS_gettid);
}

// One line to the test, at once and in one piece.
static inline void __attribute__((format(printf, 1, 2))) Say(const char* pFormat, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, pFormat);
    int length = vsnprintf(line, sizeof(line) - 1, pFormat, arguments);
    va_end(arguments);
    line[length] = '\n';
    if (write(STDOUT_FILENO, line, (size_t)length + 1) != length + 1)
    {
        abort();
    }
}

// Waits for the test's next line; 0 at the end of input.
static inline int Hear(char* pLine, size_t size)
{
    size_t length = 0;
    char letter;
    while (read(STDIN_FILENO, &letter, 1) == 1)
    {
        if (letter == '\n')
        {
            pLine[length] = 0;
            return 1;
        }
        if (length + 1 < size)
        {
            pLine[length++] = letter;
        }
    }
    return 0;
}

static inline void Check(int condition, const char* pWhat)
{
    if (!condition)
    {
        fprintf(stderr, "test program: %s failed (errno %d)\n", pWhat, errno);
        abort();
    }
}

// Is the thread inside the futex system call, on a word inside of the object? (no object: on any word)
static inline int IsParked(pid_t tid, const void* pObject, size_t size)
{
    char path[64];
    char text[256] = "";
    snprintf(path, sizeof(path), "/proc/self/task/%d/syscall", tid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, text, sizeof(text) - 1) < 0)
    {
        text[0] = 0;
    }
    close(fd);
    unsigned long word = 0;
    if (sscanf(text, "202 %lx", &word) != 1)
    {
        return 0;
    }
    return !pObject || word - (unsigned long)pObject < size;
}

static inline void WaitUntilParked(pid_t tid, const void* pObject, size_t size)
{
    while (!IsParked(tid, pObject, size))
    {
        usleep(500);
    }
}
