// Calls every row through its name, with libc's place taken by the stand-in (preloads/fake.c), and says for
// each call whether what arrived there and what came back are what was given.
//   faked outcomes    each call with each outcome
//   faked lookups     each call twice while look-ups are forbidden, once after that
// The program's own output goes past every name that is stood in for.
#define _GNU_SOURCE
#include "fake.h"
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define UNTOUCHED 4242

// The seventh argument is on the stack.
#define CALL(class, name, shape)                                                                               \
    extern long Call_##name(long, long, long, long, long, long, long) __asm__(#name);
#include "calls.def"
#undef CALL

struct Row
{
    const char* m_pName;
    const char* m_pShape;
    long (*m_pCall)(long, long, long, long, long, long, long);
};

static struct FakeCall* g_pFake;
static const void* (*g_pFakeAddress)(const char*);

static void Say(const char* pFormat, ...)
{
    char line[512];
    va_list arguments;
    va_start(arguments, pFormat);
    long length = vsnprintf(line, sizeof(line), pFormat, arguments);
    va_end(arguments);
    long result = 1; // write
    __asm__ volatile("syscall" : "+a"(result) : "D"(1L), "S"(line), "d"(length) : "rcx", "r11", "memory");
}

// An int is as wide as its register's lower half; what stands above it is anybody's.
static uint64_t Wide(char shape, long value)
{
    return shape == 'i' ? (uint32_t)value : (uint64_t)value;
}

static long Argument(int position, int round, char shape)
{
    uint64_t value = 0x1010101010101010ull * (unsigned)(position + 1) + (unsigned)round;
    return (long)(shape == 'i' ? value & 0x7fffffff : value);
}

static const struct
{
    long m_result;
    int m_errno;
} g_outcomes[] = {
    {0, 0}, {-1, 38}, {0x12345678, 0}, {0x123456789abcdef0, 77}, {1, 11}, {-2, 0}, {-4095, 4},
};

static void TellArguments(const struct Row* pRow, int round)
{
    const char* pParameters = pRow->m_pShape + 1;
    for (int i = 0; pParameters[i]; ++i)
    {
        uint64_t given = Wide(pParameters[i], Argument(i, round, pParameters[i]));
        uint64_t seen = Wide(pParameters[i], g_pFake->m_seen[i]);
        Say(given == seen ? " same" : " %d:%lx->%lx", i + 1, given, seen);
    }
}

static void MakeCall(const struct Row* pRow, int round)
{
    long arguments[FAKE_ARGUMENTS] = {0};
    for (int i = 0; pRow->m_pShape[i + 1]; ++i)
    {
        arguments[i] = Argument(i, round, pRow->m_pShape[i + 1]);
    }
    long before = g_pFake->m_count;
    errno = UNTOUCHED;
    long result = pRow->m_pCall(arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                                arguments[5], arguments[6]);
    int error = errno;
    Say("%s round %d arrived %ld as %s arguments", pRow->m_pName, round, g_pFake->m_count - before,
        g_pFake->m_count == before ? "-" : g_pFake->m_pName);
    if (g_pFake->m_count != before)
    {
        TellArguments(pRow, round);
    }
    if (pRow->m_pShape[0] != 'v')
    {
        Say(" result %lx", Wide(pRow->m_pShape[0], result));
    }
    Say(" errno %d\n", error);
}

static void MakeCallWithEachOutcome(const struct Row* pRow)
{
    for (unsigned round = 0; round < sizeof(g_outcomes) / sizeof(g_outcomes[0]); ++round)
    {
        g_pFake->m_result = g_outcomes[round].m_result;
        g_pFake->m_errno = g_outcomes[round].m_errno;
        MakeCall(pRow, (int)round);
    }
}

static const struct Row g_rows[] = {
#define CALL(class, name, shape) {#name, shape, Call_##name},
#include "calls.def"
#undef CALL
};

static void ForEachRow(void (*pVisit)(const struct Row*))
{
    for (unsigned i = 0; i < sizeof(g_rows) / sizeof(g_rows[0]); ++i)
    {
        pVisit(&g_rows[i]);
    }
}

static void TellAddress(const struct Row* pRow)
{
    Say("address %s %lu\n", pRow->m_pName, (unsigned long)g_pFakeAddress(pRow->m_pName));
}

static void MakeTwoCalls(const struct Row* pRow)
{
    MakeCall(pRow, 0);
    MakeCall(pRow, 1);
}

static void MakeOneCall(const struct Row* pRow)
{
    MakeCall(pRow, 2);
}

int main(int count, char** ppArguments)
{
    g_pFake = dlsym(RTLD_DEFAULT, "g_fakeCall");
    g_pFakeAddress = (const void* (*)(const char*))dlsym(RTLD_DEFAULT, "FakeAddress");
    if (count != 2 || !g_pFake || !g_pFakeAddress)
    {
        return 2;
    }
    if (strcmp(ppArguments[1], "outcomes") == 0)
    {
        ForEachRow(MakeCallWithEachOutcome);
    }
    else
    {
        void (*pAllow)(void) = (void (*)(void))dlsym(RTLD_DEFAULT, "AllowLookUps");
        g_pFake->m_result = 5;
        ForEachRow(MakeTwoCalls);
        pAllow();
        ForEachRow(MakeOneCall);
    }
    ForEachRow(TellAddress);
    return 6;
}
