// How the calls of every_call are made: each through one of these macros, which note the call, its result and
// errno.
//
// What is printed (Note) must not depend on the run, so pids, ids and addresses are noted by their relations.
// Beside it stands, for each call that is traced, which record it must leave (a line that begins with @).
#pragma once

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

// A call that succeeds leaves errno alone.
#define UNTOUCHED 4242

void Note(const char* pFormat, ...) __attribute__((format(printf, 1, 2)));
void NoteCall(const char* pName, const char* pArguments, long result, int error);
void NoteKind(const char* pName, const char* pArguments, long result, int error);
void NoteVoid(const char* pName, const char* pArguments, int error);
void NoteError(const char* pName, const char* pArguments, int result);
// The record that the last call must leave: its value, and its result as a pthread record holds it.
void ExpectRecord(const char* pName, uint64_t value, int result);

#define CALL_AND(note, value, name, ...)                                                                       \
    ({                                                                                                         \
        errno = UNTOUCHED;                                                                                     \
        __typeof__(name(__VA_ARGS__)) result_ = name(__VA_ARGS__);                                             \
        int error_ = errno;                                                                                    \
        note(#name, "" #__VA_ARGS__, (long)result_, error_);                                                   \
        ExpectRecord(#name, (value), (int)(long)result_);                                                      \
        result_;                                                                                               \
    })
#define CALL(name, ...) CALL_AND(NoteCall, 0, name __VA_OPT__(, ) __VA_ARGS__)
// the result is an id or an address: noted as negative, zero or positive
#define CALL_KIND(name, ...) CALL_AND(NoteKind, 0, name __VA_OPT__(, ) __VA_ARGS__)
// a mapping: its address is the record's value
#define CALL_MAP(name, ...)                                                                                    \
    CALL_AND(NoteKind, (uint64_t)(unsigned long)result_, name __VA_OPT__(, ) __VA_ARGS__)
#define CALL_VOID(name)                                                                                        \
    ({                                                                                                         \
        errno = UNTOUCHED;                                                                                     \
        name();                                                                                                \
        NoteVoid(#name, "", errno);                                                                            \
        ExpectRecord(#name, 0, 0);                                                                             \
    })
// of the pthread family: the first argument is the record's lock address
#define CALL_LOCK(name, object, ...)                                                                           \
    CALL_AND(NoteCall, (uint64_t)(unsigned long)(object), name, (object)__VA_OPT__(, ) __VA_ARGS__)

void CallFiles(void);
void CallReadsAndWrites(void);
void CallSockets(void);
void CallMessages(void);
void CallMemory(void);
void CallProcesses(void);
void CallThreads(void);
void CallWaits(void);
